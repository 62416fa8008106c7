// The classes the VM has loaded, as one list of local references.
#pragma once

#include "resources.h"

#include <jni.h>
#include <jvmti.h>

// The loaded classes, each reference freed with the list.
class LoadedClasses {
public:
    explicit LoadedClasses(JNIEnv* env) : m_env(env) {}
    ~LoadedClasses();
    LoadedClasses(const LoadedClasses&) = delete;
    LoadedClasses& operator=(const LoadedClasses&) = delete;

    jvmtiError read();
    // Gives the references back early; count() is 0 afterwards.
    void release();
    jint count() const { return m_count; }
    jclass operator[](jint k) const { return m_classes[static_cast<size_t>(k)]; }

private:
    JNIEnv* m_env;
    jint m_count = 0;
    JvmtiBuffer<jclass> m_classes;
};
