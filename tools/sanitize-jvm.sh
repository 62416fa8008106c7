#!/usr/bin/env bash
# Runs the JUnit suite in real JVMs with the agent (and its probe variant) built with
# AddressSanitizer and UndefinedBehaviorSanitizer, into build-asan/ (or $KV_ASAN_BUILD).
# Usage: sanitize-jvm.sh [ctest arguments, default: -L junit]
#
# The JVM loads the agent long after it started, so the ASan runtime is preloaded into every java
# process (child JVMs and jcmd inherit it). The JVM catches SIGSEGV and SIGBUS on purpose (null
# checks, safepoint polls, stack banging): ASan must leave those signals to it. Leak checking at
# exit is off, because at exit the JVM abandons memory by design; AgentMemoryProbeTest runs
# LeakSanitizer itself, at chosen moments, over the agent's own allocations.
# Fails when a test fails or when any process printed a sanitizer report.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${KV_ASAN_BUILD:-$root/build-asan}"
[ $# -eq 0 ] && set -- -L junit

bash "$root/tools/deps.sh" test
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON -DKV_SANITIZE_AGENT=ON >/dev/null
cmake --build "$out" -j"$(nproc)" >/dev/null

reports="$out/sanitizer-reports"
rm -rf "$reports"
mkdir -p "$reports"
asan="$(gcc -print-file-name=libasan.so)"
ubsan="$(gcc -print-file-name=libubsan.so)"
[ -f "$asan" ] && [ -f "$ubsan" ] || { echo "sanitizer runtimes not found ($asan, $ubsan)" >&2; exit 1; }

# ASan reports go to files (one per process), so that no test that reads a child's error output
# is disturbed and no report can hide in a child's output that nobody prints. UBSan writes to the
# standard error of the process and, halting, makes the test fail with that output shown.
export LD_PRELOAD="$asan:$ubsan"
export ASAN_OPTIONS="handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:allow_user_segv_handler=1:detect_leaks=1:leak_check_at_exit=0:log_path=$reports/asan"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# LeakSanitizer's walk of dynamic thread-local storage reads bogus ranges in the JVM's threads
# (and dies); the agent keeps nothing only there, so thread-local storage is left out of its roots.
export LSAN_OPTIONS="use_tls=0"
command -v llvm-symbolizer >/dev/null && export ASAN_SYMBOLIZER_PATH="$(command -v llvm-symbolizer)"

set +e
(cd "$out" && ctest --output-on-failure -j2 "$@")
status=$?
set -e
unset LD_PRELOAD

# LeakSanitizer reports that AgentMemoryProbeTest asked for are its own to judge (they count the
# JVM's abandoned blocks too); every other report is a failure.
found=$(grep -l -E 'ERROR: AddressSanitizer|runtime error:' "$reports"/asan.* 2>/dev/null || true)
ubsan_lines=$(grep -c 'runtime error:' "$out/Testing/Temporary/LastTest.log" || true)
asan_lines=$(grep -c 'ERROR: AddressSanitizer' "$out/Testing/Temporary/LastTest.log" || true)
if [ -n "$found" ] || [ "${ubsan_lines:-0}" -gt 0 ] || [ "${asan_lines:-0}" -gt 0 ]; then
  echo "sanitizer reports:" >&2
  for file in $found; do echo "== $file" >&2; head -60 "$file" >&2; done
  grep -B2 -A20 -E 'runtime error:|ERROR: AddressSanitizer' "$out/Testing/Temporary/LastTest.log" | head -120 >&2
  status=1
fi
tests=$(grep -c '^Test time' "$out/Testing/Temporary/LastTest.log" || true)
echo "sanitized JVM run: $tests tests, exit $status, ASan reports: $(echo "$found" | grep -c . || true)," \
     "UBSan reports: ${ubsan_lines:-0}"
grep -h -E '^(agent heap|LeakSanitizer after)' "$out/Testing/Temporary/LastTest.log" || true
exit $status
