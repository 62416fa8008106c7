// Declares a native method of the managed JvmtiApi class under its JNI name.
#pragma once

#include <jni.h>

#define KV_NATIVE(returns, name) \
    extern "C" JNIEXPORT returns JNICALL Java_com_brantide_kelvane_plugin_jvmti_api_JvmtiApi_##name

// False, with an IllegalStateException raised, when the library runs without its JVMTI
// environment: loaded as a plain JNI library (System.load) instead of as an agent, or refused the
// environment at load. Every native that needs the VM's tool interface asks first.
bool require_agent(JNIEnv* env);
