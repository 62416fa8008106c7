# Finds the JDK that builds and tests the project: KV_JAVA_HOME if given, else JAVA_HOME when it
# holds the JVMTI header, else the JDK of the javac on the PATH.
if(NOT KV_JAVA_HOME)
  if(DEFINED ENV{JAVA_HOME} AND EXISTS "$ENV{JAVA_HOME}/include/jvmti.h")
    set(KV_JAVA_HOME "$ENV{JAVA_HOME}")
  else()
    find_program(KV_JAVAC_ON_PATH javac REQUIRED)
    get_filename_component(javac_real "${KV_JAVAC_ON_PATH}" REALPATH)
    get_filename_component(javac_bin "${javac_real}" DIRECTORY)
    get_filename_component(KV_JAVA_HOME "${javac_bin}" DIRECTORY)
  endif()
endif()
set(KV_JAVA_HOME "${KV_JAVA_HOME}" CACHE PATH "JDK used to build and test" FORCE)
if(NOT EXISTS "${KV_JAVA_HOME}/include/jvmti.h")
  message(FATAL_ERROR "No JDK with include/jvmti.h at ${KV_JAVA_HOME}; set KV_JAVA_HOME")
endif()
set(KV_JNI_INCLUDE_DIRS ${KV_JAVA_HOME}/include ${KV_JAVA_HOME}/include/linux)
set(KV_JAVA ${KV_JAVA_HOME}/bin/java)
set(KV_JAVAC ${KV_JAVA_HOME}/bin/javac)
set(KV_JAR ${KV_JAVA_HOME}/bin/jar)
message(STATUS "JDK: ${KV_JAVA_HOME}")

# kv_add_jar(target jar-path "sources" "classpath"): compiles Java 17 bytecode into a jar.
function(kv_add_jar target jar sources classpath)
  set(classes ${CMAKE_BINARY_DIR}/classes/${target})
  set(cp_option "")
  if(classpath)
    set(cp_option -cp "${classpath}")
  endif()
  add_custom_command(OUTPUT ${jar}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${classes}
    COMMAND ${KV_JAVAC} --release 17 -Xlint:all -Xlint:-options -Werror -g -encoding UTF-8 ${cp_option}
            -d ${classes} ${sources}
    COMMAND ${KV_JAR} cf ${jar} -C ${classes} .
    DEPENDS ${sources}
    COMMENT "Compiling ${target}"
    VERBATIM)
  add_custom_target(${target} ALL DEPENDS ${jar})
endfunction()
