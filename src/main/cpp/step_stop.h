// Stepping's stop marker. Where a step stops at a place that holds a breakpoint, the VM reports the
// single step and then the breakpoint there, and a person expects one stop: the breakpoint event
// that follows a step's stop is not reported again.
#pragma once

#include <jni.h>
#include <jvmti.h>

// The stepping engine's stop: like fire_breakpoint_hit, and when a breakpoint stands at the same
// place, the VM's breakpoint event that follows the single step there is not reported again.
bool fire_step_stop(JNIEnv* env, jthread thread, jmethodID method, jlocation location);

// Called at every single step: a step that moved on from its last stop forgets it.
void forget_step_stop(jmethodID method, jlocation location);

// From the breakpoint callback: true when the event is the one that follows the calling thread's
// last step stop. The marker stands for that one event and for no later one, so it goes either way.
bool follows_step_stop(jmethodID method, jlocation location);
