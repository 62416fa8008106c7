#include "reference.h"

#include "global.h"
#include "object_methods.h"
#include "spinlock.h"

#include <new>

ReferenceCountedJObject::ReferenceCountedJObject(JNIEnv* env, jobject object) {
    if (object == nullptr) return;
    auto* count = new (std::nothrow) Shared();
    if (count == nullptr) return;
    m_object = env->NewGlobalRef(object);
    if (m_object == nullptr) {
        delete count;
        return;
    }
    m_count = count;
    m_count->count.fetch_add(1);
}

ReferenceCountedJObject::ReferenceCountedJObject(const ReferenceCountedJObject& other) {
    SpinLockGuard guard(other.m_guard);
    m_object = other.m_object;
    m_count = other.m_count;
    if (m_count != nullptr) m_count->count.fetch_add(1);
}

ReferenceCountedJObject& ReferenceCountedJObject::operator=(const ReferenceCountedJObject& other) {
    if (this == &other) return *this;
    // Take the new pair under the other's guard, swap it in under our own, and drop the old pair
    // outside both: never two guards at once, and no JNI call under a guard.
    ReferenceCountedJObject incoming(other);
    {
        SpinLockGuard guard(m_guard);
        jobject object = m_object;
        Shared* count = m_count;
        m_object = incoming.m_object;
        m_count = incoming.m_count;
        incoming.m_object = object;
        incoming.m_count = count;
    }
    return *this;
}

ReferenceCountedJObject::~ReferenceCountedJObject() { decreaseRefCount(); }

void ReferenceCountedJObject::decreaseRefCount() {
    jobject object;
    Shared* count;
    {
        SpinLockGuard guard(m_guard);
        object = m_object;
        count = m_count;
        m_object = nullptr;
        m_count = nullptr;
    }
    if (count == nullptr) return;
    if (count->count.fetch_sub(1) != 1) return;
    if (object != nullptr && g_vm_alive) deleteGlobalRef(object);
    delete count;
}

int ReferenceCountedJObject::count() const {
    SpinLockGuard guard(m_guard);
    return m_count != nullptr ? m_count->count.load() : 0;
}

jmethodID ReferenceCountedJObject::method(JNIEnv* env, int slot, const char* name, const char* signature) const {
    // The caller holds a copy for its whole run, so the block cannot go away under this call.
    if (m_count == nullptr || m_object == nullptr || slot < 0 || slot >= METHOD_SLOTS) return nullptr;
    jmethodID cached = m_count->methods[slot].load(std::memory_order_acquire);
    if (cached != nullptr) return cached;
    unsigned bit = 1u << slot;
    if ((m_count->missing.load(std::memory_order_acquire) & bit) != 0) return nullptr;
    jmethodID found = find_method(env, m_object, name, signature);
    if (found != nullptr) {
        m_count->methods[slot].store(found, std::memory_order_release);
    } else {
        m_count->missing.fetch_or(bit, std::memory_order_release);
    }
    return found;
}

void ReferenceCountedJObject::deleteGlobalRef(jobject object) {
    if (g_vm == nullptr || !g_vm_alive) return;
    JNIEnv* env = nullptr;
    jint status = g_vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6);
    if (status == JNI_OK) {
        env->DeleteGlobalRef(object);
    } else if (status == JNI_EDETACHED) {
        if (g_vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) == JNI_OK) {
            env->DeleteGlobalRef(object);
            g_vm->DetachCurrentThread();
        }
    }
}
