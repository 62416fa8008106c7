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
// Held while the agent is active in inspection-only mode: the capabilities that leave the VM's
// compiled code as it is (tagging, suspension, monitors, lines and source names).
jvmtiCapabilities inspection_capabilities();
// The capabilities held in both sets.
jvmtiCapabilities capabilities_in_both(const jvmtiCapabilities& a, const jvmtiCapabilities& b);

// The line that names inspection-only mode, in the start-up lines, the capability dumps and every
// refusal of a debugging feature.
extern const char* const INSPECTION_ONLY_MODE;

// can_support_virtual_threads: the bit after can_generate_sampled_object_alloc_events, which the
// JDK 17 record leaves unnamed.
bool has_virtual_thread_capability(const jvmtiCapabilities& caps);
void set_virtual_thread_capability(jvmtiCapabilities* caps, bool held);

// The given set less the basic set and virtual-thread support: what setActive(false) and start-up
// give back.
jvmtiCapabilities without_basic(jvmtiCapabilities caps);
