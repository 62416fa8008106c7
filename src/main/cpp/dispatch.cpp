#include "dispatch.h"

#include "boxing.h"
#include "breakpoint.h"
#include "compiled_step.h"
#include "events.h"
#include "global.h"
#include "hooks.h"
#include "log.h"
#include "lookup.h"
#include "resources.h"
#include "step_command.h"
#include "thread.h"
#include "virtual_threads.h"

#include <cstdarg>
#include <cstring>
#include <optional>

namespace {
#define KV_LOCATION "Lcom/brantide/kelvane/plugin/jvmti/BreakpointLocation;"
#define KV_CONTEXT "Lcom/brantide/kelvane/plugin/jvmti/ThreadContext;"
constexpr const char* BREAKPOINT_HIT = "(" KV_LOCATION KV_CONTEXT ")I";
constexpr const char* FIELD_ACCESS = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Class;Ljava/lang/Object;Ljava/lang/reflect/Field;)I";
constexpr const char* FIELD_MODIFIED =
    "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Class;Ljava/lang/Object;Ljava/lang/reflect/Field;Ljava/lang/Object;)I";
constexpr const char* FIELD_MODIFIED_COMPLETE = "(" KV_LOCATION KV_CONTEXT ")I";
constexpr const char* EXCEPTION_THROWN = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Throwable;" KV_LOCATION ")I";
constexpr const char* EXCEPTION_CATCH = "(" KV_LOCATION KV_CONTEXT "Ljava/lang/Throwable;)I";
#undef KV_LOCATION
#undef KV_CONTEXT
constexpr jint ACC_STATIC_BIT = 0x0008;

// Where the thread's last step stopped, when a breakpoint stands there too: the VM reports the
// single step and then the breakpoint at the same place, and a person expects one stop.
thread_local jmethodID t_step_stop_method = nullptr;
thread_local jlocation t_step_stop_location = -1;

// One hook call on an event thread: its events are off from construction until finish or abandon.
// The thread's record is found once, for the whole call.
class HookCall {
public:
    HookCall(JNIEnv* env, jthread thread, jmethodID method, jlocation location)
        : m_env(env), m_thread(thread), m_method(method), m_location(location), m_data(record_of(env, thread)),
          m_saved(clear_active_events(m_data, thread)) {}

    jobject location_object(jmethodID method, jlocation location) {
        return BreakpointLocation(method, location).to_java(m_env);
    }
    // Restores what was on before the hook: the hook was not called.
    void abandon() { restore_user_events(m_data, m_thread, m_saved); }
    // Acts on the hook's answer; NOOP gets back every event the thread had, a step in progress
    // included, anything else only the user's events and what the command has just switched on.
    void finish(jint command) {
        if (apply_step_command(m_env, m_thread, m_data, m_method, m_location, command)) {
            fire_stepping_aborted(m_env, m_thread);
        }
        restore_user_events(m_data, m_thread, command == STEP_NOOP ? m_saved : NO_SAVED_EVENTS);
    }

private:
    // The event thread's record; a virtual thread gets one when a hook is first called on it.
    ThreadData* record_of(JNIEnv* env, jthread thread) {
        ThreadData* own = own_thread_data();
        if (own != nullptr || !is_virtual_thread(env, thread)) return own;
        return m_made.emplace(thread, true).get();
    }

    std::optional<ThreadDataAccess> m_made;  // before m_data, which it may hold
    JNIEnv* m_env;
    jthread m_thread;
    jmethodID m_method;
    jlocation m_location;
    ThreadData* m_data;
    jlong m_saved;
};

jint call_int_hook(JNIEnv* env, jobject hook, jmethodID method, const char* name, ...) {
    va_list args;
    va_start(args, name);
    jint command = env->CallIntMethodV(hook, method, args);
    va_end(args);
    clear_hook_exception(env, name);
    return command;
}

jobject reflect_field(JNIEnv* env, jclass field_klass, jfieldID field) {
    jint modifiers = 0;
    if (g_jvmti->GetFieldModifiers(field_klass, field, &modifiers) != JVMTI_ERROR_NONE) return nullptr;
    jobject reflected = env->ToReflectedField(field_klass, field, (modifiers & ACC_STATIC_BIT) != 0);
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

bool fire_breakpoint_hit(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    LOG_DEBUG("%p", static_cast<void*>(thread));
    ReferenceCountedJObject hook(g_breakpointHook);
    if (!hook.isSet()) return false;
    jmethodID hit = hook.method(env, 0, "breakpointHit", BREAKPOINT_HIT);
    if (hit == nullptr) {
        LOG_DEBUG("rtn = %d %s", STEP_NOOP, "NOOP");
        return false;
    }
    HookCall call(env, thread, method, location);
    // Called once per event callback, whose local references the VM frees when it returns: the
    // hottest path of the agent does not delete them one by one.
    jobject where = call.location_object(method, location);
    jobject context = get_thread_context(env, thread);
    if (context == nullptr) {
        LOG_DEBUG("rtn = %d %s", STEP_NOOP, "NOOP");
        call.abandon();
        return false;
    }
    jint command = call_int_hook(env, hook.get(), hit, "breakpointHit", where, context);
    call.finish(command);
    LOG_DEBUG("rtn = %d %s", command, step_type_name(command));
    return true;
}

bool fire_step_stop(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    bool marked = has_breakpoint(method, location);
    if (marked) {
        t_step_stop_method = method;
        t_step_stop_location = location;
    }
    bool fired = fire_breakpoint_hit(env, thread, method, location);
    // The breakpoint event follows only while the VM reports breakpoints for the thread. When the
    // hook switched them off, nothing comes to take the marker away, and the next genuine hit here
    // would be taken for the one it stands for.
    if (marked && !is_reported_by_vm(JVMTI_EVENT_BREAKPOINT)) t_step_stop_method = nullptr;
    return fired;
}

std::optional<jint> fire_field_modification_complete(JNIEnv* env, jthread thread, jmethodID method,
                                                     jlocation location) {
    std::optional<jint> answer;
    ReferenceCountedJObject hook(g_fieldHook);
    if (!hook.isSet()) return answer;
    jmethodID complete = hook.method(env, 2, "fieldModifiedComplete", FIELD_MODIFIED_COMPLETE);
    if (complete == nullptr) return answer;
    clear_active_events(thread);
    LocalRef<jobject> where(env, BreakpointLocation(method, location).to_java(env));
    LocalRef<jobject> context(env, get_thread_context(env, thread));
    if (context) {
        answer = call_int_hook(env, hook.get(), complete, "fieldModifiedComplete", where.get(), context.get());
        handle_breakpoint_hit_return(env, thread, method, location, *answer);
    }
    restore_user_events(thread, NO_SAVED_EVENTS);
    return answer;
}

namespace {
// A breakpoint of the agent's, where a step waits for a return: the step goes on if it is the
// thread's own return. True when no hook may hear of the event: no user's breakpoint stands there.
bool is_agents_own(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    PendingExceptionKeeper keeper(env);
    reach_return(env, thread, method, location);
    return !has_breakpoint(method, location);
}
}  // namespace

void JNICALL Breakpoint(jvmtiEnv*, JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    if (has_return_breakpoints() && is_agents_own(env, thread, method, location)) return;
    // A step's marker stands for the one breakpoint event that follows its stop, whether or not the
    // thread wants breakpoints now, and for no later one.
    bool follows_step_stop = t_step_stop_method == method && t_step_stop_location == location;
    t_step_stop_method = nullptr;
    if (follows_step_stop || !is_event_wanted(JVMTI_EVENT_BREAKPOINT)) return;
    LOG_DEBUG("%p", static_cast<void*>(thread));
    PendingExceptionKeeper keeper(env);
    fire_breakpoint_hit(env, thread, method, location);
}

void forget_step_stop(jmethodID method, jlocation location) {
    if (t_step_stop_method != method || t_step_stop_location != location) t_step_stop_method = nullptr;
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
    if (g_compiled_stepping) catch_during_return_wait(env, thread, method, location);
    if (!g_exceptions_enabled || !is_event_wanted(JVMTI_EVENT_EXCEPTION_CATCH)) return;
    report_exception(env, thread, method, location, exception, false, nullptr, 0);
}

void JNICALL ClassPrepare(jvmtiEnv*, JNIEnv* env, jthread thread, jclass klass) {
    ReferenceCountedJObject hook(g_classPrepareHook);
    if (!hook.isSet()) return;
    PendingExceptionKeeper keeper(env);
    // A class can be prepared inside one of the agent's natives that holds thousands of local
    // references (a heap walk); a frame of its own keeps the hook's references out of that count.
    LocalFrame frame(env, 16);
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
