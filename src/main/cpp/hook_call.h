// Calling the managed hooks that answer a stop with a step command: the breakpoint hook for
// breakpoints and steps, and the field and exception hooks.
#pragma once

#include "thread.h"

#include <jni.h>
#include <jvmti.h>

#include <optional>

// One hook call on an event thread: its events are off from construction until finish or abandon.
// The thread's record is found once, for the whole call.
class HookCall {
public:
    HookCall(JNIEnv* env, jthread thread, jmethodID method, jlocation location)
        : m_env(env), m_thread(thread), m_method(method), m_location(location), m_data(record_of(env, thread)),
          m_saved(saved_events()) {}

    HookCall(const HookCall&) = delete;
    HookCall& operator=(const HookCall&) = delete;

    jobject location_object(jmethodID method, jlocation location) const;
    // Restores what was on before the hook: the hook was not called.
    void abandon();
    // Acts on the hook's answer; NOOP gets back every event the thread had, a step in progress
    // included, anything else only the user's events and what the command has just switched on.
    void finish(jint command);

private:
    // The event thread's record; a virtual thread gets one when a hook is first called on it.
    ThreadData* record_of(JNIEnv* env, jthread thread);

    jlong saved_events();

    std::optional<ThreadDataAccess> m_made;  // before m_data, which it may hold
    JNIEnv* m_env;
    jthread m_thread;
    jmethodID m_method;
    jlocation m_location;
    ThreadData* m_data;
    jlong m_saved;
};

// Calls an int method of a hook (the step command it answers with); an exception it throws is
// logged and cleared.
jint call_int_hook(JNIEnv* env, jobject hook, jmethodID method, const char* name, ...);

// Reports a stop to the breakpoint hook with the thread's events off, and acts on its answer.
// False when no hook could be called (none registered, no breakpointHit, no thread context).
bool fire_breakpoint_hit(JNIEnv* env, jthread thread, jmethodID method, jlocation location);

// Tells the field hook that the statement that modified a watched field has completed. The
// hook's answer, or nothing when the hook was not called; its answer has been acted on.
std::optional<jint> fire_field_modification_complete(JNIEnv* env, jthread thread, jmethodID method,
                                                     jlocation location);
