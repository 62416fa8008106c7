package com.brantide.kelvane.plugin.jvmti.api;

/** Natives of the probe variant of the agent that measure the agent's own heap. */
final class MemoryProbe {
    private MemoryProbe() {
    }

    /**
     * {live bytes, live blocks, allocations so far} of the agent's C++ heap, or null when the agent
     * cannot count them (the sanitized build, where LeakSanitizer answers instead).
     */
    static native long[] agentHeap();

    /**
     * Runs LeakSanitizer's check now, its report written to {@code reportPath.<pid>}: 1 when it found
     * unreachable blocks (the JVM's own included), 0 when none, -1 when the JVM runs without it.
     */
    static native int leakCheck(String reportPath);
}
