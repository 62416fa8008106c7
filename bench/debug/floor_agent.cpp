// The floors of the debugging path: the least an agent can do per event, in one of three modes
// chosen by the agent option (-agentpath:libkv_bench_debug_floor.so=MODE[,vthreads]), and two more
// that handle no event at all and only show what merely loading an agent costs the VM. With
// ",vthreads" the agent also holds can_support_virtual_threads, which a VM with virtual threads
// asks of an agent that handles their events or looks at their stacks.
//
//   bare          (the default) the Breakpoint callback calls one cached static method, Floor.hit().
//   contract      the Breakpoint callback does what the library's hook contract asks of every hit
//                 and nothing more: the thread's frame count, a new ThreadContext(thread, count) and
//                 the hook's breakpointHit(location, context), with a location object made once, and
//                 the exception checks JNI asks for around them.
//   step          a breakpoint switches single stepping on for its thread; the SingleStep callback
//                 reads the frame's location, looks its line up in a table cached beforehand, and
//                 switches stepping off when the stepped method reaches another line.
//   env           a JVMTI environment, nothing more.
//   capabilities  the capabilities the library settles on at load: it takes its debugging set and
//                 gives it back, and keeps its basic set and virtual threads.
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
#include <string>
#include <utility>
#include <vector>

namespace {
enum class Mode { bare, contract, step, env, capabilities };

jvmtiEnv* g_jvmti = nullptr;
Mode g_mode = Mode::bare;
bool g_virtual_threads = false;

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

// MODE, or MODE,vthreads.
bool read_mode(const char* options) {
    std::string mode_name = options == nullptr || *options == '\0' ? "bare" : options;
    size_t comma = mode_name.find(',');
    if (comma != std::string::npos) {
        if (mode_name.compare(comma + 1, std::string::npos, "vthreads") != 0) return false;
        g_virtual_threads = true;
        mode_name.resize(comma);
    }
    const std::pair<const char*, Mode> modes[] = {{"bare", Mode::bare}, {"contract", Mode::contract}, {"step", Mode::step},
                                                  {"env", Mode::env},   {"capabilities", Mode::capabilities}};
    for (const auto& [name, mode] : modes) {
        if (mode_name == name) {
            g_mode = mode;
            return true;
        }
    }
    return false;
}

// can_support_virtual_threads, which the JDK 17 header this is built against leaves unnamed: bit 44
// of the record, the one after can_generate_sampled_object_alloc_events.
void add_virtual_thread_capability(jvmtiCapabilities* capabilities) {
    constexpr unsigned bit = 44;
    unsigned char bytes[sizeof *capabilities];
    std::memcpy(bytes, capabilities, sizeof bytes);
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] | 1u << (bit % 8));
    std::memcpy(capabilities, bytes, sizeof bytes);
}

// The library's set for setActive(true), with exceptions and fast stepping on, as by default.
jvmtiCapabilities library_debugging_capabilities() {
    jvmtiCapabilities c{};
    c.can_tag_objects = c.can_get_source_file_name = c.can_get_line_numbers = c.can_get_source_debug_extension = 1;
    c.can_generate_field_modification_events = c.can_generate_field_access_events = 1;
    c.can_get_current_contended_monitor = c.can_access_local_variables = c.can_get_bytecodes = 1;
    c.can_generate_single_step_events = c.can_generate_breakpoint_events = c.can_suspend = 1;
    c.can_get_owned_monitor_stack_depth_info = c.can_generate_exception_events = c.can_generate_frame_pop_events = 1;
    return c;
}

// What the library holds after load: its basic set and virtual threads.
jvmtiCapabilities library_kept_capabilities() {
    jvmtiCapabilities c{};
    c.can_tag_objects = c.can_get_source_file_name = c.can_get_line_numbers = c.can_get_source_debug_extension = 1;
    add_virtual_thread_capability(&c);
    return c;
}

// The debugging set is taken while the VM offers its load-time capabilities and given back, as
// the library does; what the VM switched on for it at load may stay on.
bool settle_like_the_library() {
    jvmtiCapabilities debugging = library_debugging_capabilities();
    jvmtiCapabilities kept = library_kept_capabilities();
    return g_jvmti->AddCapabilities(&debugging) == JVMTI_ERROR_NONE &&
           g_jvmti->RelinquishCapabilities(&debugging) == JVMTI_ERROR_NONE &&
           g_jvmti->AddCapabilities(&kept) == JVMTI_ERROR_NONE;
}

// The modes that handle no event: the capabilities they stand for, and no callback.
bool settle_capabilities() {
    if (g_mode == Mode::capabilities) return settle_like_the_library();
    jvmtiCapabilities capabilities{};
    if (g_virtual_threads) add_virtual_thread_capability(&capabilities);
    return g_jvmti->AddCapabilities(&capabilities) == JVMTI_ERROR_NONE;
}

bool handles_events() { return g_mode == Mode::bare || g_mode == Mode::contract || g_mode == Mode::step; }

bool install_callbacks() {
    jvmtiCapabilities capabilities{};
    capabilities.can_generate_breakpoint_events = 1;
    if (g_virtual_threads) add_virtual_thread_capability(&capabilities);
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
        default: return false;
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
    bool ready = handles_events() ? install_callbacks() : settle_capabilities();
    return ready ? JNI_OK : JNI_ERR;
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
