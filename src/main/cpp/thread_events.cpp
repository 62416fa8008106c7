#include "thread_events.h"

#include "hooks.h"
#include "log.h"
#include "reference.h"
#include "thread.h"
#include "thread_cleanups.h"
#include "thread_info.h"

namespace {
void tell_thread_hook(JNIEnv* env, jthread thread, bool started) {
    ReferenceCountedJObject hook(g_threadHook);
    if (!hook.isSet()) return;
    if (started) {
        call_void_hook(env, hook, 0, "threadStart", "(Ljava/lang/Thread;)V", thread);
    } else {
        call_void_hook(env, hook, 1, "threadEnd", "(Ljava/lang/Thread;)V", thread);
    }
}
}  // namespace

void JNICALL ThreadStart(jvmtiEnv*, JNIEnv* env, jthread thread) {
    jlong id = get_thread_id(env, thread);
    LOG_DEBUG("ThreadStart thread(%ld,%s)", id, get_thread_name(thread).c_str());
    attach_thread_data(env, thread, id);
    tell_thread_hook(env, thread, true);
}

void JNICALL ThreadEnd(jvmtiEnv*, JNIEnv* env, jthread thread) {
    LOG_DEBUG("ThreadEnd thread(%ld,%s)", get_thread_id(env, thread), get_thread_name(thread).c_str());
    tell_thread_hook(env, thread, false);
    run_thread_cleanups(env, true);
    release_thread_data(env);
}

void JNICALL VirtualThreadStart(jvmtiEnv*, JNIEnv* env, jthread thread) { tell_thread_hook(env, thread, true); }

void JNICALL VirtualThreadEnd(jvmtiEnv*, JNIEnv* env, jthread thread) {
    tell_thread_hook(env, thread, false);
    run_thread_cleanups(env, false);
    if (release_virtual_record()) update_virtual_thread_events();
}
