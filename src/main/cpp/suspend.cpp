// Suspending a thread from outside and letting it go again with a step command. The VM holds the
// suspended thread; nothing waits in native code between the two calls.
#include "breakpoint.h"
#include "exception.h"
#include "global.h"
#include "hooks.h"
#include "lock.h"
#include "log.h"
#include "native.h"
#include "resources.h"
#include "step_command.h"
#include "thread.h"

namespace {
constexpr const char* SUSPENDED =
    "(Lcom/brantide/kelvane/plugin/jvmti/BreakpointLocation;Lcom/brantide/kelvane/plugin/jvmti/ThreadContext;)V";

// Raises the managed exception and answers false when the thread is no thread the caller may
// suspend or resume: null, or the calling thread itself.
bool check_target(JNIEnv* env, jthread thread) {
    if (thread == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "thread is null");
        return false;
    }
    LocalRef<jthread> current(env);
    jvmtiError error = g_jvmti->GetCurrentThread(current.out());
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return false;
    }
    if (get_thread_id(env, current.get()) == get_thread_id(env, thread)) {
        throw_exception(env, ILLEGAL_ARGUMENT, "thread cannot be the current thread");
        return false;
    }
    return true;
}

bool top_frame(JNIEnv* env, jthread thread, jmethodID* method, jlocation* location) {
    jvmtiError error = g_jvmti->GetFrameLocation(thread, 0, method, location);
    if (error == JVMTI_ERROR_NONE) return true;
    throw_jvmti_exception(env, error);
    return false;
}

void report_suspended(JNIEnv* env, jthread thread, jobject callback, jmethodID method, jlocation location) {
    LocalRef<jobject> where(env, BreakpointLocation(method, location).to_java(env));
    LocalRef<jobject> context(env, get_thread_context(env, thread));
    if (!context) return;
    jmethodID suspended = find_method(env, callback, "suspended", SUSPENDED);
    if (suspended != nullptr) env->CallVoidMethod(callback, suspended, where.get(), context.get());
}
}  // namespace

KV_NATIVE(void, suspendThread)(JNIEnv* env, jobject, jthread thread, jobject callback) {
    LOG_DEBUG("%p", static_cast<void*>(thread));
    JavaLockGuard guard(PAUSE_LOCK);
    if (!check_target(env, thread)) return;
    jvmtiError error = g_jvmti->SuspendThread(thread);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    jmethodID method = nullptr;
    jlocation location = 0;
    if (!top_frame(env, thread, &method, &location)) return;
    report_suspended(env, thread, callback, method, location);
}

KV_NATIVE(void, resumeThread)(JNIEnv* env, jobject, jthread thread, jint op) {
    LOG_DEBUG("%p %d", static_cast<void*>(thread), op);
    if (op < STEP_CONTINUE || op > STEP_NOOP) {
        throw_exception(env, ILLEGAL_ARGUMENT, "op code must be >= %d && <= %d", STEP_CONTINUE, STEP_NOOP);
        return;
    }
    JavaLockGuard guard(PAUSE_LOCK);
    if (!check_target(env, thread)) return;
    jmethodID method = nullptr;
    jlocation location = 0;
    if (!top_frame(env, thread, &method, &location)) return;
    handle_breakpoint_hit_return(env, thread, method, location, op);
    jvmtiError error = g_jvmti->ResumeThread(thread);
    if (error != JVMTI_ERROR_NONE) throw_jvmti_exception(env, error);
}
