package com.brantide.kelvane.bench.debug;

import java.lang.reflect.Method;

/**
 * The managed side of the floor agent (floor_agent.cpp), whose mode the agent option chooses: the
 * bare breakpoint callback calls {@link #hit}, the contract one a hook handed over by
 * {@link #setContractHook}, and the step mode single-steps from a breakpoint set by {@link #prepareStep}.
 */
final class Floor {
    static long hits;

    private Floor() {
    }

    static void hit() {
        hits++;
    }

    static native boolean setBreakpoint(Method method, long bytecodeIndex);

    static native boolean enableBreakpoints(Thread thread);

    /** The hook, the one location object every hit hands it, and the class of the context objects. */
    static native boolean setContractHook(Object hook, Object location, Class<?> contextClass);

    /** A breakpoint at the bytecode index that starts a step, and the line tables of both methods. */
    static native boolean prepareStep(Method stepped, long bytecodeIndex, Method callee);

    static native long stepEvents();

    /** The stack height at the breakpoint that started the last step. */
    static native int stepDepth();
}
