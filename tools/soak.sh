#!/usr/bin/env bash
# The soak: the agent inside an embedded Tomcat 9 of Debian's jars, whose web application debugs its
# own JSP under local load (SoakMain: breakpoints switched per request thread and VM-wide, locals
# and step-overs checked through the page's source map, heap walks during the load, a clean stop),
# plainly and under -Xcheck:jni, on each JDK home given; by default on the build's JDK and, where
# present, a JDK 25. Builds into build-reliability/ (or $KV_RELIABILITY_BUILD). A phase of the load
# ends after KV_SOAK_REQUESTS requests (default 10000) or KV_SOAK_SECONDS seconds (default 120),
# whichever comes first.
# Usage: soak.sh [JDK home...]
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${KV_RELIABILITY_BUILD:-$root/build-reliability}"

bash "$root/tools/deps.sh" soak
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON >/dev/null
cmake --build "$out" -j"$(nproc)" --target kvjvmti kv_java_tests >/dev/null
build_jdk=$(sed -n 's/^KV_JAVA_HOME:PATH=//p' "$out/CMakeCache.txt")
if [ $# -eq 0 ]; then
  set -- "$build_jdk"
  for home in /usr/lib/jvm/*; do
    # Debian lists each JDK under several names (symbolic links): take one real directory.
    if [ ! -L "$home" ] && grep -qs '^JAVA_VERSION="25' "$home/release"; then
      set -- "$@" "$home"
      break
    fi
  done
fi
# Each run keeps its server's output and web application in a directory of its own here.
rm -rf "$out/soak"
status=0
for jdk in "$@"; do
  # shellcheck disable=SC2086
  "$build_jdk/bin/java" "-Dkv.soak.jdk=$jdk" ${KV_SOAK_REQUESTS:+-Dkv.soak.requests=$KV_SOAK_REQUESTS} \
    ${KV_SOAK_SECONDS:+-Dkv.soak.seconds=$KV_SOAK_SECONDS} @"$out/soak.args" || status=1
done
exit $status
