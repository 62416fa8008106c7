// Virtual threads, on VMs that have them (JVMTI 21 and later). The library is built against the
// JDK 17 headers: the constants, the capability bit, the two event slots and the JNI function it
// needs are defined here, in one place, and used only on a VM that knows them.
#pragma once

#include <jni.h>
#include <jvmti.h>

constexpr jint JVMTI_VERSION_WITH_VIRTUAL_THREADS = 0x30150000;
constexpr jint JNI_VERSION_WITH_VIRTUAL_THREADS = 0x00150000;
constexpr jint EVENT_VIRTUAL_THREAD_START = 87;
constexpr jint EVENT_VIRTUAL_THREAD_END = 88;

// can_support_virtual_threads: the bit after can_generate_sampled_object_alloc_events, which the
// JDK 17 record leaves unnamed.
bool has_virtual_thread_capability(const jvmtiCapabilities& caps);
void set_virtual_thread_capability(jvmtiCapabilities* caps, bool held);

// The callback table of a JVMTI 21 VM: the JDK 17 one and the two virtual-thread slots after it.
struct CallbacksWithVirtualThreads {
    jvmtiEventCallbacks base;
    jvmtiEventThreadStart VirtualThreadStart;
    jvmtiEventThreadEnd VirtualThreadEnd;
};

// Whether the thread object is a virtual thread; always false on a VM without them.
bool is_virtual_thread(JNIEnv* env, jthread thread);

// Virtual threads start and end on themselves. Both events are on only while something needs
// them: the start while a thread hook is registered, the end also while a virtual thread has a
// record to free.
void JNICALL VirtualThreadStart(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void JNICALL VirtualThreadEnd(jvmtiEnv* jvmti, JNIEnv* env, jthread thread);
void update_virtual_thread_events();
