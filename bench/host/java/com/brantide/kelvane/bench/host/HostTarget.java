package com.brantide.kelvane.bench.host;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.io.IOException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Locale;
import java.util.stream.Collectors;

/**
 * The host: one workload per JVM, under whatever agent the JVM was started with. It reports its
 * figures as "RESULT name value" lines on standard output; "RESULT main" comes first, as soon as
 * main runs, so that the driver can time the JVM's start-up.
 *
 * <pre>
 * HostTarget WORKLOAD off|on     WORKLOAD: boxing, stream, objects, exceptions or classes; on
 *                                switches the library on first (registerClasses, setActive(true))
 * </pre>
 *
 * <p>Each JVM warms its workload up for at least {@link #WARM_UP_MS} ms and {@link #WARM_UP_ROUNDS}
 * rounds, then times {@link #REPEATS} rounds: wall ms and the process's CPU ms of each.
 */
public final class HostTarget {
    /** Timed rounds in each JVM; the driver passes its own on. */
    static final int REPEATS = Integer.getInteger("kv.bench.repeats", 7);
    static final int WARM_UP_ROUNDS = 5;
    /**
     * Long enough for the JIT to settle: it compiles nothing of the workloads after their first 250
     * ms (-XX:+PrintCompilation), nor of class loading after javac's compile. A slow configuration
     * warms up in fewer rounds.
     */
    static final long WARM_UP_MS = 500;

    private HostTarget() {
    }

    public static void main(String[] args) throws Exception {
        result("main", 0);
        if (args.length != 2) {
            throw new IllegalArgumentException("usage: HostTarget WORKLOAD off|on");
        }
        if (args[1].equals("on")) {
            switchOn();
        }
        Workload workload = Workload.of(args[0]);
        workload.prepare();
        long sink = warmUp(workload);
        double[] wall = new double[REPEATS];
        double[] cpu = new double[REPEATS];
        for (int i = 0; i < REPEATS; i++) {
            // Every round starts from an empty young generation, and the class loaders of earlier
            // rounds unloaded: their number would otherwise grow from round to round.
            System.gc();
            long cpuStart = processCpuNanos();
            long start = System.nanoTime();
            sink += workload.round(i);
            wall[i] = (System.nanoTime() - start) / 1e6;
            cpu[i] = (processCpuNanos() - cpuStart) / 1e6;
        }
        result("ms", list(wall));
        result("cpu.ms", list(cpu));
        result("sink", sink);
    }

    static void result(String name, Object value) {
        System.out.println("RESULT " + name + " " + value);
    }

    /** The library switched on as an application that debugs or inspects itself does it, no breakpoint set. */
    private static void switchOn() {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        if (!api.setActive(true)) {
            throw new IllegalStateException("the library did not switch on");
        }
    }

    private static long warmUp(Workload workload) {
        long sink = 0;
        long start = System.nanoTime();
        for (int round = 0; round < WARM_UP_ROUNDS || System.nanoTime() - start < WARM_UP_MS * 1_000_000; round++) {
            sink += workload.round(round);
        }
        return sink;
    }

    /**
     * The CPU time of every thread of the process, the JIT's and the collector's included, in ns:
     * the sum of each thread's schedstat. The VM's own process CPU time counts in clock ticks (10
     * ms), as long as a round.
     */
    private static long processCpuNanos() throws IOException {
        long sum = 0;
        try (DirectoryStream<Path> threads = Files.newDirectoryStream(Path.of("/proc/self/task"))) {
            for (Path thread : threads) {
                sum += onCpuNanos(thread.resolve("schedstat"));
            }
        }
        return sum;
    }

    /** The first figure of a schedstat: ns on a CPU; 0 for a thread that ended meanwhile. */
    private static long onCpuNanos(Path schedstat) {
        try {
            String line = Files.readString(schedstat);
            return Long.parseLong(line.substring(0, line.indexOf(' ')));
        } catch (IOException e) {
            return 0;
        }
    }

    private static String list(double[] values) {
        return Arrays.stream(values).mapToObj(v -> String.format(Locale.ROOT, "%.3f", v))
                .collect(Collectors.joining(","));
    }
}
