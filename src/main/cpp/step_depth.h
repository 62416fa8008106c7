// The stack height of a stepping thread at each single step, without walking the stack each time.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <cstdint>

// Where a call that the thread entered returns to in its caller.
struct CallSite {
    jmethodID method;
    jlocation return_location;
};

// A step's last single step, kept with the step rather than with the OS thread: a virtual thread
// may go on from one carrier to another in the middle of a step.
struct StepTracker {
    static constexpr int SITES_KEPT = 64;
    jmethodID method = nullptr;
    jlocation location = -1;
    jint height = -1;
    jint cfml_depth = -1;  // the CFML depth at height, counted again when the frame changes
    int sites = 0;
    CallSite site[SITES_KEPT];
};

// The height (GetFrameCount) of the calling thread at a single step of the step that owns the
// tracker, or -1 when it cannot be had. Within one frame the height is the previous event's: the
// method's bytecodes tell that the instruction may follow the previous one. Entering a call is
// checked against the caller's frame, a return against the call site it was entered from;
// anything else (a throw, a native frame in between, the first event of a step) counts the stack
// again. So a single step costs the same however deep the stack, but for the first one after a
// frame changes unexpectedly. `moved` tells whether the event is in another frame than the
// previous one.
jint step_height(StepTracker& tracker, jthread thread, jmethodID method, jlocation location, bool* moved);

// Forgets the last single step, for a step that stops single stepping until a frame returns: the
// next event is then counted afresh rather than derived from one in a frame that has returned
// meanwhile (in a recursion, at a place that may look like its follower).
void forget_step_height(StepTracker& tracker);

// Where the method goes on once the Java code that its instruction at `call_site` runs returns
// normally, or -1 when that cannot be known (see resume_after_call).
jlocation return_location(jmethodID method, jlocation call_site);
