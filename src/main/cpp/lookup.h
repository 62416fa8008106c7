// Looking up methods and line tables, and the natives that read classes' source attributes, line
// tables and the loaded classes.
#pragma once

#include <jni.h>
#include <jvmti.h>

// The first method declared by the class whose name followed by its JVM signature equals the key,
// such as main([Ljava/lang/String;)V; null when there is none or the class cannot be read.
jmethodID find_method_by_key(jclass clazz, const char* key);

// Reports every line-number entry of the method to the callback's "lineNumber" (JI)V.
void line_no_for_method(JNIEnv* env, jmethodID method, jobject callback);
