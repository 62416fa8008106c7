// The VM's thread start and end events, for platform and virtual threads: the thread hook is told,
// records are made and released, and the features' clean-ups run at the end.
#pragma once

#include <jni.h>
#include <jvmti.h>

void JNICALL ThreadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL ThreadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL VirtualThreadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL VirtualThreadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
