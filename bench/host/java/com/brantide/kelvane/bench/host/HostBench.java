package com.brantide.kelvane.bench.host;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Random;
import java.util.function.Predicate;

/**
 * What an agent costs the host's own speed, on the JVM that runs this class: each workload timed
 * by the host itself in fresh JVMs, under each configuration, the JVMs shuffled each round, and
 * every figure set against no agent's from the same run.
 *
 * <p>Usage: {@code HostBench LIBRARY FLOOR_AGENT CLASSPATH}, the class path being the one the host
 * JVMs get (the library's API jar and the benchmark jar). System properties:
 * {@code kv.bench.configs} (comma-separated groups and configuration keys: standard, the default;
 * diagnostics, the floor agent's one-thing-at-a-time configurations; all; keys none, loaded, on,
 * inspection, jdwp, env, basic, class-file-hook, class-prepare, exception-capability, exceptions
 * and the can_... names; no agent and the control, no agent again, are always measured),
 * {@code kv.bench.workloads} (some of boxing, stream, objects, exceptions, classes),
 * {@code kv.bench.rounds} (JVMs per configuration and workload), {@code kv.bench.repeats}
 * (timed rounds in each JVM) and {@code kv.bench.raw} (a file for every JVM's results).
 */
public final class HostBench {
    static final int ROUNDS = Integer.getInteger("kv.bench.rounds", 3);
    /** The same order of JVMs in every run of the benchmark. */
    private static final long ORDER_SEED = 17;
    /** The goal: inspection-only mode keeps at least 0.97x of no agent's speed, on every workload. */
    static final double INSPECTION_GOAL = 1 / 0.97;

    private final List<Configuration> configurations;
    private final List<Workload> workloads;
    private final String classpath;
    /** Results by configuration key, then workload: one map per JVM. */
    private final Map<String, Map<Workload, List<Map<String, String>>>> runs = new HashMap<>();

    private HostBench(List<Configuration> configurations, List<Workload> workloads, String classpath) {
        this.configurations = configurations;
        this.workloads = workloads;
        this.classpath = classpath;
    }

    public static void main(String[] args) throws Exception {
        if (args.length != 3) {
            System.err.println("usage: HostBench LIBRARY FLOOR_AGENT CLASSPATH");
            System.exit(2);
        }
        List<Configuration> configurations = selectedConfigurations(args[0], args[1]);
        System.out.printf("== JDK %s (%s), load average %s%n", Runtime.version(), System.getProperty("java.home"),
                loadAverage());
        System.out.printf("Figures: medians and 10th percentiles (p10) of every timed round (%d JVMs per"
                + " configuration and workload, %d timed rounds each after a warm-up), the JVMs in a new random"
                + " order each round; CPU: all threads of the host process.%n", ROUNDS, HostTarget.REPEATS);
        boolean inspectionMode = checkInspectionMode(configurations, args[0]);
        HostBench bench = new HostBench(configurations, selectedWorkloads(), args[2]);
        bench.measure();
        bench.writeRaw(System.getProperty("kv.bench.raw"));
        new HostReport(configurations, bench.measures(), inspectionMode).print();
        System.out.println("load average at the end " + loadAverage());
    }

    /** The baselines, and what kv.bench.configs names: groups (standard, diagnostics, all) or keys. */
    private static List<Configuration> selectedConfigurations(String library, String floorAgent) {
        List<Configuration> baselines = Configuration.baselines();
        List<Configuration> standard = Configuration.standard(library);
        List<Configuration> diagnostics = Configuration.diagnostics(floorAgent);
        List<Configuration> all = new ArrayList<>(baselines);
        all.addAll(standard);
        all.addAll(diagnostics);
        Predicate<Configuration> chosen = baselines::contains;
        for (String name : System.getProperty("kv.bench.configs", "standard").split(",")) {
            chosen = chosen.or(switch (name) {
                case "standard" -> standard::contains;
                case "diagnostics" -> diagnostics::contains;
                case "all" -> c -> true;
                default -> c -> c.key().equals(name);
            });
        }
        return all.stream().filter(chosen).toList();
    }

    private static List<Workload> selectedWorkloads() {
        String selection = System.getProperty("kv.bench.workloads");
        if (selection == null) {
            return List.of(Workload.values());
        }
        return Arrays.stream(selection.split(",")).map(Workload::of).toList();
    }

    /**
     * Whether the library loaded with the inspection-only property says so at load: a library without
     * the mode would run the goal's configuration in debugging mode.
     */
    private static boolean checkInspectionMode(List<Configuration> configurations, String library) throws Exception {
        if (configurations.stream().noneMatch(c -> c.key().equals(Configuration.INSPECTION))) {
            return false;
        }
        String messages = HostJvm.loadMessages(List.of("-agentpath:" + library, Configuration.INSPECTION_PROPERTY,
                "-DKV_JVMTI_LOG_LEVEL=4"));
        boolean present = messages.contains("inspection only");
        if (!present) {
            System.out.println("NOTE: the library names no inspection-only mode at load: 'inspection only, on' runs"
                    + " it in debugging mode, and the goal is not judged.");
        }
        return present;
    }

    /**
     * Every workload under every configuration, ROUNDS times, in a new order each round. The machine
     * slows down under sustained load (the same JVM run a dozen times in a row takes a third longer
     * at the end), so a fixed order would charge that to whichever configurations come late.
     */
    private void measure() throws Exception {
        Random order = new Random(ORDER_SEED);
        for (int round = 0; round < ROUNDS; round++) {
            List<Map.Entry<Workload, Configuration>> jvms = new ArrayList<>();
            for (Workload workload : workloads) {
                configurations.forEach(configuration -> jvms.add(Map.entry(workload, configuration)));
            }
            Collections.shuffle(jvms, order);
            for (Map.Entry<Workload, Configuration> jvm : jvms) {
                Map<String, String> results = HostJvm.run(jvm.getValue(), jvm.getKey(), classpath);
                runs.computeIfAbsent(jvm.getValue().key(), k -> new HashMap<>())
                        .computeIfAbsent(jvm.getKey(), w -> new ArrayList<>()).add(results);
            }
            System.out.printf("round %d of %d done, load average %s%n", round + 1, ROUNDS, loadAverage());
        }
    }

    /**
     * Every JVM's results, one JVM a line (configuration, workload, then name=value), for a closer
     * look at how they spread: into the file named, when one is.
     */
    private void writeRaw(String file) throws java.io.IOException {
        if (file == null) {
            return;
        }
        List<String> lines = new ArrayList<>();
        runs.forEach((configuration, byWorkload) -> byWorkload.forEach((workload, jvms) -> jvms.forEach(
                results -> lines.add(configuration + " " + workload.key() + " " + results))));
        Files.write(Path.of(file), lines);
    }

    /**
     * The figures as measured: each workload's timed rounds, javac's first compile in the class
     * loading JVMs, and the start-up of every JVM.
     */
    private List<Measure> measures() {
        List<Measure> measures = new ArrayList<>();
        for (Workload workload : workloads) {
            if (workload == Workload.CLASSES) {
                measures.add(new Measure("e javac", "javac's first compile of the " + GeneratedClasses.COUNT
                        + " classes in the VM (loads the compiler), one per JVM", true, "javac.ms", null,
                        samples(workload, "javac.ms")));
            }
            measures.add(new Measure(workload.title, workload.description, true, "ms", "cpu.ms",
                    samples(workload, "ms", "cpu.ms")));
        }
        measures.add(new Measure("start-up", "from launching the JVM to its main, every JVM of the run", false,
                "startup.ms", null, samples(null, "startup.ms")));
        return measures;
    }

    /** The samples of the named results, by configuration key: of one workload's JVMs, or of all when null. */
    private Map<String, Map<String, double[]>> samples(Workload workload, String... names) {
        Map<String, Map<String, double[]>> byConfiguration = new LinkedHashMap<>();
        for (Configuration configuration : configurations) {
            List<Map<String, String>> jvms = new ArrayList<>();
            runs.get(configuration.key()).forEach((w, list) -> {
                if (workload == null || w == workload) {
                    jvms.addAll(list);
                }
            });
            Map<String, double[]> byName = new HashMap<>();
            for (String name : names) {
                byName.put(name, jvms.stream().flatMap(r -> Arrays.stream(r.get(name).split(",")))
                        .mapToDouble(Double::parseDouble).toArray());
            }
            byConfiguration.put(configuration.key(), byName);
        }
        return byConfiguration;
    }

    /** The 1-minute load average: figures taken on a busy machine are worth less. */
    static String loadAverage() {
        try {
            return Files.readString(Path.of("/proc/loadavg")).split(" ")[0];
        } catch (java.io.IOException e) {
            return "unknown";
        }
    }

    /**
     * One figure of the report: a title, what it times, whether the inspection goal holds for it,
     * the result names of its wall time and CPU time (null: none), and the samples by configuration.
     */
    record Measure(String title, String description, boolean hasGoal, String wall, String cpu,
                   Map<String, Map<String, double[]>> samples) {
        /** The q-quantile of a configuration's samples, linearly between neighbours: 0.5 the median. */
        double quantile(String configuration, String name, double q) {
            double[] sorted = samples.get(configuration).get(name).clone();
            Arrays.sort(sorted);
            double at = q * (sorted.length - 1);
            int below = (int) Math.floor(at);
            int above = Math.min(below + 1, sorted.length - 1);
            return sorted[below] + (at - below) * (sorted[above] - sorted[below]);
        }

        int count(String configuration) {
            return samples.get(configuration).get(wall).length;
        }
    }

    static String format(String pattern, Object... values) {
        return String.format(Locale.ROOT, pattern, values);
    }
}
