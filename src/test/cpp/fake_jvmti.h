// A JVMTI environment with no VM behind it: a function table holding only the few entries the
// agent glue under test calls, each recording the call. Every other slot is null on purpose, so a
// call the test did not expect crashes the test binary at once instead of passing unnoticed.
#pragma once

#include <jvmti.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// While alive, g_jvmti points at this environment; the previous value comes back at the end.
// Filled entries: Allocate, Deallocate, GetErrorName, CreateRawMonitor, DestroyRawMonitor,
// RawMonitorEnter/Exit/Wait/Notify/NotifyAll, AddCapabilities, GetCapabilities and
// RelinquishCapabilities.
class FakeJvmti : public _jvmtiEnv {
public:
    FakeJvmti();
    ~FakeJvmti();
    FakeJvmti(const FakeJvmti&) = delete;
    FakeJvmti& operator=(const FakeJvmti&) = delete;

    // Makes every later call of the named entry return `error` (JVMTI_ERROR_NONE undoes it).
    void fail(const std::string& function, jvmtiError error) { m_failures[function] = error; }

    // Calls in order, as "Name" or "Name(arguments)"; raw monitors appear as #1, #2...
    std::vector<std::string> calls;
    // Every record passed to AddCapabilities.
    std::vector<jvmtiCapabilities> added;
    // What GetCapabilities reports; AddCapabilities and RelinquishCapabilities update it.
    jvmtiCapabilities held{};

private:
    static FakeJvmti& of(jvmtiEnv* env) { return *static_cast<FakeJvmti*>(env); }
    jvmtiError result(const char* function) const;
    unsigned char* allocate(size_t size);

    static jvmtiError JNICALL Allocate(jvmtiEnv* env, jlong size, unsigned char** mem);
    static jvmtiError JNICALL Deallocate(jvmtiEnv* env, unsigned char* mem);
    static jvmtiError JNICALL GetErrorName(jvmtiEnv* env, jvmtiError error, char** name);
    static jvmtiError JNICALL CreateRawMonitor(jvmtiEnv* env, const char* name, jrawMonitorID* monitor);
    static jvmtiError JNICALL DestroyRawMonitor(jvmtiEnv* env, jrawMonitorID monitor);
    static jvmtiError JNICALL RawMonitorEnter(jvmtiEnv* env, jrawMonitorID monitor);
    static jvmtiError JNICALL RawMonitorExit(jvmtiEnv* env, jrawMonitorID monitor);
    static jvmtiError JNICALL RawMonitorWait(jvmtiEnv* env, jrawMonitorID monitor, jlong millis);
    static jvmtiError JNICALL RawMonitorNotify(jvmtiEnv* env, jrawMonitorID monitor);
    static jvmtiError JNICALL RawMonitorNotifyAll(jvmtiEnv* env, jrawMonitorID monitor);
    static jvmtiError JNICALL AddCapabilities(jvmtiEnv* env, const jvmtiCapabilities* caps);
    static jvmtiError JNICALL GetCapabilities(jvmtiEnv* env, jvmtiCapabilities* caps);
    static jvmtiError JNICALL RelinquishCapabilities(jvmtiEnv* env, const jvmtiCapabilities* caps);
    jvmtiError monitor_call(const char* function, jrawMonitorID monitor, const std::string& extra = "");

    jvmtiInterface_1_ m_table{};
    jvmtiEnv* m_previous;
    std::map<std::string, jvmtiError> m_failures;
    // Memory handed out and not yet given back; what remains at the end is reported as a leak.
    std::set<unsigned char*> m_live;
    int m_monitors_created = 0;
};

// Sets a global for a scope and puts the old value back.
template <typename T>
class ScopedValue {
public:
    ScopedValue(T& target, T value) : m_target(target), m_saved(target) { target = value; }
    ~ScopedValue() { m_target = m_saved; }
    ScopedValue(const ScopedValue&) = delete;
    ScopedValue& operator=(const ScopedValue&) = delete;

private:
    T& m_target;
    T m_saved;
};

// Runs `body` at the given log level and returns its log lines as "<LEVEL> <message>", the time,
// source position and function taken out; a line of any other shape comes back whole after "?".
std::vector<std::string> log_lines_of(int level, void (*body)(void*), void* context);

template <typename Body>
std::vector<std::string> log_lines(int level, Body body) {
    return log_lines_of(level, [](void* context) { (*static_cast<Body*>(context))(); }, &body);
}
