package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;

/** Where a thread suspended by suspendThread stands. */
public interface SuspendCallback {
    void suspended(BreakpointLocation location, ThreadContext context);
}
