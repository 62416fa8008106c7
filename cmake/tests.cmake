# GoogleTest for the pure logic and the fake-VM tests; JUnit 5 for behaviour in a real JVM. A suite
# whose Debian packages are missing switches itself off with one line naming them (tools/deps.sh
# test installs them); the library, the managed jar and the demo build all the same.
find_package(GTest QUIET)
if(GTest_FOUND)
  include(GoogleTest)
  file(GLOB KV_UNIT_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/test/cpp/*.cpp)
  add_executable(kv_unit_tests ${KV_UNIT_TEST_SOURCES})
  target_link_libraries(kv_unit_tests PRIVATE kvcore GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_options(kv_unit_tests PRIVATE ${KV_STRICT_FLAGS} -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
  gtest_discover_tests(kv_unit_tests DISCOVERY_TIMEOUT 30 PROPERTIES LABELS unit)
else()
  message(STATUS "Unit tests off: GoogleTest not found (Debian packages libgtest-dev, libgmock-dev)")
endif()

# Checks on the built artifact: what it exports and what it needs at run time.
add_test(NAME library.exports COMMAND bash ${CMAKE_SOURCE_DIR}/tools/check-exports.sh
         $<TARGET_FILE:kvjvmti>)
# Checks on the sources: no include circle between the library's files, each file in its layer.
add_test(NAME library.layers COMMAND bash ${CMAKE_SOURCE_DIR}/tools/check-layers.sh)

# A variant of the agent with a few extra natives through which the tests reach internal helpers
# (boxing, the exception raisers) inside a real JVM. The shipped library never carries them.
file(GLOB KV_PROBE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/test/cpp/probe/*.cpp)
add_library(kvjvmti_probe SHARED ${KV_PROBE_SOURCES})
set_target_properties(kvjvmti_probe PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/test)
target_compile_options(kvjvmti_probe PRIVATE ${KV_STRICT_FLAGS} ${KV_LIBRARY_FLAGS})
target_link_libraries(kvjvmti_probe PRIVATE -Wl,--whole-archive kvcore -Wl,--no-whole-archive)
target_link_options(kvjvmti_probe PRIVATE -static-libstdc++ -static-libgcc -Wl,-z,defs)

# Where Debian installs the jars of its Java packages.
set(KV_JAVA_JARS /usr/share/java CACHE PATH "Directory of the installed Java library jars")
# JUnit: the console launcher of Debian's junit5 bundles the Jupiter API and engine.
set(KV_JUNIT_JAR ${KV_JAVA_JARS}/junit-platform-console-standalone.jar)
# ASM reads and rewrites class files for the lookup tests (Debian libasm-java).
set(KV_ASM_JAR ${KV_JAVA_JARS}/asm.jar)
# The tests jar compiles against both and against Tomcat (the soak's embedded server).
if(NOT EXISTS ${KV_JUNIT_JAR} OR NOT EXISTS ${KV_ASM_JAR} OR NOT EXISTS ${KV_JAVA_JARS}/tomcat9-catalina.jar)
  message(STATUS "JUnit suite off: its jars are not in ${KV_JAVA_JARS} (Debian packages junit5, libasm-java, libtomcat9-java, ant)")
  return()
endif()
# The installed jars of Debian's Java packages of those names, joined into a class path.
function(kv_debian_classpath out)
  set(jars "")
  foreach(name ${ARGN})
    if(EXISTS ${KV_JAVA_JARS}/${name}.jar)
      list(APPEND jars ${KV_JAVA_JARS}/${name}.jar)
    endif()
  endforeach()
  list(JOIN jars ":" classpath)
  set(${out} "${classpath}" PARENT_SCOPE)
endfunction()
# The JSP compiler and what it needs to run (Debian libtomcat9-java and ant: the compiler's command
# line class is an Ant task). The SMAP test compiles a page with it in a JVM of its own.
set(KV_JSP_JAR_NAMES tomcat9-jasper tomcat9-jasper-el tomcat9-servlet-api tomcat9-jsp-api tomcat9-el-api
    tomcat9-juli tomcat9-util tomcat9-util-scan tomcat9-api eclipse-jdt-core ant)
kv_debian_classpath(KV_JSP_CLASSPATH ${KV_JSP_JAR_NAMES})
# The soak's embedded server (tools/soak.sh) needs the rest of Tomcat; its classes compile against it.
kv_debian_classpath(KV_TOMCAT_CLASSPATH ${KV_JSP_JAR_NAMES} tomcat9-catalina tomcat9-coyote
                    tomcat9-annotations-api tomcat9-jaspic-api)
file(GLOB_RECURSE KV_JUNIT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/test/java/*.java)
set(KV_TEST_JAR ${CMAKE_BINARY_DIR}/kvjvmti-tests.jar)
kv_add_jar(kv_java_tests ${KV_TEST_JAR} "${KV_JUNIT_SOURCES}"
           "${KV_API_JAR}:${KV_JUNIT_JAR}:${KV_ASM_JAR}:${KV_TOMCAT_CLASSPATH}")
add_dependencies(kv_java_tests kv_api)

# One JVM per test class: the agent's state is process-wide, so classes must not share a VM.
# A class whose name ends in ProbeTest runs against the probe variant of the agent.
function(kv_add_junit_test name class agent)
  add_test(NAME ${name}
           COMMAND bash ${CMAKE_SOURCE_DIR}/tools/run-junit.sh ${KV_JAVA} ${agent}
                   "${KV_API_JAR}:${KV_TEST_JAR}:${KV_JUNIT_JAR}:${KV_ASM_JAR}" ${class}
                   -Dkv.test.java=${KV_JAVA}
                   -Dkv.test.agent=${CMAKE_BINARY_DIR}/libkvjvmti.so
                   -Dkv.test.probe-agent=${CMAKE_BINARY_DIR}/test/libkvjvmti_probe.so
                   -Dkv.test.classpath=${KV_API_JAR}:${KV_TEST_JAR}:${KV_ASM_JAR}:${KV_DEMO_JAR}
                   -Dkv.test.jsp-classpath=${KV_JSP_CLASSPATH}
                   -Dkv.test.jsp-dir=${CMAKE_SOURCE_DIR}/src/test/resources/jsp
                   -Dkv.test.workdir=${CMAKE_BINARY_DIR}/test/work
                   -Dkv.test.sources=${CMAKE_SOURCE_DIR}/src/test/java
                   ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS junit TIMEOUT 600)
endfunction()

# Registers every JUnit class as junit.<Class><suffix> (with its single-stepping twin for the
# stepping classes) and returns the test names in `out`. The JVM is KV_JAVA of the caller's scope.
function(kv_add_junit_suite suffix out)
  set(names "")
  set(kv_suite_java ${KV_JAVA})
  foreach(source ${KV_JUNIT_SOURCES})
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR}/src/test/java ${source})
    string(REGEX REPLACE "\\.java$" "" class "${relative}")
    string(REPLACE "/" "." class "${class}")
    get_filename_component(simple "${source}" NAME_WE)
    if(NOT simple MATCHES "Test$")
      continue()
    endif()
    set(agent ${CMAKE_BINARY_DIR}/libkvjvmti.so)
    if(simple MATCHES "ProbeTest$")
      set(agent ${CMAKE_BINARY_DIR}/test/libkvjvmti_probe.so)
    endif()
    kv_add_junit_test(junit.${simple}${suffix} ${class} ${agent})
    list(APPEND names junit.${simple}${suffix})
    # Stepping behaves the same whichever way the called code is skipped: by frame-pop requests,
    # by single steps through it, or at compiled speed to a breakpoint at its return.
    if(simple MATCHES "^Stepping")
      kv_add_junit_test(junit.${simple}.singleStepping${suffix} ${class} ${agent} -Dkv.jvmti.enable.fast.stepping=false)
      kv_add_junit_test(junit.${simple}.compiledStepping${suffix} ${class} ${agent}
                        -Dkv.jvmti.enable.compiled.stepping=true)
      list(APPEND names junit.${simple}.singleStepping${suffix} junit.${simple}.compiledStepping${suffix})
    endif()
    # The same scenarios on virtual threads, run by the newest JDK that has them.
    if(suffix STREQUAL "" AND KV_VIRTUAL_THREAD_JAVA AND simple MATCHES "^(Stepping|StoppedThreads|VirtualThreadProbe|EventsProbe|Startup|Storm)Test$")
      set(KV_JAVA ${KV_VIRTUAL_THREAD_JAVA})
      set(kv_stack_option "")
      if(simple STREQUAL "StoppedThreadsTest")
        # A mounted virtual thread runs on its carrier's stack: -Xss sizes them for the deep stack.
        set(kv_stack_option -Xss256m)
      endif()
      kv_add_junit_test(junit.${simple}.virtualThreads ${class} ${agent} -Dkv.test.thread.kind=virtual ${kv_stack_option})
      list(APPEND names junit.${simple}.virtualThreads)
      if(simple MATCHES "^Stepping")
        kv_add_junit_test(junit.${simple}.virtualThreads.singleStepping ${class} ${agent} -Dkv.test.thread.kind=virtual
                          -Dkv.jvmti.enable.fast.stepping=false)
        kv_add_junit_test(junit.${simple}.virtualThreads.compiledStepping ${class} ${agent} -Dkv.test.thread.kind=virtual
                          -Dkv.jvmti.enable.compiled.stepping=true)
        list(APPEND names junit.${simple}.virtualThreads.singleStepping junit.${simple}.virtualThreads.compiledStepping)
      endif()
      set(KV_JAVA ${kv_suite_java})
    endif()
    if(simple STREQUAL "StormTest")
      kv_add_junit_test(junit.${simple}.compiledStepping${suffix} ${class} ${agent} -Dkv.test.storm.compiled=true)
      list(APPEND names junit.${simple}.compiledStepping${suffix})
    endif()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# The newest JDK with virtual threads (21 or later) under /usr/lib/jvm, whose java runs the
# virtual-thread twins of the thread-related classes; none on a machine without one.
set(KV_VIRTUAL_THREAD_JAVA "")
set(kv_newest_feature 20)
file(GLOB kv_jdk_homes LIST_DIRECTORIES true /usr/lib/jvm/*)
foreach(home ${kv_jdk_homes})
  if(IS_SYMLINK ${home} OR NOT EXISTS ${home}/bin/java OR NOT EXISTS ${home}/release)
    continue()
  endif()
  file(STRINGS ${home}/release kv_release_line REGEX "^JAVA_VERSION=")
  if(kv_release_line MATCHES "JAVA_VERSION=\"([0-9]+)" AND CMAKE_MATCH_1 GREATER kv_newest_feature)
    set(kv_newest_feature ${CMAKE_MATCH_1})
    set(KV_VIRTUAL_THREAD_JAVA ${home}/bin/java)
  endif()
endforeach()
if(KV_VIRTUAL_THREAD_JAVA)
  message(STATUS "Virtual-thread tests on ${KV_VIRTUAL_THREAD_JAVA} (JDK ${kv_newest_feature})")
else()
  message(STATUS "Virtual-thread tests: no JDK 21 or later under /usr/lib/jvm, not run")
endif()

kv_add_junit_suite("" kv_junit_tests)
