// The managed hooks, and calling methods of hook and callback objects.
#pragma once

#include "reference.h"

#include <jni.h>

// The managed hooks. A callback takes a counted copy for its whole run.
extern ReferenceCountedJObject g_classPrepareHook;
extern ReferenceCountedJObject g_breakpointHook;
extern ReferenceCountedJObject g_exceptionHook;
extern ReferenceCountedJObject g_threadHook;
extern ReferenceCountedJObject g_fieldHook;
extern ReferenceCountedJObject g_stepHook;
extern ReferenceCountedJObject g_fileLoadHook;

// Calls a void method of a hook held as a counted copy, its method looked up once per
// registration in the given slot, when it has one. A managed exception the method throws is logged
// and cleared: it must not stay pending in the application thread that raised the event.
void call_void_hook(JNIEnv* env, const ReferenceCountedJObject& hook, int slot, const char* name,
                    const char* signature, ...);

// Clears and logs an exception left pending by a hook method; true when there was one.
bool clear_hook_exception(JNIEnv* env, const char* method);

// An exception that the VM had pending when it called the agent is set aside for the callback
// and raised again when it ends; anything a hook method leaves pending is logged and cleared, so
// the application thread never carries an exception it did not throw.
class PendingExceptionKeeper {
public:
    explicit PendingExceptionKeeper(JNIEnv* env)
        : m_env(env), m_saved(env->ExceptionCheck() ? env->ExceptionOccurred() : nullptr) {
        if (m_saved != nullptr) env->ExceptionClear();
    }
    ~PendingExceptionKeeper() {
        if (m_env->ExceptionCheck()) m_env->ExceptionClear();
        if (m_saved == nullptr) return;
        m_env->Throw(m_saved);
        m_env->DeleteLocalRef(m_saved);
    }
    PendingExceptionKeeper(const PendingExceptionKeeper&) = delete;
    PendingExceptionKeeper& operator=(const PendingExceptionKeeper&) = delete;

private:
    JNIEnv* m_env;
    jthrowable m_saved;
};
