package com.brantide.kelvane.plugin.jvmti;

/** The step command a hook returns: what the stopped thread does next. */
public final class StepType {
    public static final int UNKNOWN = 0;
    public static final int STOP = 1;
    public static final int CONTINUE = 2;
    public static final int STEP_IN = 3;
    public static final int STEP_OUT = 4;
    public static final int STEP_OVER = 5;
    public static final int STOP_WITH_TIMEOUT = 6;
    public static final int FIELD_MODIFICATION_COMPLETE = 7;
    /** Changes nothing: a step in progress goes on. */
    public static final int NOOP = 8;

    private static final String[] NAMES = {"UNKNOWN", "STOP", "CONTINUE", "STEP_IN", "STEP_OUT", "STEP_OVER",
        "STOP_WITH_TIMEOUT", "FIELD_MODIFICATION_COMPLETE", "NOOP"};

    private StepType() {
    }

    public static String name(int stepType) {
        return stepType >= 0 && stepType < NAMES.length ? NAMES[stepType] : "UNKNOWN";
    }
}
