#include "dispatch.h"

#include "boxing.h"
#include "breakpoint_location.h"
#include "breakpoints.h"
#include "compiled_step.h"
#include "events.h"
#include "global.h"
#include "hook_call.h"
#include "hooks.h"
#include "log.h"
#include "object_methods.h"
#include "reference.h"
#include "resources.h"
#include "source_lines.h"
#include "step_stop.h"
#include "stepping.h"
#include "thread_info.h"

#include <cstring>

namespace {
#define KV_LOCATION KV_BREAKPOINT_LOCATION_TYPE
#define KV_CONTEXT KV_THREAD_CONTEXT_TYPE
constexpr const char* FIELD_ACCESS = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Class;Ljava/lang/Object;Ljava/lang/reflect/Field;)I";
constexpr const char* FIELD_MODIFIED =
    "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Class;Ljava/lang/Object;Ljava/lang/reflect/Field;Ljava/lang/Object;)I";
constexpr const char* EXCEPTION_THROWN = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Throwable;" KV_LOCATION ")I";
constexpr const char* EXCEPTION_CATCH = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Throwable;)I";
#undef KV_LOCATION
#undef KV_CONTEXT

jobject reflect_field(JNIEnv* env, jclass field_klass, jfieldID field) {
    jint modifiers = 0;
    if (g_jvmti->GetFieldModifiers(field_klass, field, &modifiers) != JVMTI_ERROR_NONE) return nullptr;
    jobject reflected = env->ToReflectedField(field_klass, field, (modifiers & ACC_STATIC) != 0);
    if (reflected == nullptr) env->ExceptionClear();
    return reflected;
}

jobject box_new_value(JNIEnv* env, char signature_type, jvalue value) {
    jobject boxed = nullptr;
    switch (signature_type) {
        case 'Z': boxed = box(env, value.z); break;
        case 'B': boxed = box(env, value.b); break;
        case 'C': boxed = box(env, value.c); break;
        case 'S': boxed = box(env, value.s); break;
        case 'I': boxed = box(env, value.i); break;
        case 'J': boxed = box(env, value.j); break;
        case 'F': boxed = box(env, value.f); break;
        case 'D': boxed = box(env, value.d); break;
        case 'L':
        case '[': return value.l != nullptr ? env->NewLocalRef(value.l) : nullptr;
        default: LOG_DEBUG("Unknown variable"); return nullptr;
    }
    if (boxed == nullptr) env->ExceptionClear();
    return boxed;
}

void report_field_event(JNIEnv* env, jthread thread, jmethodID method, jlocation location, jclass field_klass,
                        jobject object, jfieldID field, bool modified, char signature_type, jvalue new_value) {
    ReferenceCountedJObject hook(g_fieldHook);
    if (!hook.isSet()) return;
    LOG_DEBUG("%p", static_cast<void*>(thread));
    const char* name = modified ? "fieldModified" : "fieldAccess";
    jmethodID hook_method = hook.method(env, modified ? 1 : 0, name, modified ? FIELD_MODIFIED : FIELD_ACCESS);
    if (hook_method == nullptr) return;
    HookCall call(env, thread, method, location);
    LocalRef<jobject> where(env, call.location_object(method, location));
    LocalRef<jobject> context(env, get_thread_context(env, thread));
    LocalRef<jobject> reflected(env, context ? reflect_field(env, field_klass, field) : nullptr);
    if (!reflected) {
        call.abandon();
        return;
    }
    jint command;
    if (modified) {
        LocalRef<jobject> value(env, box_new_value(env, signature_type, new_value));
        command = call_int_hook(env, hook.get(), hook_method, name, where.get(), context.get(), field_klass, object,
                                reflected.get(), value.get());
    } else {
        command = call_int_hook(env, hook.get(), hook_method, name, where.get(), context.get(), field_klass, object,
                                reflected.get());
    }
    call.finish(command);
}

bool is_stack_overflow(JNIEnv* env, jobject exception) {
    LocalRef<jclass> clazz(env, env->GetObjectClass(exception));
    JvmtiBuffer<char> signature;
    if (!clazz || g_jvmti->GetClassSignature(clazz.get(), signature.out(), nullptr) != JVMTI_ERROR_NONE) return false;
    return std::strcmp(signature.get(), "Ljava/lang/StackOverflowError;") == 0;
}

// Both exception events; the catch location is reported only for a throw.
void report_exception(JNIEnv* env, jthread thread, jmethodID method, jlocation location, jobject exception,
                      bool thrown, jmethodID catch_method, jlocation catch_location) {
    ReferenceCountedJObject hook(g_exceptionHook);
    if (!hook.isSet()) return;
    LOG_DEBUG("%p", static_cast<void*>(thread));
    const char* name = thrown ? "exceptionThrown" : "exceptionCatch";
    jmethodID hook_method = hook.method(env, thrown ? 0 : 1, name, thrown ? EXCEPTION_THROWN : EXCEPTION_CATCH);
    // Reporting a stack overflow would run managed code on the very stack that overflowed.
    if (hook_method == nullptr || is_stack_overflow(env, exception)) return;
    HookCall call(env, thread, method, location);
    LocalRef<jobject> where(env, call.location_object(method, location));
    LocalRef<jobject> caught_at(env, thrown ? call.location_object(catch_method, catch_location) : nullptr);
    LocalRef<jobject> context(env, get_thread_context(env, thread));
    if (!context) {
        call.abandon();
        return;
    }
    jint command = thrown ? call_int_hook(env, hook.get(), hook_method, name, where.get(), context.get(), exception,
                                          caught_at.get())
                          : call_int_hook(env, hook.get(), hook_method, name, where.get(), context.get(), exception);
    call.finish(command);
}
}  // namespace

namespace {
// A breakpoint of the agent's, where a step waits for a return: the step goes on if it is the
// thread's own return. True when no hook may hear of the event: no user's breakpoint stands there.
bool is_agents_own(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    PendingExceptionKeeper keeper(env);
    if (reach_return(thread, method, location)) judge_step_at(env, thread, method, location);
    return !has_breakpoint(method, location);
}
}  // namespace

void JNICALL Breakpoint(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    if (has_return_breakpoints() && is_agents_own(env, thread, method, location)) return;
    // A step's marker stands for the one breakpoint event that follows its stop, whether or not the
    // thread wants breakpoints now.
    if (follows_step_stop(method, location) || !is_event_wanted(JVMTI_EVENT_BREAKPOINT)) return;
    LOG_DEBUG("%p", static_cast<void*>(thread));
    PendingExceptionKeeper keeper(env);
    fire_breakpoint_hit(env, thread, method, location);
}

void JNICALL FieldAccess(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                         jclass field_klass, jobject object, jfieldID field) {
    if (!is_event_wanted(JVMTI_EVENT_FIELD_ACCESS)) return;
    PendingExceptionKeeper keeper(env);
    report_field_event(env, thread, method, location, field_klass, object, field, false, 0, jvalue{});
}

void JNICALL FieldModification(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                               jclass field_klass, jobject object, jfieldID field, char signature_type,
                               jvalue new_value) {
    if (!is_event_wanted(JVMTI_EVENT_FIELD_MODIFICATION)) return;
    PendingExceptionKeeper keeper(env);
    report_field_event(env, thread, method, location, field_klass, object, field, true, signature_type, new_value);
}

void JNICALL Exception(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                       jobject exception, jmethodID catch_method, jlocation catch_location) {
    if (!is_event_wanted(JVMTI_EVENT_EXCEPTION)) return;
    PendingExceptionKeeper keeper(env);
    report_exception(env, thread, method, location, exception, true, catch_method, catch_location);
}

void JNICALL ExceptionCatch(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location,
                            jobject exception) {
    PendingExceptionKeeper keeper(env);
    // The interpreter goes on at the handler without a single-step event for its first instruction.
    if (g_compiled_stepping && catch_during_return_wait(thread)) judge_step_at(env, thread, method, location);
    if (!g_exceptions_enabled || !is_event_wanted(JVMTI_EVENT_EXCEPTION_CATCH)) return;
    report_exception(env, thread, method, location, exception, false, nullptr, 0);
}

void JNICALL ClassPrepare(jvmtiEnv*, JNIEnv* env, jthread thread, jclass klass) {
    ReferenceCountedJObject hook(g_classPrepareHook);
    if (!hook.isSet()) return;
    // A class can be prepared inside one of the agent's natives that holds thousands of local
    // references (a heap walk linking its entry class). JNI checking counts those as this event's
    // own, at the end of every JNI call made here, even after a local frame is popped: the first
    // call declares them. The VM prepares a class only once it is linked without an exception,
    // so none is pending yet.
    ensure_local_capacity(env, 32);
    PendingExceptionKeeper keeper(env);
    call_void_hook(env, hook, 0, "prepareClass", "(Ljava/lang/Thread;Ljava/lang/Class;)V", thread, klass);
}

// The class bytes are never replaced: the new-data arguments stay untouched.
void JNICALL ClassFileLoadHook(jvmtiEnv*, JNIEnv* env, jclass class_being_redefined, jobject, const char*, jobject,
                               jint, const unsigned char*, jint*, unsigned char**) {
    if (class_being_redefined == nullptr) return;
    forget_source_lines();
    before_redefinition(env);
    ReferenceCountedJObject hook(g_fileLoadHook);
    if (!hook.isSet()) return;
    PendingExceptionKeeper keeper(env);
    call_void_hook(env, hook, 0, "redefinedClass", "(Ljava/lang/Class;)V", class_being_redefined);
}
