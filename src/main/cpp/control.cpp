// The natives that switch the agent on and off, report its versions and settings, and hold the
// managed hooks.
#include "capabilities.h"
#include "class_registry.h"
#include "exception.h"
#include "global.h"
#include "hooks.h"
#include "kvjvmti.h"
#include "log.h"
#include "native.h"
#include "reference.h"
#include "resources.h"
#include "source_lines.h"
#include "thread.h"
#include "version.h"

namespace {
void register_hook(JNIEnv* env, ReferenceCountedJObject& hook, jobject object) {
    ReferenceCountedJObject replacement = object != nullptr ? ReferenceCountedJObject(env, object)
                                                            : ReferenceCountedJObject();
    if (object != nullptr && !replacement.isSet()) {
        throw_exception(env, ILLEGAL_STATE, "Cannot register the hook: out of memory");
        return;
    }
    hook = replacement;
}

void relinquish_debugging_capabilities() {
    jvmtiCapabilities held{};
    if (g_jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) return;
    jvmtiCapabilities surplus = without_basic(held);
    g_jvmti->RelinquishCapabilities(&surplus);
}
}  // namespace

KV_NATIVE(jboolean, isActive)(JNIEnv*, jobject) { return g_active ? JNI_TRUE : JNI_FALSE; }

KV_NATIVE(jboolean, setActive)(JNIEnv* env, jobject, jboolean active) {
    LOG_DEBUG("%d", active ? 1 : 0);
    if (g_jvmti == nullptr) {
        if (active) require_agent(env);
        return JNI_FALSE;
    }
    if (active) {
        g_active = add_upd_capabilities();
        update_class_events();
        // Redefinitions while switched off went unheard: line tables read before may be stale.
        forget_source_lines();
        return g_active ? JNI_TRUE : JNI_FALSE;
    }
    relinquish_debugging_capabilities();
    g_active = false;
    update_class_events();
    return JNI_FALSE;
}

KV_NATIVE(jint, getApiVersion)(JNIEnv*, jobject) { return API_VERSION; }

KV_NATIVE(jstring, getLibraryVersionString)(JNIEnv* env, jobject) { return env->NewStringUTF(version_banner()); }

KV_NATIVE(jint, setMaxStepDuration)(JNIEnv*, jobject, jint seconds) { return MAX_STEP.exchange(seconds); }

KV_NATIVE(jboolean, isFastSteppingEnabled)(JNIEnv*, jobject) { return g_stepping_enabled ? JNI_TRUE : JNI_FALSE; }

KV_NATIVE(jboolean, isExceptionsEnabled)(JNIEnv*, jobject) { return g_exceptions_enabled ? JNI_TRUE : JNI_FALSE; }

KV_NATIVE(void, registerClassPrepareHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_classPrepareHook, hook);
    update_class_events();
}

KV_NATIVE(void, registerBreakpointHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_breakpointHook, hook);
}

KV_NATIVE(void, registerExceptionHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_exceptionHook, hook);
}

KV_NATIVE(void, registerThreadHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_threadHook, hook);
    update_virtual_thread_events();
}

KV_NATIVE(void, registerFieldHook)(JNIEnv* env, jobject, jobject hook) { register_hook(env, g_fieldHook, hook); }

KV_NATIVE(void, registerSteppingAbortedHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_stepHook, hook);
}

KV_NATIVE(void, registerFileLoadHook)(JNIEnv* env, jobject, jobject hook) {
    register_hook(env, g_fileLoadHook, hook);
    update_class_events();
}

KV_NATIVE(void, registerOsgiClass)(JNIEnv* env, jobject /*self*/, jstring name, jclass clazz) {
    if (name == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "name is null");
        return;
    }
    if (clazz == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "clazz is null");
        return;
    }
    StringUtfChars chars(env, name);
    if (chars.get() == nullptr) return;  // out of memory: the VM's error stays pending
    LOG_DEBUG("registered %s", chars.get());
    if (!register_osgi_class(env, chars.get(), clazz)) {
        throw_exception(env, ILLEGAL_STATE, "Cannot register the class: out of memory");
    }
}
