// Carrying out the step commands that hooks and resumeThread answer with.
#pragma once

#include "step_data.h"

#include <jni.h>
#include <jvmti.h>

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
