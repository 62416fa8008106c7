// Test-only natives of the probe variant of the agent: they let JUnit tests reach internal helpers
// inside a real JVM. The shipped library does not contain them.
#include "breakpoint_location.h"
#include "breakpoints.h"
#include "events.h"
#include "field_watches.h"
#include "frames.h"
#include "global.h"
#include "lock.h"
#include "resources.h"
#include "smap.h"
#include "thread.h"

#include <jni.h>

#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#define KV_PROBE(returns, name) \
    extern "C" JNIEXPORT returns JNICALL Java_com_brantide_kelvane_plugin_jvmti_api_AgentProbe_##name

// The thread's user mask, read and switched as the agent's own paths do; -1 without a record.
KV_PROBE(jlong, userEvents)(JNIEnv*, jclass, jthread thread) {
    ThreadDataAccess access(thread);
    return access.get() != nullptr ? access.get()->user_events.load() : -1;
}

KV_PROBE(jboolean, setEvent)(JNIEnv*, jclass, jboolean enable, jint event, jthread thread, jboolean user) {
    return set_event(enable ? JVMTI_ENABLE : JVMTI_DISABLE, event, thread, user) ? JNI_TRUE : JNI_FALSE;
}

KV_PROBE(jint, smapLine)(JNIEnv* env, jclass, jstring smap, jint line) {
    StringUtfChars text(env, smap);
    // The prepared map that steps judge by, not the plain text reader.
    return text.get() != nullptr ? SourceMap(text.get()).map(line) : line;
}

KV_PROBE(jint, breakpointCount)(JNIEnv*, jclass) { return static_cast<jint>(s_breakpoint_counter.load()); }
KV_PROBE(jint, fieldAccessCount)(JNIEnv*, jclass) { return static_cast<jint>(s_field_access_counter.load()); }
KV_PROBE(jint, fieldModificationCount)(JNIEnv*, jclass) {
    return static_cast<jint>(s_field_modification_counter.load());
}

// A managed location taken apart and built again, as the event paths hand locations to hooks.
KV_PROBE(jobject, roundTrip)(JNIEnv* env, jclass, jobject location) {
    std::optional<BreakpointLocation> native = BreakpointLocation::from_java(env, location);
    return native ? native->to_java(env) : nullptr;
}

KV_PROBE(jint, frameCount)(JNIEnv*, jclass) {
    jint count = -1;
    g_jvmti->GetFrameCount(nullptr, &count);
    return count;
}

KV_PROBE(jint, cfDepth)(JNIEnv*, jclass) { return get_cf_depth(nullptr); }

KV_PROBE(jint, cfParent)(JNIEnv* env, jclass, jint height) { return get_cf_parent(env, nullptr, height); }

// ---- threads as the agent meets them outside managed code

namespace {
// Attaches from native code, hands its thread over and then waits in native code until the process
// ends. It never runs Java, so it has no Java frame at all, as a thread just starting or ending has none.
void run_frameless(std::promise<jobject> attached) {
    JNIEnv* env = nullptr;
    char name[] = "frameless";
    JavaVMAttachArgs args{JNI_VERSION_1_6, name, nullptr};
    jthread self = nullptr;
    jobject global = nullptr;
    if (g_vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), &args) == JNI_OK &&
        g_jvmti->GetCurrentThread(&self) == JVMTI_ERROR_NONE) {
        global = env->NewGlobalRef(self);
        env->DeleteLocalRef(self);
    }
    attached.set_value(global);
    for (;;) pause();
}

jobject start_frameless() {
    std::promise<jobject> attached;
    std::future<jobject> thread = attached.get_future();
    std::thread(run_frameless, std::move(attached)).detach();
    return thread.get();
}
}  // namespace

// Starts the frameless thread once and returns it.
KV_PROBE(jthread, framelessThread)(JNIEnv* env, jclass) {
    static const jobject frameless = start_frameless();
    return frameless != nullptr ? static_cast<jthread>(env->NewLocalRef(frameless)) : nullptr;
}

// Suspends a thread as another tool would, behind the agent's back; the JVMTI error code.
KV_PROBE(jint, suspendDirectly)(JNIEnv*, jclass, jthread thread) { return g_jvmti->SuspendThread(thread); }

KV_PROBE(jboolean, isSuspended)(JNIEnv*, jclass, jthread thread) {
    jint state = 0;
    bool read = g_jvmti->GetThreadState(thread, &state) == JVMTI_ERROR_NONE;
    return read && (state & JVMTI_THREAD_STATE_SUSPENDED) != 0 ? JNI_TRUE : JNI_FALSE;
}

// ---- heap walks: the tags left behind, and tag clearing that fails on request

namespace {
// The agent's JVMTI function table with IterateThroughHeap and SetTag wrapped, and the VM's own.
jvmtiInterface_1 s_failing_table;
const jvmtiInterface_1* s_vm_table = nullptr;
std::atomic<int> s_failing_walks{0};
std::atomic<int> s_failing_clears{0};

// The agent's only heap iterations over tagged objects alone are the ones that clear tags.
jvmtiError JNICALL iterate_or_fail(jvmtiEnv* env, jint filter, jclass klass, const jvmtiHeapCallbacks* callbacks,
                                   const void* user_data) {
    if ((filter & JVMTI_HEAP_FILTER_UNTAGGED) != 0 && s_failing_walks-- > 0) return JVMTI_ERROR_INTERNAL;
    return s_vm_table->IterateThroughHeap(env, filter, klass, callbacks, user_data);
}

jvmtiError JNICALL set_tag_or_fail(jvmtiEnv* env, jobject object, jlong tag) {
    if (tag == 0 && s_failing_clears-- > 0) return JVMTI_ERROR_INTERNAL;
    return s_vm_table->SetTag(env, object, tag);
}

jint JNICALL count_tagged(jlong, jlong, jlong*, jint, void* user_data) {
    ++*static_cast<jlong*>(user_data);
    return JVMTI_VISIT_OBJECTS;
}
}  // namespace

// The next `walks` tag-clearing heap walks and the next `clears` SetTag(0) calls of the agent fail
// with JVMTI_ERROR_INTERNAL; (0, 0) gives the agent the VM's functions back.
KV_PROBE(void, failTagClearing)(JNIEnv*, jclass, jint walks, jint clears) {
    if (s_vm_table == nullptr) {
        s_vm_table = g_jvmti->functions;
        s_failing_table = *s_vm_table;
        s_failing_table.IterateThroughHeap = iterate_or_fail;
        s_failing_table.SetTag = set_tag_or_fail;
    }
    s_failing_walks = walks;
    s_failing_clears = clears;
    g_jvmti->functions = walks > 0 || clears > 0 ? &s_failing_table : s_vm_table;
}

// The objects, class objects included, that a heap iteration finds tagged; -1 when it fails.
KV_PROBE(jlong, tagsLeft)(JNIEnv*, jclass) {
    JavaLockGuard guard(TAG_LOCK);
    jlong tagged = 0;
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_iteration_callback = count_tagged;
    const jvmtiInterface_1* table = s_vm_table != nullptr ? s_vm_table : g_jvmti->functions;
    jvmtiError error = table->IterateThroughHeap(g_jvmti, JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, &tagged);
    return error == JVMTI_ERROR_NONE ? tagged : -1;
}
