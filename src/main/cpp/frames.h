// Language-aware frame classification for stepping through CFML templates.
#pragma once

#include "frame_rules.h"

#include <jni.h>
#include <jvmti.h>

#include <vector>

// The language of a method's frame, by its declaring class; LANG_UNKNOWN when that cannot be read.
FrameLanguage get_type(JNIEnv* env, jmethodID method);

// The thread's stack height without hidden frames, or -1 when the stack cannot be read. For the
// calling thread or a suspended one.
jint get_cf_depth(jthread thread);

// The frame index of the CFML caller of the frame at `height`, or -1.
jint get_cf_parent(JNIEnv* env, jthread thread, jint height);

// The thread's frames from the top, in a buffer sized by the stack (never on the native stack).
// False when the stack cannot be read.
bool read_stack(jthread thread, std::vector<jvmtiFrameInfo>* frames);
