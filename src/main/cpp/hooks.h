// Calling methods of managed hook and callback objects.
#pragma once

#include "reference.h"

#include <jni.h>

// The method of the object's class, or null. A failed lookup leaves nothing pending.
jmethodID find_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// The method of a callback object handed to a native, or null with the VM's NoSuchMethodError left
// pending, so that the caller learns that its callback lacks the method.
jmethodID find_callback_method(JNIEnv* env, jobject object, const char* name, const char* signature);

// Calls a void method on the object when it has one. A managed exception the method throws is
// logged and cleared: it must not stay pending in the application thread that raised the event.
void call_void_hook(JNIEnv* env, jobject object, const char* name, const char* signature, ...);

// The same for a hook held as a counted copy, its method looked up once per registration in the
// given slot.
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
