#!/usr/bin/env bash
# Builds the library and runs the demo: an application that debugs and inspects itself.
set -eu
cd "$(dirname "$0")"
bash tools/deps.sh test
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target kvjvmti kv_demo >/dev/null
java_home=$(sed -n 's/^KV_JAVA_HOME:PATH=//p' build/CMakeCache.txt)
exec "$java_home/bin/java" -agentpath:"$PWD/build/libkvjvmti.so" \
  -cp build/kvjvmti-api.jar:build/kvjvmti-demo.jar com.brantide.kelvane.demo.Demo "${1:-$PWD/build}"
