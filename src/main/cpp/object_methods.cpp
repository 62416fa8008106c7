#include "object_methods.h"

#include "resources.h"

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
