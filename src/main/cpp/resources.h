// Small owners for what JVMTI and JNI hand out, so that every path gives them back.
#pragma once

#include "global.h"

#include <jni.h>
#include <jvmti.h>

#include <cstddef>

// Memory that JVMTI allocated for a result; given back with Deallocate when the holder ends.
template <typename T>
class JvmtiBuffer {
public:
    JvmtiBuffer() = default;
    ~JvmtiBuffer() { reset(); }
    JvmtiBuffer(const JvmtiBuffer&) = delete;
    JvmtiBuffer& operator=(const JvmtiBuffer&) = delete;

    // For a JVMTI out-parameter; anything held before is given back first.
    T** out() {
        reset();
        return &m_data;
    }
    T* get() const { return m_data; }
    T& operator[](size_t index) const { return m_data[index]; }
    explicit operator bool() const { return m_data != nullptr; }

    void reset() {
        if (m_data != nullptr && g_jvmti != nullptr) {
            g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_data));
        }
        m_data = nullptr;
    }

private:
    T* m_data = nullptr;
};

// A JNI local reference deleted at the end of the scope, for loops and long-running callbacks
// whose local references would otherwise pile up until the native method returns.
template <typename T>
class LocalRef {
public:
    explicit LocalRef(JNIEnv* env, T ref = nullptr) : m_env(env), m_ref(ref) {}
    ~LocalRef() { reset(); }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;

    T get() const { return m_ref; }
    T* out() {
        reset();
        return &m_ref;
    }
    explicit operator bool() const { return m_ref != nullptr; }
    void reset(T ref = nullptr) {
        if (m_ref != nullptr) m_env->DeleteLocalRef(m_ref);
        m_ref = ref;
    }

private:
    JNIEnv* m_env;
    T m_ref;
};

// The modified-UTF-8 characters of a managed string, released at the end of the scope.
// get() is null when the string is null or the VM could not supply the characters (then an
// OutOfMemoryError is pending).
class StringUtfChars {
public:
    StringUtfChars(JNIEnv* env, jstring string)
        : m_env(env), m_string(string),
          m_chars(string != nullptr ? env->GetStringUTFChars(string, nullptr) : nullptr) {}
    ~StringUtfChars() {
        if (m_chars != nullptr) m_env->ReleaseStringUTFChars(m_string, m_chars);
    }
    StringUtfChars(const StringUtfChars&) = delete;
    StringUtfChars& operator=(const StringUtfChars&) = delete;

    const char* get() const { return m_chars; }

private:
    JNIEnv* m_env;
    jstring m_string;
    const char* m_chars;
};

// Declares that the calling native code holds this many more local references, as after a JVMTI
// call that returns an array of them; JNI checking otherwise warns at the next JNI call.
inline void ensure_local_capacity(JNIEnv* env, jint count) {
    if (env->EnsureLocalCapacity(count + 16) != JNI_OK) env->ExceptionClear();
}
