// Breakpoint locations, breakpoints and field watches.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <atomic>
#include <optional>

// What the VM currently holds, as set and cleared through the natives; read by the dump.
extern std::atomic<unsigned int> s_breakpoint_counter;
extern std::atomic<unsigned int> s_field_access_counter;
extern std::atomic<unsigned int> s_field_modification_counter;

// Whether a breakpoint set through the natives stands at the location.
bool has_breakpoint(jmethodID method, jlocation location);

// The agent's own breakpoints, where steps wait for calls to return: held once per waiting step,
// sharing the VM's breakpoint with a user's one at the same place, never shown to hooks and never
// counted in s_breakpoint_counter. Hold is false when the VM refuses the place.
bool hold_return_breakpoint(jmethodID method, jlocation location);
void drop_return_breakpoint(jmethodID method, jlocation location);
// Whether one of them may stand in the VM: only then must breakpoint events be told apart.
bool has_return_breakpoints();

// A method and a bytecode index, as the VM names them.
class BreakpointLocation {
public:
    BreakpointLocation(jmethodID method, jlocation location) : m_method(method), m_location(location) {}

    jmethodID method() const { return m_method; }
    jlocation location() const { return m_location; }

    // A new local reference to the managed BreakpointLocation, or null (one ERROR line, nothing
    // left pending). A thread that asks for the same place again gets the same (immutable)
    // object back while it lives.
    jobject to_java(JNIEnv* env) const;

    // Lets go of the objects the calling thread keeps for to_java; at thread end.
    static void forget_thread_cache(JNIEnv* env);

    // The location a managed BreakpointLocation names: its member class, member signature (name
    // and descriptor) and "location" field. Empty when it names no method of that class, or when
    // anything about it is unusable (nulls, missing members, a class not yet prepared).
    static std::optional<BreakpointLocation> from_java(JNIEnv* env, jobject object);

private:
    jobject make_java(JNIEnv* env) const;

    jmethodID m_method;
    jlocation m_location;
};
