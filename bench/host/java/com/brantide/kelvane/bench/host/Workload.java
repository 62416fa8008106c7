package com.brantide.kelvane.bench.host;

import java.util.Locale;
import java.util.Map;
import java.util.stream.IntStream;

/**
 * The host's own work, as an application would do it. A round calls {@link #call} {@link #calls}
 * times with changing seeds, so that the JIT compiles the call as a whole method, the way it
 * compiles an application's; seeds start above the boxes the JDK caches.
 */
enum Workload {
    BOXING("a boxing", "Integer.valueOf and Long.valueOf of 5*10^7 ints, each unboxed at once", 50_000) {
        @Override
        long call(int seed) {
            long sum = 0;
            for (int i = 0; i < 1000; i++) {
                Integer small = Integer.valueOf(seed + i);
                Long large = Long.valueOf(seed * 7L + i);
                sum += small + large;
            }
            return sum;
        }
    },
    STREAM("b boxed stream", "IntStream.range(..).boxed().map().filter().reduce() over 5*10^6 ints", 5_000) {
        @Override
        long call(int seed) {
            return IntStream.range(seed, seed + 1000).boxed().map(x -> x * 3).filter(x -> (x & 1) == 0)
                    .reduce(0, Integer::sum);
        }
    },
    OBJECTS("c small objects", "10^7 short-lived points (records), each used in its own iteration only", 10_000) {
        @Override
        long call(int seed) {
            long sum = 0;
            Point origin = new Point(seed, -seed);
            for (int i = 0; i < 1000; i++) {
                sum += origin.plus(new Point(i, seed ^ i)).manhattan();
            }
            return sum;
        }
    },
    EXCEPTIONS("d exceptions", "10^4 NumberFormatExceptions from Integer.parseInt and 10^4 stackless ones"
            + " of the benchmark's own, thrown two calls down", 200) {
        @Override
        long call(int seed) {
            long sum = 0;
            for (int i = 0; i < 50; i++) {
                sum += parseOrCount(NOT_NUMBERS[(seed + i) & (NOT_NUMBERS.length - 1)]);
                sum += descendOrCount(seed + i);
            }
            return sum;
        }
    },
    CLASSES("e class loading", GeneratedClasses.COUNT + " classes compiled by javac in the VM, then defined,"
            + " initialized and called in 5 new class loaders per round", 5) {
        private Map<String, byte[]> classes;

        @Override
        void prepare() throws Exception {
            long start = System.nanoTime();
            classes = GeneratedClasses.compile();
            HostTarget.result("javac.ms", (System.nanoTime() - start) / 1e6);
        }

        @Override
        long call(int seed) {
            return GeneratedClasses.loadAll(classes, seed);
        }
    };

    /** Strings that are no numbers; as many as a power of two, for the mask. */
    private static final String[] NOT_NUMBERS = IntStream.range(0, 64).mapToObj(i -> "n" + i).toArray(String[]::new);

    /** Above the Integer and Long caches (-128 to 127), so that every box is a new one. */
    static final int FIRST_SEED = 1_000_000;

    final String title;
    final String description;
    final int calls;

    Workload(String title, String description, int calls) {
        this.title = title;
        this.description = description;
        this.calls = calls;
    }

    abstract long call(int seed);

    /** Work done once per JVM, before the warm-up: none but for class loading. */
    void prepare() throws Exception {
    }

    /** The name on the command line: boxing, stream, objects, exceptions or classes. */
    String key() {
        return name().toLowerCase(Locale.ROOT);
    }

    static Workload of(String key) {
        return valueOf(key.toUpperCase(Locale.ROOT));
    }

    /** One round: the sum of every call's result, which the caller keeps so that no call is dead. */
    long round(int round) {
        long sum = 0;
        int seed = FIRST_SEED + round * calls;
        for (int i = 0; i < calls; i++) {
            sum += call(seed + i);
        }
        return sum;
    }

    record Point(int x, int y) {
        Point plus(Point other) {
            return new Point(x + other.x, y + other.y);
        }

        int manhattan() {
            return Math.abs(x) + Math.abs(y);
        }
    }

    /** An exception without a stack trace, as code that uses exceptions for control flow throws. */
    static final class Stackless extends RuntimeException {
        private static final long serialVersionUID = 1L;
        final int depth;

        Stackless(int depth) {
            super(null, null, false, false);
            this.depth = depth;
        }
    }

    private static int parseOrCount(String text) {
        try {
            return Integer.parseInt(text);
        } catch (NumberFormatException e) {
            return 1;
        }
    }

    private static int descendOrCount(int seed) {
        try {
            return descend(seed, 2);
        } catch (Stackless e) {
            return e.depth;
        }
    }

    private static int descend(int seed, int depth) {
        if (depth == 0) {
            throw new Stackless(seed & 7);
        }
        return descend(seed, depth - 1) + 1;
    }
}
