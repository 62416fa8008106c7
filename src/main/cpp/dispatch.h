// Event dispatch to the managed hooks: breakpoints, field watches, exceptions, class events.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <optional>

// Reports a stop to the breakpoint hook with the thread's events off, and acts on its answer.
// False when no hook could be called (none registered, no breakpointHit, no thread context).
bool fire_breakpoint_hit(JNIEnv* env, jthread thread, jmethodID method, jlocation location);

// The stepping engine's stop: like fire_breakpoint_hit, and when a breakpoint stands at the same
// place, the VM's breakpoint event that follows the single step there is not reported again.
bool fire_step_stop(JNIEnv* env, jthread thread, jmethodID method, jlocation location);

// Called at every single step: a step that moved on from its last stop forgets it.
void forget_step_stop(jmethodID method, jlocation location);

// Tells the field hook that the statement that modified a watched field has completed. The
// hook's answer, or nothing when the hook was not called; its answer has been acted on.
std::optional<jint> fire_field_modification_complete(JNIEnv* env, jthread thread, jmethodID method,
                                                     jlocation location);

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
