// Looking up the methods of a managed object's class.
#pragma once

#include <jni.h>

// The static modifier bit of a member's modifiers (GetMethodModifiers, GetFieldModifiers), which
// ToReflectedMethod and ToReflectedField are told.
constexpr jint ACC_STATIC = 0x0008;

// The method of the object's class, or null. A failed lookup leaves nothing pending.
jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// The method of a callback object handed to a native, or null with the VM's NoSuchMethodError left
// pending, so that the caller learns that its callback lacks the method.
jmethodID find_callback_method(JNIEnv* env, jobject object, const char* name, const char* signature);
