package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;

/** One stack frame, newest first. */
public interface FrameCallback {
    void frame(BreakpointLocation location);
}
