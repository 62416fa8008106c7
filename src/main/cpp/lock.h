// Named JVMTI raw monitors and their scoped holder.
#pragma once

#include <jvmti.h>

class JavaLock {
public:
    // A failed creation is logged and leaves an inert lock: every operation returns at once.
    explicit JavaLock(const char* name);
    ~JavaLock();
    JavaLock(const JavaLock&) = delete;
    JavaLock& operator=(const JavaLock&) = delete;

    void lock();
    void release();
    void wait(jlong millis);
    void wait();  // no time limit
    void notify();
    void notify_all();

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
