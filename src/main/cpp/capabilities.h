// The capability sets the agent asks for, and the field list of its capability dumps.
#pragma once

#include <jvmti.h>

#include <cstddef>

struct CapabilityField {
    const char* name;
    bool (*held)(const jvmtiCapabilities& caps);
};

// The first 41 fields of the JVMTI capabilities record, in their standard order.
constexpr size_t CAPABILITY_FIELD_COUNT = 41;
extern const CapabilityField CAPABILITY_FIELDS[CAPABILITY_FIELD_COUNT];

// Held from load until the process ends.
jvmtiCapabilities basic_capabilities();
// Held while the agent is active; exception and frame-pop events only when configured.
jvmtiCapabilities debugging_capabilities(bool exceptions_enabled, bool stepping_enabled);
// The given set less the basic set and virtual-thread support: what setActive(false) and start-up
// give back.
jvmtiCapabilities without_basic(jvmtiCapabilities caps);
