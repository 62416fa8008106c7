#include "field_watches.h"

#include "exception.h"
#include "global.h"
#include "native.h"

std::atomic<unsigned int> s_field_access_counter{0};
std::atomic<unsigned int> s_field_modification_counter{0};

namespace {
using WatchCall = jvmtiError (jvmtiEnv::*)(jclass, jfieldID);

void change_watch(JNIEnv* env, jclass clazz, jobject field, WatchCall call, std::atomic<unsigned int>& counter,
                  int delta) {
    if (!require_agent(env)) return;
    jfieldID id = field != nullptr ? env->FromReflectedField(field) : nullptr;
    if (id == nullptr) {
        if (env->ExceptionCheck()) env->ExceptionClear();
        throw_exception(env, ILLEGAL_ARGUMENT, "Invalid Field");
        return;
    }
    jvmtiError error = (g_jvmti->*call)(clazz, id);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    if (delta > 0) {
        counter++;
    } else {
        counter--;
    }
}
}  // namespace

KV_NATIVE(void, setFieldAccessWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::SetFieldAccessWatch, s_field_access_counter, 1);
}

KV_NATIVE(void, clearFieldAccessWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::ClearFieldAccessWatch, s_field_access_counter, -1);
}

KV_NATIVE(void, setFieldModificationWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::SetFieldModificationWatch, s_field_modification_counter, 1);
}

KV_NATIVE(void, clearFieldModificationWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::ClearFieldModificationWatch, s_field_modification_counter, -1);
}
