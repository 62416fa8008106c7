// Telling CFML frames from Java ones (pure: no VM involved).
#pragma once

#include <jni.h>

enum FrameLanguage : jint { LANG_UNKNOWN = 0, LANG_JAVA = 1, LANG_CFML = 2 };

// "JAVA", "CFML", or "UNKNOWN" for any other value.
const char* frame_language_name(jint language);

// CFML when the class signature starts with "Lcf" and contains "$func", "2ecfm" or "2ecfc", or
// when it ends with "$cf;" (any package); Java otherwise.
FrameLanguage classify_class_signature(const char* signature);

// Frames of the CFML runtime's own plumbing, which CFML depth does not count: method names that
// begin with "_call0" or "_factor".
bool is_hidden_frame(const char* method_name);

// The index of the CFML frame that called the CFML frame standing at `height` (frame index
// frame_count - height), or -1. Frames are examined lazily through the two accessors, which
// answer false when they cannot read a frame: a hidden frame at the start is stepped over, then
// the CFML frame itself, then the first CFML frame from there on is the parent.
template <typename NameOf, typename IsCfml>
jint find_cf_parent(jint frame_count, jint height, NameOf name_of, IsCfml is_cfml) {
    jint index = frame_count - height;
    if (index < 0) return -1;
    const char* name = nullptr;
    if (index >= frame_count || !name_of(index, &name)) return -1;
    if (is_hidden_frame(name)) index++;
    if (index < frame_count && is_cfml(index)) index++;
    for (; index < frame_count; index++) {
        if (is_cfml(index)) return index;
    }
    return -1;
}
