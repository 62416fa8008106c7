#!/usr/bin/env bash
# Runs the whole JUnit suite on the build's JDK and again on every newer JDK: those given as
# arguments (JDK homes), or else every one under /usr/lib/jvm. The same jars (Java 17 bytecode) and
# the same agent (built against the JDK 17 headers) serve every JDK. Builds into
# build-reliability/ (or $KV_RELIABILITY_BUILD); the tests of JDK N are junit.<name>.jdk<N>.
# Usage: jdk-matrix.sh [JDK home...]
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${KV_RELIABILITY_BUILD:-$root/build-reliability}"
jdks="auto"
[ $# -gt 0 ] && jdks="$(IFS=';'; echo "$*")"

bash "$root/tools/deps.sh" test
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON "-DKV_TEST_JDKS=$jdks" | grep -E '^-- (JDK|JUnit suite also)' || true
cmake --build "$out" -j"$(nproc)" >/dev/null
# The list first: a listing run of ctest replaces the logs of the real one.
tests=$(cd "$out" && ctest -N -L junit | sed -n 's/^ *Test *#[0-9]*: //p')
set +e
(cd "$out" && ctest --output-on-failure -j2 -L junit)
status=$?
set -e
# One line per JDK: the build's tests carry no suffix, those of JDK N end in .jdk<N>.
build_jdk=$(sed -n 's/^KV_JAVA_HOME:PATH=//p' "$out/CMakeCache.txt")
build_version=$(sed -n 's/^JAVA_VERSION="\([0-9]*\).*/\1/p' "$build_jdk/release")
failed_log="$out/Testing/Temporary/LastTestsFailed.log"
[ $status -eq 0 ] && failed_log=/dev/null
echo "$tests" | awk -v build="$build_version" -v failures="$failed_log" '
    FILENAME == failures { sub(/^[0-9]+:/, ""); failed[$0] = 1; next }
    { jdk = build; if (match($0, /\.jdk[0-9]+$/)) jdk = substr($0, RSTART + 4)
      tests[jdk]++; if ($0 in failed) { bad[jdk]++; names[jdk] = names[jdk] " " $0 } }
    END { for (jdk in tests) printf "JDK %s: %d tests, %d failed%s\n", jdk, tests[jdk], bad[jdk], names[jdk] }' \
    "$failed_log" -
# What virtual threads met, on the JDKs that have them.
grep -h '^virtual threads:' "$out/Testing/Temporary/LastTest.log" || true
exit $status
