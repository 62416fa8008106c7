// A step in progress, and the commands that hooks answer with.
#pragma once

#include "step_depth.h"

#include <jvmti.h>

#include <atomic>
#include <cstdint>

// The command a hook answers with.
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
    ~StepData();  // ends a wait still standing (end_return_wait)
};

// Ends the step's wait for a return, if it waits: gives its breakpoint back. Once per wait, from
// any thread.
void end_return_wait(StepData* step);

// Seconds on a monotonic clock of a few milliseconds' resolution that costs next to nothing to
// read (no hardware counter), for the time limit that every single step checks.
double coarse_clock();
