package com.brantide.kelvane.plugin.jvmti.api;

/** Natives of the probe variant of the agent, which reach internal helpers for the tests. */
public final class AgentProbe {
    private AgentProbe() {
    }

    /** The thread's user mask, or -1 without a record. */
    static native long userEvents(Thread thread);

    /** Switches an event as the agent's internal paths do (user false) or as the managed side does. */
    public static native boolean setEvent(boolean enable, int event, Thread thread, boolean user);

    /** The template line the agent's SMAP reader gives for a Java line. */
    static native int smapLine(String smap, int line);

    static native int breakpointCount();

    static native int fieldAccessCount();

    static native int fieldModificationCount();

    /** The location taken apart into the VM's form and built again; null when it names no method. */
    static native Object roundTrip(Object location);

    /** Frames on the calling thread's stack, this native's own frame included. */
    static native int frameCount();

    static native int cfDepth();

    static native int cfParent(int height);

    /** A thread attached from native code that runs no Java at all: it has no Java frame. */
    static native Thread framelessThread();

    /** Suspends a thread with JVMTI directly, as another tool would; the JVMTI error code. */
    static native int suspendDirectly(Thread thread);

    static native boolean isSuspended(Thread thread);

    /** The next walks tag-clearing heap walks and clears tag clearings of the agent fail; (0, 0) ends that. */
    static native void failTagClearing(int walks, int clears);

    /** Objects (class objects included) that still carry a tag; 0 when no walk left one. */
    static native long tagsLeft();
}
