#include "fake_jvmti.h"

#include "global.h"
#include "log.h"

#include <cstdint>
#include <cstring>
#include <regex>
#include <sstream>

FakeJvmti::FakeJvmti() : m_previous(g_jvmti) {
    m_table.Allocate = Allocate;
    m_table.Deallocate = Deallocate;
    m_table.GetErrorName = GetErrorName;
    m_table.CreateRawMonitor = CreateRawMonitor;
    m_table.DestroyRawMonitor = DestroyRawMonitor;
    m_table.RawMonitorEnter = RawMonitorEnter;
    m_table.RawMonitorExit = RawMonitorExit;
    m_table.RawMonitorWait = RawMonitorWait;
    m_table.RawMonitorNotify = RawMonitorNotify;
    m_table.RawMonitorNotifyAll = RawMonitorNotifyAll;
    m_table.AddCapabilities = AddCapabilities;
    m_table.GetCapabilities = GetCapabilities;
    m_table.RelinquishCapabilities = RelinquishCapabilities;
    functions = &m_table;
    g_jvmti = this;
}

FakeJvmti::~FakeJvmti() {
    g_jvmti = m_previous;
    EXPECT_TRUE(m_live.empty()) << m_live.size() << " JVMTI allocation(s) never given back";
    for (unsigned char* mem : m_live) delete[] mem;
}

jvmtiError FakeJvmti::result(const char* function) const {
    auto found = m_failures.find(function);
    return found == m_failures.end() ? JVMTI_ERROR_NONE : found->second;
}

unsigned char* FakeJvmti::allocate(size_t size) {
    unsigned char* mem = new unsigned char[size == 0 ? 1 : size];
    m_live.insert(mem);
    return mem;
}

jvmtiError JNICALL FakeJvmti::Allocate(jvmtiEnv* env, jlong size, unsigned char** mem) {
    FakeJvmti& fake = of(env);
    fake.calls.push_back("Allocate(" + std::to_string(size) + ")");
    jvmtiError error = fake.result("Allocate");
    if (error == JVMTI_ERROR_NONE) *mem = fake.allocate(static_cast<size_t>(size));
    return error;
}

jvmtiError JNICALL FakeJvmti::Deallocate(jvmtiEnv* env, unsigned char* mem) {
    FakeJvmti& fake = of(env);
    fake.calls.emplace_back("Deallocate");
    if (mem == nullptr) return JVMTI_ERROR_NONE;
    if (fake.m_live.erase(mem) == 0) {
        ADD_FAILURE() << "Deallocate of memory the environment did not hand out (or gave back twice)";
        return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    delete[] mem;
    return JVMTI_ERROR_NONE;
}

jvmtiError JNICALL FakeJvmti::GetErrorName(jvmtiEnv* env, jvmtiError error, char** name) {
    FakeJvmti& fake = of(env);
    fake.calls.push_back("GetErrorName(" + std::to_string(error) + ")");
    jvmtiError status = fake.result("GetErrorName");
    if (status != JVMTI_ERROR_NONE) return status;
    const char* text;
    switch (error) {
        case JVMTI_ERROR_NONE: text = "JVMTI_ERROR_NONE"; break;
        case JVMTI_ERROR_INVALID_MONITOR: text = "JVMTI_ERROR_INVALID_MONITOR"; break;
        case JVMTI_ERROR_NOT_MONITOR_OWNER: text = "JVMTI_ERROR_NOT_MONITOR_OWNER"; break;
        case JVMTI_ERROR_INTERRUPT: text = "JVMTI_ERROR_INTERRUPT"; break;
        case JVMTI_ERROR_NOT_AVAILABLE: text = "JVMTI_ERROR_NOT_AVAILABLE"; break;
        case JVMTI_ERROR_OUT_OF_MEMORY: text = "JVMTI_ERROR_OUT_OF_MEMORY"; break;
        default: return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    *name = reinterpret_cast<char*>(fake.allocate(strlen(text) + 1));
    memcpy(*name, text, strlen(text) + 1);
    return JVMTI_ERROR_NONE;
}

jvmtiError JNICALL FakeJvmti::CreateRawMonitor(jvmtiEnv* env, const char* name, jrawMonitorID* monitor) {
    FakeJvmti& fake = of(env);
    fake.calls.push_back(std::string("CreateRawMonitor(") + name + ")");
    jvmtiError error = fake.result("CreateRawMonitor");
    // Monitor ids are small numbers dressed as pointers; nothing ever looks behind them.
    if (error == JVMTI_ERROR_NONE) {
        *monitor = reinterpret_cast<jrawMonitorID>(static_cast<uintptr_t>(++fake.m_monitors_created));
    }
    return error;
}

jvmtiError FakeJvmti::monitor_call(const char* function, jrawMonitorID monitor, const std::string& extra) {
    calls.push_back(std::string(function) + "(#" + std::to_string(reinterpret_cast<uintptr_t>(monitor)) + extra +
                    ")");
    return result(function);
}

jvmtiError JNICALL FakeJvmti::DestroyRawMonitor(jvmtiEnv* env, jrawMonitorID monitor) {
    return of(env).monitor_call("DestroyRawMonitor", monitor);
}

jvmtiError JNICALL FakeJvmti::RawMonitorEnter(jvmtiEnv* env, jrawMonitorID monitor) {
    return of(env).monitor_call("RawMonitorEnter", monitor);
}

jvmtiError JNICALL FakeJvmti::RawMonitorExit(jvmtiEnv* env, jrawMonitorID monitor) {
    return of(env).monitor_call("RawMonitorExit", monitor);
}

jvmtiError JNICALL FakeJvmti::RawMonitorWait(jvmtiEnv* env, jrawMonitorID monitor, jlong millis) {
    return of(env).monitor_call("RawMonitorWait", monitor, ", " + std::to_string(millis));
}

jvmtiError JNICALL FakeJvmti::RawMonitorNotify(jvmtiEnv* env, jrawMonitorID monitor) {
    return of(env).monitor_call("RawMonitorNotify", monitor);
}

jvmtiError JNICALL FakeJvmti::RawMonitorNotifyAll(jvmtiEnv* env, jrawMonitorID monitor) {
    return of(env).monitor_call("RawMonitorNotifyAll", monitor);
}

namespace {
// The capabilities record is a run of bit-fields; these treat it as plain words.
constexpr size_t CAP_WORDS = sizeof(jvmtiCapabilities) / sizeof(uint32_t);

void combine(jvmtiCapabilities& target, const jvmtiCapabilities& change, bool add) {
    uint32_t a[CAP_WORDS], b[CAP_WORDS];
    memcpy(a, &target, sizeof a);
    memcpy(b, &change, sizeof b);
    for (size_t i = 0; i < CAP_WORDS; i++) a[i] = add ? (a[i] | b[i]) : (a[i] & ~b[i]);
    memcpy(&target, a, sizeof a);
}
}  // namespace

jvmtiError JNICALL FakeJvmti::AddCapabilities(jvmtiEnv* env, const jvmtiCapabilities* caps) {
    FakeJvmti& fake = of(env);
    fake.calls.emplace_back("AddCapabilities");
    fake.added.push_back(*caps);
    jvmtiError error = fake.result("AddCapabilities");
    if (error == JVMTI_ERROR_NONE) combine(fake.held, *caps, true);
    return error;
}

jvmtiError JNICALL FakeJvmti::GetCapabilities(jvmtiEnv* env, jvmtiCapabilities* caps) {
    FakeJvmti& fake = of(env);
    fake.calls.emplace_back("GetCapabilities");
    jvmtiError error = fake.result("GetCapabilities");
    if (error == JVMTI_ERROR_NONE) *caps = fake.held;
    return error;
}

jvmtiError JNICALL FakeJvmti::RelinquishCapabilities(jvmtiEnv* env, const jvmtiCapabilities* caps) {
    FakeJvmti& fake = of(env);
    fake.calls.emplace_back("RelinquishCapabilities");
    jvmtiError error = fake.result("RelinquishCapabilities");
    if (error == JVMTI_ERROR_NONE) combine(fake.held, *caps, false);
    return error;
}

std::vector<std::string> log_lines_of(int level, void (*body)(void*), void* context) {
    std::string text;
    {
        ScopedValue<int> scoped_level(KV_JVMTI_LOG_LEVEL, level);
        testing::internal::CaptureStderr();
        body(context);
        text = testing::internal::GetCapturedStderr();
    }
    static const std::regex shape("(\\w+) Kelvane JVMTI: [0-9.]+ [^ ]+:[0-9]+:[^ ]*\\(\\) (.*)");
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::smatch match;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(std::regex_match(line, match, shape) ? match[1].str() + " " + match[2].str() : "?" + line);
    }
    return lines;
}
