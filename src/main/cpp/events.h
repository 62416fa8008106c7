// Switching JVMTI events per thread, with the thread's user and active masks kept in step.
#pragma once

#include <jvmti.h>

// Switches one event for one thread; true when the VM accepted it and the masks were updated.
// With user true the change is recorded in the user mask as well as the active one. A null thread
// switches the event for the whole VM (see vm_wide_events).
bool set_event(jvmtiEventMode mode, jint event, jthread thread, bool user);

struct ThreadData;

// The agent's own switch (user false) on a record already at hand: the event thread's own
// (own_thread_data) or one a ThreadDataAccess holds, so that the record is not looked up again.
// A null record is refused as a thread without a record is.
bool set_event(ThreadData* data, jvmtiEventMode mode, jint event, jthread thread);

// Has the VM report the event for the thread from now on, without switching it on for the thread's
// hooks (its masks stay as they are): for the agent's own breakpoints and catches, which the
// callbacks take before any hook's. False when the VM refuses.
bool keep_reported(ThreadData* data, jint event, jthread thread);

// Whether an event that the VM reports for the calling thread is one the thread wants now: false
// when its switch is off while the VM was left reporting it. An event switched for the whole VM is
// wanted on every thread, except while a hook runs on it.
bool is_event_wanted(jint event);

// The events the managed side switched on for the whole VM (a null thread), as a mask.
jlong vm_wide_events();

// Whether the VM reports the event for the calling thread (switched on for it and not off since).
bool is_reported_by_vm(jint event);

// Switches off everything active for the thread while a managed hook runs; returns what was
// active, or NO_SAVED_EVENTS when the thread has no record.
constexpr jlong NO_SAVED_EVENTS = -1;
jlong clear_active_events(jthread thread);
jlong clear_active_events(ThreadData* data, jthread thread);
// Switches the user events back on, and the saved ones too unless saved is NO_SAVED_EVENTS.
void restore_user_events(jthread thread, jlong saved);
void restore_user_events(ThreadData* data, jthread thread, jlong saved);

bool enable_single_step(jthread thread);
bool disable_single_step(jthread thread);
bool enable_frame_pop(jthread thread);
bool disable_frame_pop(jthread thread);
