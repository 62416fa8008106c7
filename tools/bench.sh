#!/usr/bin/env bash
# Runs the benchmarks.
# Usage: tools/bench.sh debug|heap|host [standard|diagnostics|all|configuration key,...]|all
#   debug  the debugging path (bench/debug) on every JDK 17+ present: the build's JDK and each JDK
#          under /usr/lib/jvm; figures, ratios against baselines of the same run, goals ok/MISSED
#   heap   the heap analysis benchmarks (tools/bench-heap.sh)
#   host   what the agent costs the host's own speed (bench/host) on every JDK 17+ present: no agent,
#          the library loaded, switched on, in inspection-only mode, and JDWP (standard); the floor
#          agent holding one capability or event at a time (diagnostics, about 15 minutes per JDK)
#   all    debug, heap and host (standard)
# The debug and host benchmarks build in $KV_BENCH_BUILD_DIR (default: build-bench). For host,
# $KV_BENCH_ROUNDS sets the JVMs per configuration and workload (default 3) and $KV_BENCH_WORKLOADS
# picks workloads (e.g. boxing,classes; javac runs inside classes).
set -eu
cd "$(dirname "$0")/.."
root=$PWD
build=${KV_BENCH_BUILD_DIR:-$root/build-bench}

usage() {
    sed -n '3,11p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

# The JDK's feature version, from its own java.
feature_version() {
    "$1/bin/java" -XshowSettings:properties -version 2>&1 |
        sed -n 's/^ *java\.specification\.version = \([0-9]*\).*/\1/p'
}

# Every JDK 17+ once, the build's first.
jdks() {
    local seen="" home real
    for home in "$(sed -n 's/^KV_JAVA_HOME:PATH=//p' "$build/CMakeCache.txt")" /usr/lib/jvm/*; do
        [ -x "$home/bin/java" ] || continue
        real=$(readlink -f "$home")
        case " $seen " in *" $real "*) continue ;; esac
        seen="$seen $real"
        if [ "$(feature_version "$real")" -ge 17 ] 2>/dev/null; then echo "$real"; fi
    done
}

bench_debug() {
    cmake -S "$root" -B "$build" -DKV_BUILD_TESTS=OFF >/dev/null
    cmake --build "$build" -j"$(nproc)" --target kvjvmti kv_bench_debug_floor kv_bench_debug_jar >/dev/null
    local api=$build/kvjvmti-api.jar jar=$build/kvjvmti-bench-debug.jar status=0 jdk
    for jdk in $(jdks); do
        "$jdk/bin/java" -cp "$api:$jar:/usr/share/java/asm.jar" com.brantide.kelvane.bench.debug.DebugBench \
            "$build/libkvjvmti.so" "$build/libkv_bench_debug_floor.so" "$api:$jar" || status=1
        echo
    done
    return $status
}

bench_host() {
    local configs=${1:-standard}
    cmake -S "$root" -B "$build" -DKV_BUILD_TESTS=OFF >/dev/null
    cmake --build "$build" -j"$(nproc)" --target kvjvmti kv_bench_host_floor kv_bench_host_jar >/dev/null
    local api=$build/kvjvmti-api.jar jar=$build/kvjvmti-bench-host.jar status=0 jdk
    for jdk in $(jdks); do
        "$jdk/bin/java" -Dkv.bench.configs="$configs" -Dkv.bench.rounds="${KV_BENCH_ROUNDS:-3}" \
            ${KV_BENCH_WORKLOADS:+-Dkv.bench.workloads="$KV_BENCH_WORKLOADS"} -cp "$api:$jar" com.brantide.kelvane.bench.host.HostBench \
            "$build/libkvjvmti.so" "$build/libkv_bench_host_floor.so" "$api:$jar" || status=1
        echo
    done
    return $status
}

bench_heap() {
    if [ ! -f "$root/tools/bench-heap.sh" ]; then
        echo "bench.sh: tools/bench-heap.sh is not there; no heap benchmarks to run" >&2
        return 1
    fi
    bash "$root/tools/bench-heap.sh"
}

case "${1:-}" in
    debug) bench_debug ;;
    heap) bench_heap ;;
    host)
        case "${2:-standard}" in standard | diagnostics | all | [a-z]*) ;; *) usage ;; esac
        bench_host "${2:-standard}"
        ;;
    all)
        status=0
        bench_debug || status=1
        bench_heap || status=1
        bench_host || status=1
        exit $status
        ;;
    *) usage ;;
esac
