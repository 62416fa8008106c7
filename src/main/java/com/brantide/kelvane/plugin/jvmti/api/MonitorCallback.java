package com.brantide.kelvane.plugin.jvmti.api;

/** A monitor and the frame depth that holds it, relative to the first listed frame. */
public interface MonitorCallback {
    void monitor(Object monitor, int depth);
}
