// Event dispatch to the managed hooks: breakpoints, field watches, exceptions, class events.
#pragma once

#include <jni.h>
#include <jvmti.h>

void JNICALL Breakpoint(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location);
void JNICALL FieldAccess(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                         jclass field_klass, jobject object, jfieldID field);
void JNICALL FieldModification(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                               jclass field_klass, jobject object, jfieldID field, char signature_type,
                               jvalue new_value);
void JNICALL Exception(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                       jobject exception, jmethodID catch_method, jlocation catch_location);
void JNICALL ExceptionCatch(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                            jobject exception);
void JNICALL ClassPrepare(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jclass klass);
void JNICALL ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* env, jclass class_being_redefined, jobject loader,
                               const char* name, jobject protection_domain, jint class_data_len,
                               const unsigned char* class_data, jint* new_class_data_len,
                               unsigned char** new_class_data);
