package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;

/** Called on the stopped thread at a breakpoint or at the end of a step; returns a step command. */
public interface BreakpointHook {
    int breakpointHit(BreakpointLocation location, ThreadContext context);
}
