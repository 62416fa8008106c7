package com.brantide.kelvane.bench.debug;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/**
 * The debugging-path benchmarks on the JVM that runs this class: each figure is measured in a
 * JVM of its own, next to its baselines measured in the same run, and the goals are judged on
 * the ratios.
 *
 * <p>Usage: {@code DebugBench LIBRARY FLOOR_AGENT CLASSPATH}, the class path being the one the
 * target JVMs get (the library's API jar and the benchmark jar).
 */
public final class DebugBench {
    /** The loop of the call that is stepped over. */
    static final int STEP_ITERATIONS = 10_000_000;
    /** Single stepping covers every bytecode of it: the run without fast stepping loops less and is scaled. */
    static final int SINGLE_STEP_ITERATIONS = 100_000;
    static final int STACK_HEIGHT = 200;
    /** JVMs per variant of the benchmarks that have a goal. */
    static final int ROUNDS = 3;

    private final List<String[]> rows = new ArrayList<>();
    private int missed;

    private DebugBench() {
    }

    public static void main(String[] args) throws Exception {
        if (args.length != 3) {
            System.err.println("usage: DebugBench LIBRARY FLOOR_AGENT CLASSPATH");
            System.exit(2);
        }
        List<String> library = List.of("-agentpath:" + args[0]);
        List<String> floor = List.of("-agentpath:" + args[1]);
        String classpath = args[2];
        System.out.printf("== JDK %s (%s), load average %s%n", Runtime.version(), System.getProperty("java.home"),
                loadAverage());
        System.out.println("Figures: the best of " + Target.REPEATS + " timed repeats after a warm-up, in " + ROUNDS
                + " JVMs per variant (one for single stepping and stacks), variants alternating.");
        new DebugBench().run(library, floor, classpath);
        System.out.println("load average at the end " + loadAverage());
    }

    private void run(List<String> library, List<String> floor, String classpath) throws Exception {
        // 1. Breakpoint round trip.
        List<List<Map<String, String>>> bps = alternate(
                () -> Child.run(library, classpath, "breakpoint", "library"),
                () -> Child.run(floor, classpath, "breakpoint", "floor"),
                () -> Jdi.breakpoint(classpath),
                () -> Child.run(List.of(), classpath, "breakpoint", "none"));
        double lib = best(bps.get(0), "breakpoint.ns");
        double flo = best(bps.get(1), "breakpoint.ns");
        double jdwp = best(bps.get(2), "breakpoint.ns");
        double none = best(bps.get(3), "breakpoint.ns");
        String bp = "1 breakpoint round trip";
        row(bp, "library", nanos(lib) + "/hit", "", "");
        row(bp, "floor agent", nanos(flo) + "/hit", goal("library/floor", lib / flo, "<=", 3), "");
        row(bp, "JDWP + JDI", nanos(jdwp) + "/hit", goal("JDWP/library", jdwp / lib, ">=", 30), "");
        row(bp, "no agent", nanos(none) + "/call", ratio("library/no agent", lib / none), "");

        // 2. Step over a call of 10^7 loop iterations; single stepping covers fewer and is scaled.
        String it = Integer.toString(STEP_ITERATIONS);
        List<List<Map<String, String>>> steps = alternate(
                () -> Child.run(library, classpath, "step", "library", it),
                () -> Jdi.stepOver(classpath, STEP_ITERATIONS));
        double fast = best(steps.get(0), "step.ms");
        double jdwpStep = best(steps.get(1), "step.ms");
        List<String> singleStepping = new ArrayList<>(library);
        singleStepping.add("-Dkv.jvmti.enable.fast.stepping=false");
        double slowMeasured = number(Child.run(singleStepping, classpath, "step", "library",
                Integer.toString(SINGLE_STEP_ITERATIONS)), "step.ms");
        double slow = slowMeasured * STEP_ITERATIONS / SINGLE_STEP_ITERATIONS;
        String so = "2 step over a 10^7-iteration call";
        row(so, "library, fast stepping", millis(fast), goal("library/JDWP", fast / jdwpStep, "<=", 1), "");
        row(so, "library, single stepping", millis(slow), ratio("vs fast", slow / fast),
                String.format(Locale.ROOT, "scaled from %s over 10^5", millis(slowMeasured)));
        row(so, "JDWP + JDI step over", millis(jdwpStep), "", "");

        // 3. Single stepping through a 2,000-line method, with and without a 2,000-entry SMAP.
        Path classes = Files.createTempDirectory("kv-bench-smap");
        LongMethod.generate(classes);
        List<List<Map<String, String>>> smaps = alternate(
                () -> Child.run(library, classpath, "smap", classes.resolve("smap").toString()),
                () -> Child.run(library, classpath, "smap", classes.resolve("plain").toString()));
        deleteTree(classes);
        if (!"true".equals(smaps.get(0).get(0).get("smap.extension"))
                || !"false".equals(smaps.get(1).get(0).get("smap.extension"))) {
            throw new IllegalStateException("the SMAP did not reach the VM as generated");
        }
        String sm = "3 stepping, " + LongMethod.LINES + "-entry SMAP";
        for (String command : List.of("over", "in")) {
            double withMap = best(smaps.get(0), "smap." + command + ".us");
            double without = best(smaps.get(1), "smap." + command + ".us");
            row(sm, "step " + command + ", SMAP", micros(withMap) + "/stop", goal("SMAP/none", withMap / without, "<=", 1.5),
                    smaps.get(0).get(0).get("smap." + command + ".stops") + " stops/run");
            row(sm, "step " + command + ", no SMAP", micros(without) + "/stop", "", "");
        }

        // 4. Listing a 200-frame stack from a breakpoint hook.
        Map<String, String> stacks = Child.run(library, classpath, "stacks", Integer.toString(STACK_HEIGHT));
        String st = "4 " + stacks.get("stacks.height") + "-frame stack";
        double listStack = number(stacks, "stacks.listStack.per.s");
        double walker = number(stacks, "stacks.stackWalker.per.s");
        row(st, "listStack", perSecond(listStack), ratio("StackWalker/listStack", walker / listStack),
                stacks.get("stacks.frames") + " frames/call");
        row(st, "listVariables, all frames", perSecond(number(stacks, "stacks.listVariables.per.s")), "",
                stacks.get("stacks.variables") + " variables/call");
        row(st, "StackWalker (baseline)", perSecond(walker), "", "");

        print();
        System.out.println(missed == 0 ? "all goals met" : missed + " goal(s) MISSED");
    }

    /** One run of a benchmark variant in JVMs of its own; its results. */
    private interface Variant {
        Map<String, String> run() throws Exception;
    }

    /**
     * Runs each variant of a benchmark {@link #ROUNDS} times, the variants alternating, so that a busy
     * spell of the machine falls on all of them; the results of each variant's runs.
     */
    private static List<List<Map<String, String>>> alternate(Variant... variants) throws Exception {
        List<List<Map<String, String>>> results = new ArrayList<>();
        for (Variant ignored : variants) {
            results.add(new ArrayList<>());
        }
        for (int round = 0; round < ROUNDS; round++) {
            for (int v = 0; v < variants.length; v++) {
                results.get(v).add(variants[v].run());
            }
        }
        return results;
    }

    /** The best (lowest) figure of a variant's runs. */
    private static double best(List<Map<String, String>> runs, String name) {
        return runs.stream().mapToDouble(r -> number(r, name)).min().orElseThrow();
    }

    private void row(String benchmark, String variant, String figure, String ratio, String note) {
        rows.add(new String[] {benchmark, variant, figure, ratio, note});
    }

    private void print() {
        String format = "%-34s %-26s %14s  %-44s %s%n";
        System.out.printf(format, "benchmark", "variant", "figure", "ratio (goal) verdict", "note");
        String last = "";
        for (String[] row : rows) {
            String benchmark = row[0].equals(last) ? "" : row[0];
            last = row[0];
            System.out.printf(format, benchmark, row[1], row[2], row[3], row[4]);
        }
    }

    private String goal(String name, double value, String comparison, double goal) {
        boolean ok = comparison.equals("<=") ? value <= goal : value >= goal;
        if (!ok) {
            missed++;
        }
        return String.format(Locale.ROOT, "%s %.2fx (%s %sx) %s", name, value, comparison, trim(goal),
                ok ? "ok" : "MISSED");
    }

    private static String ratio(String name, double value) {
        return String.format(Locale.ROOT, "%s %.2fx", name, value);
    }

    private static String trim(double value) {
        return value == Math.rint(value) ? Long.toString((long) value) : Double.toString(value);
    }

    private static double number(Map<String, String> results, String name) {
        String value = results.get(name);
        if (value == null) {
            throw new IllegalStateException("no result " + name + " in " + results);
        }
        return Double.parseDouble(value);
    }

    private static String nanos(double ns) {
        return ns >= 1000 ? String.format(Locale.ROOT, "%.2f us", ns / 1000) : String.format(Locale.ROOT, "%.2f ns", ns);
    }

    private static String micros(double us) {
        return String.format(Locale.ROOT, "%.2f us", us);
    }

    private static String millis(double ms) {
        return String.format(Locale.ROOT, "%.1f ms", ms);
    }

    private static String perSecond(double rate) {
        return String.format(Locale.ROOT, "%,.0f/s", rate);
    }

    /** The 1-minute load average: figures taken on a busy machine are worth less. */
    private static String loadAverage() {
        try {
            return Files.readString(Path.of("/proc/loadavg")).split(" ")[0];
        } catch (java.io.IOException e) {
            return "unknown";
        }
    }

    private static void deleteTree(Path dir) throws Exception {
        try (var paths = Files.walk(dir)) {
            paths.sorted((a, b) -> b.getNameCount() - a.getNameCount()).forEach(p -> p.toFile().delete());
        }
    }
}
