// Steps over and out at compiled speed. While a frame-pop request or single stepping is on for a
// thread, the VM runs it interpreted; a step that waits for a call to return instead sets a
// breakpoint of the agent's where the caller goes on and switches single stepping off, so the
// callee runs compiled. An exception that skips that place is heard through the catch.
#pragma once

#include <jni.h>
#include <jvmti.h>

struct StepData;
struct ThreadData;

// Starts waiting for the frame at depth `frame` (0: the executing one) of the thread, whose stack
// is `height` frames high, to return. False when it cannot be waited for this way (compiled
// stepping off or given up for the step, a native caller, a caller whose next instruction cannot
// be known, a place the VM refuses): the caller then waits with a frame-pop request.
bool wait_for_return_at_speed(jthread thread, ThreadData* data, StepData* step, jint frame, jint height);

// From the breakpoint callback, on the event thread: true when the event is the return its step
// waits for (at the stack height where the wait began, so not a recursion's nor another
// thread's), which then goes on by single steps: the caller judges the step from this place.
bool reach_return(jthread thread, jmethodID method, jlocation location);

// From the exception-catch callback: true when a catch at or above the frame a step waits in
// ended the wait; the step goes on by single steps, and the caller judges it from the handler.
bool catch_during_return_wait(jthread thread);

// From the class-file-load hook, before a class is redefined: the redefinition clears the VM's
// breakpoints in the class, so every waiting step goes on by single steps and frame-pop requests.
void before_redefinition(JNIEnv* env);
