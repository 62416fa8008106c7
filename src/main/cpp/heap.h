// The class histogram of the live heap, and what the GC-root search shares with it.
#pragma once

#include "resources.h"

#include <jni.h>
#include <jvmti.h>

#include <optional>

// The time limit of a heap walk. The clock is read only every CHECK_EVERY objects.
struct IterationLimit {
    double deadline;
    jlong calls;
    jboolean timed_out;
};

constexpr jlong CHECK_EVERY = 100000;

// Counts one callback call; true once the deadline has passed (and from then on), with the DEBUG
// line naming the walk.
bool limit_reached(IterationLimit* limit, const char* where);

// The limit of a walk that starts now, or none for a limit of 0 or less.
std::optional<IterationLimit> start_limit(jlong limit_millis, double start);

// The DEBUG line of a walk cut short by its limit; `start` is when the walk (or its merge) began.
void log_walk_timeout(const IterationLimit& limit, double start);

// The loaded classes, each reference freed with the list.
class LoadedClasses {
public:
    explicit LoadedClasses(JNIEnv* env) : m_env(env) {}
    ~LoadedClasses();
    LoadedClasses(const LoadedClasses&) = delete;
    LoadedClasses& operator=(const LoadedClasses&) = delete;

    jvmtiError read();
    // Gives the references back early; count() is 0 afterwards.
    void release();
    jint count() const { return m_count; }
    jclass operator[](jint k) const { return m_classes[static_cast<size_t>(k)]; }

private:
    JNIEnv* m_env;
    jint m_count = 0;
    JvmtiBuffer<jclass> m_classes;
};

jint JNICALL heapIterationCallback(jlong class_tag, jlong size, jlong* tag_ptr, jint length, void* user_data);
