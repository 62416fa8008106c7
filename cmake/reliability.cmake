# Reliability checks that go beyond the everyday suite: the agent built with sanitizers for runs
# inside real JVMs, short fuzzing runs of the readers of class-file text, and the JUnit suite again
# on other JDKs. Each is off or absent unless asked for or unless its tools are installed.

# ---------------------------------------------------------------------------------------------
# The probe variant binds its symbols as the shipped library does: only the entry points and the
# natives leave it, so inside it every call reaches its own copy of the C++ runtime and never one
# that the JVM loaded first. Its heap counting (src/test/cpp/probe/memory_probe.cpp) relies on it.
target_link_options(kvjvmti_probe PRIVATE -Wl,--version-script=${CMAKE_SOURCE_DIR}/src/main/cpp/exports.map)
set_property(TARGET kvjvmti_probe APPEND PROPERTY LINK_DEPENDS ${CMAKE_SOURCE_DIR}/src/main/cpp/exports.map)

# ---------------------------------------------------------------------------------------------
# The agent and its probe variant with AddressSanitizer and UndefinedBehaviorSanitizer, meant for
# a build directory of its own (tools/sanitize-jvm.sh). The JVM loads the agent long after it
# started, so the sanitizer runtimes are the shared ones, preloaded into the java process; the
# static C++ runtime and the no-undefined-symbol check of the shipped library cannot go with them.
# UBSan reports and goes on, so that one run shows every report; the script fails on any.
option(KV_SANITIZE_AGENT "Build libkvjvmti.so and the probe agent with ASan and UBSan" OFF)
if(KV_SANITIZE_AGENT)
  set(KV_AGENT_SANITIZE_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer)
  target_compile_options(kvcore PRIVATE ${KV_AGENT_SANITIZE_FLAGS})
  foreach(target kvjvmti kvjvmti_probe)
    get_target_property(link_options ${target} LINK_OPTIONS)
    list(REMOVE_ITEM link_options -static-libstdc++ -static-libgcc -Wl,-z,defs)
    set_target_properties(${target} PROPERTIES LINK_OPTIONS "${link_options}")
    target_compile_options(${target} PRIVATE ${KV_AGENT_SANITIZE_FLAGS})
    target_link_options(${target} PRIVATE ${KV_AGENT_SANITIZE_FLAGS})
  endforeach()
  # The unit tests link the sanitized core; tools/sanitize.sh is their own sanitized run.
  if(TARGET kv_unit_tests)
    target_link_options(kv_unit_tests PRIVATE ${KV_AGENT_SANITIZE_FLAGS})
  endif()
  # The sanitized library needs the sanitizer runtimes and exports their hooks: the shipped
  # library's export check does not apply to it.
  set_tests_properties(library.exports PROPERTIES DISABLED TRUE)
endif()

# ---------------------------------------------------------------------------------------------
# The soak (tools/soak.sh): SoakMain of the tests jar runs an embedded Tomcat of Debian's jars in a
# JVM with the agent loaded. Its options, class path and main class are a java argument file; the
# first three options are what Tomcat's own start script gives Java 9 and later.
if(TARGET kv_java_tests)
  file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/soak.args CONTENT "--add-opens=java.base/java.lang=ALL-UNNAMED
--add-opens=java.base/java.io=ALL-UNNAMED
--add-opens=java.rmi/sun.rmi.transport=ALL-UNNAMED
-agentpath:$<TARGET_FILE:kvjvmti>
-Xmx512m
-cp ${KV_TEST_JAR}:${KV_TOMCAT_CLASSPATH}
-Dkv.soak.api-jar=${KV_API_JAR}
-Dkv.soak.work=${CMAKE_BINARY_DIR}/soak
com.brantide.kelvane.plugin.jvmti.soak.SoakMain
")
endif()

# ---------------------------------------------------------------------------------------------
# Fuzzing: a short run of each libFuzzer target when clang with libFuzzer is installed (Debian
# clang-14 and libclang-rt-14-dev, `tools/deps.sh fuzz`). tools/fuzz.sh builds and runs them; the
# tests here give each target KV_FUZZ_SECONDS and work in the build directory, on a copy of the
# seed corpus.
set(KV_FUZZ_SECONDS 10 CACHE STRING "Seconds of fuzzing per target in the fuzz.* tests")
find_program(KV_CLANGXX NAMES clang++-14 clang++)
set(KV_HAVE_LIBFUZZER OFF)
if(KV_CLANGXX)
  execute_process(COMMAND ${KV_CLANGXX} -print-file-name=libclang_rt.fuzzer-x86_64.a
                  OUTPUT_VARIABLE fuzzer_runtime OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(fuzzer_runtime AND IS_ABSOLUTE "${fuzzer_runtime}" AND EXISTS "${fuzzer_runtime}")
    set(KV_HAVE_LIBFUZZER ON)
  endif()
endif()
if(KV_HAVE_LIBFUZZER)
  execute_process(COMMAND bash ${CMAKE_SOURCE_DIR}/tools/fuzz.sh --list
                  OUTPUT_VARIABLE fuzz_targets OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REPLACE "\n" ";" fuzz_targets "${fuzz_targets}")
  foreach(target ${fuzz_targets})
    add_test(NAME fuzz.${target} COMMAND bash ${CMAKE_SOURCE_DIR}/tools/fuzz.sh ${KV_FUZZ_SECONDS} ${target})
    set_tests_properties(fuzz.${target} PROPERTIES LABELS fuzz TIMEOUT 600
                         ENVIRONMENT "KV_FUZZ_OUT=${CMAKE_BINARY_DIR}/fuzz;KV_JAVA_HOME=${KV_JAVA_HOME}")
  endforeach()
else()
  message(STATUS "clang with libFuzzer not found: no fuzz.* tests (tools/deps.sh fuzz installs them)")
endif()

# ---------------------------------------------------------------------------------------------
# The JUnit suite on other JDKs: every junit test again as junit.<name>.jdk<N>, run by that JDK's
# java with the same jars (Java 17 bytecode) and the same agent (built against the JDK 17 headers,
# whose interface later JDKs keep). KV_TEST_JDKS lists JDK homes, or is "auto" for every JDK under
# /usr/lib/jvm newer than the build's. Off by default: tools/jdk-matrix.sh turns it on.
set(KV_TEST_JDKS "" CACHE STRING "Further JDK homes to run the JUnit suite on, or auto")

# The feature version of the JDK at home (17, 21, 25...), read from its release file; 0 if unknown.
function(kv_jdk_feature_version home out)
  set(version 0)
  if(EXISTS ${home}/release)
    file(STRINGS ${home}/release line REGEX "^JAVA_VERSION=")
    if(line MATCHES "JAVA_VERSION=\"([0-9]+)")
      set(version ${CMAKE_MATCH_1})
    endif()
  endif()
  set(${out} ${version} PARENT_SCOPE)
endfunction()

# Registers the suite once more for the JDK at home. kv_add_junit_test reads KV_JAVA from the
# calling scope, so setting it here points both the test JVM and its child JVMs at that JDK.
function(kv_add_junit_suite_for_jdk home)
  kv_jdk_feature_version(${home} version)
  set(KV_JAVA ${home}/bin/java)
  kv_add_junit_suite(.jdk${version} names)
  set_property(TEST ${names} APPEND PROPERTY LABELS jdk${version} jdkmatrix)
endfunction()

set(kv_other_jdks "")
if(KV_TEST_JDKS STREQUAL "auto")
  kv_jdk_feature_version(${KV_JAVA_HOME} kv_build_jdk_version)
  file(GLOB kv_jdk_candidates LIST_DIRECTORIES true /usr/lib/jvm/*)
  set(kv_seen_versions ${kv_build_jdk_version})
  foreach(home ${kv_jdk_candidates})
    # Debian lists each JDK under several names (symbolic links): take each version once.
    if(IS_SYMLINK ${home} OR NOT EXISTS ${home}/bin/java)
      continue()
    endif()
    kv_jdk_feature_version(${home} version)
    if(version GREATER kv_build_jdk_version AND NOT version IN_LIST kv_seen_versions)
      list(APPEND kv_other_jdks ${home})
      list(APPEND kv_seen_versions ${version})
    endif()
  endforeach()
elseif(KV_TEST_JDKS)
  set(kv_other_jdks ${KV_TEST_JDKS})
endif()
if(NOT TARGET kv_java_tests)
  set(kv_other_jdks "")
endif()
foreach(home ${kv_other_jdks})
  if(NOT EXISTS ${home}/bin/java)
    message(FATAL_ERROR "KV_TEST_JDKS: no bin/java under ${home}")
  endif()
  message(STATUS "JUnit suite also on ${home}")
  kv_add_junit_suite_for_jdk(${home})
endforeach()

# The agent-memory check compares the agent's heap across rounds exactly; on a loaded machine it
# needs minutes, so the everyday suite (run-tests.sh) leaves it to the reliability runs.
if(TEST junit.AgentMemoryProbeTest)
  set_tests_properties(junit.AgentMemoryProbeTest PROPERTIES LABELS "junit;long")
endif()
