// Declares a native method of the managed JvmtiApi class under its JNI name.
#pragma once

#include <jni.h>

#define KV_NATIVE(returns, name) \
    extern "C" JNIEXPORT returns JNICALL Java_com_brantide_kelvane_plugin_jvmti_api_JvmtiApi_##name
