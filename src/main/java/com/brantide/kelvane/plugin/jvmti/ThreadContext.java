package com.brantide.kelvane.plugin.jvmti;

/** The thread an event happened on, and how many frames its stack held at that moment. */
public final class ThreadContext {
    private final Thread thread;
    private final int frameCount;

    public ThreadContext(Thread thread, int frameCount) {
        this.thread = thread;
        this.frameCount = frameCount;
    }

    public Thread getThread() {
        return thread;
    }

    /** Stack height at the event; frame heights passed to the agent count from the bottom, 1 the outermost. */
    public int getFrameCount() {
        return frameCount;
    }

    @Override
    public String toString() {
        return "ThreadContext[" + (thread == null ? "null" : thread.getName()) + ", frames=" + frameCount + "]";
    }
}
