#include "event_mask.h"

jlong event_bit(jint event) {
    // Compared before subtracting: any jint may come in, and event - 50 would overflow near INT_MIN.
    if (event < JVMTI_MIN_EVENT_TYPE_VAL || event >= JVMTI_MIN_EVENT_TYPE_VAL + 64) return 0;
    jint position = event - JVMTI_MIN_EVENT_TYPE_VAL;
    return static_cast<jlong>(static_cast<unsigned long long>(1) << position);
}

const char* event_to_string(jint event) {
    switch (event) {
        case 50: return "VM_INIT";
        case 51: return "VM_DEATH";
        case 52: return "THREAD_START";
        case 53: return "THREAD_END";
        case 54: return "CLASS_FILE_LOAD_HOOK";
        case 55: return "CLASS_LOAD";
        case 56: return "CLASS_PREPARE";
        case 57: return "VM_START";
        case 58: return "EXCEPTION";
        case 59: return "EXCEPTION_CATCH";
        case 60: return "SINGLE_STEP";
        case 61: return "FRAME_POP";
        case 62: return "BREAKPOINT";
        case 63: return "FIELD_ACCESS";
        case 64: return "FIELD_MODIFICATION";
        case 65: return "METHOD_ENTRY";
        case 66: return "METHOD_EXIT";
        case 67: return "METHOD_BIND";
        case 68: return "COMPILED_METHOD_LOAD";
        case 69: return "COMPILED_METHOD_UNLOAD";
        case 70: return "DYNAMIC_CODE_GENERATED";
        case 71: return "DATA_DUMP_REQUEST";
        case 73: return "MONITOR_WAIT";
        case 74: return "MONITOR_WAITED";
        case 75: return "MONITOR_CONTENDED_ENTER";
        case 76: return "MONITOR_CONTENDED_ENTERED";
        case 80: return "RESOURCE_EXHAUSTED";
        case 81: return "GARBAGE_COLLECTION_START";
        case 82: return "GARBAGE_COLLECTION_FINISH";
        case 83: return "OBJECT_FREE";
        case 84: return "OBJECT_ALLOC";
        default: return "UNKNOWN";
    }
}

std::string event_mask_to_string(jlong mask) {
    if (mask == 0) return "NONE";
    std::string names;
    for (int position = 0; position < EVENT_MASK_POSITIONS; position++) {
        jint event = JVMTI_MIN_EVENT_TYPE_VAL + position;
        if ((mask & event_bit(event)) == 0) continue;
        if (!names.empty()) names += ',';
        names += event_to_string(event);
    }
    return names;
}
