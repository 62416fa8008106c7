// The agent's record of each application thread, reached through JVMTI thread-local storage.
#pragma once

#include "spinlock.h"

#include <jni.h>
#include <jvmti.h>

#include <atomic>
#include <memory>
#include <mutex>

struct StepData;

// The step in progress of one thread. A thread suspended from outside goes on running native code
// until its next call into the VM, so resumeThread may replace the step while the owner still
// judges an event with it: the owner holds a share of the step for that long, and a step never
// changes once in the slot. A spin lock guards the slot for the few instructions of a pointer
// move, no VM call under it, so that a thread that is not stepping pays one uncontended lock per
// hit and no process-wide mutex (as the atomic shared_ptr functions would take).
class StepSlot {
public:
    std::shared_ptr<StepData> get() const {
        SpinLockGuard guard(m_lock);
        return m_step;
    }
    // The step in the slot for its owner, which keeps a share of the last one it saw: while that is
    // still the one in the slot (mostly), the owner reads one pointer and takes no lock.
    const std::shared_ptr<StepData>& get(std::shared_ptr<StepData>* seen) const {
        if (m_current.load(std::memory_order_acquire) != seen->get()) *seen = get();
        return *seen;
    }
    // The step taken out of the slot, empty when there was none.
    std::shared_ptr<StepData> take() {
        SpinLockGuard guard(m_lock);
        m_current.store(nullptr, std::memory_order_release);
        return std::move(m_step);
    }
    // Puts a step in (or empties the slot); the replaced one is released outside the lock.
    void put(std::shared_ptr<StepData> step) {
        {
            SpinLockGuard guard(m_lock);
            m_step.swap(step);
            m_current.store(m_step.get(), std::memory_order_release);
        }
    }
    // Empties the slot if it still holds this step: a new command may have replaced it meanwhile.
    void release(const std::shared_ptr<StepData>& step) {
        std::shared_ptr<StepData> released;
        SpinLockGuard guard(m_lock);
        if (m_step == step) released.swap(m_step);
        m_current.store(m_step.get(), std::memory_order_release);
    }

private:
    mutable SpinLock m_lock;
    std::shared_ptr<StepData> m_step;
    // What m_step points to, readable without the lock; a step the owner holds a share of cannot
    // be freed, so no other step can appear at its address while the owner compares.
    std::atomic<StepData*> m_current{nullptr};
};

// Created on its own thread in ThreadStart, released there in ThreadEnd. Other threads reach it
// only through a ThreadDataAccess, which keeps it alive for as long as they use it. It is also
// attached as the thread's JVMTI thread-local storage; a thread whose storage cannot be set gets no
// record.
struct ThreadData {
    ThreadData() = default;
    ThreadData(const ThreadData&) = delete;
    ThreadData& operator=(const ThreadData&) = delete;
    ~ThreadData();

    jlong thread_id = 0;
    // A virtual thread's own object, held weakly, so that the dump can name it; null for a
    // platform thread. Set before the record is shared, released with the record.
    jweak virtual_thread = nullptr;
    // Bit (e - 50) for JVMTI event e: what the managed side switched on, and what is on now.
    // Atomic: the owning thread and managed threads change them at the same time.
    std::atomic<jlong> user_events{0};
    std::atomic<jlong> active_events{0};
    // What the VM has switched on for the thread. Events that cost nothing while on (breakpoint,
    // field and exception events) stay on in the VM while a hook runs, and are dropped by their
    // callbacks instead: the two VM calls per hook would cost more than the whole rest of a hit.
    std::atomic<jlong> vm_events{0};
    // Set while a hook runs on the thread (between clear_active_events and restore_user_events):
    // events switched for the whole VM cannot be switched off for one thread, so they are dropped.
    std::atomic<bool> hook_running{false};
    // The step in progress; used by the owning thread, or by another one while it is suspended.
    StepSlot step;
    // Serialises one event switch (the JVMTI call and the mask update) against another, so the
    // masks always say what the VM was last told. Timed: its holder may be suspended inside the
    // VM call, and a thread that waited for it without end could be the one that resumes it.
    std::timed_mutex switch_lock;
};

// The record of a thread, held safely for the scope. The owning thread reads its own record with
// no lock at all; any other thread finds it by Java thread id and holds a share of it for the
// scope, so that the record outlives a ThreadEnd that comes meanwhile (JVMTI calls on an ended
// thread then fail with THREAD_NOT_ALIVE, which every caller handles).
class ThreadDataAccess {
public:
    // With create_virtual, a virtual thread that has no record yet gets one (platform threads get
    // theirs when they start).
    explicit ThreadDataAccess(jthread thread, bool create_virtual = false);
    ThreadDataAccess(const ThreadDataAccess&) = delete;
    ThreadDataAccess& operator=(const ThreadDataAccess&) = delete;

    // An error when the record could not be looked for (the calling thread is not attached).
    jvmtiError error() const { return m_error; }
    // Null when the thread has no record: the agent never saw it start, or it has ended.
    ThreadData* get() const { return m_data; }

private:
    std::shared_ptr<ThreadData> m_foreign_share;
    jvmtiError m_error = JVMTI_ERROR_NONE;
    ThreadData* m_data = nullptr;
};

// The calling thread's own record, or null: for event callbacks, which always run on the thread
// the event is about. No lock, no JNI call; where the VM has virtual threads, one JVMTI call that
// stays in native code, since the OS thread may carry a virtual thread.
ThreadData* own_thread_data();

// At a platform thread's start, on the thread itself: gives it its record (none when its JVMTI
// thread-local storage cannot be set).
void attach_thread_data(JNIEnv* env, jthread thread, jlong id);
// At a platform thread's end, on the thread itself: takes its record out of reach; the last of the
// threads still holding a share of it releases it with its stepping state.
void release_thread_data(JNIEnv* env);

// At a virtual thread's end, on the thread itself: frees its record, if it has one. True when it
// had one.
bool release_virtual_record();
// How many virtual threads have records.
long virtual_records();
// Calls visit with each live virtual thread that has a record (a local reference, deleted after).
void for_each_virtual_thread(JNIEnv* env, void (*visit)(jthread thread));

// Virtual threads start and end on themselves. Both events are on only while something needs
// them: the start while a thread hook is registered, the end also while a virtual thread has a
// record to free.
void update_virtual_thread_events();

