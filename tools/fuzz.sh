#!/usr/bin/env bash
# Fuzzes the SMAP line mapper with libFuzzer under AddressSanitizer and UndefinedBehaviorSanitizer.
# Usage: fuzz.sh [seconds, default 180]. Builds into build-fuzz/, runs on a copy of the seed corpus
# there (the seeds in the tree stay as they are) and fails on any crash, leak or sanitizer report.
set -eu
seconds="${1:-180}"
root="$(cd "$(dirname "$0")/.." && pwd)"
out="$root/build-fuzz"

bash "$root/tools/deps.sh" fuzz
cxx="$(command -v clang++-14 || command -v clang++)"

# The JDK whose headers the library builds against, found as the CMake build finds it.
java_home="${KV_JAVA_HOME:-${JAVA_HOME:-}}"
if [ -z "$java_home" ] || [ ! -f "$java_home/include/jni.h" ]; then
  java_home="$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")"
fi
[ -f "$java_home/include/jni.h" ] || { echo "no JDK with include/jni.h found; set KV_JAVA_HOME" >&2; exit 1; }

mkdir -p "$out"
"$cxx" -std=c++17 -g -O1 -Wall -Wextra -Werror -Wshadow \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer \
  -I"$root/src/main/cpp" -I"$java_home/include" -I"$java_home/include/linux" \
  "$root/src/main/cpp/smap.cpp" "$root/src/test/fuzz/smap_fuzz.cpp" -o "$out/smap_fuzz"

corpus="$out/corpus/smap"
mkdir -p "$corpus"
cp -n "$root"/src/test/fuzz/corpus/smap/* "$corpus"/
cd "$out"
# libFuzzer exits non-zero on a crash, a timeout or a sanitizer report and writes the input that
# caused it to build-fuzz/ as crash-*, leak-* or timeout-*.
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1 \
  ./smap_fuzz -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
  -print_final_stats=1 "$corpus"
