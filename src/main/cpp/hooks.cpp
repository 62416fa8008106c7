#include "hooks.h"

#include "log.h"
#include "resources.h"

#include <cstdarg>

jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature) {
    if (object == nullptr) return nullptr;
    LocalRef<jclass> clazz(env, env->GetObjectClass(object));
    if (!clazz) return nullptr;
    jmethodID method = env->GetMethodID(clazz.get(), name, signature);
    if (method == nullptr) env->ExceptionClear();
    return method;
}

jmethodID find_callback_method(JNIEnv* env, jobject object, const char* name, const char* signature) {
    if (object == nullptr) return nullptr;
    LocalRef<jclass> clazz(env, env->GetObjectClass(object));
    return clazz ? env->GetMethodID(clazz.get(), name, signature) : nullptr;
}

void call_void_hook(JNIEnv* env, jobject object, const char* name, const char* signature, ...) {
    jmethodID method = find_method(env, object, name, signature);
    if (method == nullptr) return;
    va_list args;
    va_start(args, signature);
    env->CallVoidMethodV(object, method, args);
    va_end(args);
    clear_hook_exception(env, name);
}

void call_void_hook(JNIEnv* env, const ReferenceCountedJObject& hook, int slot, const char* name,
                    const char* signature, ...) {
    jmethodID method = hook.method(env, slot, name, signature);
    if (method == nullptr) return;
    va_list args;
    va_start(args, signature);
    env->CallVoidMethodV(hook.get(), method, args);
    va_end(args);
    clear_hook_exception(env, name);
}

bool clear_hook_exception(JNIEnv* env, const char* method) {
    if (!env->ExceptionCheck()) return false;
    LOG_WARN("Hook method %s threw; exception cleared", method);
    if (KV_JVMTI_LOG_LEVEL >= LOG_DEBUG_LEVEL) {
        env->ExceptionDescribe();
    }
    env->ExceptionClear();
    return true;
}
