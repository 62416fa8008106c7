package com.brantide.kelvane.plugin.jvmti.testing;

import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;

/**
 * Code the storm and shutdown programs stop in. The breakpoint stands at the first bytecode of
 * {@link #hit}; keep one statement per line so that steps have lines to stop at.
 */
public final class StormTarget {
    /** Instances exist only in {@link #KEPT}: a histogram must count exactly as many. */
    public static final class Marker {
    }

    public static final List<Marker> KEPT = new ArrayList<>();
    /** Read and written by every hit, for field watches. */
    public static int watched;
    /** Turns of {@link #spin}'s loop, so that others can tell that it runs its own code again. */
    public static volatile long workTurns;
    /** While true, {@link #spin} loops. */
    public static volatile boolean spinning;

    private StormTarget() {
    }

    public static void keep(int count) {
        Stream.generate(Marker::new).limit(count).forEach(KEPT::add);
    }

    public static int hit(int x) {
        int a = x + watched;
        int b = inner(a);
        watched = b & 0xff;
        return a + b;
    }

    public static int inner(int y) {
        int z = y * 3;
        return z + 1;
    }

    /**
     * A loop that holds a monitor and keeps a local but calls nothing: a suspension always finds it
     * in this frame, and a step from there stops in it again.
     */
    public static long spin(Object lock) {
        long turns = 0;
        synchronized (lock) {
            while (spinning) {
                turns++;
                workTurns++;
            }
        }
        return turns;
    }

    /** Throws and catches, for exception events. */
    public static int throwAndCatch(int x) {
        try {
            throw new IllegalStateException("storm " + x);
        } catch (IllegalStateException e) {
            return e.getMessage().length();
        }
    }
}
