#include "stepping.h"

#include "compiled_step.h"
#include "events.h"
#include "frame_rules.h"
#include "frames.h"
#include "global.h"
#include "hook_call.h"
#include "log.h"
#include "source_lines.h"
#include "step_command.h"
#include "step_data.h"
#include "step_depth.h"
#include "step_stop.h"
#include "thread.h"

#include <memory>

namespace {
// One single-step event of a thread that is stepping, as the shared first part of both variants
// has judged it.
struct StepEvent {
    // The owner's share of the record, which keeps it alive while the event is judged.
    const std::shared_ptr<StepData>* share;
    StepData* step;
    jint line;    // mapped through the SMAP
    jint depth;   // stack height, or CFML depth for a CFML step
    jint height;  // stack height
};

void end_step_silently(jthread thread) {
    clear_frame_pops(thread);
    clear_active_events(thread);
    restore_user_events(thread, NO_SAVED_EVENTS);
}

// Ends the step the event was judged with, unless a new command has replaced it meanwhile.
void release_step(ThreadData* data, const std::shared_ptr<StepData>& step) {
    data->step.release(step);
}

// A FIELD_MODIFICATION_COMPLETE step lives for one event: it reports and ends here. When the hook
// answered with a new command, the handler has already replaced the record.
void complete_field_modification(JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                                 ThreadData* data, const std::shared_ptr<StepData>& step) {
    clear_active_events(thread);
    std::optional<jint> answer = fire_field_modification_complete(env, thread, method, location);
    restore_user_events(thread, NO_SAVED_EVENTS);
    if (!answer || *answer == STEP_NOOP) release_step(data, step);
}

bool timed_out(JNIEnv* env, jthread thread, ThreadData* data, const std::shared_ptr<StepData>& step) {
    if (step->coarse_deadline > coarse_clock()) return false;
    double now = get_time();
    if (step->deadline > now) return false;
    LOG_WARN("Stopping stepping %lf >= %lf after %ds.", now, step->deadline, MAX_STEP.load());
    end_step_silently(thread);
    release_step(data, step);
    fire_stepping_aborted(env, thread);
    return true;
}

void log_event(bool fast, const StepData* step, jint depth, jmethodID method, jlocation location) {
    if (fast) {
        LOG_DEBUG("SingleStep %d %d %p@%d - %p@%d %d", step->type, depth, static_cast<void*>(step->begin_method),
                  static_cast<int>(step->begin_location), static_cast<void*>(method), static_cast<int>(location),
                  step->lang);
    } else {
        LOG_DEBUG("SingleStepNoFramePop type=%s depth=%d begin=%p@%d now=%p@%d lang=%s",
                  step_type_name(static_cast<jint>(step->type)), depth, static_cast<void*>(step->begin_method),
                  static_cast<int>(step->begin_location), static_cast<void*>(method), static_cast<int>(location),
                  frame_language_name(step->lang));
    }
}

// The CFML depth of the calling thread, counted again only when the frame changed.
jint cfml_depth(jthread thread, StepTracker& tracker, bool moved) {
    if (moved || tracker.cfml_depth < 0) tracker.cfml_depth = get_cf_depth(thread);
    return tracker.cfml_depth;
}

// The part both variants share. False when the event ends here; otherwise the step, the current
// line and depth to judge it by.
bool judge_common(JNIEnv* env, jthread thread, jmethodID method, jlocation location, bool fast, StepEvent* event) {
    ThreadData* data = own_thread_data();
    if (data == nullptr) return false;
    forget_step_stop(method, location);
    // The step this thread judged last, kept so that reading it costs no lock and no count.
    thread_local std::shared_ptr<StepData> t_seen;
    const std::shared_ptr<StepData>& share = data->step.get(&t_seen);
    StepData* step = share.get();
    if (step == nullptr) {
        LOG_ERROR("step_data==NULL but SinglStep occurred!");
        end_step_silently(thread);
        fire_stepping_aborted(env, thread);
        return false;
    }
    if (step->type == STEP_FIELD_MODIFICATION_COMPLETE) {
        complete_field_modification(env, thread, method, location, data, share);
        return false;
    }
    // Single steps while a wait for a return stands: a class redefinition gave the wait up.
    if (step->waiting.load(std::memory_order_relaxed)) end_return_wait(step);
    if (timed_out(env, thread, data, share)) return false;
    // A place without a line (generated code, a class compiled without line numbers) is never a
    // stop, but its depth still counts: a call into such code is stepped over like any other.
    jint line = source_line(env, method, location);
    bool moved = true;
    jint depth = step_height(step->tracker, thread, method, location, &moved);
    if (depth < 0) return false;
    log_event(fast, step, depth, method, location);
    jint height = depth;
    if (step->lang == LANG_CFML) depth = cfml_depth(thread, step->tracker, moved);
    *event = StepEvent{&share, step, line, depth, height};
    return true;
}

// A step whose stop nobody can hear (its hook was removed meanwhile) ends there: stepping on
// would only slow the thread down until the time limit.
void stop_here(JNIEnv* env, jthread thread, jmethodID method, jlocation location, const StepEvent& event) {
    if (event.line <= 0) return;
    if (fire_step_stop(env, thread, method, location)) return;
    LOG_DEBUG("no breakpoint hook to stop in, step ended");
    end_step_silently(thread);
    ThreadData* data = own_thread_data();
    if (data != nullptr) release_step(data, *event.share);
}

// Stops single stepping until the frame at depth `frame` returns: at compiled speed where it can,
// else by a frame-pop request.
void wait_for_frame(jthread thread, const StepEvent& event, jint frame) {
    ThreadData* data = own_thread_data();
    if (wait_for_return_at_speed(thread, data, event.step, frame, event.height)) {
        // A new command given meanwhile (a suspended thread's resumeThread) took the step: its
        // wait must not outlive it.
        if (data->step.get().get() != event.step) end_return_wait(event.step);
        return;
    }
    forget_step_height(event.step->tracker);
    wait_for_frame_pop(thread, frame);
}

bool is_cfml_target(JNIEnv* env, const StepEvent& event, jmethodID method) {
    return event.step->lang != LANG_CFML || get_type(env, method) == LANG_CFML;
}

// A CFML step that stands in Java code waits for the return into the nearest CFML caller.
void wait_for_cfml_parent(JNIEnv* env, jthread thread, const StepEvent& event, bool fast) {
    jint parent = get_cf_parent(env, thread, event.depth);
    if (parent == -1) {
        end_step_silently(thread);
        return;
    }
    if (fast) wait_for_frame(thread, event, parent - 1);
}

void stop_or_wait_for_cfml(JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                           const StepEvent& event, bool fast) {
    if (is_cfml_target(env, event, method)) {
        stop_here(env, thread, method, location, event);
    } else {
        wait_for_cfml_parent(env, thread, event, fast);
    }
}

void step_in(JNIEnv* env, jthread thread, jmethodID method, jlocation location, const StepEvent& event, bool fast) {
    LOG_DEBUG("StepIn");
    const StepData* step = event.step;
    if (method == step->begin_method && event.line == step->begin_line) return;
    if (is_cfml_target(env, event, method)) {
        stop_here(env, thread, method, location, event);
        return;
    }
    if (step->depth <= event.depth) return;
    wait_for_cfml_parent(env, thread, event, fast);
}

void step_over(JNIEnv* env, jthread thread, jmethodID method, jlocation location, const StepEvent& event,
               bool fast) {
    const StepData* step = event.step;
    if (step->depth > event.depth) {
        LOG_DEBUG("StepOver - stepped out");
        stop_or_wait_for_cfml(env, thread, method, location, event, fast);
    } else if (step->depth < event.depth) {
        if (fast) {
            LOG_DEBUG("FRAMEPOP - OVER");
            wait_for_frame(thread, event, 0);
        } else {
            LOG_DEBUG("StepOver - went in");
        }
    } else {
        LOG_DEBUG("StepOver - same depth");
        if (event.line != step->begin_line) stop_or_wait_for_cfml(env, thread, method, location, event, fast);
    }
}

void step_out_fast(JNIEnv* env, jthread thread, jmethodID method, jlocation location, const StepEvent& event) {
    if (event.step->depth > event.depth) {
        stop_here(env, thread, method, location, event);
        return;
    }
    LOG_WARN("STEP_OUT didnt step as expected");
    wait_for_frame(thread, event, 0);
}

void step_out_by_single_steps(JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                              const StepEvent& event) {
    if (event.step->depth <= event.depth) return;
    LOG_DEBUG("StepOut - stepped out");
    if (event.step->lang == LANG_CFML && get_type(env, method) != LANG_CFML) return;
    stop_here(env, thread, method, location, event);
}

void single_step(JNIEnv* env, jthread thread, jmethodID method, jlocation location, bool fast) {
    StepEvent event{};
    if (!judge_common(env, thread, method, location, fast, &event)) return;
    switch (event.step->type) {
        case STEP_OUT:
            if (fast) {
                step_out_fast(env, thread, method, location, event);
            } else {
                step_out_by_single_steps(env, thread, method, location, event);
            }
            break;
        case STEP_OVER:
            step_over(env, thread, method, location, event, fast);
            break;
        case STEP_IN:
            step_in(env, thread, method, location, event, fast);
            break;
        default:
            break;
    }
}
}  // namespace

// No exception is pending at a single step (the VM posts it before a bytecode), and every managed
// call the engine makes clears what it leaves: the events that call nothing cost no exception check.
void JNICALL SingleStep(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    LOG_DEBUG("SingleStep %p %p@%d", static_cast<void*>(thread), static_cast<void*>(method), static_cast<int>(location));
    single_step(env, thread, method, location, true);
}

void judge_step_at(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    single_step(env, thread, method, location, true);
}

void JNICALL SingleStepNoFramePop(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    LOG_DEBUG("SingleStepNoFramePop %p %p@%d", static_cast<void*>(thread), static_cast<void*>(method),
              static_cast<int>(location));
    single_step(env, thread, method, location, false);
}

void JNICALL FramePop(jvmtiEnv*, JNIEnv*, jthread thread, jmethodID, jboolean) {
    LOG_DEBUG("%p", static_cast<void*>(thread));
    disable_frame_pop(thread);
    enable_single_step(thread);
}
