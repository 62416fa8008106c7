#include "events.h"

#include "capabilities.h"
#include "error_name.h"
#include "event_mask.h"
#include "exception.h"
#include "global.h"
#include "lock.h"
#include "log.h"
#include "native.h"
#include "thread.h"
#include "thread_info.h"

#include <chrono>

namespace {
void record_switch(ThreadData* data, jvmtiEventMode mode, jint event, bool user) {
    jlong bit = event_bit(event);
    if (mode == JVMTI_ENABLE) {
        data->active_events.fetch_or(bit);
        if (user) data->user_events.fetch_or(bit);
    } else {
        data->active_events.fetch_and(~bit);
        if (user) data->user_events.fetch_and(~bit);
    }
}

// Events that leave the thread at full speed while on, so that switching them off for the length
// of a hook can be done in the masks alone.
bool is_free_while_on(jint event) {
    switch (event) {
        case JVMTI_EVENT_BREAKPOINT:
        case JVMTI_EVENT_FIELD_ACCESS:
        case JVMTI_EVENT_FIELD_MODIFICATION:
        case JVMTI_EVENT_EXCEPTION:
        case JVMTI_EVENT_EXCEPTION_CATCH:
            return true;
        default:
            return false;
    }
}

// Breakpoints and catches are what a compiled step waits for: once the VM reports them for a
// thread, it goes on reporting them (they cost nothing while on) and the callbacks drop the ones
// nobody wants, so that no user's switch can take them from a waiting step.
bool is_kept_for_steps(jint event) {
    return g_compiled_stepping && (event == JVMTI_EVENT_BREAKPOINT || event == JVMTI_EVENT_EXCEPTION_CATCH);
}

// Whether the switch needs the VM: not when it already reports the event, nor to switch off for
// a while an event that is free while on.
bool needs_vm(const ThreadData* data, jvmtiEventMode mode, jint event, bool user) {
    bool vm_has = (data->vm_events.load() & event_bit(event)) != 0;
    if (mode == JVMTI_ENABLE) return !vm_has;
    if (!is_free_while_on(event)) return true;
    return user && vm_has && !is_kept_for_steps(event);
}

void record_bit(std::atomic<jlong>& mask, jvmtiEventMode mode, jint event) {
    if (mode == JVMTI_ENABLE) {
        mask.fetch_or(event_bit(event));
    } else {
        mask.fetch_and(~event_bit(event));
    }
}

// What the managed side switched for the whole VM (a null thread): the VM reports these events on
// every thread, and every thread dispatches them except while one of its hooks runs.
std::atomic<jlong> g_vm_wide_events{0};

}  // namespace

namespace {
// Whether the VM accepted a switch; a refusal is logged as set_event logs it.
bool accepted(jvmtiError error, jint event, jthread thread) {
    // A thread that has ended, or a VM that is shutting down, refuses every switch: expected, not
    // worth an error line each.
    if (error == JVMTI_ERROR_THREAD_NOT_ALIVE || error == JVMTI_ERROR_WRONG_PHASE) {
        LOG_DEBUG("Failed to set event for thread %s(%d)", get_error_message(error).c_str(), error);
        return false;
    }
    if (error == JVMTI_ERROR_MUST_POSSESS_CAPABILITY && g_inspection_only) {
        LOG_WARN("%s", INSPECTION_ONLY_MODE);
        return false;
    }
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("Failed to set event(%d) for thread(%s) = %s(%d)", event, get_thread_name(thread).c_str(),
                  get_error_message(error).c_str(), error);
        return false;
    }
    return true;
}

// One switch on a record already found: the VM call (when one is needed) and the masks, under the
// record's switch lock.
bool switch_event(ThreadData* data, jvmtiEventMode mode, jint event, jthread thread, bool user) {
    // A switch in the masks alone (the hook bracket's, almost always) needs no lock: what it can
    // race with leaves at worst a mask claiming an event the VM no longer reports, which costs
    // nothing, and the next switch that needs the VM puts it right.
    if (needs_vm(data, mode, event, user)) {
        auto guard = lock_patiently(data->switch_lock);
        if (!guard.owns_lock()) LOG_DEBUG("switch lock of thread %ld busy, switching without it", data->thread_id);
        bool call_vm = needs_vm(data, mode, event, user);
        jvmtiError error =
            call_vm ? g_jvmti->SetEventNotificationMode(mode, static_cast<jvmtiEvent>(event), thread) : JVMTI_ERROR_NONE;
        if (!accepted(error, event, thread)) return false;
        if (call_vm) record_bit(data->vm_events, mode, event);
        record_switch(data, mode, event, user);
    } else {
        record_switch(data, mode, event, user);
    }
    LOG_FINE("%s(%d)=%s active=%s thread(%ld,%s)", event_to_string(event), event,
             mode == JVMTI_ENABLE ? "enabled" : "disabled", event_mask_to_string(data->active_events).c_str(),
             data->thread_id, get_thread_name(thread).c_str());
    return true;
}

// A null thread: the event for the whole VM. It is recorded for every thread, not in the masks of
// the thread that switched it: there the hooks of that thread would switch it back on for that
// thread alone, and a switch-off made on another thread would not reach it.
bool switch_vm_wide(jvmtiEventMode mode, jint event) {
    static auto* lock = new std::timed_mutex();
    auto guard = lock_patiently(*lock);
    if (!guard.owns_lock()) LOG_DEBUG("VM-wide switch lock busy, switching without it");
    jvmtiError error = g_jvmti->SetEventNotificationMode(mode, static_cast<jvmtiEvent>(event), nullptr);
    if (!accepted(error, event, nullptr)) return false;
    record_bit(g_vm_wide_events, mode, event);
    LOG_FINE("%s(%d)=%s VM-wide=%s", event_to_string(event), event, mode == JVMTI_ENABLE ? "enabled" : "disabled",
             event_mask_to_string(g_vm_wide_events.load()).c_str());
    return true;
}

bool is_alive(jthread thread) {
    jint state = 0;
    return thread == nullptr || g_jvmti->GetThreadState(thread, &state) != JVMTI_ERROR_NONE ||
           (state & JVMTI_THREAD_STATE_ALIVE) != 0;
}

// The record of the thread, or null with the line set_event writes for a missing one. A thread
// that has not started or has ended is refused as the VM refuses it, whether or not it ever had a
// record.
ThreadData* record_for_switch(const ThreadDataAccess& access, jint event, jthread thread) {
    jvmtiError error = access.error();
    if (error == JVMTI_ERROR_NONE && access.get() == nullptr && !is_alive(thread)) {
        error = JVMTI_ERROR_THREAD_NOT_ALIVE;
    }
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("Failed to set event(%d) for thread(%s) = %s(%d)", event, get_thread_name(thread).c_str(),
                  get_error_message(error).c_str(), error);
        return nullptr;
    }
    if (access.get() == nullptr) LOG_DEBUG("data is null for thread(%s)", get_thread_name(thread).c_str());
    return access.get();
}

// Switches every event of the mask, visiting only its set bits.
void switch_bits(ThreadData* data, jvmtiEventMode mode, jlong mask, jthread thread) {
    unsigned long long rest = static_cast<unsigned long long>(mask);
    while (rest != 0) {
        int position = __builtin_ctzll(rest);
        rest &= rest - 1;
        if (position < EVENT_MASK_POSITIONS) switch_event(data, mode, JVMTI_MIN_EVENT_TYPE_VAL + position, thread, false);
    }
}

}  // namespace

bool set_event(jvmtiEventMode mode, jint event, jthread thread, bool user) {
    if (thread == nullptr) return switch_vm_wide(mode, event);
    // A virtual thread gets its record when an event is first switched on for it.
    ThreadDataAccess access(thread, mode == JVMTI_ENABLE);
    ThreadData* data = record_for_switch(access, event, thread);
    return data != nullptr && switch_event(data, mode, event, thread, user);
}

bool keep_reported(ThreadData* data, jint event, jthread thread) {
    if (data == nullptr) return false;
    if ((data->vm_events.load() & event_bit(event)) != 0) return true;
    auto guard = lock_patiently(data->switch_lock);
    if ((data->vm_events.load() & event_bit(event)) != 0) return true;
    jvmtiError error = g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, static_cast<jvmtiEvent>(event), thread);
    if (!accepted(error, event, thread)) return false;
    record_bit(data->vm_events, JVMTI_ENABLE, event);
    return true;
}

bool set_event(ThreadData* data, jvmtiEventMode mode, jint event, jthread thread) {
    if (data == nullptr) {
        LOG_DEBUG("data is null for thread(%s)", get_thread_name(thread).c_str());
        return false;
    }
    return switch_event(data, mode, event, thread, false);
}

jlong clear_active_events(jthread thread) {
    ThreadDataAccess access(thread);
    return access.error() == JVMTI_ERROR_NONE ? clear_active_events(access.get(), thread) : NO_SAVED_EVENTS;
}

jlong clear_active_events(ThreadData* data, jthread thread) {
    if (data == nullptr) {
        LOG_ERROR("tdata is null");
        return NO_SAVED_EVENTS;
    }
    jlong active = data->active_events.load();
    LOG_FINE("thread(%ld,%s) active=%s", data->thread_id, get_thread_name(thread).c_str(),
             event_mask_to_string(active).c_str());
    data->hook_running.store(true, std::memory_order_relaxed);
    switch_bits(data, JVMTI_DISABLE, active, thread);
    return active;
}

void restore_user_events(jthread thread, jlong saved) {
    ThreadDataAccess access(thread);
    if (access.error() == JVMTI_ERROR_NONE) restore_user_events(access.get(), thread, saved);
}

void restore_user_events(ThreadData* data, jthread thread, jlong saved) {
    if (data == nullptr) {
        LOG_ERROR("tdata is null");
        return;
    }
    jlong user = data->user_events.load();
    LOG_FINE("thread(%ld,%s) user=%s", data->thread_id, get_thread_name(thread).c_str(),
             event_mask_to_string(user).c_str());
    switch_bits(data, JVMTI_ENABLE, user, thread);
    data->hook_running.store(false, std::memory_order_relaxed);
    if (saved == NO_SAVED_EVENTS) return;
    LOG_FINE("thread(%ld,%s) last=%s", data->thread_id, get_thread_name(thread).c_str(),
             event_mask_to_string(saved).c_str());
    switch_bits(data, JVMTI_ENABLE, saved, thread);
}

bool is_reported_by_vm(jint event) {
    const ThreadData* data = own_thread_data();
    jlong reported = g_vm_wide_events.load(std::memory_order_relaxed);
    if (data != nullptr) reported |= data->vm_events.load(std::memory_order_relaxed);
    return (reported & event_bit(event)) != 0;
}

bool is_event_wanted(jint event) {
    const ThreadData* data = own_thread_data();
    if (data == nullptr) return true;
    jlong bit = event_bit(event);
    if ((data->active_events.load(std::memory_order_relaxed) & bit) != 0) return true;
    return (g_vm_wide_events.load(std::memory_order_relaxed) & bit) != 0 &&
           !data->hook_running.load(std::memory_order_relaxed);
}

jlong vm_wide_events() { return g_vm_wide_events.load(); }

bool enable_single_step(jthread thread) { return set_event(JVMTI_ENABLE, JVMTI_EVENT_SINGLE_STEP, thread, false); }
bool disable_single_step(jthread thread) { return set_event(JVMTI_DISABLE, JVMTI_EVENT_SINGLE_STEP, thread, false); }
bool enable_frame_pop(jthread thread) { return set_event(JVMTI_ENABLE, JVMTI_EVENT_FRAME_POP, thread, false); }
bool disable_frame_pop(jthread thread) { return set_event(JVMTI_DISABLE, JVMTI_EVENT_FRAME_POP, thread, false); }

namespace {
// The events that drive stepping belong to the agent alone: in a thread's user mask, every hook's
// restore would switch them on with no step behind them, and each event would then abort a step.
bool is_stepping_event(jint event) {
    return event == JVMTI_EVENT_SINGLE_STEP || event == JVMTI_EVENT_FRAME_POP || event == JVMTI_EVENT_METHOD_ENTRY ||
           event == JVMTI_EVENT_METHOD_EXIT;
}
}  // namespace

KV_NATIVE(jboolean, setEventNotificationMode)(JNIEnv* env, jobject, jthread thread, jint event, jboolean enable) {
    if (!require_agent(env)) return JNI_FALSE;
    if (is_stepping_event(event)) {
        LOG_ERROR("Event %s(%d) drives stepping and is switched by the agent alone", event_to_string(event), event);
        return JNI_FALSE;
    }
    return set_event(enable ? JVMTI_ENABLE : JVMTI_DISABLE, event, thread, true) ? JNI_TRUE : JNI_FALSE;
}
