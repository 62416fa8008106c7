package com.brantide.kelvane.bench.heap;

import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.api.GCRootsCallback;
import com.brantide.kelvane.plugin.jvmti.api.HistogramCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.function.LongSupplier;

/**
 * One benchmark JVM, started by {@link BenchDriver} with the library and the floor agent loaded.
 * It builds {@link BenchHeap}, then either times every heap analysis on it ({@code time}) or runs
 * one walk and measures the resident memory it adds ({@code rss gcroots|floor|counter|none}). Results are
 * printed as {@code bench <key> <value>} lines for the driver.
 */
public final class HeapBench {
    // A limit a real caller would set; far above any walk here, but it keeps the library's clock
    // checks in the measured path.
    private static final long LIMIT_MILLIS = 600_000;
    private static final int MAX_DEPTH = 32;

    private final JvmtiApi api = new JvmtiApi();

    private HeapBench() {}

    public static void main(String[] args) throws Exception {
        HeapBench bench = new HeapBench();
        bench.api.registerClasses();
        if (!bench.api.setActive(true)) throw new IllegalStateException("the agent cannot be switched on");
        long start = System.nanoTime();
        BenchHeap.build();
        report("build.ms", (System.nanoTime() - start) / 1e6);
        System.gc();
        bench.api.forceGC();
        if (args[0].equals("time")) {
            bench.time(Integer.getInteger("bench.reps", 7), Integer.getInteger("bench.walk.reps", 7));
        } else {
            bench.rss(args[1]);
        }
    }

    /**
     * Each analysis is timed in turn with its floors, so that whatever drifts in the VM (or on the
     * machine) meanwhile weighs on all. The histograms take a fraction of a second, the reference walks seconds: fewer
     * repetitions of those.
     */
    private void time(int reps, int walkReps) {
        report("targets", BenchHeap.TARGETS);
        String[] histograms = measure(reps, FloorWalks::histogram, this::histogram);
        report("floor", histograms[0]);
        report("histogram", histograms[1]);
        String[] jcmd = measure(reps, () -> jcmd("VM.version"), () -> jcmd("GC.class_histogram", "-all"));
        report("jcmd.start", jcmd[0]);
        report("jcmd", jcmd[1]);
        String[] walks = measure(walkReps, FloorWalks::reach, FloorWalks::counterTags, this::gcRoots);
        report("reach", walks[0]);
        report("counter", walks[1]);
        report("gcroots", walks[2]);
    }

    private void rss(String walk) throws Exception {
        Thread.sleep(500);
        long before = statusKb("VmRSS");
        Files.writeString(Path.of("/proc/self/clear_refs"), "5");  // restarts VmHWM from VmRSS
        switch (walk) {
            case "gcroots" -> gcRoots();
            case "floor" -> FloorWalks.reach();
            case "counter" -> FloorWalks.counterTags();
            default -> Thread.sleep(1000);
        }
        report("rss.before.kb", before);
        report("rss.peak.kb", statusKb("VmHWM"));
    }

    private long histogram() {
        long[] objects = {0};
        api.heapHistogram((HistogramCallback) (names, counts, sizes) -> objects[0] = Arrays.stream(counts).sum(),
                LIMIT_MILLIS);
        return objects[0];
    }

    private long gcRoots() {
        GCPathEntry[] tree = {null};
        api.gcRoots((GCRootsCallback) root -> tree[0] = root, BenchHeap.TARGET_SIGNATURE, LIMIT_MILLIS, MAX_DEPTH);
        if (tree[0] == null) throw new IllegalStateException("gcRoots delivered no tree");
        return tree[0].getCount();
    }

    private static long jcmd(String... command) {
        Path jcmd = Path.of(System.getProperty("java.home"), "bin", "jcmd");
        List<String> line = new ArrayList<>(List.of(jcmd.toString(), Long.toString(ProcessHandle.current().pid())));
        line.addAll(List.of(command));
        try {
            Process process = new ProcessBuilder(line).redirectErrorStream(true)
                    .redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
            if (process.waitFor() != 0) throw new IllegalStateException("jcmd failed: " + line);
        } catch (IOException e) {
            throw new IllegalStateException("cannot run " + jcmd, e);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IllegalStateException(e);
        }
        return 0;
    }

    /**
     * Runs each once to warm up, then all in turn reps times, each round starting one further on so
     * that no action always follows the same one: "median best result" each, in ms.
     */
    private static String[] measure(int reps, LongSupplier... actions) {
        long[] results = Arrays.stream(actions).mapToLong(LongSupplier::getAsLong).toArray();
        double[][] millis = new double[actions.length][reps];
        for (int k = 0; k < reps; k++) {
            for (int turn = 0; turn < actions.length; turn++) {
                int a = (k + turn) % actions.length;
                long start = System.nanoTime();
                results[a] = actions[a].getAsLong();
                millis[a][k] = (System.nanoTime() - start) / 1e6;
            }
        }
        String[] summaries = new String[actions.length];
        for (int a = 0; a < actions.length; a++) {
            Arrays.sort(millis[a]);
            summaries[a] = millis[a][reps / 2] + " " + millis[a][0] + " " + results[a];
        }
        return summaries;
    }

    private static long statusKb(String field) throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith(field + ":")) return Long.parseLong(line.replaceAll("[^0-9]", ""));
        }
        throw new IllegalStateException(field + " not in /proc/self/status");
    }

    private static void report(String key, Object value) {
        System.out.println("bench " + key + " " + value);
    }
}
