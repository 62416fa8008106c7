#include "thread_info.h"

#include "class_registry.h"
#include "global.h"
#include "log.h"
#include "resources.h"

#include <atomic>

jobject get_thread_context(JNIEnv* env, jthread thread) {
    jint frames = 0;
    jvmtiError error = g_jvmti->GetFrameCount(thread, &frames);
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("GetFrameCount failed %d", error);
        return nullptr;
    }
    static RegisteredConstructor context_constructor("ThreadContext", "(Ljava/lang/Thread;I)V");
    LocalRef<jclass> clazz(env);
    jmethodID constructor = nullptr;
    if (!context_constructor.get_or_log(env, &clazz, &constructor)) return nullptr;
    jobject context = env->NewObject(clazz.get(), constructor, thread, frames);
    if (context == nullptr && env->ExceptionCheck()) {
        env->ExceptionClear();
        LOG_ERROR("OSGI class 'ThreadContext' could not be constructed");
    }
    return context;
}

std::string get_thread_name(jthread thread) {
    std::string name = "unknown";
    jvmtiThreadInfo info{};
    if (g_jvmti == nullptr || g_jvmti->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) return name;
    if (info.name != nullptr) {
        name = info.name;
        g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(info.name));
    }
    JNIEnv* env = current_env();
    if (env != nullptr) {
        if (info.thread_group != nullptr) env->DeleteLocalRef(info.thread_group);
        if (info.context_class_loader != nullptr) env->DeleteLocalRef(info.context_class_loader);
    }
    return name;
}

namespace {
// java.lang.Thread's own id field. Reading it runs no application code, where getId() may be
// overridden by a subclass (and then made to block, throw, or answer another thread's id). The
// class is never unloaded, so its field ID stays valid for the life of the process.
jfieldID thread_id_field(JNIEnv* env) {
    static std::atomic<jfieldID> field{nullptr};
    jfieldID known = field.load(std::memory_order_acquire);
    if (known != nullptr) return known;
    LocalRef<jclass> thread_class(env, env->FindClass("java/lang/Thread"));
    jfieldID found = thread_class ? env->GetFieldID(thread_class.get(), "tid", "J") : nullptr;
    if (found == nullptr) {
        env->ExceptionClear();
        LOG_ERROR("Cannot find the id field of java.lang.Thread");
        return nullptr;
    }
    field.store(found, std::memory_order_release);
    return found;
}
}  // namespace

jlong get_thread_id(JNIEnv* env, jthread thread) {
    if (thread == nullptr) return -1;
    jfieldID id = thread_id_field(env);
    return id != nullptr ? env->GetLongField(thread, id) : -1;
}
