// The managed exceptions that native methods raise.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <string>

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

// False, with an IllegalStateException raised, when the library runs without its JVMTI
// environment: loaded as a plain JNI library (System.load) instead of as an agent, or refused the
// environment at load. Every native that needs the VM's tool interface asks first.
bool require_agent(JNIEnv* env);

// Exception class names in the JNI slash form.
constexpr const char* ILLEGAL_ARGUMENT = "java/lang/IllegalArgumentException";
constexpr const char* ILLEGAL_STATE = "java/lang/IllegalStateException";
constexpr const char* TIMEOUT_EXCEPTION = "java/util/concurrent/TimeoutException";
