#include "step_command.h"

const char* const STEP_TYPE_STR[9] = {"UNKNOWN",   "STOP",      "CONTINUE",          "STEP_IN", "STEP_OUT",
                                      "STEP_OVER", "STOP_WITH_TIMEOUT", "FIELD_MODIFICATION_COMPLETE", "NOOP"};

const char* step_type_name(jint command) {
    return static_cast<unsigned int>(command) < 9 ? STEP_TYPE_STR[command] : "UNKNOWN";
}
