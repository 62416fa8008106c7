// The floors of the debugging path: the least an agent can do per event, in one of three modes
// chosen by the agent option (-agentpath:libkv_bench_debug_floor.so=MODE).
//
//   bare      (the default) the Breakpoint callback calls one cached static method, Floor.hit().
//   contract  the Breakpoint callback does what the library's hook contract asks of every hit and
//             nothing more: the thread's frame count, a new ThreadContext(thread, count) and the
//             hook's breakpointHit(location, context), with a location object made once, and the
//             exception checks JNI asks for around them.
//   step      a breakpoint switches single stepping on for its thread; the SingleStep callback
//             reads the frame's location, looks its line up in a table cached beforehand, and
//             switches stepping off when the stepped method reaches another line.
//
// The managed side is com.brantide.kelvane.bench.debug.Floor, whose natives set the breakpoint,
// switch the event on for one thread and hand the agent what it caches. Every cache is filled
// before the events are switched on, so the callbacks read it without locks; the benchmark steps
// one thread only.
#include <jni.h>
#include <jvmti.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

namespace {
enum class Mode { bare, contract, step };

jvmtiEnv* g_jvmti = nullptr;
Mode g_mode = Mode::bare;

// bare
jclass g_floor = nullptr;
jmethodID g_hit = nullptr;

// contract
jobject g_hook = nullptr;
jmethodID g_breakpoint_hit = nullptr;
jobject g_location = nullptr;
jclass g_context_class = nullptr;
jmethodID g_context_constructor = nullptr;

// step
struct LineTable {
    jmethodID method = nullptr;
    std::vector<jvmtiLineNumberEntry> entries;  // by start location
};
LineTable g_stepped;  // the method the step starts in and ends in
LineTable g_callee;   // the method it calls, stepped through bytecode by bytecode
jint g_begin_line = -1;
jint g_step_depth = 0;
std::atomic<long> g_step_events{0};

void JNICALL bare_breakpoint(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation) {
    env->CallStaticVoidMethod(g_floor, g_hit);
}

// Local references die with the callback's frame: the VM pops it when the callback returns. The
// exception checks are the contract's too: no hook call with an exception pending, and no
// exception of the hook's left to surface in the code at the breakpoint.
void JNICALL contract_breakpoint(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID, jlocation) {
    jint count = 0;
    g_jvmti->GetFrameCount(thread, &count);
    jobject context = env->NewObject(g_context_class, g_context_constructor, thread, count);
    if (!env->ExceptionCheck()) env->CallIntMethod(g_hook, g_breakpoint_hit, g_location, context);
    if (env->ExceptionCheck()) env->ExceptionClear();
}

// Switches stepping on the way the library does: the event for this thread only. The depth is
// taken once per step, for the report, not per event.
void JNICALL step_breakpoint(jvmtiEnv*, JNIEnv*, jthread thread, jmethodID, jlocation) {
    g_jvmti->GetFrameCount(thread, &g_step_depth);
    g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_SINGLE_STEP, thread);
}

// The line of the entry with the greatest start at or below the location; -1 before the first.
jint line_at(const LineTable& table, jlocation location) {
    auto after = std::upper_bound(table.entries.begin(), table.entries.end(), location,
                                  [](jlocation at, const jvmtiLineNumberEntry& e) { return at < e.start_location; });
    return after == table.entries.begin() ? -1 : std::prev(after)->line_number;
}

jint cached_line(jmethodID method, jlocation location) {
    if (method == g_stepped.method) return line_at(g_stepped, location);
    if (method == g_callee.method) return line_at(g_callee, location);
    return -1;
}

void JNICALL single_step(jvmtiEnv*, JNIEnv*, jthread thread, jmethodID, jlocation) {
    // One thread steps: a plain increment, not a locked one, keeps the count out of the cost.
    g_step_events.store(g_step_events.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    jmethodID method = nullptr;
    jlocation location = 0;
    if (g_jvmti->GetFrameLocation(thread, 0, &method, &location) != JVMTI_ERROR_NONE) return;
    jint line = cached_line(method, location);
    if (method == g_stepped.method && line != g_begin_line) {
        g_jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_SINGLE_STEP, thread);
    }
}

bool read_mode(const char* options) {
    if (options == nullptr || *options == '\0' || std::strcmp(options, "bare") == 0) {
        g_mode = Mode::bare;
    } else if (std::strcmp(options, "contract") == 0) {
        g_mode = Mode::contract;
    } else if (std::strcmp(options, "step") == 0) {
        g_mode = Mode::step;
    } else {
        return false;
    }
    return true;
}

bool install_callbacks() {
    jvmtiCapabilities capabilities{};
    capabilities.can_generate_breakpoint_events = 1;
    jvmtiEventCallbacks callbacks{};
    switch (g_mode) {
        case Mode::bare: callbacks.Breakpoint = bare_breakpoint; break;
        case Mode::contract: callbacks.Breakpoint = contract_breakpoint; break;
        case Mode::step:
            capabilities.can_generate_single_step_events = 1;
            capabilities.can_get_line_numbers = 1;
            callbacks.Breakpoint = step_breakpoint;
            callbacks.SingleStep = single_step;
            break;
    }
    return g_jvmti->AddCapabilities(&capabilities) == JVMTI_ERROR_NONE &&
           g_jvmti->SetEventCallbacks(&callbacks, sizeof(callbacks)) == JVMTI_ERROR_NONE;
}

bool cache_line_table(jmethodID method, LineTable* table) {
    jint count = 0;
    jvmtiLineNumberEntry* entries = nullptr;
    if (g_jvmti->GetLineNumberTable(method, &count, &entries) != JVMTI_ERROR_NONE) return false;
    table->method = method;
    table->entries.assign(entries, entries + count);
    g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(entries));
    std::sort(table->entries.begin(), table->entries.end(),
              [](const jvmtiLineNumberEntry& a, const jvmtiLineNumberEntry& b) { return a.start_location < b.start_location; });
    return true;
}

bool set_breakpoint(JNIEnv* env, jobject method, jlong bci) {
    return g_jvmti->SetBreakpoint(env->FromReflectedMethod(method), bci) == JVMTI_ERROR_NONE;
}
}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
    if (!read_mode(options)) return JNI_ERR;
    if (vm->GetEnv(reinterpret_cast<void**>(&g_jvmti), JVMTI_VERSION_1_2) != JNI_OK) return JNI_ERR;
    return install_callbacks() ? JNI_OK : JNI_ERR;
}

// Floor.setBreakpoint(Method, long): also caches Floor.hit()V for the bare callback.
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_setBreakpoint(JNIEnv* env, jclass floor,
                                                                                    jobject method, jlong bci) {
    if (g_floor == nullptr) {
        g_floor = static_cast<jclass>(env->NewGlobalRef(floor));
        g_hit = env->GetStaticMethodID(floor, "hit", "()V");
        if (g_hit == nullptr) return JNI_FALSE;
    }
    return set_breakpoint(env, method, bci);
}

// Floor.enableBreakpoints(Thread)
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_enableBreakpoints(JNIEnv*, jclass,
                                                                                        jthread thread) {
    return g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_BREAKPOINT, thread) == JVMTI_ERROR_NONE;
}

// Floor.setContractHook(Object hook, BreakpointLocation location, Class<ThreadContext> contextClass):
// what the contract callback uses, looked up once.
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_setContractHook(JNIEnv* env, jclass,
                                                                                      jobject hook, jobject location,
                                                                                      jclass context_class) {
    jclass hook_class = env->GetObjectClass(hook);
    g_breakpoint_hit = env->GetMethodID(hook_class, "breakpointHit",
                                        "(Lcom/brantide/kelvane/plugin/jvmti/BreakpointLocation;"
                                        "Lcom/brantide/kelvane/plugin/jvmti/ThreadContext;)I");
    g_context_constructor = env->GetMethodID(context_class, "<init>", "(Ljava/lang/Thread;I)V");
    if (g_breakpoint_hit == nullptr || g_context_constructor == nullptr) return JNI_FALSE;
    g_hook = env->NewGlobalRef(hook);
    g_location = env->NewGlobalRef(location);
    g_context_class = static_cast<jclass>(env->NewGlobalRef(context_class));
    return JNI_TRUE;
}

// Floor.prepareStep(Method stepped, long bci, Method callee): the breakpoint that starts a step at
// the bytecode index of the stepped method, and the line tables of both methods.
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_prepareStep(JNIEnv* env, jclass,
                                                                                  jobject stepped, jlong bci,
                                                                                  jobject callee) {
    if (!cache_line_table(env->FromReflectedMethod(stepped), &g_stepped) ||
        !cache_line_table(env->FromReflectedMethod(callee), &g_callee)) {
        return JNI_FALSE;
    }
    g_begin_line = line_at(g_stepped, bci);
    return set_breakpoint(env, stepped, bci);
}

// Floor.stepEvents(): the single-step events seen so far.
JNIEXPORT jlong JNICALL Java_com_brantide_kelvane_bench_debug_Floor_stepEvents(JNIEnv*, jclass) {
    return g_step_events.load();
}

// Floor.stepDepth(): the stack height at the breakpoint of the last step.
JNIEXPORT jint JNICALL Java_com_brantide_kelvane_bench_debug_Floor_stepDepth(JNIEnv*, jclass) { return g_step_depth; }

}  // extern "C"
