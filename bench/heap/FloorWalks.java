package com.brantide.kelvane.bench.heap;

/**
 * The natives of the benchmark's own agent (floor_agent.cpp, a second -agentpath): the bare JVMTI
 * walks that the library's heap analyses are compared with.
 */
final class FloorWalks {
    private FloorWalks() {}

    /** Tags the classes with counters, counts every object, clears the tags; the object count. */
    static native long histogram();

    /** Gives every object reached from the roots a 40-byte record, clears the tags; the count. */
    static native long reach();

    /** Tags every object reached from the roots with a plain counter, clears the tags; the count. */
    static native long counterTags();
}
