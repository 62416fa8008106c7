#include "dump.h"

#include "breakpoints.h"
#include "capabilities.h"
#include "event_mask.h"
#include "events.h"
#include "field_watches.h"
#include "global.h"
#include "hooks.h"
#include "log.h"
#include "reference.h"
#include "resources.h"
#include "thread.h"
#include "thread_info.h"
#include "version.h"

namespace {
// Every line goes through log() without a level, so the report appears whatever the log level.
void dump_capability_block() {
    jvmtiCapabilities held{};
    if (g_jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) return;
    log("Capabilities");
    for (const CapabilityField& field : CAPABILITY_FIELDS) log("\t%s=%d", field.name, field.held(held) ? 1 : 0);
    if (has_virtual_thread_capability(held)) log("\tcan_support_virtual_threads=1");
    if (g_inspection_only) log("\t%s", INSPECTION_ONLY_MODE);
    log("%s", "");
}

const char* set_or_unset(const ReferenceCountedJObject& hook) { return hook.isSet() ? "Set" : "Unset"; }

void dump_hooks() {
    log("Hooks");
    log("\tClassPrepareHook=%s", set_or_unset(g_classPrepareHook));
    log("\tFileLoadHook=%s", set_or_unset(g_fileLoadHook));
    log("\tThreadHook=%s", set_or_unset(g_threadHook));
    log("\tBreakpointHook=%s", set_or_unset(g_breakpointHook));
    log("\tExceptionHook=%s", set_or_unset(g_exceptionHook));
    log("\tFieldHook=%s", set_or_unset(g_fieldHook));
    log("%s", "");
}

void dump_counters() {
    log("Counters");
    log("\tBreakpoints=%u", s_breakpoint_counter.load());
    log("\tFieldAccess=%u", s_field_access_counter.load());
    log("\tFieldWatch=%u", s_field_modification_counter.load());
}

void dump_thread(jthread thread) {
    jlong id;
    jlong user;
    jlong active;
    {
        ThreadDataAccess access(thread);
        ThreadData* data = access.get();
        if (data == nullptr) return;
        id = data->thread_id;
        user = data->user_events.load();
        active = data->active_events.load();
    }
    if (user == 0) return;
    std::string name = get_thread_name(thread);
    if (active == user) {
        log("\tThread id=%ld name=\"%s\" \"%s\" %ld", id, name.c_str(), event_mask_to_string(active).c_str(), active);
    } else {
        log("\tThread id=%ld name=\"%s\" \"%s\" %ld (\"%s\" %ld)", id, name.c_str(),
            event_mask_to_string(active).c_str(), active, event_mask_to_string(user).c_str(), user);
    }
}

void dump_thread_events(JNIEnv* env) {
    jint count = 0;
    JvmtiBuffer<jthread> threads;
    if (g_jvmti->GetAllThreads(&count, threads.out()) != JVMTI_ERROR_NONE) return;
    // JVMTI made one local reference per thread at once: declare them before any other JNI call.
    if (env != nullptr) ensure_local_capacity(env, count);
    log("Thread Events");
    jlong vm_wide = vm_wide_events();
    if (vm_wide != 0) log("\tVM-wide \"%s\" %ld", event_mask_to_string(vm_wide).c_str(), vm_wide);
    for (jint i = count - 1; i >= 0; i--) {
        dump_thread(threads[static_cast<size_t>(i)]);
        if (env != nullptr) env->DeleteLocalRef(threads[static_cast<size_t>(i)]);
    }
    // Virtual threads are not among all threads: those with records are listed from them.
    if (env != nullptr) for_each_virtual_thread(env, dump_thread);
    log("%s", "");
}
}  // namespace

void JNICALL DataDumpRequest(jvmtiEnv*) {
    JNIEnv* env = nullptr;
    if (g_vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) env = nullptr;
    log("%s", version_banner());
    log("%s", "");
    dump_capability_block();
    dump_hooks();
    dump_counters();
    dump_thread_events(env);
}
