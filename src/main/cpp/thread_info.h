// What the agent reads of a thread object: its Java id, its name, and the ThreadContext handed
// to hooks.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <string>

// The JNI type signature of the managed ThreadContext.
#define KV_THREAD_CONTEXT_TYPE "Lcom/brantide/kelvane/plugin/jvmti/ThreadContext;"

// A new ThreadContext for the thread (local reference), or null with one ERROR line.
jobject get_thread_context(JNIEnv* env, jthread thread);
// The thread's name, or "unknown".
std::string get_thread_name(jthread thread);
// The thread's Java id, read from java.lang.Thread's own field (no application code runs), or -1.
jlong get_thread_id(JNIEnv* env, jthread thread);
