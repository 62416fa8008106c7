// The names of JVMTI errors, for log lines and exception messages.
#pragma once

#include <jvmti.h>

#include <string>

// The JVMTI name of an error, such as JVMTI_ERROR_INVALID_THREAD; empty when it cannot be had.
std::string get_error_message(jvmtiError error);
