#include "step_depth.h"

#include "bytecode.h"
#include "global.h"
#include "nothrow_array.h"
#include "resources.h"
#include "source_lines.h"

#include <cstring>

namespace {
// A method's bytecodes, copied out of the VM's buffer.
struct MethodCode {
    jmethodID method = nullptr;
    unsigned long generation = 0;
    NothrowArray<uint8_t> bytes;
};

constexpr int CODES_KEPT = 16;
thread_local MethodCode t_codes[CODES_KEPT];
thread_local int t_next_code = 0;

// The bytecodes of a method, kept for the last methods the thread stepped through; null when they
// cannot be had (a native method, no capability, no memory).
const MethodCode* code_of(jmethodID method) {
    unsigned long generation = class_generation();
    thread_local const MethodCode* t_last = nullptr;  // a step mostly stays in one method
    if (t_last != nullptr && t_last->method == method && t_last->generation == generation) return t_last;
    for (const MethodCode& kept : t_codes) {
        if (kept.method == method && kept.generation == generation) return t_last = &kept;
    }
    jint count = 0;
    JvmtiBuffer<unsigned char> bytes;
    if (g_jvmti->GetBytecodes(method, &count, bytes.out()) != JVMTI_ERROR_NONE || count <= 0) return nullptr;
    MethodCode& slot = t_codes[t_next_code];
    t_next_code = (t_next_code + 1) % CODES_KEPT;
    slot.method = nullptr;
    if (!slot.bytes.resize_zeroed(static_cast<size_t>(count))) return nullptr;
    std::memcpy(slot.bytes.data(), bytes.get(), static_cast<size_t>(count));
    slot.method = method;
    slot.generation = generation;
    return t_last = &slot;
}

bool caller_is(jthread thread, jmethodID method, jlocation location) {
    jmethodID caller = nullptr;
    jlocation at = -1;
    return g_jvmti->GetFrameLocation(thread, 1, &caller, &at) == JVMTI_ERROR_NONE && caller == method && at == location;
}

// The height of this event derived from the previous one, or -1 when it cannot be.
jint derive(StepTracker& t, jthread thread, jmethodID method, jlocation location, bool* moved) {
    const MethodCode* code = code_of(t.method);
    if (code == nullptr || t.location < 0 || location < 0) return -1;
    const uint8_t* bytes = code->bytes.data();
    size_t length = code->bytes.size();
    size_t at = static_cast<size_t>(t.location);
    *moved = false;
    if (method == t.method && may_follow(bytes, length, at, static_cast<size_t>(location))) return t.height;
    *moved = true;
    Flow flow = flow_at(bytes, length, at);
    if (flow == Flow::INVOKE && location == 0 && t.sites < StepTracker::SITES_KEPT &&
        caller_is(thread, t.method, t.location)) {
        t.site[t.sites++] = CallSite{t.method, t.location + static_cast<jlocation>(instruction_length(bytes, length, at))};
        return t.height + 1;
    }
    if (flow == Flow::RETURN && t.sites > 0 && t.site[t.sites - 1].method == method &&
        t.site[t.sites - 1].return_location == location) {
        t.sites--;
        return t.height - 1;
    }
    return -1;
}
}  // namespace

jint step_height(StepTracker& t, jthread thread, jmethodID method, jlocation location, bool* moved) {
    jint height = t.height >= 0 ? derive(t, thread, method, location, moved) : -1;
    if (height < 0) {
        *moved = true;
        t.sites = 0;
        if (g_jvmti->GetFrameCount(thread, &height) != JVMTI_ERROR_NONE) height = -1;
    }
    t.method = method;
    t.location = location;
    t.height = height;
    return height;
}

void forget_step_height(StepTracker& tracker) { tracker.height = -1; }

jlocation return_location(jmethodID method, jlocation call_site) {
    const MethodCode* code = code_of(method);
    if (code == nullptr || call_site < 0) return -1;
    size_t resume = resume_after_call(code->bytes.data(), code->bytes.size(), static_cast<size_t>(call_site));
    return resume != 0 ? static_cast<jlocation>(resume) : -1;
}
