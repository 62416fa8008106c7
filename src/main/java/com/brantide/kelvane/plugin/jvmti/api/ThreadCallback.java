package com.brantide.kelvane.plugin.jvmti.api;

/** One thread the agent knows. */
public interface ThreadCallback {
    void thread(Thread thread);
}
