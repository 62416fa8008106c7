#include "walk_limit.h"

#include "log.h"

bool limit_reached(IterationLimit* limit, const char* where) {
    if (limit->timed_out) return true;
    if (++limit->calls % CHECK_EVERY != 0) return false;
    if (limit->deadline >= get_time()) return false;
    LOG_DEBUG("TIMEOUT in %s", where);
    limit->timed_out = JNI_TRUE;
    return true;
}

std::optional<IterationLimit> start_limit(jlong limit_millis, double start) {
    if (limit_millis <= 0) return std::nullopt;
    IterationLimit limit{start + static_cast<double>(limit_millis) / 1000.0, 0, JNI_FALSE};
    LOG_DEBUG("Timeout Ts=%lf, now=%lf timeout=%ldms", limit.deadline, start, static_cast<long>(limit_millis));
    return limit;
}

void log_walk_timeout(const IterationLimit& limit, double start) {
    double now = get_time();
    LOG_DEBUG("Calls=%ld now=%lf start=%lf timeout ts=%lf duration=%lf", static_cast<long>(limit.calls), now, start,
              limit.deadline, now - start);
}
