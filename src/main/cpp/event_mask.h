// Event masks: bit (e - 50) of a signed 64-bit word stands for JVMTI event e.
#pragma once

#include <jvmti.h>

#include <string>

// The mask walkers visit events 50 to 83: positions 0 to 33.
constexpr int EVENT_MASK_POSITIONS = 34;

// The bit of an event, or 0 for a number outside the mask.
jlong event_bit(jint event);

// The JVMTI name of an event without its prefix ("BREAKPOINT"), or "UNKNOWN".
const char* event_to_string(jint event);

// The names of the events in a mask, separated by ","; "NONE" for an empty mask.
std::string event_mask_to_string(jlong mask);
