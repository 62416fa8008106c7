#include "fake_jvmti.h"

#include "global.h"
#include "log.h"

#include <cstdint>
#include <cstring>
#include <regex>
#include <sstream>

// The entries are captureless lambdas: JNICALL is empty on the platforms the tests run on.
FakeJvmti::FakeJvmti() : m_previous(g_jvmti) {
    // Error names are "name-of-<number>", in memory the caller must give back with Deallocate.
    m_table.GetErrorName = [](jvmtiEnv* env, jvmtiError error, char** name) {
        jvmtiError status = of(env).record("GetErrorName", std::to_string(error));
        if (status != JVMTI_ERROR_NONE) return status;
        std::string text = "name-of-" + std::to_string(error);
        *name = strcpy(reinterpret_cast<char*>(new unsigned char[text.size() + 1]), text.c_str());
        return status;
    };
    m_table.Deallocate = [](jvmtiEnv* env, unsigned char* mem) {
        delete[] mem;
        return of(env).record("Deallocate");
    };
    // Monitor ids are small numbers dressed as pointers; nothing ever looks behind them.
    m_table.CreateRawMonitor = [](jvmtiEnv* env, const char* name, jrawMonitorID* monitor) {
        *monitor = reinterpret_cast<jrawMonitorID>(++of(env).m_monitors_created);
        return of(env).record("CreateRawMonitor", name);
    };
// The monitor entries differ only in their names.
#define KV_FAKE_MONITOR_ENTRY(name) \
    m_table.name = [](jvmtiEnv* env, jrawMonitorID m) { return of(env).monitor_call(#name, m); }
    KV_FAKE_MONITOR_ENTRY(DestroyRawMonitor);
    KV_FAKE_MONITOR_ENTRY(RawMonitorEnter);
    KV_FAKE_MONITOR_ENTRY(RawMonitorExit);
#undef KV_FAKE_MONITOR_ENTRY
    functions = &m_table;
    g_jvmti = this;
}

FakeJvmti::~FakeJvmti() { g_jvmti = m_previous; }

jvmtiError FakeJvmti::record(const char* function, const std::string& arguments) {
    calls.push_back(arguments.empty() ? function : std::string(function) + "(" + arguments + ")");
    auto found = m_failures.find(function);
    return found == m_failures.end() ? JVMTI_ERROR_NONE : found->second;
}

jvmtiError FakeJvmti::monitor_call(const char* function, jrawMonitorID monitor) {
    return record(function, "#" + std::to_string(reinterpret_cast<uintptr_t>(monitor)));
}

std::string stderr_of(int level, const std::function<void()>& body) {
    const int saved_level = KV_JVMTI_LOG_LEVEL;
    KV_JVMTI_LOG_LEVEL = level;
    testing::internal::CaptureStderr();
    body();
    KV_JVMTI_LOG_LEVEL = saved_level;
    return testing::internal::GetCapturedStderr();
}

std::vector<std::string> log_lines(int level, const std::function<void()>& body) {
    static const std::regex shape("(\\w+) +Kelvane JVMTI: [0-9.]+ [^ ]+:[0-9]+:[^ ]*\\(\\) (.*)");
    std::vector<std::string> lines;
    std::istringstream in(stderr_of(level, body));
    std::smatch match;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(std::regex_match(line, match, shape) ? match[1].str() + " " + match[2].str() : "?" + line);
    }
    return lines;
}
