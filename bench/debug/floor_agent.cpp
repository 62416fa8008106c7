// The floor of the breakpoint round trip: the least an agent can do to hand a breakpoint to Java.
// Its Breakpoint callback calls one cached static method and nothing else. The managed side is
// com.brantide.kelvane.bench.debug.Floor, whose natives set the breakpoint and switch the event
// on for one thread.
#include <jni.h>
#include <jvmti.h>

namespace {
jvmtiEnv* g_jvmti = nullptr;
jclass g_floor = nullptr;
jmethodID g_hit = nullptr;

void JNICALL on_breakpoint(jvmtiEnv*, JNIEnv* env, jthread, jmethodID, jlocation) {
    env->CallStaticVoidMethod(g_floor, g_hit);
}
}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
    if (vm->GetEnv(reinterpret_cast<void**>(&g_jvmti), JVMTI_VERSION_1_2) != JNI_OK) return JNI_ERR;
    jvmtiCapabilities capabilities{};
    capabilities.can_generate_breakpoint_events = 1;
    if (g_jvmti->AddCapabilities(&capabilities) != JVMTI_ERROR_NONE) return JNI_ERR;
    jvmtiEventCallbacks callbacks{};
    callbacks.Breakpoint = on_breakpoint;
    if (g_jvmti->SetEventCallbacks(&callbacks, sizeof(callbacks)) != JVMTI_ERROR_NONE) return JNI_ERR;
    return JNI_OK;
}

// Floor.setBreakpoint(Method, long): also caches Floor.hit()V for the callback.
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_setBreakpoint(JNIEnv* env, jclass floor,
                                                                                    jobject method, jlong bci) {
    if (g_floor == nullptr) {
        g_floor = static_cast<jclass>(env->NewGlobalRef(floor));
        g_hit = env->GetStaticMethodID(floor, "hit", "()V");
        if (g_hit == nullptr) return JNI_FALSE;
    }
    return g_jvmti->SetBreakpoint(env->FromReflectedMethod(method), bci) == JVMTI_ERROR_NONE;
}

// Floor.enableBreakpoints(Thread)
JNIEXPORT jboolean JNICALL Java_com_brantide_kelvane_bench_debug_Floor_enableBreakpoints(JNIEnv*, jclass,
                                                                                        jthread thread) {
    return g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_BREAKPOINT, thread) == JVMTI_ERROR_NONE;
}

}  // extern "C"
