// What features give back when a thread ends. Each registers its clean-up once, while the library
// loads; the thread-end callbacks run them on the ending thread, so that the thread records call
// no feature by name.
#pragma once

#include <jni.h>

using ThreadCleanup = void (*)(JNIEnv* env);

// At every thread end (platform or virtual), before the thread's record is released; or only at a
// platform thread's end, whose OS thread goes with it: for what the OS thread keeps in
// thread-local storage, which a virtual thread's carrier keeps using.
enum class CleanupAt { EVERY_THREAD_END, OS_THREAD_END };

// Registers a clean-up, for a namespace-scope initialiser: true when it was taken. The list has
// room for a few; it takes no lock and allocates nothing.
bool on_thread_end(ThreadCleanup cleanup, CleanupAt when);

// Runs the registered clean-ups for the calling thread's end, in the order registered.
void run_thread_cleanups(JNIEnv* env, bool os_thread_ends);
