#!/usr/bin/env bash
# The full reliability run, one step after the other, each in its own build directory:
#   1. the JUnit suite in JVMs with the agent built with ASan and UBSan, LeakSanitizer looking at
#      the agent's own allocations over many rounds of every feature (tools/sanitize-jvm.sh);
#   2. every fuzz target for the given minutes (tools/fuzz.sh);
#   3. the storm at full length (tools/storm.sh);
#   4. the soak: the agent in an embedded Tomcat debugging its own JSP under load (tools/soak.sh);
#   5. the JUnit suite on the build's JDK and on every newer JDK present (tools/jdk-matrix.sh).
# A failing step does not stop the others; the run fails if any step failed. The figures of every
# step are printed together at the end; the full output of each step is in build-reliability/logs.
# Usage: reliability.sh [minutes of fuzzing per target, default 5] [storm seconds, default 60]
set -u
root="$(cd "$(dirname "$0")/.." && pwd)"
minutes="${1:-5}"
storm_seconds="${2:-60}"
logs="${KV_RELIABILITY_BUILD:-$root/build-reliability}/logs"
mkdir -p "$logs"

summary=()
overall=0
step() {
  local name=$1 log="$logs/$1.log"
  shift
  echo "== $name: $*"
  local start=$SECONDS
  "$@" >"$log" 2>&1
  local status=$?
  local result="passed"
  [ $status -ne 0 ] && { result="FAILED (exit $status, see $log)"; overall=1; }
  summary+=("$name: $result in $((SECONDS - start)) s")
  echo "   $result"
}

step sanitized-junit bash "$root/tools/sanitize-jvm.sh"
step fuzz bash "$root/tools/fuzz.sh" $((minutes * 60))
step storm bash "$root/tools/storm.sh" "$storm_seconds"
step soak bash "$root/tools/soak.sh"
step jdk-matrix bash "$root/tools/jdk-matrix.sh"

echo
echo "== reliability figures"
for line in "${summary[@]}"; do echo "$line"; done
echo "-- sanitized JUnit run"
grep -h -E '^(sanitized JVM run|agent heap|LeakSanitizer after)' "$logs/sanitized-junit.log"
echo "-- fuzzing ($minutes min per target)"
grep -h -E '^== .* (ok|FAILED)' "$logs/fuzz.log"
echo "-- storm"
grep -h -E '^storm' "$logs/storm.log"
echo "-- soak"
# The figures of each run, without the notes and log lines indented under them.
grep -h -E '^soak ([^ ]|  [^ ])' "$logs/soak.log"
echo "-- JDK matrix"
grep -h -E '^(JDK [0-9]+:|virtual threads:)' "$logs/jdk-matrix.log"
exit $overall
