#include "construction_frames.h"

#include "global.h"
#include "log.h"
#include "resources.h"

#include <cstring>

namespace {
struct Builder {
    const char* class_signature;
    const char* method_name;
};

// From the builder's call of the constructor to the constructor's store of the continuation: the
// constructors up the class chain, the continuation with its runnable, and the builder itself.
constexpr Builder BUILDERS[] = {
    {"Ljava/lang/ThreadBuilders;", "newVirtualThread"},
    {"Ljava/lang/VirtualThread;", "<init>"},
    {"Ljava/lang/BaseVirtualThread;", "<init>"},
    {"Ljava/lang/Thread;", "<init>"},
    {"Ljava/lang/Object;", "<init>"},
    {"Ljava/lang/VirtualThread$VThreadContinuation;", "<init>"},
    {"Ljava/lang/VirtualThread$VThreadContinuation;", "wrap"},
    {"Ljava/lang/VirtualThread$VThreadContinuation$1;", "<init>"},
    {"Ljdk/internal/vm/Continuation;", "<init>"},
};

bool is_builder_class(const char* class_signature) {
    for (const Builder& builder : BUILDERS) {
        if (std::strcmp(builder.class_signature, class_signature) == 0) return true;
    }
    return false;
}

bool builds_virtual_threads(const char* class_signature, const char* method_name) {
    for (const Builder& builder : BUILDERS) {
        if (std::strcmp(builder.class_signature, class_signature) == 0 &&
            std::strcmp(builder.method_name, method_name) == 0) {
            return true;
        }
    }
    return false;
}
}  // namespace

void ConstructionFrames::add_class(jclass klass, const char* signature) {
    if (!is_builder_class(signature)) return;
    jint count = 0;
    JvmtiBuffer<jmethodID> methods;
    if (g_jvmti->GetClassMethods(klass, &count, methods.out()) != JVMTI_ERROR_NONE) return;
    for (jint k = 0; k < count; k++) {
        JvmtiBuffer<char> name;
        if (g_jvmti->GetMethodName(methods.get()[k], name.out(), nullptr, nullptr) == JVMTI_ERROR_NONE &&
            builds_virtual_threads(signature, name.get())) {
            add_method(methods.get()[k]);
        }
    }
}

void ConstructionFrames::add_method(jmethodID method) {
    if (m_count == CAPACITY) {
        LOG_WARN("More virtual-thread builder methods than %zu; the heap walk may meet threads under construction",
                 CAPACITY);
        return;
    }
    m_methods[m_count++] = method;
}

bool ConstructionFrames::contains(jmethodID method) const {
    for (size_t k = 0; k < m_count; k++) {
        if (m_methods[k] == method) return true;
    }
    return false;
}
