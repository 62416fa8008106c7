// Conversion between primitive values and their java.lang wrapper objects.
#pragma once

#include <jni.h>

// Each returns a new local reference to the wrapper, or null (with the VM's exception pending
// when valueOf could not be called).
jobject box(JNIEnv* env, jlong value);
jobject box(JNIEnv* env, jint value);
jobject box(JNIEnv* env, jbyte value);
jobject box(JNIEnv* env, jshort value);
jobject box(JNIEnv* env, jchar value);
jobject box(JNIEnv* env, jboolean value);
jobject box(JNIEnv* env, jfloat value);
jobject box(JNIEnv* env, jdouble value);

// The value that every unboxing function answers for anything it does not accept, null included.
constexpr jint UNBOX_FAILURE = -42;

// Integer, Boolean, Short, Character or Byte, widened to int.
jint unBoxToInt(JNIEnv* env, jobject value);
jlong unBoxToLong(JNIEnv* env, jobject value);
jfloat unBoxToFloat(JNIEnv* env, jobject value);
jdouble unBoxToDouble(JNIEnv* env, jobject value);
