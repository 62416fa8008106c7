#!/usr/bin/env bash
# Fuzzes the readers of what class files bring from outside the agent (SMAP line mapping, line
# tables), each against a second implementation of the same answer, with libFuzzer under
# AddressSanitizer and UndefinedBehaviorSanitizer.
# Usage: fuzz.sh [seconds per target, default 180] [target...]   (all targets when none is named)
#        fuzz.sh --list                                           (the target names)
# Builds into build-fuzz/ (or $KV_FUZZ_OUT), runs each target on a copy of its seed corpus there
# (the seeds in the tree stay as they are) and fails on any crash, leak, timeout or sanitizer
# report; the input that caused it is left there as <target>-crash-*, -leak-*, -timeout-* or -oom-*.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"

# Each target: its fuzzer source in src/test/fuzz/<target>_fuzz.cpp, the library source it tests
# in src/main/cpp/<target>.cpp and its seed corpus in src/test/fuzz/corpus/<target>/. An optional
# libFuzzer dictionary src/test/fuzz/<target>.dict steers the mutations towards the grammar.
targets="smap line_table"

if [ "${1:-}" = --list ]; then
  for target in $targets; do echo "$target"; done
  exit 0
fi
seconds="${1:-180}"
[ $# -gt 0 ] && shift
selected="${*:-$targets}"
out="${KV_FUZZ_OUT:-$root/build-fuzz}"

bash "$root/tools/deps.sh" fuzz
cxx="$(command -v clang++-14 || command -v clang++)"

# The JDK whose headers the library builds against, found as the CMake build finds it.
java_home="${KV_JAVA_HOME:-${JAVA_HOME:-}}"
if [ -z "$java_home" ] || [ ! -f "$java_home/include/jni.h" ]; then
  java_home="$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")"
fi
[ -f "$java_home/include/jni.h" ] || { echo "no JDK with include/jni.h found; set KV_JAVA_HOME" >&2; exit 1; }

mkdir -p "$out"
status=0
for target in $selected; do
  case " $targets " in *" $target "*) ;; *) echo "unknown fuzz target '$target' (known: $targets)" >&2; exit 1 ;; esac
  "$cxx" -std=c++17 -g -O1 -Wall -Wextra -Werror -Wshadow \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer \
    -I"$root/src/main/cpp" -I"$java_home/include" -I"$java_home/include/linux" \
    "$root/src/main/cpp/$target.cpp" "$root/src/test/fuzz/${target}_fuzz.cpp" -o "$out/${target}_fuzz"

  corpus="$out/corpus/$target"
  mkdir -p "$corpus"
  cp -n "$root/src/test/fuzz/corpus/$target"/* "$corpus"/
  dict=""
  [ -f "$root/src/test/fuzz/$target.dict" ] && dict="-dict=$root/src/test/fuzz/$target.dict"
  echo "== fuzzing $target for ${seconds}s"
  # Artifacts go next to the binaries, named after the target, so that parallel runs of several
  # targets never mix their findings. The full libFuzzer output stays in <target>.log.
  set +e
  # shellcheck disable=SC2086
  (cd "$out" && UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1 \
    "./${target}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -print_final_stats=1 -artifact_prefix="$out/${target}-" $dict "$corpus") >"$out/${target}.log" 2>&1
  result=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/${target}.log")
  units=$(find "$corpus" -type f | wc -l)
  if [ $result -ne 0 ]; then
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written|^ +#[0-9]+ ' "$out/${target}.log" | head -40 >&2
    echo "== $target FAILED (exit $result): see $out/${target}.log and $out/${target}-*" >&2
    status=1
  else
    echo "== $target ok: ${runs:-?} runs in ${seconds}s, corpus $units inputs"
  fi
done
exit $status
