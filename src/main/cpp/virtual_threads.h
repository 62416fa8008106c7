// Virtual threads, on VMs that have them (JVMTI 21 and later). The library is built against the
// JDK 17 headers: the constants, the two event slots and the JNI function it needs are defined
// here, in one place (the capability bit in capabilities.h), and used only on a VM that knows them.
#pragma once

#include <jni.h>
#include <jvmti.h>

constexpr jint JVMTI_VERSION_WITH_VIRTUAL_THREADS = 0x30150000;
constexpr jint JNI_VERSION_WITH_VIRTUAL_THREADS = 0x00150000;
constexpr jint EVENT_VIRTUAL_THREAD_START = 87;
constexpr jint EVENT_VIRTUAL_THREAD_END = 88;

// The callback table of a JVMTI 21 VM: the JDK 17 one and the two virtual-thread slots after it.
struct CallbacksWithVirtualThreads {
    jvmtiEventCallbacks base;
    jvmtiEventThreadStart VirtualThreadStart;
    jvmtiEventThreadEnd VirtualThreadEnd;
};

// Whether the thread object is a virtual thread; always false on a VM without them.
bool is_virtual_thread(JNIEnv* env, jthread thread);
