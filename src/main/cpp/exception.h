// JVMTI error names and the managed exceptions that native methods raise.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <string>

// The JVMTI name of an error, such as JVMTI_ERROR_INVALID_THREAD; empty when it cannot be had.
std::string get_error_message(jvmtiError error);

// Raises an exception of the named class (slash form) with a printf-formatted message cut at
// 1023 characters. Returns the ThrowNew result, or -1 when nothing was raised (the class is
// missing, or an exception was already pending, which is then left as it is).
jint throw_exception(JNIEnv* env, const char* className, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Raises the managed JVMTICapabilityException (error 99) or JVMTIException for a JVMTI error,
// or an IllegalStateException when those classes cannot be used.
void throw_jvmti_exception(JNIEnv* env, jvmtiError error);

// Raises an IllegalStateException describing an operating-system error number.
void throw_errno(JNIEnv* env, int errnum);

// Exception class names in the JNI slash form.
constexpr const char* ILLEGAL_ARGUMENT = "java/lang/IllegalArgumentException";
constexpr const char* ILLEGAL_STATE = "java/lang/IllegalStateException";
constexpr const char* TIMEOUT_EXCEPTION = "java/util/concurrent/TimeoutException";
