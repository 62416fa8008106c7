#!/usr/bin/env bash
# Runs one JUnit class in a JVM with the agent loaded and JNI checking on.
# Usage: run-junit.sh JAVA AGENT CLASSPATH CLASS [JVM options...]
# Fails when a test fails or when the JVM printed any JNI warning: the agent must never misuse JNI.
set -u
java=$1 agent=$2 classpath=$3 class=$4
shift 4
output=$(mktemp)
trap 'rm -f "$output"' EXIT
"$java" -Xcheck:jni -agentpath:"$agent" "$@" -cp "$classpath" \
  org.junit.platform.console.ConsoleLauncher --disable-banner --disable-ansi-colors \
  --fail-if-no-tests --details=tree --select-class "$class" >"$output" 2>&1
status=$?
cat "$output"
if grep -E 'WARNING in native method|FATAL ERROR in native method|JNI local refs: [0-9]+, exceeds capacity' "$output" >/dev/null; then
  echo "run-junit: the JVM reported JNI misuse (see above)" >&2
  status=1
fi
exit $status
