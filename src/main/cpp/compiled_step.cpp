#include "compiled_step.h"

#include "breakpoints.h"
#include "events.h"
#include "global.h"
#include "log.h"
#include "resources.h"
#include "step_data.h"
#include "step_depth.h"
#include "thread.h"
#include "thread_cleanups.h"

#include <memory>

namespace {
// A step still waiting for a return gives its breakpoint back when its thread ends, while the
// thread can.
void end_own_wait(JNIEnv*) {
    ThreadData* own = own_thread_data();
    if (own != nullptr) end_return_wait(own->step.take().get());
}

[[maybe_unused]] const bool ends_waits_at_thread_end = on_thread_end(end_own_wait, CleanupAt::EVERY_THREAD_END);
}  // namespace

bool wait_for_return_at_speed(jthread thread, ThreadData* data, StepData* step, jint frame, jint height) {
    if (!g_compiled_stepping || data == nullptr || step->frame_pops_only.load()) return false;
    jmethodID caller = nullptr;
    jlocation call_site = -1;
    if (g_jvmti->GetFrameLocation(thread, frame + 1, &caller, &call_site) != JVMTI_ERROR_NONE || call_site < 0) {
        return false;
    }
    jlocation resume = return_location(caller, call_site);
    if (resume < 0) return false;
    end_return_wait(step);
    // The thread may have neither breakpoints nor catches switched on for its hooks.
    if (!keep_reported(data, JVMTI_EVENT_BREAKPOINT, thread) || !keep_reported(data, JVMTI_EVENT_EXCEPTION_CATCH, thread)) {
        return false;
    }
    if (!hold_return_breakpoint(caller, resume)) return false;
    step->wait_method = caller;
    step->wait_location = resume;
    step->wait_height = height - frame - 1;
    step->waiting.store(true);
    LOG_DEBUG("RETURN WAIT %p@%d height=%d", static_cast<void*>(caller), static_cast<int>(resume), step->wait_height);
    set_event(data, JVMTI_DISABLE, JVMTI_EVENT_SINGLE_STEP, thread);
    forget_step_height(step->tracker);
    return true;
}

namespace {
// The step of the calling thread while it waits for a return, with the thread's current height;
// null when it does not wait.
std::shared_ptr<StepData> waiting_step(jthread thread, ThreadData* data, jint* height) {
    std::shared_ptr<StepData> step = data != nullptr ? data->step.get() : nullptr;
    if (!step || !step->waiting.load()) return nullptr;
    if (g_jvmti->GetFrameCount(thread, height) != JVMTI_ERROR_NONE) return nullptr;
    return step;
}

void single_step_on(jthread thread, ThreadData* data, StepData* step) {
    end_return_wait(step);
    set_event(data, JVMTI_ENABLE, JVMTI_EVENT_SINGLE_STEP, thread);
}
}  // namespace

bool reach_return(jthread thread, jmethodID method, jlocation location) {
    ThreadData* data = own_thread_data();
    jint height = 0;
    std::shared_ptr<StepData> step = waiting_step(thread, data, &height);
    if (!step || step->wait_method != method || step->wait_location != location) return false;
    // Deeper, the place is passed by a recursion of the method; lower, the frame has gone without
    // passing it (an exception no catch event told of) and the step goes on from here all the same.
    if (height > step->wait_height) return false;
    LOG_DEBUG("RETURN REACHED %p@%d height=%d", static_cast<void*>(method), static_cast<int>(location), height);
    single_step_on(thread, data, step.get());
    return true;
}

bool catch_during_return_wait(jthread thread) {
    ThreadData* data = own_thread_data();
    jint height = 0;
    std::shared_ptr<StepData> step = waiting_step(thread, data, &height);
    if (!step || height > step->wait_height) return false;
    LOG_DEBUG("RETURN WAIT ended by a catch at height %d", height);
    single_step_on(thread, data, step.get());
    return true;
}

void before_redefinition(JNIEnv* env) {
    if (!has_return_breakpoints()) return;
    jint count = 0;
    JvmtiBuffer<jthread> threads;
    if (g_jvmti->GetAllThreads(&count, threads.out()) != JVMTI_ERROR_NONE) return;
    for (jint k = 0; k < count; k++) {
        LocalRef<jthread> thread(env, threads.get()[k]);
        ThreadDataAccess access(thread.get());
        std::shared_ptr<StepData> step = access.get() != nullptr ? access.get()->step.get() : nullptr;
        if (!step || !step->waiting.load()) continue;
        step->frame_pops_only.store(true);
        set_event(access.get(), JVMTI_ENABLE, JVMTI_EVENT_SINGLE_STEP, thread.get());
    }
}
