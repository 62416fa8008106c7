package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;

/** Exceptions thrown and caught; each method returns a step command. */
public interface ExceptionHook {
    /** The catch location is null when nothing will catch the exception. */
    int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
            BreakpointLocation catchLocation);

    int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception);
}
