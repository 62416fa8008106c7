#include "virtual_threads.h"

#include "global.h"

namespace {
// The JNI function table of a JNI 21 VM: the JDK 17 one and IsVirtualThread after it.
struct JniWithVirtualThreads {
    JNINativeInterface_ base;
    jboolean(JNICALL* IsVirtualThread)(JNIEnv* env, jobject object);
};
}  // namespace

bool is_virtual_thread(JNIEnv* env, jthread thread) {
    if (!g_virtual_threads || thread == nullptr) return false;
    const auto* functions = reinterpret_cast<const JniWithVirtualThreads*>(env->functions);
    return functions->IsVirtualThread(env, thread) == JNI_TRUE;
}

