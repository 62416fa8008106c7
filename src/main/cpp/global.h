// Process-wide agent state: the VM handles, the configuration and the locks.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <atomic>

class JavaLock;

extern JavaVM* g_vm;
extern jvmtiEnv* g_jvmti;
// The JVMTI version of the running VM (GetVersionNumber), read at load; 0 when unknown.
extern jint g_jvmti_version;
// Whether the agent holds the debugging capabilities; changed by setActive from any thread.
extern std::atomic<bool> g_active;
// Whether JNI calls may still be made: true from a successful load until the VM unloads the agent
// or the process exits. Releasing references is gated on it, never on the active switch.
extern std::atomic<bool> g_vm_alive;
// Fixed at load.
extern bool g_stepping_enabled;
// Calls stepped over or out run at full speed: the step waits at the caller's return place with a
// breakpoint of its own instead of a frame-pop request. Only with fast stepping.
extern bool g_compiled_stepping;
// The VM has virtual threads and the agent holds can_support_virtual_threads (from load on).
extern bool g_virtual_threads;
// Loaded for inspection only (by the property, or attached to a running VM): no debugging
// capability is ever taken, so the VM compiles as it would without the agent.
extern bool g_inspection_only;
extern bool g_exceptions_enabled;
// The longest duration of a step, in seconds; changed at run time by setMaxStepDuration.
extern std::atomic<jint> MAX_STEP;
constexpr jint DEFAULT_MAX_STEP = 15;
// The native memory one heap walk may take, in megabytes (kv.jvmti.heap.walk.max.mb); fixed at load.
extern long g_heap_walk_max_mb;

// The calling thread's JNI environment, or null when it is not attached to the VM.
JNIEnv* current_env();

extern JavaLock* PAUSE_LOCK;
extern JavaLock* TAG_LOCK;

constexpr jint API_VERSION = 5;
