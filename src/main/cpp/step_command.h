// Step commands and the stepping state of a thread.
#pragma once

#include <jvmti.h>

#include "step_depth.h"

#include <atomic>
#include <cstdint>

// The command a hook answers with; its names are STEP_TYPE_STR.
enum StepType : jint {
    STEP_UNKNOWN = 0,
    STEP_STOP = 1,
    STEP_CONTINUE = 2,
    STEP_IN = 3,
    STEP_OUT = 4,
    STEP_OVER = 5,
    STEP_STOP_WITH_TIMEOUT = 6,
    STEP_FIELD_MODIFICATION_COMPLETE = 7,
    STEP_NOOP = 8,
};

extern const char* const STEP_TYPE_STR[9];

// The name of a command; "UNKNOWN" for any value outside 0..8, negative ones included.
const char* step_type_name(jint command);

// A step in progress, owned by the thread's ThreadData.
struct StepData {
    unsigned int type;      // STEP_IN, STEP_OUT, STEP_OVER or STEP_FIELD_MODIFICATION_COMPLETE
    jint depth;             // stack height (CFML depth for a CFML step) when the command was given
    jint lang;              // the FrameLanguage the step is judged in
    jmethodID begin_method;
    jlocation begin_location;
    jint begin_line;        // mapped through the class's SMAP
    double deadline;        // get_time() by which the step must complete
    double coarse_deadline; // the same on coarse_clock(), which every single step can afford to read
    uint64_t serial;        // tells this step from every other one, at the same address included
    // A compiled step's wait for a call to return (compiled_step.h): the place of the agent's
    // breakpoint and the stack height at which it counts, written before `waiting` is set by the
    // thread that starts the wait; the wait ends once, on whichever thread exchanges `waiting`.
    jmethodID wait_method;
    jlocation wait_location;
    jint wait_height;
    std::atomic<bool> waiting{false};
    // Set by a class redefinition, which may clear the VM's breakpoints: the rest of the step
    // skips calls with frame-pop requests.
    std::atomic<bool> frame_pops_only{false};
    // The frames of the step's single steps, judged by the owner alone.
    StepTracker tracker;

    StepData() = default;
    StepData(const StepData&) = delete;
    StepData& operator=(const StepData&) = delete;
    ~StepData();  // ends a wait still standing
};

// Seconds on a monotonic clock of a few milliseconds' resolution that costs next to nothing to
// read (no hardware counter), for the time limit that every single step checks.
double coarse_clock();

struct ThreadData;

// Acts on a hook's answer for the event thread, which stands at (method, location): ends the step
// in progress unless the command is NOOP and starts the one asked for, switching on the events that
// drive it. A step that cannot begin is reported to the stepping hook.
void handle_breakpoint_hit_return(JNIEnv* env, jthread thread, jmethodID method, jlocation location, jint command);

// The same for the thread whose record is given (the event thread's own, or one that resumeThread
// holds while the thread is suspended), without calling managed code, for callers that hold a
// lock: true when the stepping hook must be told (fire_stepping_aborted) that the step asked for
// could not begin.
bool apply_step_command(JNIEnv* env, jthread thread, ThreadData* data, jmethodID method, jlocation location,
                        jint command);

// Whether the command starts a step, which needs the thread's location; CONTINUE, NOOP and the
// commands that only end a step need none.
bool starts_step(jint command);

// Tells the managed stepping hook that the thread's step ended short of its target.
void fire_stepping_aborted(JNIEnv* env, jthread thread);

// Requests a frame-pop event for the frame at `frame` (0 the executing one) instead of single
// steps. When the VM refuses, single stepping stays on: the step goes on event by event (and is
// still bounded by the step time limit) rather than dying silently.
void wait_for_frame_pop(jthread thread, jint frame);

// Drops every frame-pop request still pending for the thread, where the VM can (JVMTI 25 and
// later): a finished step must leave nothing behind that could slow the thread or wake it.
void clear_frame_pops(jthread thread);
