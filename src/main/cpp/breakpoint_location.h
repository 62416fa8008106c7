// A breakpoint location, a method and a bytecode index, and the managed BreakpointLocation objects
// that name one.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <optional>

// The JNI type signature of the managed BreakpointLocation.
#define KV_BREAKPOINT_LOCATION_TYPE "Lcom/brantide/kelvane/plugin/jvmti/BreakpointLocation;"

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
