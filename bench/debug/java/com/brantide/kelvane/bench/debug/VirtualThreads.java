package com.brantide.kelvane.bench.debug;

import com.brantide.kelvane.plugin.jvmti.api.ThreadHook;
import java.lang.management.ManagementFactory;
import java.lang.reflect.Method;
import java.util.Arrays;
import java.util.concurrent.atomic.LongAdder;
import java.util.stream.Collectors;

/**
 * Virtual threads for the benchmarks, which are compiled for Java 17: Thread.ofVirtual() and its
 * builder's start, reached by reflection through the public interface Thread.Builder.
 */
final class VirtualThreads {
    static final int THREADS = 1_000_000;
    /** Started together, then joined. */
    static final int BATCH = 10_000;
    /** Rounds before the timed ones: the first compiles the start and join paths. */
    static final int WARM_UP_ROUNDS = 3;

    private final Object builder;
    private final Method start;

    private VirtualThreads() throws ReflectiveOperationException {
        builder = Thread.class.getMethod("ofVirtual").invoke(null);
        start = Class.forName("java.lang.Thread$Builder").getMethod("start", Runnable.class);
    }

    /** Whether the running VM has virtual threads: JDK 21 and later. */
    static boolean available() {
        return Runtime.version().feature() >= 21;
    }

    static Thread start(Runnable task) throws ReflectiveOperationException {
        return new VirtualThreads().startOne(task);
    }

    private Thread startOne(Runnable task) throws ReflectiveOperationException {
        return (Thread) start.invoke(builder, task);
    }

    /** A no-op hook, counting only the starts, to show it was called. */
    static final class CountingThreadHook implements ThreadHook {
        final LongAdder starts = new LongAdder();

        @Override
        public void threadStart(Thread thread) {
            starts.increment();
        }

        @Override
        public void threadEnd(Thread thread) {
        }
    }

    /**
     * Starts and joins {@link #THREADS} trivial virtual threads per round, under the agent set up as
     * named: none (no agent, or a floor agent that only loads), library (switched on, no hook) or
     * hook (switched on, with a thread hook). Reports the timed rounds' wall and CPU ms.
     */
    static void startAndJoin(String agent) throws Exception {
        CountingThreadHook hook = agent.equals("hook") ? new CountingThreadHook() : null;
        switch (agent) {
            case "none": break;
            case "library": Target.switchedOn(); break;
            case "hook": Target.switchedOn().registerThreadHook(hook); break;
            default: throw new IllegalArgumentException(agent);
        }
        VirtualThreads threads = new VirtualThreads();
        for (int i = 0; i < WARM_UP_ROUNDS; i++) {
            threads.round();
        }
        double[] millis = new double[Target.REPEATS];
        double[] cpuMillis = new double[Target.REPEATS];
        for (int i = 0; i < millis.length; i++) {
            long cpu = processCpuNanos();
            millis[i] = threads.round();
            cpuMillis[i] = (processCpuNanos() - cpu) / 1e6;
        }
        long rounds = WARM_UP_ROUNDS + millis.length;
        if (hook != null && hook.starts.sum() < rounds * THREADS) {
            throw new IllegalStateException("the thread hook heard of " + hook.starts.sum() + " starts");
        }
        Target.result("vthreads.ms", list(millis));
        Target.result("vthreads.cpu.ms", list(cpuMillis));
    }

    private static String list(double[] values) {
        return Arrays.stream(values).mapToObj(Double::toString).collect(Collectors.joining(","));
    }

    /**
     * The CPU time of every thread of the process: on a shared machine it varies less than the wall
     * time, which grows with every spell the process waits for a core.
     */
    private static long processCpuNanos() {
        return ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean()).getProcessCpuTime();
    }

    /** One round: every batch started, then joined; ms. */
    private double round() throws Exception {
        Runnable nothing = () -> {
        };
        Thread[] batch = new Thread[BATCH];
        long start = System.nanoTime();
        for (int done = 0; done < THREADS; done += BATCH) {
            for (int i = 0; i < BATCH; i++) {
                batch[i] = startOne(nothing);
            }
            for (Thread thread : batch) {
                thread.join();
            }
        }
        return (System.nanoTime() - start) / 1e6;
    }
}
