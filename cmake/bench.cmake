# Benchmarks. They leave the default build: each is built and run by its own target.

# kv_add_bench_floor_and_jar(name): bench/<name>/floor_agent.cpp as libkv_bench_<name>_floor.so and
# the Java sources under bench/<name>/ as kvjvmti-bench-<name>.jar (target kv_bench_<name>_jar,
# compiled against the API jar and what else the classpath names), both outside the default build.
function(kv_add_bench_floor_and_jar name classpath)
  set(floor kv_bench_${name}_floor)
  add_library(${floor} SHARED EXCLUDE_FROM_ALL ${CMAKE_SOURCE_DIR}/bench/${name}/floor_agent.cpp)
  target_include_directories(${floor} PRIVATE ${KV_JNI_INCLUDE_DIRS})
  target_compile_options(${floor} PRIVATE ${KV_STRICT_FLAGS} -fvisibility=hidden)
  set_target_properties(${floor} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/${name}/*.java)
  kv_add_jar(kv_bench_${name}_jar ${CMAKE_BINARY_DIR}/kvjvmti-bench-${name}.jar "${sources}" "${classpath}")
  add_dependencies(kv_bench_${name}_jar kv_api)
  set_target_properties(kv_bench_${name}_jar PROPERTIES EXCLUDE_FROM_ALL ON)
endfunction()

# ---------------------------------------------------------------------------------------------
# Heap analysis (bench/heap): heapHistogram and gcRoots against jcmd and against bare JVMTI walks
# done by a floor agent of the benchmark's own, on every JDK 17+ present. Run: `bench-heap`.
add_library(kv_bench_heap_floor SHARED EXCLUDE_FROM_ALL ${CMAKE_SOURCE_DIR}/bench/heap/floor_agent.cpp)
target_include_directories(kv_bench_heap_floor PRIVATE ${KV_JNI_INCLUDE_DIRS})
target_compile_options(kv_bench_heap_floor PRIVATE ${KV_STRICT_FLAGS})
set_target_properties(kv_bench_heap_floor PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

file(GLOB KV_BENCH_HEAP_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/heap/*.java)
set(KV_BENCH_HEAP_JAR ${CMAKE_BINARY_DIR}/kvjvmti-bench-heap.jar)
kv_add_jar(kv_bench_heap_jar ${KV_BENCH_HEAP_JAR} "${KV_BENCH_HEAP_SOURCES}" "${KV_API_JAR}")
add_dependencies(kv_bench_heap_jar kv_api)
set_target_properties(kv_bench_heap_jar PROPERTIES EXCLUDE_FROM_ALL ON)

add_custom_target(bench-heap
  COMMAND ${KV_JAVA} -cp ${KV_BENCH_HEAP_JAR} com.brantide.kelvane.bench.heap.BenchDriver
          ${KV_JAVA_HOME} $<TARGET_FILE:kvjvmti> $<TARGET_FILE:kv_bench_heap_floor>
          ${KV_API_JAR}:${KV_BENCH_HEAP_JAR}
  DEPENDS kvjvmti kv_bench_heap_floor kv_bench_heap_jar
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL
  VERBATIM)

# ---------------------------------------------------------------------------------------------
# Debugging path (bench/debug): breakpoint round trip, step over a long call, single stepping at
# two stack depths, stepping under an SMAP and listing a deep stack and its locals, against the
# benchmark's own floor agent (three modes: bare up-call, the hook contract, single stepping), JDWP
# driven by JDI and plain loops. `tools/bench.sh debug` runs it on every JDK 17+ present;
# `bench-debug` on the build's JDK only.
set(KV_BENCH_ASM_JAR /usr/share/java/asm.jar)
set(KV_BENCH_DEBUG_JAR ${CMAKE_BINARY_DIR}/kvjvmti-bench-debug.jar)
kv_add_bench_floor_and_jar(debug "${KV_API_JAR}:${KV_BENCH_ASM_JAR}")

add_custom_target(bench-debug
  COMMAND ${KV_JAVA} -cp ${KV_API_JAR}:${KV_BENCH_DEBUG_JAR}:${KV_BENCH_ASM_JAR}
          com.brantide.kelvane.bench.debug.DebugBench $<TARGET_FILE:kvjvmti> $<TARGET_FILE:kv_bench_debug_floor>
          ${KV_API_JAR}:${KV_BENCH_DEBUG_JAR}
  DEPENDS kvjvmti kv_bench_debug_floor kv_bench_debug_jar
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL
  VERBATIM)

# ---------------------------------------------------------------------------------------------
# The host's own speed (bench/host): boxing, a boxed stream, short-lived objects, exceptions and
# class loading, timed by the host itself with no agent, with the library loaded, switched on, in
# inspection-only mode, and with JDWP; and, for diagnosis, under the benchmark's floor agent holding
# one capability or event at a time. `tools/bench.sh host` runs it on every JDK 17+ present;
# `bench-host` the standard configurations on the build's JDK only.
kv_add_bench_floor_and_jar(host "${KV_API_JAR}")
set(KV_BENCH_HOST_CLASSPATH ${KV_API_JAR}:${CMAKE_BINARY_DIR}/kvjvmti-bench-host.jar)
add_custom_target(bench-host
  COMMAND ${KV_JAVA} -cp ${KV_BENCH_HOST_CLASSPATH} com.brantide.kelvane.bench.host.HostBench
          $<TARGET_FILE:kvjvmti> $<TARGET_FILE:kv_bench_host_floor> ${KV_BENCH_HOST_CLASSPATH}
  DEPENDS kvjvmti kv_bench_host_floor kv_bench_host_jar
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL
  VERBATIM)
