#!/usr/bin/env bash
# The soak: the agent inside an embedded Tomcat 9 of Debian's jars, whose web application debugs its
# own JSP under local load (SoakMain: breakpoints switched per request thread and VM-wide, locals
# and step-overs checked through the page's source map, heap walks during the load, a clean stop),
# plainly and under -Xcheck:jni, on each JDK home given; by default on the build's JDK and, where
# present, a JDK 25. Each run's error output must hold no agent ERROR or WARN line and no JNI
# warning. Builds into build-reliability/ (or $KV_RELIABILITY_BUILD). A phase of the load ends after
# KV_SOAK_REQUESTS requests (default 10000) or KV_SOAK_SECONDS seconds (default 120).
# Usage: soak.sh [JDK home...]
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${KV_RELIABILITY_BUILD:-$root/build-reliability}"

bash "$root/tools/deps.sh" soak
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON >/dev/null
cmake --build "$out" -j"$(nproc)" --target kvjvmti kv_java_tests >/dev/null
if [ $# -eq 0 ]; then
  set -- "$(sed -n 's/^KV_JAVA_HOME:PATH=//p' "$out/CMakeCache.txt")"
  for home in /usr/lib/jvm/*; do
    # Debian lists each JDK under several names (symbolic links): take one real directory.
    if [ ! -L "$home" ] && grep -qs '^JAVA_VERSION="25' "$home/release"; then set -- "$@" "$home"; break; fi
  done
fi
rm -rf "$out/soak"
mkdir -p "$out/soak"
status=0
for jdk in "$@"; do
  for check in "" -Xcheck:jni; do
    err="$out/soak/$(basename "$jdk")${check:+-checkjni}.err"
    version=$("$jdk/bin/java" -version 2>&1 | sed -n 's/.*version "\([^"]*\)".*/\1/p')
    echo "soak JDK $version ${check:-plain}"
    # shellcheck disable=SC2086
    timeout 1800 "$jdk/bin/java" $check ${KV_SOAK_REQUESTS:+-Dkv.soak.requests=$KV_SOAK_REQUESTS} \
      ${KV_SOAK_SECONDS:+-Dkv.soak.seconds=$KV_SOAK_SECONDS} @"$out/soak.args" 2>"$err" && run=0 || run=$?
    agent=$(grep -c -E '^(ERROR|WARN ) Kelvane JVMTI: ' "$err" || true)
    jni=$(grep -c -E 'WARNING in native method|FATAL ERROR in native method|JNI local refs: [0-9]+, exceeds capacity' "$err" || true)
    echo "soak   agent ERROR/WARN lines $agent, JNI warnings $jni, exit status $run (error output: $err)"
    if [ "$run" -ne 0 ] || [ "$agent" -ne 0 ] || [ "$jni" -ne 0 ]; then status=1; fi
  done
done
exit $status
