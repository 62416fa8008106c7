package com.brantide.kelvane.bench.debug;

import java.lang.reflect.Method;

/** The managed side of the floor agent (floor_agent.cpp): its breakpoint callback calls {@link #hit}. */
final class Floor {
    static long hits;

    private Floor() {
    }

    static void hit() {
        hits++;
    }

    static native boolean setBreakpoint(Method method, long bytecodeIndex);

    static native boolean enableBreakpoints(Thread thread);
}
