// Listing and assigning the local variables of a stopped thread's frames.
#include "boxing.h"
#include "exception.h"
#include "global.h"
#include "log.h"
#include "native.h"
#include "object_methods.h"
#include "resources.h"
#include "signature.h"

#include <cstring>
#include <string>
#include <vector>

namespace {
constexpr const char* VARIABLE = "(Ljava/lang/String;Ljava/lang/Object;Ljava/lang/String;)Z";

// One frame's view: where the thread stands in it.
struct Frame {
    jthread thread;
    jint index;
    jmethodID method;
};

// A local read as the managed side sees it: boxed when primitive. False when the slot holds no
// value of that type here (or the frame is opaque): the variable is then left out.
bool read_local(JNIEnv* env, const Frame& frame, jint slot, char type, jobject* value) {
    jvmtiError error = JVMTI_ERROR_NONE;
    jint i = 0;
    jlong j = 0;
    jfloat f = 0;
    jdouble d = 0;
    switch (type) {
        case 'B': case 'C': case 'I': case 'S': case 'Z':
            error = g_jvmti->GetLocalInt(frame.thread, frame.index, slot, &i);
            break;
        case 'J': error = g_jvmti->GetLocalLong(frame.thread, frame.index, slot, &j); break;
        case 'F': error = g_jvmti->GetLocalFloat(frame.thread, frame.index, slot, &f); break;
        case 'D': error = g_jvmti->GetLocalDouble(frame.thread, frame.index, slot, &d); break;
        case 'L': case '[': return g_jvmti->GetLocalObject(frame.thread, frame.index, slot, value) == JVMTI_ERROR_NONE;
        default: return false;
    }
    if (error != JVMTI_ERROR_NONE) return false;
    switch (type) {
        case 'B': *value = box(env, static_cast<jbyte>(i)); break;
        case 'C': *value = box(env, static_cast<jchar>(i)); break;
        case 'S': *value = box(env, static_cast<jshort>(i)); break;
        case 'Z': *value = box(env, static_cast<jboolean>(i & 0xff)); break;
        case 'I': *value = box(env, i); break;
        case 'J': *value = box(env, j); break;
        case 'F': *value = box(env, f); break;
        default: *value = box(env, d); break;
    }
    if (*value != nullptr) return true;
    env->ExceptionClear();
    return false;
}

// Calls the callback's "variable"; false when it asked to stop or threw (the exception then goes
// back to the caller of the native, and nothing else is called).
bool report(JNIEnv* env, jobject callback, jmethodID variable, const char* name, jobject value, const char* signature) {
    LocalRef<jstring> managed_name(env, env->NewStringUTF(name));
    if (!managed_name) return false;
    LocalRef<jstring> managed_signature(env, env->NewStringUTF(signature));
    if (!managed_signature) return false;
    jboolean go_on = env->CallBooleanMethod(callback, variable, managed_name.get(), value, managed_signature.get());
    return !env->ExceptionCheck() && go_on == JNI_TRUE;
}

bool variable_found(JNIEnv* env, const Frame& frame, const char* name, const std::string& signature, jint slot,
                    jobject callback) {
    jmethodID variable = find_method(env, callback, "variable", VARIABLE);
    if (variable == nullptr) return true;
    char type = signature.empty() ? '\0' : signature[0];
    if (std::strchr("BCDFIJLSZ[", type) == nullptr || type == '\0') {
        LOG_DEBUG("Unknown variable %s", signature.c_str());
        return true;
    }
    jobject raw = nullptr;
    if (!read_local(env, frame, slot, type, &raw)) return true;
    LocalRef<jobject> value(env, raw);
    return report(env, callback, variable, name, value.get(), signature.c_str());
}

std::string method_signature(jmethodID method) {
    JvmtiBuffer<char> signature;
    if (g_jvmti->GetMethodName(method, nullptr, signature.out(), nullptr) != JVMTI_ERROR_NONE) return "";
    return signature.get();
}

// A method without a local variable table: the receiver and the arguments, each argument once at
// its true slot and with its true type (longs and doubles take two slots).
bool dump_arguments(JNIEnv* env, const Frame& frame, jobject callback) {
    LocalRef<jobject> receiver(env);
    bool instance = g_jvmti->GetLocalInstance(frame.thread, frame.index, receiver.out()) == JVMTI_ERROR_NONE &&
                    receiver.get() != nullptr;
    if (instance) {
        jmethodID variable = find_method(env, callback, "variable", VARIABLE);
        if (variable != nullptr && !report(env, callback, variable, "this", receiver.get(), "Ljava/lang/Object;")) {
            return false;
        }
    }
    std::string signature = method_signature(frame.method);
    for (const ArgumentSlot& argument : argument_slots(signature.c_str(), instance ? 1 : 0)) {
        std::string name = "arg" + std::to_string(argument.slot);
        if (!variable_found(env, frame, name.c_str(), argument.type, argument.slot, callback)) return false;
    }
    return true;
}

bool is_live(const jvmtiLocalVariableEntry& entry, jlocation location) {
    return entry.start_location <= location && location <= entry.start_location + entry.length;
}

bool dump_table(JNIEnv* env, const Frame& frame, const jvmtiLocalVariableEntry* table, jint count, jobject callback) {
    if (find_method(env, callback, "variable", VARIABLE) == nullptr) return true;
    jmethodID method = nullptr;
    jlocation location = 0;
    if (g_jvmti->GetFrameLocation(frame.thread, frame.index, &method, &location) != JVMTI_ERROR_NONE) return true;
    for (jint k = 0; k < count; k++) {
        const jvmtiLocalVariableEntry& entry = table[k];
        LOG_DEBUG("%s %s %d->%d %d", entry.name, entry.signature, static_cast<int>(entry.start_location),
                  static_cast<int>(entry.start_location + entry.length), entry.slot);
        LOG_FINE("Location = %d %d %d", static_cast<int>(entry.start_location),
                 static_cast<int>(entry.start_location + entry.length), static_cast<int>(location));
        if (!is_live(entry, location)) {
            LOG_DEBUG("Skipping variable %s @ %d", entry.name, entry.slot);
            continue;
        }
        if (!variable_found(env, frame, entry.name, entry.signature, entry.slot, callback)) return false;
    }
    return true;
}

// Gives back every string of a local variable table along with the table itself.
class VariableTable {
public:
    ~VariableTable() {
        for (jint k = 0; m_table && k < m_count; k++) {
            g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_table[static_cast<size_t>(k)].name));
            g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_table[static_cast<size_t>(k)].signature));
            g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_table[static_cast<size_t>(k)].generic_signature));
        }
    }
    jvmtiError read(jmethodID method) { return g_jvmti->GetLocalVariableTable(method, &m_count, m_table.out()); }
    jint count() const { return m_count; }
    const jvmtiLocalVariableEntry* entries() const { return m_table.get(); }

private:
    jint m_count = 0;
    JvmtiBuffer<jvmtiLocalVariableEntry> m_table;
};

bool dump_local_vars(JNIEnv* env, const Frame& frame, jobject callback) {
    VariableTable table;
    jvmtiError error = table.read(frame.method);
    LOG_DEBUG("depth = %d", frame.index);
    if (error == JVMTI_ERROR_NATIVE_METHOD) return true;
    if (error == JVMTI_ERROR_ABSENT_INFORMATION) {
        LOG_DEBUG("No variables");
        return dump_arguments(env, frame, callback);
    }
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return false;
    }
    LOG_DEBUG("%d variables", table.count());
    return dump_table(env, frame, table.entries(), table.count(), callback);
}

// The thread's frames from the top; false with the JVMTI error raised.
bool read_frames(JNIEnv* env, jthread thread, std::vector<jvmtiFrameInfo>* frames, bool raise_trace_error) {
    jint count = 0;
    jvmtiError error = g_jvmti->GetFrameCount(thread, &count);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return false;
    }
    LOG_DEBUG("Max Depth = %d", count);
    frames->resize(static_cast<size_t>(count > 0 ? count : 0));
    jint returned = 0;
    error = count > 0 ? g_jvmti->GetStackTrace(thread, 0, count, frames->data(), &returned) : JVMTI_ERROR_NONE;
    if (error != JVMTI_ERROR_NONE) {
        if (raise_trace_error) throw_jvmti_exception(env, error);
        return false;
    }
    frames->resize(static_cast<size_t>(returned));
    return true;
}

bool set_variable(JNIEnv* env, const Frame& frame, jint slot, const std::string& signature, jobject value) {
    char type = signature.empty() ? '\0' : signature[0];
    jvmtiError error;
    switch (type) {
        case 'I': case 'B': case 'C': case 'S': case 'Z':
            error = g_jvmti->SetLocalInt(frame.thread, frame.index, slot, unBoxToInt(env, value));
            break;
        case 'J': error = g_jvmti->SetLocalLong(frame.thread, frame.index, slot, unBoxToLong(env, value)); break;
        case 'F': error = g_jvmti->SetLocalFloat(frame.thread, frame.index, slot, unBoxToFloat(env, value)); break;
        case 'D': error = g_jvmti->SetLocalDouble(frame.thread, frame.index, slot, unBoxToDouble(env, value)); break;
        case 'L': case '[': error = g_jvmti->SetLocalObject(frame.thread, frame.index, slot, value); break;
        default:
            LOG_DEBUG("Unknown signature %s @ %d", signature.c_str(), frame.index);
            return false;
    }
    if (error == JVMTI_ERROR_NONE) return true;
    throw_jvmti_exception(env, error);
    return false;
}

void set_argument(JNIEnv* env, const Frame& frame, const std::string& name, jobject value) {
    LocalRef<jobject> receiver(env);
    bool instance = g_jvmti->GetLocalInstance(frame.thread, frame.index, receiver.out()) == JVMTI_ERROR_NONE &&
                    receiver.get() != nullptr;
    std::string signature = method_signature(frame.method);
    for (const ArgumentSlot& argument : argument_slots(signature.c_str(), instance ? 1 : 0)) {
        if (name == "arg" + std::to_string(argument.slot)) {
            set_variable(env, frame, argument.slot, argument.type, value);
            return;
        }
    }
}

void set_named_local(JNIEnv* env, const Frame& frame, const std::string& name, jobject value) {
    VariableTable table;
    jvmtiError error = table.read(frame.method);
    if (error == JVMTI_ERROR_ABSENT_INFORMATION) {
        set_argument(env, frame, name, value);
        return;
    }
    if (error != JVMTI_ERROR_NONE) return;
    jmethodID method = nullptr;
    jlocation location = 0;
    if (g_jvmti->GetFrameLocation(frame.thread, frame.index, &method, &location) != JVMTI_ERROR_NONE) return;
    for (jint k = 0; k < table.count() && !env->ExceptionCheck(); k++) {
        const jvmtiLocalVariableEntry& entry = table.entries()[k];
        if (name != entry.name || !is_live(entry, location)) continue;
        LOG_DEBUG("FOUND %s @ %d", entry.name, k);
        set_variable(env, frame, entry.slot, entry.signature, value);
    }
}
}  // namespace

KV_NATIVE(void, listVariables)(JNIEnv* env, jobject, jthread thread, jint stackFrame, jint depth, jobject callback) {
    if (!require_agent(env)) return;
    if (stackFrame < 0) {
        throw_exception(env, ILLEGAL_ARGUMENT, "stackFrame must be > 1");
        return;
    }
    if (depth < 1) {
        throw_exception(env, ILLEGAL_ARGUMENT, "depth must be >= 1");
        return;
    }
    if (callback == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "callback is null");
        return;
    }
    std::vector<jvmtiFrameInfo> frames;
    if (!read_frames(env, thread, &frames, true)) return;
    jint n = static_cast<jint>(frames.size());
    jint start = n - stackFrame;
    // In 64 bits: a depth near the int limit must not wrap around into a valid-looking range.
    jlong end = static_cast<jlong>(start) + depth;
    LOG_DEBUG("Frames = %d, StackFrame = %d, Start = %d, End = %ld", n, stackFrame, start, static_cast<long>(end));
    if (start < 0 || end > n) return;
    for (jint i = start; i < static_cast<jint>(end); i++) {
        if (!dump_local_vars(env, Frame{thread, i, frames[static_cast<size_t>(i)].method}, callback)) return;
    }
}

KV_NATIVE(void, setVariable)(JNIEnv* env, jobject, jthread thread, jint stackFrameDepth, jstring variableName,
                             jobject value) {
    if (!require_agent(env)) return;
    if (stackFrameDepth < 1) {
        throw_exception(env, ILLEGAL_ARGUMENT, "stackFrameDepth must be >= 1");
        return;
    }
    if (variableName == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "variableName is null");
        return;
    }
    if (thread == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "thread is null");
        return;
    }
    std::string name;
    {
        StringUtfChars chars(env, variableName);
        if (chars.get() == nullptr) return;
        name = chars.get();
    }
    std::vector<jvmtiFrameInfo> frames;
    if (!read_frames(env, thread, &frames, false)) return;
    jint n = static_cast<jint>(frames.size());
    jint i = n - stackFrameDepth;
    LOG_DEBUG("FRAME = %d of %d idx %d", stackFrameDepth, n, i);
    // A height beyond the stack names no frame: nothing to write.
    if (i < 0) return;
    set_named_local(env, Frame{thread, i, frames[static_cast<size_t>(i)].method}, name, value);
}
