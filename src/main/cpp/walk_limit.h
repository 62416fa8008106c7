// The time limit of a heap walk.
#pragma once

#include <jni.h>

#include <optional>

// The clock is read only every CHECK_EVERY objects.
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
