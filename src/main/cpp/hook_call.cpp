#include "hook_call.h"

#include "breakpoint_location.h"
#include "events.h"
#include "hooks.h"
#include "log.h"
#include "reference.h"
#include "resources.h"
#include "step_command.h"
#include "step_data.h"
#include "thread.h"
#include "thread_info.h"
#include "virtual_threads.h"

#include <cstdarg>

namespace {
constexpr const char* BREAKPOINT_HIT = "(" KV_BREAKPOINT_LOCATION_TYPE KV_THREAD_CONTEXT_TYPE ")I";
constexpr const char* FIELD_MODIFIED_COMPLETE = "(" KV_BREAKPOINT_LOCATION_TYPE KV_THREAD_CONTEXT_TYPE ")I";
}  // namespace

jobject HookCall::location_object(jmethodID method, jlocation location) const {
    return BreakpointLocation(method, location).to_java(m_env);
}

void HookCall::abandon() { restore_user_events(m_data, m_thread, m_saved); }

void HookCall::finish(jint command) {
    if (apply_step_command(m_env, m_thread, m_data, m_method, m_location, command)) {
        fire_stepping_aborted(m_env, m_thread);
    }
    restore_user_events(m_data, m_thread, command == STEP_NOOP ? m_saved : NO_SAVED_EVENTS);
}

ThreadData* HookCall::record_of(JNIEnv* env, jthread thread) {
    ThreadData* own = own_thread_data();
    if (own != nullptr || !is_virtual_thread(env, thread)) return own;
    return m_made.emplace(thread, true).get();
}

jlong HookCall::saved_events() { return clear_active_events(m_data, m_thread); }

jint call_int_hook(JNIEnv* env, jobject hook, jmethodID method, const char* name, ...) {
    va_list args;
    va_start(args, name);
    jint command = env->CallIntMethodV(hook, method, args);
    va_end(args);
    clear_hook_exception(env, name);
    return command;
}

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
