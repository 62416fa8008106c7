#include "exception.h"

#include "capabilities.h"
#include "class_registry.h"
#include "error_name.h"
#include "global.h"
#include "log.h"
#include "reference.h"
#include "resources.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
constexpr size_t MESSAGE_BUFFER_SIZE = 1024;

// An exception already on its way out is the more useful one, and JNI allows no further calls
// but a few while it is pending.
bool exception_pending(JNIEnv* env, const char* wanted) {
    if (!env->ExceptionCheck()) return false;
    LOG_DEBUG("exception pending, not raising %s", wanted);
    return true;
}

// Only a Throwable may be handed to Throw: a registered class of another kind is unusable.
bool is_throwable(JNIEnv* env, jclass clazz) {
    LocalRef<jclass> throwable(env, env->FindClass("java/lang/Throwable"));
    if (!throwable) {
        env->ExceptionClear();
        return false;
    }
    return env->IsAssignableFrom(clazz, throwable.get());
}

void raise_registered(JNIEnv* env, jclass clazz, jvmtiError error, const std::string& name) {
    jmethodID constructor = env->GetMethodID(clazz, "<init>", "(ILjava/lang/String;)V");
    if (constructor == nullptr) {
        env->ExceptionClear();
        throw_exception(env, ILLEGAL_STATE, "JVMTI Exception constructor not found");
        return;
    }
    LocalRef<jstring> message(env, env->NewStringUTF(name.c_str()));
    if (!message) {
        env->ExceptionClear();
        throw_exception(env, ILLEGAL_STATE, "NewStringUTF failed");
        return;
    }
    LocalRef<jthrowable> exception(
        env, static_cast<jthrowable>(env->NewObject(clazz, constructor, static_cast<jint>(error), message.get())));
    if (!exception) {
        env->ExceptionClear();
        throw_exception(env, ILLEGAL_STATE, "Cannot create new exception");
        return;
    }
    env->Throw(exception.get());
}
}  // namespace

jint throw_exception(JNIEnv* env, const char* className, const char* format, ...) {
    if (exception_pending(env, className)) return -1;
    LocalRef<jclass> clazz(env, env->FindClass(className));
    if (!clazz) {
        LOG_ERROR("Cannot find class '%s'", className);
        return -1;
    }
    char message[MESSAGE_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    return env->ThrowNew(clazz.get(), message);
}

void throw_jvmti_exception(JNIEnv* env, jvmtiError error) {
    if (error == JVMTI_ERROR_MUST_POSSESS_CAPABILITY && g_inspection_only) LOG_WARN("%s", INSPECTION_ONLY_MODE);
    std::string name = get_error_message(error);
    const char* registered =
        error == JVMTI_ERROR_MUST_POSSESS_CAPABILITY ? "JVMTICapabilityException" : "JVMTIException";
    if (exception_pending(env, registered)) return;
    ReferenceCountedJObject held = get_osgi_class(registered);
    auto clazz = static_cast<jclass>(held.get());
    if (clazz == nullptr) {
        LOG_ERROR("OSGI class '%s' not configured", registered);
        throw_exception(env, ILLEGAL_STATE, "JVMTI Exception class not found");
        return;
    }
    if (!is_throwable(env, clazz)) {
        LOG_ERROR("OSGI class '%s' is not a Throwable", registered);
        throw_exception(env, ILLEGAL_STATE, "JVMTI Exception class not found");
        return;
    }
    raise_registered(env, clazz, error, name);
}

void throw_errno(JNIEnv* env, int errnum) {
    char message[MESSAGE_BUFFER_SIZE];
    int length = snprintf(message, sizeof message, "Native error '%s' %d", strerror(errnum), errnum);
    if (length < 1) {
        throw_exception(env, ILLEGAL_STATE, "Native error (snprintf failure)");
        return;
    }
    // The system's text goes through "%s", so a '%' in it is never read as a conversion.
    throw_exception(env, ILLEGAL_STATE, "%s", message);
}

bool require_agent(JNIEnv* env) {
    if (g_jvmti != nullptr) return true;
    throw_exception(env, ILLEGAL_STATE, "No JVMTI environment: the library was not loaded as a JVMTI agent (-agentpath)");
    return false;
}
