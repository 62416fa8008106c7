#include "virtual_threads.h"

#include "global.h"
#include "hooks.h"
#include "log.h"
#include "thread.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>

namespace {
// The position of can_generate_sampled_object_alloc_events in the record, as this compiler lays
// out its bit fields.
size_t sampled_allocation_bit() {
    jvmtiCapabilities probe{};
    probe.can_generate_sampled_object_alloc_events = 1;
    unsigned char bytes[sizeof probe];
    std::memcpy(bytes, &probe, sizeof probe);
    for (size_t bit = 0; bit < sizeof probe * 8; bit++) {
        if ((bytes[bit / 8] >> (bit % 8) & 1) != 0) return bit;
    }
    return 0;
}

const size_t VIRTUAL_THREAD_BIT = sampled_allocation_bit() + 1;

// The JNI function table of a JNI 21 VM: the JDK 17 one and IsVirtualThread after it.
struct JniWithVirtualThreads {
    JNINativeInterface_ base;
    jboolean(JNICALL* IsVirtualThread)(JNIEnv* env, jobject object);
};
}  // namespace

bool has_virtual_thread_capability(const jvmtiCapabilities& caps) {
    unsigned char bytes[sizeof caps];
    std::memcpy(bytes, &caps, sizeof caps);
    return (bytes[VIRTUAL_THREAD_BIT / 8] >> (VIRTUAL_THREAD_BIT % 8) & 1) != 0;
}

void set_virtual_thread_capability(jvmtiCapabilities* caps, bool held) {
    unsigned char bytes[sizeof *caps];
    std::memcpy(bytes, caps, sizeof *caps);
    auto mask = static_cast<unsigned char>(1u << (VIRTUAL_THREAD_BIT % 8));
    if (held) {
        bytes[VIRTUAL_THREAD_BIT / 8] |= mask;
    } else {
        bytes[VIRTUAL_THREAD_BIT / 8] &= static_cast<unsigned char>(~mask);
    }
    std::memcpy(caps, bytes, sizeof *caps);
}

bool is_virtual_thread(JNIEnv* env, jthread thread) {
    if (!g_virtual_threads || thread == nullptr) return false;
    const auto* functions = reinterpret_cast<const JniWithVirtualThreads*>(env->functions);
    return functions->IsVirtualThread(env, thread) == JNI_TRUE;
}

void JNICALL VirtualThreadStart(jvmtiEnv*, JNIEnv* env, jthread thread) {
    ReferenceCountedJObject hook(g_threadHook);
    if (hook.isSet()) call_void_hook(env, hook, 0, "threadStart", "(Ljava/lang/Thread;)V", thread);
}

void JNICALL VirtualThreadEnd(jvmtiEnv*, JNIEnv* env, jthread thread) {
    {
        ReferenceCountedJObject hook(g_threadHook);
        if (hook.isSet()) call_void_hook(env, hook, 1, "threadEnd", "(Ljava/lang/Thread;)V", thread);
    }
    if (release_virtual_record()) update_virtual_thread_events();
}

void update_virtual_thread_events() {
    if (!g_virtual_threads) return;
    // Timed: its holder may be suspended in the VM call; the next change puts a lagging switch right.
    static auto* lock = new std::timed_mutex();
    std::unique_lock<std::timed_mutex> guard(*lock, std::chrono::milliseconds(100));
    if (!guard.owns_lock()) return;
    static bool start_on = false;
    static bool end_on = false;
    bool hook = ReferenceCountedJObject(g_threadHook).isSet();
    bool start = hook;
    bool end = hook || virtual_records() > 0;
    auto change = [](bool& on, bool wanted, jint event) {
        if (on == wanted) return;
        jvmtiError error = g_jvmti->SetEventNotificationMode(wanted ? JVMTI_ENABLE : JVMTI_DISABLE,
                                                             static_cast<jvmtiEvent>(event), nullptr);
        if (error == JVMTI_ERROR_NONE) {
            on = wanted;
        } else {
            LOG_DEBUG("virtual thread event %d not switched: %d", event, error);
        }
    };
    change(start_on, start, EVENT_VIRTUAL_THREAD_START);
    change(end_on, end, EVENT_VIRTUAL_THREAD_END);
}
