#include "capabilities.h"

#include <cstring>

#define KV_CAPABILITY_FIELD_LIST(X)                                                                           \
    X(can_tag_objects) X(can_generate_field_modification_events) X(can_generate_field_access_events)          \
    X(can_get_bytecodes) X(can_get_synthetic_attribute) X(can_get_owned_monitor_info)                         \
    X(can_get_current_contended_monitor) X(can_get_monitor_info) X(can_pop_frame) X(can_redefine_classes)     \
    X(can_signal_thread) X(can_get_source_file_name) X(can_get_line_numbers)                                  \
    X(can_get_source_debug_extension) X(can_access_local_variables) X(can_maintain_original_method_order)     \
    X(can_generate_single_step_events) X(can_generate_exception_events) X(can_generate_frame_pop_events)      \
    X(can_generate_breakpoint_events) X(can_suspend) X(can_redefine_any_class)                                \
    X(can_get_current_thread_cpu_time) X(can_get_thread_cpu_time) X(can_generate_method_entry_events)         \
    X(can_generate_method_exit_events) X(can_generate_all_class_hook_events)                                  \
    X(can_generate_compiled_method_load_events) X(can_generate_monitor_events)                                \
    X(can_generate_vm_object_alloc_events) X(can_generate_native_method_bind_events)                          \
    X(can_generate_garbage_collection_events) X(can_generate_object_free_events) X(can_force_early_return)     \
    X(can_get_owned_monitor_stack_depth_info) X(can_get_constant_pool) X(can_set_native_method_prefix)        \
    X(can_retransform_classes) X(can_retransform_any_class) X(can_generate_resource_exhaustion_heap_events)   \
    X(can_generate_resource_exhaustion_threads_events)

#define KV_CAPABILITY_ENTRY(field) {#field, [](const jvmtiCapabilities& caps) { return caps.field != 0; }},

namespace {
// The position of can_generate_sampled_object_alloc_events in the record, as this compiler lays
// out its bit fields.
size_t sampled_allocation_bit() {
    jvmtiCapabilities probe{};
    probe.can_generate_sampled_object_alloc_events = 1;
    unsigned char bytes[sizeof probe];
    std::memcpy(bytes, &probe, sizeof probe);
    for (size_t bit = 0; bit < sizeof probe * 8; bit++) {
        if ((bytes[bit / 8] >> (bit % 8) & 1) != 0) return bit;
    }
    return 0;
}

const size_t VIRTUAL_THREAD_BIT = sampled_allocation_bit() + 1;
}  // namespace

bool has_virtual_thread_capability(const jvmtiCapabilities& caps) {
    unsigned char bytes[sizeof caps];
    std::memcpy(bytes, &caps, sizeof caps);
    return (bytes[VIRTUAL_THREAD_BIT / 8] >> (VIRTUAL_THREAD_BIT % 8) & 1) != 0;
}

void set_virtual_thread_capability(jvmtiCapabilities* caps, bool held) {
    unsigned char bytes[sizeof *caps];
    std::memcpy(bytes, caps, sizeof *caps);
    auto mask = static_cast<unsigned char>(1u << (VIRTUAL_THREAD_BIT % 8));
    if (held) {
        bytes[VIRTUAL_THREAD_BIT / 8] |= mask;
    } else {
        bytes[VIRTUAL_THREAD_BIT / 8] &= static_cast<unsigned char>(~mask);
    }
    std::memcpy(caps, bytes, sizeof *caps);
}

const CapabilityField CAPABILITY_FIELDS[CAPABILITY_FIELD_COUNT] = {KV_CAPABILITY_FIELD_LIST(KV_CAPABILITY_ENTRY)};

jvmtiCapabilities basic_capabilities() {
    jvmtiCapabilities caps{};
    caps.can_tag_objects = 1;
    caps.can_get_source_file_name = 1;
    caps.can_get_line_numbers = 1;
    caps.can_get_source_debug_extension = 1;
    return caps;
}

jvmtiCapabilities debugging_capabilities(bool exceptions_enabled, bool stepping_enabled) {
    jvmtiCapabilities caps{};
    caps.can_tag_objects = 1;
    caps.can_generate_field_modification_events = 1;
    caps.can_generate_field_access_events = 1;
    caps.can_get_current_contended_monitor = 1;
    caps.can_get_source_file_name = 1;
    caps.can_get_line_numbers = 1;
    caps.can_get_source_debug_extension = 1;
    caps.can_access_local_variables = 1;
    caps.can_get_bytecodes = 1;
    caps.can_generate_single_step_events = 1;
    caps.can_generate_breakpoint_events = 1;
    caps.can_suspend = 1;
    caps.can_get_owned_monitor_stack_depth_info = 1;
    caps.can_generate_exception_events = exceptions_enabled ? 1 : 0;
    caps.can_generate_frame_pop_events = stepping_enabled ? 1 : 0;
    return caps;
}

const char* const INSPECTION_ONLY_MODE =
    "inspection only (kv.jvmti.inspection.only or attached to a running VM): no debugging capability";

jvmtiCapabilities inspection_capabilities() {
    jvmtiCapabilities caps = basic_capabilities();
    caps.can_suspend = 1;
    caps.can_get_current_contended_monitor = 1;
    caps.can_get_owned_monitor_stack_depth_info = 1;
    return caps;
}

jvmtiCapabilities capabilities_in_both(const jvmtiCapabilities& a, const jvmtiCapabilities& b) {
    unsigned char left[sizeof a];
    unsigned char right[sizeof b];
    std::memcpy(left, &a, sizeof a);
    std::memcpy(right, &b, sizeof b);
    for (size_t k = 0; k < sizeof left; k++) left[k] &= right[k];
    jvmtiCapabilities both{};
    std::memcpy(&both, left, sizeof both);
    return both;
}

jvmtiCapabilities without_basic(jvmtiCapabilities caps) {
    set_virtual_thread_capability(&caps, false);
    caps.can_tag_objects = 0;
    caps.can_get_source_file_name = 0;
    caps.can_get_line_numbers = 0;
    caps.can_get_source_debug_extension = 0;
    return caps;
}
