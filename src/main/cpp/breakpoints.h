// The breakpoints: the user's, set and cleared through the natives, and the agent's own.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <atomic>

// What the VM currently holds, as set and cleared through the natives; read by the dump.
extern std::atomic<unsigned int> s_breakpoint_counter;

// Whether a breakpoint set through the natives stands at the location.
bool has_breakpoint(jmethodID method, jlocation location);

// The agent's own breakpoints, where steps wait for calls to return: held once per waiting step,
// sharing the VM's breakpoint with a user's one at the same place, never shown to hooks and never
// counted in s_breakpoint_counter. Hold is false when the VM refuses the place.
bool hold_return_breakpoint(jmethodID method, jlocation location);
void drop_return_breakpoint(jmethodID method, jlocation location);
// Whether one of them may stand in the VM: only then must breakpoint events be told apart.
bool has_return_breakpoints();
