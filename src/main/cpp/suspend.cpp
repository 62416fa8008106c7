// Suspending a thread from outside and letting it go again with a step command. The VM holds the
// suspended thread; nothing waits in native code between the two calls.
//
// PAUSE_LOCK serialises the VM work of the two natives and is never held across a call into
// managed code: the target may be suspended inside a class initialiser or holding a monitor that
// building the managed objects or the caller's callback needs, and a callback may itself wait for
// another thread that suspends or resumes. With the lock free, any other thread can still resume
// the target.
#include "breakpoint_location.h"
#include "error_name.h"
#include "exception.h"
#include "global.h"
#include "lock.h"
#include "log.h"
#include "native.h"
#include "object_methods.h"
#include "resources.h"
#include "step_command.h"
#include "step_data.h"
#include "thread.h"
#include "thread_info.h"
#include "virtual_threads.h"

namespace {
constexpr const char* SUSPENDED = "(" KV_BREAKPOINT_LOCATION_TYPE KV_THREAD_CONTEXT_TYPE ")V";

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

struct Place {
    jmethodID method = nullptr;
    jlocation location = 0;
};

// Suspends the thread and reads where it stands. A thread whose place cannot be read (no Java
// frame yet or any more) is resumed before the error is raised: the caller learns of every
// suspension it must undo, and of no other.
bool suspend_at_place(JNIEnv* env, jthread thread, Place* place) {
    JavaLockGuard guard(PAUSE_LOCK);
    if (!check_target(env, thread)) return false;
    jvmtiError error = g_jvmti->SuspendThread(thread);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return false;
    }
    error = g_jvmti->GetFrameLocation(thread, 0, &place->method, &place->location);
    if (error == JVMTI_ERROR_NONE) return true;
    jvmtiError resumed = g_jvmti->ResumeThread(thread);
    if (resumed != JVMTI_ERROR_NONE) {
        LOG_ERROR("ResumeThread failed %s(%d)", get_error_message(resumed).c_str(), resumed);
    }
    throw_jvmti_exception(env, error);
    return false;
}

void report_suspended(JNIEnv* env, jthread thread, jobject callback, const Place& place) {
    jmethodID suspended = find_method(env, callback, "suspended", SUSPENDED);
    if (suspended == nullptr) return;
    LocalRef<jobject> where(env, BreakpointLocation(place.method, place.location).to_java(env));
    LocalRef<jobject> context(env, get_thread_context(env, thread));
    if (!context) return;
    env->CallVoidMethod(callback, suspended, where.get(), context.get());
}

// What resuming did: the errors to raise afterwards, and whether the stepping hook must hear that
// the step asked for could not begin.
struct Resumed {
    jvmtiError place_error = JVMTI_ERROR_NONE;
    jvmtiError resume_error = JVMTI_ERROR_NONE;
    bool step_aborted = false;
};

// Applies the command and resumes the thread, in every case once the target is known: a thread
// whose place cannot be read is resumed all the same, with its step in progress ended, since no
// step can begin without a place.
bool command_and_resume(JNIEnv* env, jthread thread, jint op, Resumed* resumed) {
    JavaLockGuard guard(PAUSE_LOCK);
    if (!check_target(env, thread)) return false;
    Place place;
    if (starts_step(op)) resumed->place_error = g_jvmti->GetFrameLocation(thread, 0, &place.method, &place.location);
    ThreadDataAccess record(thread, starts_step(op));
    // A virtual thread without a record has no step to end.
    if (record.get() == nullptr && is_virtual_thread(env, thread) && !starts_step(op)) {
        resumed->resume_error = g_jvmti->ResumeThread(thread);
        return true;
    }
    if (resumed->place_error == JVMTI_ERROR_NONE) {
        resumed->step_aborted = apply_step_command(env, thread, record.get(), place.method, place.location, op);
    } else {
        LOG_DEBUG("no place to step from %s(%d), resuming without a step",
                  get_error_message(resumed->place_error).c_str(), resumed->place_error);
        apply_step_command(env, thread, record.get(), nullptr, 0, STEP_CONTINUE);
    }
    resumed->resume_error = g_jvmti->ResumeThread(thread);
    return true;
}
}  // namespace

KV_NATIVE(void, suspendThread)(JNIEnv* env, jobject, jthread thread, jobject callback) {
    LOG_DEBUG("%p", static_cast<void*>(thread));
    if (!require_agent(env)) return;
    Place place;
    if (suspend_at_place(env, thread, &place)) report_suspended(env, thread, callback, place);
}

KV_NATIVE(void, resumeThread)(JNIEnv* env, jobject, jthread thread, jint op) {
    LOG_DEBUG("%p %d", static_cast<void*>(thread), op);
    if (!require_agent(env)) return;
    if (op < STEP_CONTINUE || op > STEP_NOOP) {
        throw_exception(env, ILLEGAL_ARGUMENT, "op code must be >= %d && <= %d", STEP_CONTINUE, STEP_NOOP);
        return;
    }
    Resumed resumed;
    if (!command_and_resume(env, thread, op, &resumed)) return;
    if (resumed.step_aborted) fire_stepping_aborted(env, thread);
    if (resumed.resume_error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, resumed.resume_error);
    } else if (resumed.place_error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, resumed.place_error);
    }
}
