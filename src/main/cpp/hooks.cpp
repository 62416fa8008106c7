#include "hooks.h"

#include "log.h"
#include "reference.h"

#include <cstdarg>

ReferenceCountedJObject g_classPrepareHook;
ReferenceCountedJObject g_breakpointHook;
ReferenceCountedJObject g_exceptionHook;
ReferenceCountedJObject g_threadHook;
ReferenceCountedJObject g_fieldHook;
ReferenceCountedJObject g_stepHook;
ReferenceCountedJObject g_fileLoadHook;

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
