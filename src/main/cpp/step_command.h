// Step commands and the stepping state of a thread.
#pragma once

#include <jvmti.h>

// The command a hook answers with; its names are STEP_TYPE_STR.
enum StepType : jint {
    STEP_UNKNOWN = 0,
    STEP_STOP = 1,
    STEP_CONTINUE = 2,
    STEP_IN = 3,
    STEP_OUT = 4,
    STEP_OVER = 5,
    STEP_STOP_WITH_TIMEOUT = 6,
    STEP_FIELD_MODIFICATION_COMPLETE = 7,
    STEP_NOOP = 8,
};

extern const char* const STEP_TYPE_STR[9];

// The name of a command; "UNKNOWN" for any value outside 0..8, negative ones included.
const char* step_type_name(jint command);

// A step in progress, owned by the thread's ThreadData.
struct StepData {
    unsigned int type;      // STEP_IN, STEP_OUT, STEP_OVER or STEP_FIELD_MODIFICATION_COMPLETE
    jint depth;             // stack height (CFML depth for a CFML step) when the command was given
    jint lang;              // the FrameLanguage the step is judged in
    jmethodID begin_method;
    jlocation begin_location;
    jint begin_line;        // mapped through the class's SMAP
    double deadline;        // get_time() by which the step must complete
};
