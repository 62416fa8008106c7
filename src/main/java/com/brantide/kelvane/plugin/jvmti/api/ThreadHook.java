package com.brantide.kelvane.plugin.jvmti.api;

/** Hears of every thread start and end the agent sees. */
public interface ThreadHook {
    void threadStart(Thread thread);

    void threadEnd(Thread thread);
}
