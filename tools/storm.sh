#!/usr/bin/env bash
# The storm at full length: StormTest (everything the agent does, at once, in a child JVM under JNI
# checking, with jcmd data dumps from outside; then its exits mid-storm and the suspension races) for
# the given number of seconds instead of the 15 of the everyday suite. Builds into
# build-reliability/ (or $KV_RELIABILITY_BUILD).
# Usage: storm.sh [seconds, default 60, at most 480]  (both stepping modes and, where a JDK 21 or
# later is present, short-lived virtual threads, one after the other)
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
out="${KV_RELIABILITY_BUILD:-$root/build-reliability}"
# The test has ctest's ten minutes, child start and checks included.
[ "$seconds" -le 480 ] || { echo "at most 480 seconds" >&2; exit 2; }

bash "$root/tools/deps.sh" test
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON >/dev/null
cmake --build "$out" -j"$(nproc)" >/dev/null
set +e
(cd "$out" && KV_STORM_SECONDS="$seconds" ctest --output-on-failure -R '^junit\.StormTest(\.compiledStepping|\.virtualThreads)?$')
status=$?
set -e
grep -h '^storm ' "$out/Testing/Temporary/LastTest.log" || echo "storm: no figures (the child failed before the end)"
exit $status
