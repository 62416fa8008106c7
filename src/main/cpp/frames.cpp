#include "frames.h"

#include "frame_rules.h"
#include "global.h"
#include "resources.h"

namespace {
bool method_name(jmethodID method, JvmtiBuffer<char>* name) {
    return g_jvmti->GetMethodName(method, name->out(), nullptr, nullptr) == JVMTI_ERROR_NONE;
}
}  // namespace

bool read_stack(jthread thread, std::vector<jvmtiFrameInfo>* frames) {
    jint count = 0;
    if (g_jvmti->GetFrameCount(thread, &count) != JVMTI_ERROR_NONE || count < 0) return false;
    frames->resize(static_cast<size_t>(count));
    if (count == 0) return true;
    jint returned = 0;
    if (g_jvmti->GetStackTrace(thread, 0, count, frames->data(), &returned) != JVMTI_ERROR_NONE) return false;
    frames->resize(static_cast<size_t>(returned));
    return true;
}

FrameLanguage get_type(JNIEnv* env, jmethodID method) {
    LocalRef<jclass> declaring(env);
    if (g_jvmti->GetMethodDeclaringClass(method, declaring.out()) != JVMTI_ERROR_NONE) return LANG_UNKNOWN;
    JvmtiBuffer<char> signature;
    if (g_jvmti->GetClassSignature(declaring.get(), signature.out(), nullptr) != JVMTI_ERROR_NONE) {
        return LANG_UNKNOWN;
    }
    return classify_class_signature(signature.get());
}

jint get_cf_depth(jthread thread) {
    std::vector<jvmtiFrameInfo> frames;
    if (!read_stack(thread, &frames)) return -1;
    jint depth = 0;
    for (const jvmtiFrameInfo& frame : frames) {
        JvmtiBuffer<char> name;
        if (!method_name(frame.method, &name)) continue;
        if (!is_hidden_frame(name.get())) depth++;
    }
    return depth;
}

jint get_cf_parent(JNIEnv* env, jthread thread, jint height) {
    std::vector<jvmtiFrameInfo> frames;
    if (!read_stack(thread, &frames)) return -1;
    JvmtiBuffer<char> name;
    auto name_of = [&](jint index, const char** text) {
        if (!method_name(frames[static_cast<size_t>(index)].method, &name)) return false;
        *text = name.get();
        return true;
    };
    auto is_cfml = [&](jint index) { return get_type(env, frames[static_cast<size_t>(index)].method) == LANG_CFML; };
    return find_cf_parent(static_cast<jint>(frames.size()), height, name_of, is_cfml);
}
