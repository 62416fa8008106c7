// Named JVMTI raw monitors and their scoped holder.
#pragma once

#include <jvmti.h>

#include <chrono>
#include <mutex>

// How long the agent's own locks are waited for. Their holder may be a thread suspended in the
// middle of a VM call: going on without the lock then risks a lagging switch, waiting risks a deadlock.
constexpr auto LOCK_PATIENCE = std::chrono::milliseconds(100);

// The lock when it comes within LOCK_PATIENCE; check owns_lock().
inline std::unique_lock<std::timed_mutex> lock_patiently(std::timed_mutex& mutex) {
    return std::unique_lock<std::timed_mutex>(mutex, LOCK_PATIENCE);
}

class JavaLock {
public:
    // A failed creation is logged and leaves an inert lock: every operation returns at once.
    explicit JavaLock(const char* name);
    ~JavaLock();
    JavaLock(const JavaLock&) = delete;
    JavaLock& operator=(const JavaLock&) = delete;

    void lock();
    void release();

    bool is_inert() const { return m_monitor == nullptr; }

private:
    jrawMonitorID m_monitor = nullptr;
};

// Holds a lock for the extent of a scope; a null lock is accepted and protects nothing.
class JavaLockGuard {
public:
    explicit JavaLockGuard(JavaLock* lock);
    ~JavaLockGuard();
    JavaLockGuard(const JavaLockGuard&) = delete;
    JavaLockGuard& operator=(const JavaLockGuard&) = delete;

private:
    JavaLock* m_lock;
};
