// A JNI global reference shared by counted copies, so that an event callback can hold a hook
// for its whole run while the managed side replaces or clears it.
#pragma once

#include "spinlock.h"

#include <jni.h>

#include <atomic>

class ReferenceCountedJObject {
public:
    ReferenceCountedJObject() = default;
    // A new global reference to the object; the instance stays empty when the reference or its
    // counter cannot be had (out of memory).
    ReferenceCountedJObject(JNIEnv* env, jobject object);
    ReferenceCountedJObject(const ReferenceCountedJObject& other);
    ReferenceCountedJObject& operator=(const ReferenceCountedJObject& other);
    ~ReferenceCountedJObject();

    // Drops this holder's count; the last holder deletes the global reference (while the VM is
    // alive: at process exit no JNI call may be made) and frees the counter.
    void decreaseRefCount();
    // Deletes a global reference from any thread, attaching it to the VM for the call if needed.
    static void deleteGlobalRef(jobject object);

    // A method of the object's class, looked up once per registration and kept in the block the
    // copies share: a newly registered object starts with an empty cache. Null when the class has
    // no such method (nothing left pending); a miss is remembered too, so that a hook without the
    // method does not make the VM build and drop a NoSuchMethodError at every event. Each caller
    // uses its own fixed slot for one method.
    static constexpr int METHOD_SLOTS = 4;
    jmethodID method(JNIEnv* env, int slot, const char* name, const char* signature) const;

    jobject get() const { return m_object; }
    bool isSet() const { return m_object != nullptr; }
    // The number of live copies, for diagnostics and tests; 0 for an empty instance.
    int count() const;

private:
    // What the copies of one registration share: their count and the methods looked up.
    struct Shared {
        std::atomic<int> count{0};
        std::atomic<jmethodID> methods[METHOD_SLOTS] = {};
        std::atomic<unsigned> missing{0};  // bit per slot: looked up, not there
    };

    jobject m_object = nullptr;
    Shared* m_count = nullptr;
    // Guards the pair of fields, so that a copy taken while the instance is being reassigned
    // never pairs one hook's reference with another hook's counter.
    mutable SpinLock m_guard;
};
