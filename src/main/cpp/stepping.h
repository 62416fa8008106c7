// The stepping engine: the single-step and frame-pop callbacks that carry a step to its target.
#pragma once

#include <jvmti.h>

// Fast stepping: called methods are skipped with a frame-pop event instead of single steps.
void JNICALL SingleStep(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jlocation location);
void JNICALL FramePop(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method, jboolean popped_by_exception);
// Without fast stepping: every instruction of the called code is examined and passed over.
void JNICALL SingleStepNoFramePop(jvmtiEnv* jvmti, JNIEnv* env, jthread thread, jmethodID method,
                                  jlocation location);

// Judges the calling thread's step at a place where no single-step event comes (a compiled step's
// return place), as the fast SingleStep callback would.
void judge_step_at(JNIEnv* env, jthread thread, jmethodID method, jlocation location);
