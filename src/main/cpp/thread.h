// The agent's record of each application thread, reached through JVMTI thread-local storage.
#pragma once

#include "step_command.h"

#include <jni.h>
#include <jvmti.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

// Created on its own thread in ThreadStart, released there in ThreadEnd. Other threads reach it
// only through a ThreadDataAccess, which keeps it alive for as long as they use it. It is also
// attached as the thread's JVMTI thread-local storage; a thread whose storage cannot be set gets no
// record.
struct ThreadData {
    ThreadData() = default;
    ThreadData(const ThreadData&) = delete;
    ThreadData& operator=(const ThreadData&) = delete;
    ~ThreadData() = default;

    jlong thread_id = 0;
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
    // Read and written only through std::atomic_load / atomic_store / atomic_exchange: a thread
    // suspended from outside goes on running native code until its next call into the VM, so
    // resumeThread may replace the record while the owner still judges an event with it. The owner
    // holds a share of the record for that long, and the record never changes once attached.
    std::shared_ptr<StepData> step_data;
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
    explicit ThreadDataAccess(jthread thread);
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
// the event is about. No lock, no JNI call.
ThreadData* own_thread_data();

// A new ThreadContext for the thread (local reference), or null with one ERROR line.
jobject get_thread_context(JNIEnv* env, jthread thread);
// The thread's name, or "unknown".
std::string get_thread_name(jthread thread);
// The thread's Java id, read from java.lang.Thread's own field (no application code runs), or -1.
jlong get_thread_id(JNIEnv* env, jthread thread);

void JNICALL ThreadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL ThreadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
