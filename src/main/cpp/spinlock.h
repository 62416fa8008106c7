// A tiny lock for critical sections of a few instructions that never call into the VM.
#pragma once

#include <atomic>
#include <sched.h>

class SpinLock {
public:
    void lock() {
        for (int spins = 0; m_locked.exchange(true, std::memory_order_acquire); spins++) {
            if (spins > 64) sched_yield();
        }
    }
    void unlock() { m_locked.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_locked{false};
};

class SpinLockGuard {
public:
    explicit SpinLockGuard(SpinLock& lock) : m_lock(lock) { m_lock.lock(); }
    ~SpinLockGuard() { m_lock.unlock(); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    SpinLock& m_lock;
};
