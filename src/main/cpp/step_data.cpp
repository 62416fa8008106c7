#include "step_data.h"

#include "breakpoints.h"

#include <ctime>

namespace {
const char* const STEP_TYPE_STR[9] = {"UNKNOWN",   "STOP",      "CONTINUE",          "STEP_IN", "STEP_OUT",
                                      "STEP_OVER", "STOP_WITH_TIMEOUT", "FIELD_MODIFICATION_COMPLETE", "NOOP"};
}  // namespace

const char* step_type_name(jint command) {
    return static_cast<unsigned int>(command) < 9 ? STEP_TYPE_STR[command] : "UNKNOWN";
}

StepData::~StepData() { end_return_wait(this); }

void end_return_wait(StepData* step) {
    if (step != nullptr && step->waiting.exchange(false)) drop_return_breakpoint(step->wait_method, step->wait_location);
}

double coarse_clock() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
