#include "kvjvmti.h"

#include "capabilities.h"
#include "config.h"
#include "dispatch.h"
#include "dump.h"
#include "error_name.h"
#include "global.h"
#include "heap_memory.h"
#include "hooks.h"
#include "lock.h"
#include "log.h"
#include "reference.h"
#include "resources.h"
#include "stepping.h"
#include "thread_events.h"
#include "version.h"
#include "virtual_threads.h"
#include "vm_events.h"

#include <cstdlib>

namespace {

struct CallbackLine {
    const char* name;
    bool (*installed)(const jvmtiEventCallbacks& callbacks);
};

// Start-up names the installed callbacks in this order; SingleStep stands for either stepping
// variant.
const CallbackLine CALLBACK_LINES[] = {
    {"Breakpoint", [](const jvmtiEventCallbacks& c) { return c.Breakpoint != nullptr; }},
    {"Exception", [](const jvmtiEventCallbacks& c) { return c.Exception != nullptr; }},
    {"ExceptionCatch", [](const jvmtiEventCallbacks& c) { return c.ExceptionCatch != nullptr; }},
    {"SingleStep", [](const jvmtiEventCallbacks& c) { return c.SingleStep != nullptr; }},
    {"FramePop", [](const jvmtiEventCallbacks& c) { return c.FramePop != nullptr; }},
    {"ClassPrepare", [](const jvmtiEventCallbacks& c) { return c.ClassPrepare != nullptr; }},
    {"FieldAccess", [](const jvmtiEventCallbacks& c) { return c.FieldAccess != nullptr; }},
    {"FieldModification", [](const jvmtiEventCallbacks& c) { return c.FieldModification != nullptr; }},
    {"ThreadStart", [](const jvmtiEventCallbacks& c) { return c.ThreadStart != nullptr; }},
    {"ThreadEnd", [](const jvmtiEventCallbacks& c) { return c.ThreadEnd != nullptr; }},
    {"DataDumpRequest", [](const jvmtiEventCallbacks& c) { return c.DataDumpRequest != nullptr; }},
    {"ClassFileLoadHook", [](const jvmtiEventCallbacks& c) { return c.ClassFileLoadHook != nullptr; }},
};

struct GlobalEvent {
    jvmtiEvent event;
    const char* name;
};

// Wanted from load to unload for the whole VM; the class events are switched while something
// listens (update_class_events), everything else per thread.
const GlobalEvent DEFAULT_EVENTS[] = {
    {JVMTI_EVENT_THREAD_START, "ThreadStart"},
    {JVMTI_EVENT_THREAD_END, "ThreadEnd"},
    {JVMTI_EVENT_DATA_DUMP_REQUEST, "DataDumpRequest"},
};

// ClassFileLoadHook stays on at unload: the VM may still be loading classes.
const GlobalEvent UNLOAD_EVENTS[] = {
    {JVMTI_EVENT_THREAD_START, "ThreadStart"},
    {JVMTI_EVENT_THREAD_END, "ThreadEnd"},
    {JVMTI_EVENT_CLASS_PREPARE, "ClassPrepare"},
    {JVMTI_EVENT_DATA_DUMP_REQUEST, "DumpRequest"},
};

// A property's value, or null when it is not set.
class SystemProperty {
public:
    explicit SystemProperty(const char* name) {
        if (g_jvmti->GetSystemProperty(name, m_value.out()) != JVMTI_ERROR_NONE) m_value.reset();
    }
    const char* get() const { return m_value.get(); }

private:
    JvmtiBuffer<char> m_value;
};

void read_heap_walk_ceiling() {
    SystemProperty ceiling("kv.jvmti.heap.walk.max.mb");
    long megabytes = parse_walk_max_mb(ceiling.get());
    if (megabytes == 0) {
        if (ceiling.get() != nullptr) LOG_WARN("kv.jvmti.heap.walk.max.mb=%s is not a number of megabytes", ceiling.get());
        megabytes = machine_walk_max_mb();
    }
    g_heap_walk_max_mb = megabytes;
}

void read_configuration() {
    {
        SystemProperty level("KV_JVMTI_LOG_LEVEL");
        if (level.get() != nullptr) KV_JVMTI_LOG_LEVEL = parse_log_level(level.get());
    }
    bool coldfusion;
    {
        SystemProperty home("coldfusion.home");
        if (home.get() != nullptr) {
            coldfusion = true;
        } else {
            SystemProperty command("sun.java.command");
            coldfusion = is_coldfusion(false, command.get());
        }
    }
    g_exceptions_enabled = parse_switch(SystemProperty("kv.jvmti.enable.exceptions").get(), coldfusion);
    g_stepping_enabled = parse_switch(SystemProperty("kv.jvmti.enable.fast.stepping").get(), coldfusion);
    g_compiled_stepping =
        g_stepping_enabled && parse_switch(SystemProperty("kv.jvmti.enable.compiled.stepping").get(), true);
    g_inspection_only = g_inspection_only || parse_switch(SystemProperty("kv.jvmti.inspection.only").get(), true);
    read_heap_walk_ceiling();
}

// What of the set the VM can still give: in a VM the agent was attached to, the load-time-only
// capabilities are gone, and asking for any of them would fail the whole request.
jvmtiCapabilities available(const jvmtiCapabilities& wanted) {
    jvmtiCapabilities potential{};
    if (g_jvmti->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE) return wanted;
    return capabilities_in_both(wanted, potential);
}

// Virtual threads are seen as such only by an agent that holds their capability from load on.
void add_virtual_thread_support() {
    jvmtiCapabilities potential{};
    if (g_jvmti_version < JVMTI_VERSION_WITH_VIRTUAL_THREADS ||
        g_jvmti->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE || !has_virtual_thread_capability(potential)) {
        return;
    }
    jvmtiCapabilities wanted{};
    set_virtual_thread_capability(&wanted, true);
    g_virtual_threads = g_jvmti->AddCapabilities(&wanted) == JVMTI_ERROR_NONE;
}

// Acquiring the debugging set (the inspection set, for inspection only) once at load, while the VM
// still offers its load-time-only capabilities, keeps them available to setActive(true) later;
// giving them back at once keeps the VM at full speed while nobody debugs.
void settle_capabilities() {
    jvmtiCapabilities basic = available(basic_capabilities());
    g_jvmti->AddCapabilities(&basic);
    add_virtual_thread_support();
    if (!add_upd_capabilities()) {
        LOG_ERROR("Unable to acquire JVMTI capabilities.");
        return;
    }
    jvmtiCapabilities held{};
    if (g_jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) return;
    jvmtiCapabilities surplus = without_basic(held);
    g_jvmti->RelinquishCapabilities(&surplus);
}

void enable_default_events() {
    LOG_DEBUG("Default Global Events");
    for (const GlobalEvent& global : DEFAULT_EVENTS) {
        jvmtiError error = g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, global.event, nullptr);
        if (error == JVMTI_ERROR_NONE) {
            LOG_DEBUG("\t%s - events enabled", global.name);
        } else {
            LOG_WARN("\t%s - events could not be enabled - %s", global.name, get_error_message(error).c_str());
        }
    }
}

// At process exit the hook globals are destroyed while the VM is going away: no JNI call may be
// made then, whether or not the VM unloaded the agent first.
void forget_references_at_exit() {
    g_vm_alive = false;
    g_active = false;
}

}  // namespace

jvmtiEventCallbacks build_callbacks(bool exceptions_enabled, bool stepping_enabled) {
    jvmtiEventCallbacks callbacks{};
    callbacks.Breakpoint = Breakpoint;
    if (exceptions_enabled) {
        callbacks.Exception = Exception;
        callbacks.ExceptionCatch = ExceptionCatch;
    }
    if (stepping_enabled) {
        callbacks.SingleStep = SingleStep;
        callbacks.FramePop = FramePop;
    } else {
        callbacks.SingleStep = SingleStepNoFramePop;
    }
    callbacks.ClassPrepare = ClassPrepare;
    callbacks.ClassFileLoadHook = ClassFileLoadHook;
    callbacks.FieldAccess = FieldAccess;
    callbacks.FieldModification = FieldModification;
    callbacks.ThreadStart = ThreadStart;
    callbacks.ThreadEnd = ThreadEnd;
    callbacks.DataDumpRequest = DataDumpRequest;
    return callbacks;
}

std::vector<std::string> installed_callback_names(const jvmtiEventCallbacks& callbacks) {
    std::vector<std::string> names;
    for (const CallbackLine& line : CALLBACK_LINES) {
        if (line.installed(callbacks)) names.emplace_back(line.name);
    }
    return names;
}

void register_callbacks() {
    CallbacksWithVirtualThreads table{};
    jvmtiEventCallbacks& callbacks = table.base;
    callbacks = build_callbacks(g_exceptions_enabled, g_stepping_enabled);
    // A compiled step hears of an exception that skips its return place by the catch.
    if (g_compiled_stepping) callbacks.ExceptionCatch = ExceptionCatch;
    // Only a VM that knows the longer table is given it.
    jint size = static_cast<jint>(sizeof callbacks);
    if (g_virtual_threads) {
        table.VirtualThreadStart = VirtualThreadStart;
        table.VirtualThreadEnd = VirtualThreadEnd;
        size = static_cast<jint>(sizeof table);
    }
    if (g_jvmti->SetEventCallbacks(&callbacks, size) != JVMTI_ERROR_NONE) return;
    LOG_DEBUG("Event Callbacks");
    for (const std::string& name : installed_callback_names(callbacks)) {
        LOG_DEBUG("\t%s registered", name.c_str());
    }
    if (g_virtual_threads) {
        LOG_DEBUG("\tVirtualThreadStart registered");
        LOG_DEBUG("\tVirtualThreadEnd registered");
    }
}

bool add_upd_capabilities() {
    jvmtiCapabilities wanted = g_inspection_only
                                   ? available(inspection_capabilities())
                                   : debugging_capabilities(g_exceptions_enabled || g_compiled_stepping, g_stepping_enabled);
    if (g_jvmti->AddCapabilities(&wanted) != JVMTI_ERROR_NONE) return false;
    jvmtiCapabilities held{};
    if (g_jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) return false;
    dump_capabilities();
    return true;
}

void dump_capabilities() {
    if (KV_JVMTI_LOG_LEVEL < LOG_DEBUG_LEVEL) return;
    jvmtiCapabilities held{};
    if (g_jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) return;
    LOG_DEBUG("Capabilities");
    for (const CapabilityField& field : CAPABILITY_FIELDS) {
        LOG_DEBUG("\t%s=%d", field.name, field.held(held) ? 1 : 0);
    }
    if (g_jvmti_version >= JVMTI_VERSION_WITH_VIRTUAL_THREADS) {
        LOG_DEBUG("\tcan_support_virtual_threads=%d", has_virtual_thread_capability(held) ? 1 : 0);
    }
    if (g_inspection_only) LOG_DEBUG("\t%s", INSPECTION_ONLY_MODE);
}

// Every class load pays for these two while they are on (with the file hook on, the VM reads each
// shared class's bytes back from the image), so they are on only while something listens: the
// class-prepare hook; the file-load hook, or a debugging session, whose line caches and compiled
// steps must hear of redefinitions.
void update_class_events() {
    switch_vm_events({{JVMTI_EVENT_CLASS_PREPARE, "ClassPrepare", ReferenceCountedJObject(g_classPrepareHook).isSet()},
                      {JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, "ClassFileLoadHook",
                       ReferenceCountedJObject(g_fileLoadHook).isSet() || (g_active && !g_inspection_only)}});
}

namespace {
// Start-up, at load or at attach; false when the VM gives no JVMTI environment.
bool start_agent(JavaVM* vm, const char* options) {
    g_vm = vm;
    if (vm->GetEnv(reinterpret_cast<void**>(&g_jvmti), JVMTI_VERSION_1_0) != JNI_OK) {
        g_jvmti = nullptr;
        g_active = false;
        return false;
    }
    g_vm_alive = true;
    if (g_jvmti->GetVersionNumber(&g_jvmti_version) != JVMTI_ERROR_NONE) g_jvmti_version = 0;
    read_configuration();
    LOG_DEBUG("agentargs = %s", options);
    LOG_DEBUG("mode = %s", g_inspection_only ? INSPECTION_ONLY_MODE : "debugging");
    PAUSE_LOCK = new JavaLock("SuspendPauseLock");
    TAG_LOCK = new JavaLock("TagLock");
    settle_capabilities();
    register_callbacks();
    enable_default_events();
    atexit(forget_references_at_exit);
    g_active = false;
    return true;
}
}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* /*reserved*/) {
    log("%s", version_banner());
    start_agent(vm, options);
    return 0;
}

// Loaded into a running VM (jcmd <pid> JVMTI.agent_load): the debugging capabilities can only be
// had at load, so the agent inspects only. A VM that has the agent already keeps it as it is.
extern "C" JNIEXPORT jint JNICALL Agent_OnAttach(JavaVM* vm, char* options, void* /*reserved*/) {
    if (g_jvmti != nullptr) {
        log("Kelvane JVMTI: already loaded in this VM; attach refused, nothing changed");
        return JNI_ERR;
    }
    log("%s", version_banner());
    g_inspection_only = true;
    return start_agent(vm, options) ? JNI_OK : JNI_ERR;
}

extern "C" JNIEXPORT void JNICALL Agent_OnUnload(JavaVM* /*vm*/) {
    LOG_DEBUG("");
    g_active = false;
    g_vm_alive = false;
    if (g_jvmti == nullptr) return;
    for (const GlobalEvent& global : UNLOAD_EVENTS) {
        g_jvmti->SetEventNotificationMode(JVMTI_DISABLE, global.event, nullptr);
        LOG_DEBUG("%s - events disabled", global.name);
    }
}
