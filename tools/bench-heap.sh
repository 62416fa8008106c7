#!/usr/bin/env bash
# Builds the library and the heap benchmark in their own build tree and runs the benchmark on
# every JDK 17+ present. Usage: tools/bench-heap.sh [BUILD_DIR]   (default: build-bench)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}
cmake -S "$root" -B "$build" -DKV_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target kvjvmti kv_bench_heap_floor kv_bench_heap_jar
cmake --build "$build" --target bench-heap
