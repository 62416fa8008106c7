package com.brantide.kelvane.plugin.jvmti.api;

/** A step ended without reaching its target (time limit, or no place to stop). */
public interface SteppingAbortedHook {
    void steppingAborted(Thread thread);
}
