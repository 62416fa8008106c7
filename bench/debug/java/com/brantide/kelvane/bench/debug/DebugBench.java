package com.brantide.kelvane.bench.debug;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/**
 * The debugging-path benchmarks on the JVM that runs this class: each figure is measured in a
 * JVM of its own, next to its baselines measured in the same run, and the goals are judged on
 * the ratios.
 *
 * <p>Usage: {@code DebugBench LIBRARY FLOOR_AGENT CLASSPATH}, the class path being the one the
 * target JVMs get (the library's API jar and the benchmark jar). System properties for shorter
 * runs: {@code kv.bench.only} (some of breakpoint, step, singlestep, smap, stacks, vthreads, comma-separated;
 * vbreakpoint for the breakpoint round trip's library and contract floor alone, in a platform and a
 * virtual thread),
 * {@code kv.bench.rounds} (JVMs per variant), {@code kv.bench.repeats} (timed repeats in each, passed
 * on to the target JVMs) and {@code kv.bench.depth.iterations} (the loop stepped in singlestep).
 */
public final class DebugBench {
    /** The loop of the call that is stepped over. */
    static final int STEP_ITERATIONS = 10_000_000;
    /** Single stepping covers every bytecode of it: the run without fast stepping loops less and is scaled. */
    static final int SINGLE_STEP_ITERATIONS = 100_000;
    /** Stack heights of the stepped callee in the single-stepping benchmark: the shallow one first. */
    static final int[] STEP_DEPTHS = {10, 200};
    /** The loop of the call stepped over there, every bytecode an event. */
    static final int DEPTH_STEP_ITERATIONS = Integer.getInteger("kv.bench.depth.iterations", 10_000);
    static final int STACK_HEIGHT = 200;
    /** JVMs per variant of the benchmarks that have a goal; fewer (-Dkv.bench.rounds=1) while developing. */
    static final int ROUNDS = Integer.getInteger("kv.bench.rounds", 3);
    static final String BREAKPOINT_ROW = "1 breakpoint round trip";
    static final String NO_VIRTUAL_THREADS = "not applicable: no virtual threads before JDK 21";

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
        String classpath = args[2];
        System.out.printf("== JDK %s (%s), load average %s%n", Runtime.version(), System.getProperty("java.home"),
                loadAverage());
        System.out.println("Figures: the best of " + Target.REPEATS + " timed repeats after a warm-up (rates: of "
                + Target.REPEATS + " windows of 0.1 s), in " + ROUNDS + " JVMs per variant (one for the scaled"
                + " single-stepping row of 2), variants alternating; virtual-thread starts: the median of every"
                + " timed round.");
        new DebugBench().run(library, args[1], classpath);
        System.out.println("load average at the end " + loadAverage());
    }

    private void run(List<String> library, String floorAgent, String classpath) throws Exception {
        if (selected("breakpoint") || selected("vbreakpoint")) {
            breakpoints(library, floorAgent, classpath, selected("breakpoint"));
        }
        if (selected("step")) {
            steps(library, classpath);
        }
        if (selected("singlestep")) {
            singleSteppingDepth(library, floorAgent, classpath);
        }
        if (selected("smap")) {
            smap(library, classpath);
        }
        if (selected("stacks")) {
            stacks(library, classpath);
        }
        if (selected("vthreads")) {
            virtualThreadStarts(library, floorAgent, classpath);
        }
        print();
        System.out.println(missed == 0 ? "all goals met" : missed + " goal(s) MISSED");
    }

    /** Whether the benchmark is among those -Dkv.bench.only=NAME,... names; all are when it is not set. */
    private static boolean selected(String benchmark) {
        String only = System.getProperty("kv.bench.only");
        return only == null || Arrays.asList(only.split(",")).contains(benchmark);
    }

    /** The floor agent in one of its modes (floor_agent.cpp). */
    private static List<String> floor(String agent, String mode) {
        return List.of("-agentpath:" + agent + "=" + mode);
    }

    /** The library as plain single stepping has it: every bytecode of a stepped call an event. */
    private static List<String> singleStepping(List<String> library) {
        return withOption(library, "-Dkv.jvmti.enable.fast.stepping=false");
    }

    /** The library as compiled stepping has it: a step over or out waits for the return at full speed. */
    private static List<String> compiledStepping(List<String> library) {
        return withOption(library, "-Dkv.jvmti.enable.compiled.stepping=true");
    }

    private static List<String> withOption(List<String> options, String option) {
        List<String> with = new ArrayList<>(options);
        with.add(option);
        return with;
    }

    /**
     * 1. The breakpoint round trip against the hook contract's floor, the bare up-call and JDWP; on a
     * VM with virtual threads, the library and the contract floor in a virtual thread too. Without
     * the peers (-Dkv.bench.only=vbreakpoint), the library and the contract floor alone.
     */
    private void breakpoints(List<String> library, String floorAgent, String classpath, boolean peers) throws Exception {
        Map<String, Variant> variants = new LinkedHashMap<>();
        variants.put("library", () -> Child.run(library, classpath, "breakpoint", "library"));
        variants.put("contract", () -> Child.run(floor(floorAgent, "contract"), classpath, "breakpoint", "contract"));
        if (VirtualThreads.available()) {
            variants.put("library virtual", () -> Child.run(library, classpath, "breakpoint", "library", "virtual"));
            variants.put("library as virtual",
                    () -> Child.run(library, classpath, "breakpoint", "library", "as-virtual"));
            variants.put("contract virtual", () -> Child.run(floor(floorAgent, "contract,vthreads"), classpath,
                    "breakpoint", "contract", "virtual"));
        }
        if (peers) {
            variants.put("bare", () -> Child.run(floor(floorAgent, "bare"), classpath, "breakpoint", "floor"));
            variants.put("jdwp", () -> Jdi.breakpoint(classpath));
            variants.put("none", () -> Child.run(List.of(), classpath, "breakpoint", "none"));
        }
        Map<String, List<Map<String, String>>> bps = alternate(variants);
        double lib = best(bps.get("library"), "breakpoint.ns");
        double contract = best(bps.get("contract"), "breakpoint.ns");
        String bp = BREAKPOINT_ROW;
        row(bp, "library", nanos(lib) + "/hit", goal("library/contract floor", lib / contract, "<=", 1.15), "");
        virtualThreadRow("library", bps, true);
        asHighRow(bps);
        String bare = peers ? ratio("contract/bare floor", contract / best(bps.get("bare"), "breakpoint.ns")) : "";
        row(bp, "contract floor", nanos(contract) + "/hit", bare, "frame count, new ThreadContext, breakpointHit");
        virtualThreadRow("contract", bps, false);
        if (peers) {
            peerRows(lib, bps);
        }
    }

    /** The library's round trip in the platform thread raised to the virtual thread's height. */
    private void asHighRow(Map<String, List<Map<String, String>>> bps) {
        if (!VirtualThreads.available()) {
            return;
        }
        double virtual = best(bps.get("library virtual"), "breakpoint.ns");
        double asHigh = best(bps.get("library as virtual"), "breakpoint.ns");
        row(BREAKPOINT_ROW, "library, platform as high", nanos(asHigh) + "/hit", ratio("virtual/this", virtual / asHigh),
                "the platform thread raised to " + text(bps.get("library as virtual").get(0), "breakpoint.frames")
                        + " frames");
    }

    /** Row 1's figures of the bare floor, JDWP and no agent. */
    private void peerRows(double lib, Map<String, List<Map<String, String>>> bps) {
        String bp = BREAKPOINT_ROW;
        double bare = best(bps.get("bare"), "breakpoint.ns");
        double jdwp = best(bps.get("jdwp"), "breakpoint.ns");
        double none = best(bps.get("none"), "breakpoint.ns");
        row(bp, "bare floor (up-call only)", nanos(bare) + "/hit", ratio("library/bare floor", lib / bare), "");
        row(bp, "JDWP + JDI", nanos(jdwp) + "/hit", goal("JDWP/library", jdwp / lib, ">=", 100), "");
        row(bp, "no agent", nanos(none) + "/call", ratio("library/no agent", lib / none), "");
    }

    /**
     * An agent's round trip in a virtual thread against its own in the platform thread. The round
     * trip walks the stack for the context's frame count, so the note gives both heights.
     */
    private void virtualThreadRow(String agent, Map<String, List<Map<String, String>>> bps, boolean hasGoal) {
        String variant = agent + ", virtual thread";
        if (!VirtualThreads.available()) {
            row(BREAKPOINT_ROW, variant, "", "", NO_VIRTUAL_THREADS);
            return;
        }
        List<Map<String, String>> virtualRuns = bps.get(agent + " virtual");
        List<Map<String, String>> platformRuns = bps.get(agent);
        double ratio = best(virtualRuns, "breakpoint.ns") / best(platformRuns, "breakpoint.ns");
        row(BREAKPOINT_ROW, variant, nanos(best(virtualRuns, "breakpoint.ns")) + "/hit",
                hasGoal ? goal("virtual/platform", ratio, "<=", 1.1) : ratio("virtual/platform", ratio),
                String.format(Locale.ROOT, "stack %s frames high, %s in the platform thread",
                        text(virtualRuns.get(0), "breakpoint.frames"), text(platformRuns.get(0), "breakpoint.frames")));
    }

    /**
     * 2. Step over a call of 10^7 loop iterations, and out of it after a step in: the library waiting
     * for the return by a frame-pop request (the callee interpreted) and by a breakpoint of its own
     * (compiled stepping), against JDWP + JDI and the call with no agent. Every JVM runs the call
     * long enough to compile it before any breakpoint stands. The compiled mode also steps out from
     * a breakpoint in the callee, which keeps the callee interpreted. Plain single stepping, one JVM,
     * steps over fewer iterations and is scaled.
     */
    private void steps(List<String> library, String classpath) throws Exception {
        String it = Integer.toString(STEP_ITERATIONS);
        String compiledKinds = "over,out," + StepTimes.OUT_FROM_BREAKPOINT;
        List<List<Map<String, String>>> runs = alternate(
                () -> Child.run(library, classpath, "step", "library", it),
                () -> Child.run(compiledStepping(library), classpath, "step", "library", it, compiledKinds),
                () -> Jdi.steps(classpath, STEP_ITERATIONS),
                () -> Child.run(List.of(), classpath, "step", "none", it));
        double slowMeasured = number(Child.run(singleStepping(library), classpath, "step", "library",
                Integer.toString(SINGLE_STEP_ITERATIONS), "over"), "step.over.ms");
        double slow = slowMeasured * STEP_ITERATIONS / SINGLE_STEP_ITERATIONS;
        String so = "2 step over a 10^7-iteration call";
        double compiled = stepRows(so, "step.over.ms", runs);
        row(so, "library, single stepping", millis(slow), ratio("vs compiled", slow / compiled),
                String.format(Locale.ROOT, "scaled from %s over 10^5", millis(slowMeasured)));
        String out = "2 step out of it, after a step in";
        stepRows(out, "step.out.ms", runs);
        double fromBreakpoint = best(runs.get(1), "step." + StepTimes.OUT_FROM_BREAKPOINT + ".ms");
        row(out, "compiled, bp in the callee", millis(fromBreakpoint),
                ratio("vs no agent", fromBreakpoint / best(runs.get(3), "step.out.ms")),
                "from a breakpoint at its start: the VM interprets a method while it holds one");
    }

    /** The rows of one kind of step, from the runs of {@link #steps}; the compiled mode's figure. */
    private double stepRows(String benchmark, String name, List<List<Map<String, String>>> runs) {
        double framePop = best(runs.get(0), name);
        double compiled = best(runs.get(1), name);
        double jdwp = best(runs.get(2), name);
        double none = best(runs.get(3), name);
        row(benchmark, "library, frame pop", millis(framePop), ratio("frame pop/compiled", framePop / compiled), "");
        row(benchmark, "library, compiled", millis(compiled), goal("compiled/no agent", compiled / none, "<=", 1.3), "");
        row(benchmark, "JDWP + JDI", millis(jdwp), goal("JDWP/compiled", jdwp / compiled, ">=", 8), "");
        row(benchmark, "no agent, the call alone", millis(none), "", "");
        return compiled;
    }

    /**
     * 3. Plain single stepping over the same call at two stack heights, the library against the
     * step floor. The events of a step are counted by the floor agent; the library steps the same
     * code from the same place to the same stop, so its time is divided by that count.
     */
    private void singleSteppingDepth(List<String> library, String floorAgent, String classpath) throws Exception {
        List<String> stepFloor = floor(floorAgent, "step");
        List<List<Map<String, String>>> runs = new ArrayList<>();
        for (int depth : STEP_DEPTHS) {
            String[] args = {"singlestep", "", Integer.toString(depth), Integer.toString(DEPTH_STEP_ITERATIONS)};
            runs.addAll(alternate(
                    () -> Child.run(singleStepping(library), classpath, with(args, 1, "library")),
                    () -> Child.run(stepFloor, classpath, with(args, 1, "floor"))));
        }
        long events = stepEvents(runs);
        double[] lib = new double[STEP_DEPTHS.length];
        double[] flo = new double[STEP_DEPTHS.length];
        for (int d = 0; d < STEP_DEPTHS.length; d++) {
            lib[d] = best(runs.get(2 * d), "singlestep.ms") * 1e6 / events;
            flo[d] = best(runs.get(2 * d + 1), "singlestep.ms") * 1e6 / events;
        }
        String ss = "3 single stepping vs stack depth";
        String note = String.format(Locale.ROOT, "%,d events/step (%.1f per iteration), counted by the floor",
                events, (double) events / DEPTH_STEP_ITERATIONS);
        for (int d = 0; d < STEP_DEPTHS.length; d++) {
            String at = "depth " + STEP_DEPTHS[d];
            row(ss, "library, " + at, nanos(lib[d]) + "/event", goal("library/floor", lib[d] / flo[d], "<=", 1.5),
                    d == 0 ? note : "");
            row(ss, "step floor, " + at, nanos(flo[d]) + "/event", "", "");
        }
        int deep = STEP_DEPTHS.length - 1;
        String depths = "depth " + STEP_DEPTHS[deep] + "/" + STEP_DEPTHS[0];
        row(ss, "library, " + depths, "", goal("library", lib[deep] / lib[0], "<=", 1.3), "");
        row(ss, "step floor, " + depths, "", ratio("floor", flo[deep] / flo[0]), "");
    }

    /** The events of one step, the same in every floor run at every depth: the same code steps. */
    private static long stepEvents(List<List<Map<String, String>>> runs) {
        List<Long> counts = new ArrayList<>();
        for (int v = 1; v < runs.size(); v += 2) {
            for (Map<String, String> run : runs.get(v)) {
                counts.add((long) number(run, "singlestep.events"));
            }
        }
        long[] distinct = counts.stream().mapToLong(Long::longValue).distinct().toArray();
        if (distinct.length != 1) {
            throw new IllegalStateException("the floor counted steps of different lengths: " + Arrays.toString(distinct));
        }
        return distinct[0];
    }

    /** 4. Single stepping through a 2,000-line method, with and without a 2,000-entry SMAP. */
    private void smap(List<String> library, String classpath) throws Exception {
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
        String sm = "4 stepping, " + LongMethod.LINES + "-entry SMAP";
        for (String command : List.of("over", "in")) {
            double withMap = best(smaps.get(0), "smap." + command + ".us");
            double without = best(smaps.get(1), "smap." + command + ".us");
            row(sm, "step " + command + ", SMAP", micros(withMap) + "/stop", goal("SMAP/none", withMap / without, "<=", 1.2),
                    smaps.get(0).get(0).get("smap." + command + ".stops") + " stops/run");
            row(sm, "step " + command + ", no SMAP", micros(without) + "/stop", "", "");
        }
    }

    /** 5. Listing a 200-frame stack from a breakpoint hook, and its locals against JDWP + JDI. */
    private void stacks(List<String> library, String classpath) throws Exception {
        String height = Integer.toString(STACK_HEIGHT);
        List<List<Map<String, String>>> runs = alternate(
                () -> Child.run(library, classpath, "stacks", "library", height),
                () -> Jdi.stacks(classpath, STACK_HEIGHT));
        Map<String, String> first = runs.get(0).get(0);
        Map<String, String> jdiFirst = runs.get(1).get(0);
        if (!first.get("stacks.height").equals(jdiFirst.get("stacks.jdi.height"))) {
            throw new IllegalStateException("the library stopped " + first.get("stacks.height")
                    + " frames high, JDI " + jdiFirst.get("stacks.jdi.height"));
        }
        String st = "5 " + first.get("stacks.height") + "-frame stack";
        double listStack = bestRate(runs.get(0), "stacks.listStack.per.s");
        double walker = bestRate(runs.get(0), "stacks.stackWalker.per.s");
        double variables = bestRate(runs.get(0), "stacks.listVariables.per.s");
        double jdi = bestRate(runs.get(1), "stacks.jdi.per.s");
        row(st, "listStack", perSecond(listStack), ratio("StackWalker/listStack", walker / listStack),
                first.get("stacks.frames") + " frames/call");
        row(st, "StackWalker (baseline)", perSecond(walker), "", "");
        row(st, "listVariables, all frames", perSecond(variables), goal("library/JDI", variables / jdi, ">=", 1),
                first.get("stacks.variables") + " variables/call");
        row(st, "JDWP + JDI, the same", perSecond(jdi), "", String.format(Locale.ROOT,
                "%s values/listing; getValues(visibleVariables) per frame; first listing %.1f ms",
                jdiFirst.get("stacks.jdi.variables"), number(jdiFirst, "stacks.jdi.first.ms")));
    }

    /**
     * 6. Starting and joining 10^6 trivial virtual threads, in batches of 10^4: the library switched
     * on, with and without a thread hook, against no agent; and, to tell what any agent costs the VM
     * from what the library adds, the floor agent's load-only modes. The figure is the wall time;
     * the note gives the CPU time, which a busy machine disturbs less.
     */
    private void virtualThreadStarts(List<String> library, String floorAgent, String classpath) throws Exception {
        String vt = "6 start+join 10^6 virtual threads";
        if (!VirtualThreads.available()) {
            row(vt, "every variant", "", "", NO_VIRTUAL_THREADS);
            return;
        }
        Map<String, Variant> variants = new LinkedHashMap<>();
        variants.put("no agent", () -> Child.run(List.of(), classpath, "vthreads", "none"));
        variants.put("library, switched on", () -> Child.run(library, classpath, "vthreads", "library"));
        variants.put("library + thread hook", () -> Child.run(library, classpath, "vthreads", "hook"));
        variants.put("floor: JVMTI env only", () -> Child.run(floor(floorAgent, "env"), classpath, "vthreads", "none"));
        variants.put("floor: + virtual threads",
                () -> Child.run(floor(floorAgent, "env,vthreads"), classpath, "vthreads", "none"));
        variants.put("floor: capabilities",
                () -> Child.run(floor(floorAgent, "capabilities"), classpath, "vthreads", "none"));
        Map<String, List<Map<String, String>>> runs = alternate(variants);
        double none = medianRound(runs.get("no agent"), "vthreads.ms");
        double noneCpu = medianRound(runs.get("no agent"), "vthreads.cpu.ms");
        double lib = medianRound(runs.get("library, switched on"), "vthreads.ms");
        Map<String, String> notes = Map.of("no agent", "",
                "library, switched on", ratio("no thread hook; library/env floor",
                        lib / medianRound(runs.get("floor: JVMTI env only"), "vthreads.ms")),
                "library + thread hook", "a no-op hook: virtual-thread start and end events on",
                "floor: JVMTI env only", "the agent obtains a JVMTI env, nothing more",
                "floor: + virtual threads", "and can_support_virtual_threads",
                "floor: capabilities", "the library's at load: debugging set taken and given back");
        for (String variant : variants.keySet()) {
            double wall = medianRound(runs.get(variant), "vthreads.ms");
            double cpu = medianRound(runs.get(variant), "vthreads.cpu.ms");
            String ratio = variant.equals("no agent") ? ""
                    : variant.equals("library, switched on") ? goal("library/no agent", wall / none, "<=", 1.25)
                    : ratio("vs no agent", wall / none);
            row(vt, variant, millis(wall), ratio, String.format(Locale.ROOT, "CPU %.0f ms (%.2fx)%s%s", cpu,
                    cpu / noneCpu, notes.get(variant).isEmpty() ? "" : "; ", notes.get(variant)));
        }
    }

    /** The median of a variant's timed rounds, every round of every JVM. */
    private static double medianRound(List<Map<String, String>> runs, String name) {
        double[] rounds = runs.stream().flatMap(r -> Arrays.stream(text(r, name).split(",")))
                .mapToDouble(Double::parseDouble).sorted().toArray();
        int half = rounds.length / 2;
        return rounds.length % 2 == 1 ? rounds[half] : (rounds[half - 1] + rounds[half]) / 2;
    }

    /** The arguments with one replaced. */
    private static String[] with(String[] args, int index, String value) {
        String[] copy = args.clone();
        copy[index] = value;
        return copy;
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

    /** {@link #alternate(Variant...)} for variants by name; their results by the same names. */
    private static Map<String, List<Map<String, String>>> alternate(Map<String, Variant> variants) throws Exception {
        List<List<Map<String, String>>> runs = alternate(variants.values().toArray(new Variant[0]));
        Map<String, List<Map<String, String>>> named = new HashMap<>();
        int v = 0;
        for (String name : variants.keySet()) {
            named.put(name, runs.get(v++));
        }
        return named;
    }

    /** The best (lowest) figure of a variant's runs. */
    private static double best(List<Map<String, String>> runs, String name) {
        return runs.stream().mapToDouble(r -> number(r, name)).min().orElseThrow();
    }

    /** The best (highest) rate of a variant's runs. */
    private static double bestRate(List<Map<String, String>> runs, String name) {
        return runs.stream().mapToDouble(r -> number(r, name)).max().orElseThrow();
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
        return Double.parseDouble(text(results, name));
    }

    private static String text(Map<String, String> results, String name) {
        String value = results.get(name);
        if (value == null) {
            throw new IllegalStateException("no result " + name + " in " + results);
        }
        return value;
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
