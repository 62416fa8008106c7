// Listing a thread's stack, the agent's threads, and the monitors a thread owns or waits for.
// Results stream to a callback, one call per item, on the calling thread.
#include "breakpoint_location.h"
#include "error_name.h"
#include "exception.h"
#include "global.h"
#include "log.h"
#include "native.h"
#include "object_methods.h"
#include "resources.h"
#include "thread.h"
#include "thread_info.h"

#include <vector>

namespace {
constexpr const char* FRAME = "(" KV_BREAKPOINT_LOCATION_TYPE ")V";
constexpr const char* THREAD = "(Ljava/lang/Thread;)V";
constexpr const char* MONITOR = "(Ljava/lang/Object;I)V";

// Raises the IllegalArgumentException for the first argument that is null; true when none is.
bool require(JNIEnv* env, const void* value, const char* message) {
    if (value != nullptr) return true;
    throw_exception(env, ILLEGAL_ARGUMENT, "%s", message);
    return false;
}

bool require_frame(JNIEnv* env, jint stackFrame) {
    if (stackFrame >= 1) return true;
    throw_exception(env, ILLEGAL_ARGUMENT, "stackFrame must be >= 1");
    return false;
}

bool frame_count(JNIEnv* env, jthread thread, jint* count) {
    jvmtiError error = g_jvmti->GetFrameCount(thread, count);
    if (error == JVMTI_ERROR_NONE) return true;
    throw_jvmti_exception(env, error);
    return false;
}

// Whether the agent keeps a record of the thread, the thread's own lock not held afterwards, so
// that the callback may start threads of its own.
bool has_record(jthread thread) {
    ThreadDataAccess access(thread);
    if (access.error() != JVMTI_ERROR_NONE) {
        LOG_ERROR("GetThreadLocalStorage failed %s %d", get_error_message(access.error()).c_str(), access.error());
        return false;
    }
    return access.get() != nullptr;
}

// Owned monitors with their frame depths; every monitor reference is freed with the array.
class OwnedMonitors {
public:
    explicit OwnedMonitors(JNIEnv* env) : m_env(env) {}
    ~OwnedMonitors() {
        for (jint k = 0; m_info && k < m_count; k++) m_env->DeleteLocalRef(m_info[static_cast<size_t>(k)].monitor);
    }
    jvmtiError read(jthread thread) { return g_jvmti->GetOwnedMonitorStackDepthInfo(thread, &m_count, m_info.out()); }
    jint count() const { return m_count; }
    const jvmtiMonitorStackDepthInfo& operator[](jint k) const { return m_info[static_cast<size_t>(k)]; }

private:
    JNIEnv* m_env;
    jint m_count = 0;
    JvmtiBuffer<jvmtiMonitorStackDepthInfo> m_info;
};
}  // namespace

KV_NATIVE(void, listStack)(JNIEnv* env, jobject, jthread thread, jint stackFrame, jobject callback) {
    if (!require_agent(env)) return;
    if (!require_frame(env, stackFrame) || !require(env, callback, "callback is null") ||
        !require(env, thread, "thread is null")) {
        return;
    }
    jmethodID frame = find_callback_method(env, callback, "frame", FRAME);
    if (frame == nullptr) return;
    jint count = 0;
    if (!frame_count(env, thread, &count)) return;
    LOG_DEBUG("Max Depth = %d", count);
    // Sized by the stack, which deep recursion makes large: on the heap, never the native stack.
    std::vector<jvmtiFrameInfo> frames(static_cast<size_t>(count > 0 ? count : 1));
    jint returned = 0;
    jvmtiError error = g_jvmti->GetStackTrace(thread, count - stackFrame, count, frames.data(), &returned);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    LOG_DEBUG("%d, %d %d", returned, count, stackFrame);
    for (jint k = 0; k < returned && !env->ExceptionCheck(); k++) {
        const jvmtiFrameInfo& info = frames[static_cast<size_t>(k)];
        LocalRef<jobject> location(env, BreakpointLocation(info.method, info.location).to_java(env));
        env->CallVoidMethod(callback, frame, location.get());
    }
}

KV_NATIVE(jint, getStackDepth)(JNIEnv* env, jobject, jthread thread) {
    if (!require_agent(env)) return -1;
    if (!require(env, thread, "thread is null")) return -1;
    jint count = 0;
    return frame_count(env, thread, &count) ? count : -1;
}

KV_NATIVE(void, listThreads)(JNIEnv* env, jobject, jobject callback) {
    if (!require_agent(env)) return;
    if (!require(env, callback, "callback is null")) return;
    jmethodID found = find_callback_method(env, callback, "thread", THREAD);
    if (found == nullptr) return;
    jint count = 0;
    JvmtiBuffer<jthread> threads;
    jvmtiError error = g_jvmti->GetAllThreads(&count, threads.out());
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    ensure_local_capacity(env, count);
    for (jint k = 0; k < count; k++) {
        LocalRef<jthread> thread(env, threads[static_cast<size_t>(k)]);
        if (env->ExceptionCheck()) continue;  // the callback threw: free the rest, call nothing
        if (has_record(thread.get())) {
            env->CallVoidMethod(callback, found, thread.get());
        } else if (KV_JVMTI_LOG_LEVEL >= LOG_DEBUG_LEVEL) {
            LOG_DEBUG("Ignoring thread(%ld,%s) no tdata", get_thread_id(env, thread.get()),
                      get_thread_name(thread.get()).c_str());
        }
    }
}

KV_NATIVE(void, listOwnedMonitors)(JNIEnv* env, jobject, jthread thread, jint stackFrame, jobject callback) {
    if (!require_agent(env)) return;
    if (!require(env, callback, "callback is null") || !require_frame(env, stackFrame) ||
        !require(env, thread, "thread is null")) {
        return;
    }
    OwnedMonitors monitors(env);
    jvmtiError error = monitors.read(thread);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    if (monitors.count() == 0) return;
    jint count = 0;
    if (!frame_count(env, thread, &count)) return;
    LOG_DEBUG("count=%d max=%d stack=%d", monitors.count(), count, stackFrame);
    jmethodID monitor = find_callback_method(env, callback, "monitor", MONITOR);
    if (monitor == nullptr) return;
    jint skip = count - stackFrame;
    for (jint k = 0; k < monitors.count() && !env->ExceptionCheck(); k++) {
        jint depth = monitors[k].stack_depth;
        if (depth == -1 || depth - skip < 0) continue;
        LOG_DEBUG("%d, %d %d", count, depth, depth - skip);
        env->CallVoidMethod(callback, monitor, monitors[k].monitor, depth - skip);
    }
}

KV_NATIVE(void, listContendedMonitor)(JNIEnv* env, jobject, jthread thread, jobject callback) {
    if (!require_agent(env)) return;
    if (!require(env, callback, "callback is null") || !require(env, thread, "thread is null")) return;
    LocalRef<jobject> contended(env);
    jvmtiError error = g_jvmti->GetCurrentContendedMonitor(thread, contended.out());
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    if (!contended) return;
    jmethodID monitor = find_callback_method(env, callback, "monitor", MONITOR);
    if (monitor != nullptr) env->CallVoidMethod(callback, monitor, contended.get(), 0);
}
