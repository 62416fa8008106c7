// A JVMTI environment with no VM behind it: a function table holding only the entries the agent
// glue under test calls (error names and raw monitors), each recording the call. Every other slot
// is null on purpose, so a call the test did not expect crashes the test binary at once instead
// of passing unnoticed. Memory it hands out is plain new[], so the sanitized run of the tests
// (tools/sanitize.sh) reports any buffer never given back.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// While alive, g_jvmti points at this environment (unless a test sets it otherwise); the value
// before comes back at the end.
class FakeJvmti : public _jvmtiEnv {
public:
    FakeJvmti();
    ~FakeJvmti();
    FakeJvmti(const FakeJvmti&) = delete;
    FakeJvmti& operator=(const FakeJvmti&) = delete;

    // Makes every later call of the named entry return `error`.
    void fail(const std::string& function, jvmtiError error) { m_failures[function] = error; }

    // Calls in order, as "Name" or "Name(arguments)"; raw monitors appear as #1, #2...
    std::vector<std::string> calls;

private:
    static FakeJvmti& of(jvmtiEnv* env) { return *static_cast<FakeJvmti*>(env); }
    // Records the call and answers with the error set for it, if any.
    jvmtiError record(const char* function, const std::string& arguments = "");
    jvmtiError monitor_call(const char* function, jrawMonitorID monitor);

    jvmtiInterface_1_ m_table{};
    jvmtiEnv* m_previous;
    std::map<std::string, jvmtiError> m_failures;
    uintptr_t m_monitors_created = 0;
};

// What `body` writes on standard error while the log level is `level`.
std::string stderr_of(int level, const std::function<void()>& body);

// The same as log lines "<LEVEL> <message>", the time, source position and function taken out; a
// line of any other shape comes back whole after "?".
std::vector<std::string> log_lines(int level, const std::function<void()>& body);
