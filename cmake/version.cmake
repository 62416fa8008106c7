# Writes the build's version header: source revision, build number and build date.
# Run at every build; the header is rewritten only when the revision or build number changes,
# so an unchanged tree does not relink.
#   -DSOURCE_DIR=... -DOUTPUT=... -DPRODUCT_VERSION=...
set(revision "0000000000000000000000000000000000000000")
set(build_number "0")
execute_process(COMMAND git -C "${SOURCE_DIR}" rev-parse --show-toplevel
                OUTPUT_VARIABLE toplevel RESULT_VARIABLE status
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
# Only the project's own repository counts: a tree unpacked inside another one has no revision.
if(status EQUAL 0)
  get_filename_component(toplevel "${toplevel}" REALPATH)
  get_filename_component(source "${SOURCE_DIR}" REALPATH)
endif()
if(status EQUAL 0 AND toplevel STREQUAL source)
  execute_process(COMMAND git -C "${SOURCE_DIR}" rev-parse HEAD
                  OUTPUT_VARIABLE head RESULT_VARIABLE status
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  string(LENGTH "${head}" head_length)
  if(status EQUAL 0 AND head_length EQUAL 40 AND head MATCHES "^[0-9a-f]+$")
    set(revision "${head}")
    execute_process(COMMAND git -C "${SOURCE_DIR}" rev-list --count HEAD
                    OUTPUT_VARIABLE count RESULT_VARIABLE status
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(status EQUAL 0)
      set(build_number "${count}")
    endif()
  endif()
endif()

set(identity "// ${PRODUCT_VERSION} ${build_number} ${revision}")
if(EXISTS "${OUTPUT}")
  file(STRINGS "${OUTPUT}" first_line LIMIT_COUNT 1)
  if(first_line STREQUAL identity)
    return()
  endif()
endif()

string(TIMESTAMP build_date "%b %d %Y %H:%M:%S")
file(WRITE "${OUTPUT}" "${identity}
#pragma once
#define KV_PRODUCT_VERSION \"${PRODUCT_VERSION}\"
#define KV_BUILD_NUMBER \"${build_number}\"
#define KV_SOURCE_REVISION \"${revision}\"
#define KV_BUILD_DATE \"${build_date}\"
")
