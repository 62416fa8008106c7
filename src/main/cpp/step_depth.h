// The stack height of a stepping thread at each single step, without walking the stack each time.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <cstdint>

// The height (GetFrameCount) of the calling thread at a single step of the step with this serial,
// or -1 when it cannot be had. Within one frame the height is the previous event's: the method's
// bytecodes tell that the instruction may follow the previous one. Entering a call is checked
// against the caller's frame, a return against the call site it was entered from; anything else
// (a throw, a native frame in between, a new step) counts the stack again. So a single step costs
// the same however deep the stack, but for the first one after a frame changes unexpectedly.
// `moved` tells whether the event is in another frame than the previous one.
jint step_height(jthread thread, uint64_t step_serial, jmethodID method, jlocation location, bool* moved);

// Forgets the calling thread's last single step, for a step that stops single stepping until a
// frame returns: the next event is then counted afresh rather than derived from one in a frame
// that has returned meanwhile (in a recursion, at a place that may look like its follower).
void forget_step_height();

// Where the method goes on once the Java code that its instruction at `call_site` runs returns
// normally, or -1 when that cannot be known (see resume_after_call).
jlocation return_location(jmethodID method, jlocation call_site);
