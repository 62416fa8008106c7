#include "step_command.h"

#include "compiled_step.h"
#include "error_name.h"
#include "events.h"
#include "frame_rules.h"
#include "frames.h"
#include "global.h"
#include "hooks.h"
#include "log.h"
#include "reference.h"
#include "source_lines.h"
#include "step_data.h"
#include "thread.h"
#include "virtual_threads.h"

#include <atomic>
#include <memory>
#include <new>
#include <optional>

namespace {
using StepPtr = std::unique_ptr<StepData>;
using SharedStep = std::shared_ptr<StepData>;

// Where the command was given, and what every step started from there records.
struct StepOrigin {
    jmethodID method;
    jlocation location;
    jint height;  // the stack height
    jint lang;
    jint line;
    double deadline;
};

// Takes the step in progress off the thread's record. False, with the ERROR line, when the thread
// has no record to take it from.
bool take_step(ThreadData* data, SharedStep* previous) {
    if (data == nullptr) {
        LOG_ERROR("tdata is null");
        return false;
    }
    *previous = data->step.take();
    return true;
}

// A step keeps being judged in the language it started in, so a step that began in CFML goes on
// stopping only in CFML frames even from a Java frame.
jint step_language(JNIEnv* env, jmethodID method, const StepData* previous) {
    if (previous != nullptr) {
        LOG_FINE("Step Lang from current %p", static_cast<const void*>(previous));
        if (previous->lang != LANG_UNKNOWN) return previous->lang;
    }
    LOG_FINE("Step Lang from method");
    return get_type(env, method);
}

StepPtr new_step(StepType type, const StepOrigin& origin, jint depth) {
    StepPtr step(new (std::nothrow) StepData());
    if (!step) return step;
    step->type = type;
    step->depth = depth;
    step->lang = origin.lang;
    step->begin_method = origin.method;
    step->begin_location = origin.location;
    step->begin_line = origin.line;
    step->deadline = origin.deadline;
    step->coarse_deadline = coarse_clock() + MAX_STEP.load();
    static std::atomic<uint64_t> s_serials{0};
    step->serial = ++s_serials;
    return step;
}

// Hands the record to the thread's ThreadData, which owns it from now on.
void attach_step(ThreadData* data, StepPtr step) { data->step.put(SharedStep(std::move(step))); }

jint step_depth(jthread thread, const StepOrigin& origin) {
    return origin.lang == LANG_CFML ? get_cf_depth(thread) : origin.height;
}

void log_single_step_start(StepType type, jthread thread) {
    if (type == STEP_IN) LOG_DEBUG("StepIn %p", static_cast<void*>(thread));
    if (type == STEP_OVER) LOG_DEBUG("StepOver %p", static_cast<void*>(thread));
    if (type == STEP_FIELD_MODIFICATION_COMPLETE) LOG_DEBUG("Field Modification Complete %p", static_cast<void*>(thread));
}

void log_single_step_record(StepType type, const StepData* step) {
    const void* address = step;
    if (type == STEP_IN) LOG_FINE("StepIn set step_data %p", address);
    if (type == STEP_OVER) LOG_FINE("StepOver set step_data %p", address);
    if (type == STEP_FIELD_MODIFICATION_COMPLETE) LOG_FINE("FieldMod set step_data %p", address);
}

bool switch_on(ThreadData* data, jthread thread, jint event) { return set_event(data, JVMTI_ENABLE, event, thread); }
bool switch_off(ThreadData* data, jthread thread, jint event) { return set_event(data, JVMTI_DISABLE, event, thread); }

void start_single_stepping(ThreadData* data, jthread thread, StepType type, const StepOrigin& origin) {
    log_single_step_start(type, thread);
    if (!switch_on(data, thread, JVMTI_EVENT_SINGLE_STEP)) return;
    StepPtr step = new_step(type, origin, step_depth(thread, origin));
    if (!step) {
        switch_off(data, thread, JVMTI_EVENT_SINGLE_STEP);
        return;
    }
    log_single_step_record(type, step.get());
    attach_step(data, std::move(step));
}

// The step outcomes: whether the stepping hook must be told that the step asked for ended
// before it began.
constexpr bool STEP_ABORTED = true;
constexpr bool STEP_GOES_ON = false;

// Starts a step out by waiting for the frame to return: at compiled speed where it can, else by a
// frame-pop request; for a CFML step, the frame of the nearest CFML caller (the step is aborted
// when there is none).
bool start_step_out_with_frame_pop(JNIEnv* env, ThreadData* data, jthread thread, const StepOrigin& origin) {
    StepPtr step = new_step(STEP_OUT, origin, origin.height);
    if (!step) return STEP_GOES_ON;
    jint frame = 0;
    if (origin.lang == LANG_CFML) {
        jint parent = get_cf_parent(env, thread, origin.height);
        if (parent == -1) return STEP_ABORTED;
        frame = parent - 1;
        step->depth = get_cf_depth(thread);
    }
    LOG_FINE("StepOut set step_data %p", static_cast<void*>(step.get()));
    if (wait_for_return_at_speed(thread, data, step.get(), frame, origin.height)) {
        attach_step(data, std::move(step));
        return STEP_GOES_ON;
    }
    if (!switch_on(data, thread, JVMTI_EVENT_FRAME_POP)) return STEP_GOES_ON;
    attach_step(data, std::move(step));
    jvmtiError error = g_jvmti->NotifyFramePop(thread, frame);
    if (error == JVMTI_ERROR_NONE) return STEP_GOES_ON;
    // A frame the VM cannot watch (a native one, say): step out by single steps instead, which
    // stop once the stack is lower than it is now.
    LOG_DEBUG("NotifyFramePop refused %s(%d), stepping out by single steps", get_error_message(error).c_str(), error);
    switch_off(data, thread, JVMTI_EVENT_FRAME_POP);
    if (!switch_on(data, thread, JVMTI_EVENT_SINGLE_STEP)) data->step.put(nullptr);
    return STEP_GOES_ON;
}

bool start_step_out_by_single_steps(JNIEnv* env, ThreadData* data, jthread thread, const StepOrigin& origin) {
    StepPtr step = new_step(STEP_OUT, origin, origin.height);
    if (!step) return STEP_GOES_ON;
    if (origin.lang == LANG_CFML) {
        if (get_cf_parent(env, thread, origin.height) == -1) return STEP_ABORTED;
        step->depth = get_cf_depth(thread);
    }
    if (!switch_on(data, thread, JVMTI_EVENT_SINGLE_STEP)) return STEP_GOES_ON;
    LOG_FINE("StepOut set step_data %p", static_cast<void*>(step.get()));
    attach_step(data, std::move(step));
    return STEP_GOES_ON;
}

bool is_step(jint command) {
    return command == STEP_IN || command == STEP_OUT || command == STEP_OVER;
}
}  // namespace

bool starts_step(jint command) { return is_step(command) || command == STEP_FIELD_MODIFICATION_COMPLETE; }

void handle_breakpoint_hit_return(JNIEnv* env, jthread thread, jmethodID method, jlocation location, jint command) {
    ThreadData* own = own_thread_data();
    // A virtual thread gets its record when it first steps; until then it has no step to end.
    std::optional<ThreadDataAccess> made;
    if (own == nullptr && is_virtual_thread(env, thread)) {
        if (!starts_step(command)) return;
        own = made.emplace(thread, true).get();
    }
    if (apply_step_command(env, thread, own, method, location, command)) fire_stepping_aborted(env, thread);
}

bool apply_step_command(JNIEnv* env, jthread thread, ThreadData* data, jmethodID method, jlocation location,
                        jint command) {
    if (command == STEP_NOOP) return STEP_GOES_ON;
    bool begins_step = starts_step(command);
    // The stack height, language and line matter only to a step: a plain CONTINUE, the answer to
    // almost every breakpoint hit, costs no stack walk and no lookup.
    jint height = 0;
    jvmtiError height_error = begins_step ? g_jvmti->GetFrameCount(thread, &height) : JVMTI_ERROR_NONE;
    SharedStep previous;
    if (!take_step(data, &previous)) return STEP_GOES_ON;
    if (previous) {
        clear_frame_pops(thread);
        end_return_wait(previous.get());
    }
    if (!begins_step) {
        if (command == STEP_CONTINUE) {
            LOG_DEBUG("Continue %p", static_cast<void*>(thread));
        } else {
            LOG_ERROR("ERROR: Unknown step %d %p", command, static_cast<void*>(thread));
        }
        return STEP_GOES_ON;
    }
    StepOrigin origin{method, location, height, step_language(env, method, previous.get()),
                      source_line(env, method, location),
                      get_time() + MAX_STEP.load()};
    previous.reset();
    if (is_step(command) && height_error != JVMTI_ERROR_NONE) {
        // Without the stack height no step can be judged: say so rather than step blindly.
        LOG_WARN("GetFrameCount failed %s(%d), no step", get_error_message(height_error).c_str(), height_error);
        return STEP_ABORTED;
    }
    if (command == STEP_OUT) {
        LOG_DEBUG("StepOut %p", static_cast<void*>(thread));
        return g_stepping_enabled ? start_step_out_with_frame_pop(env, data, thread, origin)
                                  : start_step_out_by_single_steps(env, data, thread, origin);
    }
    start_single_stepping(data, thread, static_cast<StepType>(command), origin);
    return STEP_GOES_ON;
}

void fire_stepping_aborted(JNIEnv* env, jthread thread) {
    ReferenceCountedJObject hook(g_stepHook);
    if (hook.isSet()) call_void_hook(env, hook, 0, "steppingAborted", "(Ljava/lang/Thread;)V", thread);
}

void wait_for_frame_pop(jthread thread, jint frame) {
    disable_single_step(thread);
    enable_frame_pop(thread);
    jvmtiError error = g_jvmti->NotifyFramePop(thread, frame);
    if (error == JVMTI_ERROR_NONE) return;
    LOG_DEBUG("NotifyFramePop(%d) refused %s(%d), single stepping on", frame, get_error_message(error).c_str(), error);
    disable_frame_pop(thread);
    enable_single_step(thread);
}

void clear_frame_pops(jthread thread) {
    constexpr jint FIRST_VERSION_WITH_CLEAR = 0x30000000 + (25 << 16);
    if (!g_stepping_enabled || g_jvmti_version < FIRST_VERSION_WITH_CLEAR) return;
    // The headers this library is built with predate the function: slot 67 of the table holds it
    // in the VMs that have it.
    using ClearAllFramePops = jvmtiError(JNICALL*)(jvmtiEnv*, jthread);
    auto clear = reinterpret_cast<ClearAllFramePops>(g_jvmti->functions->reserved67);
    if (clear != nullptr) clear(g_jvmti, thread);
}
