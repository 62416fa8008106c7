package com.brantide.kelvane.bench.heap;

import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * Runs the heap benchmark on every JDK 17+ found (the build's first, then those under
 * /usr/lib/jvm) and prints the tables. Per JDK: one JVM times every analysis on one heap, and
 * four more build the same heap for the memory figures, one with the GC-root search, one with each
 * floor walk and one with none, so that no walk's peak hides another's.
 *
 * <p>Usage: BenchDriver BUILD_JAVA_HOME LIBRARY FLOOR_AGENT CLASSPATH
 */
public final class BenchDriver {
    private static final List<String> JVM_OPTIONS =
            List.of("-Xms2g", "-Xmx2g", "-XX:+AlwaysPreTouch", "-DKV_JVMTI_LOG_LEVEL=1");
    private static final double HISTOGRAM_GOAL = 1.2;
    // Against the walk that sets a counter as each object's tag and keeps nothing.
    private static final double GC_ROOTS_GOAL = 1.1;
    // Against the walk that gives each object a 40-byte record.
    private static final double RSS_GOAL = 0.8;

    private final String library;
    private final String floor;
    private final String classpath;

    private BenchDriver(String library, String floor, String classpath) {
        this.library = library;
        this.floor = floor;
        this.classpath = classpath;
    }

    /** What one JDK's four JVMs reported. */
    private record Run(String jdk, Map<String, String> time, Map<String, Long> extraKb, long beforeKb) {
        double millis(String key) {
            return Double.parseDouble(time.get(key).split(" ")[0]);
        }

        double best(String key) {
            return Double.parseDouble(time.get(key).split(" ")[1]);
        }

        long result(String key) {
            return Long.parseLong(time.get(key).split(" ")[2]);
        }
    }

    public static void main(String[] args) throws Exception {
        BenchDriver driver = new BenchDriver(args[1], args[2], args[3]);
        List<Run> runs = new ArrayList<>();
        for (Path jdk : jdks(Path.of(args[0]))) {
            Run run = driver.run(jdk);
            if (run != null) runs.add(run);
        }
        printTables(runs);
    }

    /** The build's JDK, then every other JDK 17+ under /usr/lib/jvm, each once. */
    private static List<Path> jdks(Path buildJdk) throws IOException {
        Set<Path> found = new LinkedHashSet<>();
        List<Path> candidates = new ArrayList<>(List.of(buildJdk));
        try (Stream<Path> listed = Files.list(Path.of("/usr/lib/jvm"))) {
            listed.sorted().forEach(candidates::add);
        } catch (IOException e) {
            // No system JDKs: the build's alone.
        }
        for (Path candidate : candidates) {
            if (Files.isExecutable(candidate.resolve("bin/java")) && major(candidate) >= 17) {
                found.add(candidate.toRealPath());
            }
        }
        return new ArrayList<>(found);
    }

    private static int major(Path jdk) {
        try {
            Matcher version = Pattern.compile("JAVA_VERSION=\"(\\d+)").matcher(Files.readString(jdk.resolve("release")));
            return version.find() ? Integer.parseInt(version.group(1)) : 0;
        } catch (IOException e) {
            return 0;
        }
    }

    private static String version(Path jdk) throws IOException {
        Matcher version = Pattern.compile("JAVA_VERSION=\"([^\"]+)").matcher(Files.readString(jdk.resolve("release")));
        return version.find() ? version.group(1) : jdk.getFileName().toString();
    }

    private Run run(Path jdk) throws Exception {
        String name = version(jdk);
        System.err.println("== JDK " + name + " (" + jdk + "): timing");
        Map<String, String> time = child(jdk, "time");
        Map<String, Long> extra = new HashMap<>();
        long beforeKb = 0;
        for (String walk : List.of("none", "gcroots", "floor", "counter")) {
            System.err.println("== JDK " + name + ": resident memory, " + walk);
            Map<String, String> rss = child(jdk, "rss", walk);
            if (time == null || rss == null) return null;
            long before = Long.parseLong(rss.get("rss.before.kb"));
            extra.put(walk, Long.parseLong(rss.get("rss.peak.kb")) - before);
            if (walk.equals("none")) beforeKb = before;
        }
        return new Run(name, time, extra, beforeKb);
    }

    /** One benchmark JVM; its "bench" lines, or null (with its output shown) when it failed. */
    private Map<String, String> child(Path jdk, String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(jdk.resolve("bin/java").toString(),
                "-agentpath:" + library, "-agentpath:" + floor));
        command.addAll(JVM_OPTIONS);
        command.addAll(List.of("-cp", classpath, HeapBench.class.getName()));
        command.addAll(List.of(args));
        File log = File.createTempFile("bench-heap", ".log");
        try {
            Process process = new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(log).start();
            int status = process.waitFor();
            List<String> lines = Files.readAllLines(log.toPath());
            Map<String, String> values = new HashMap<>();
            for (String line : lines) {
                String[] words = line.split(" ", 3);
                if (words.length == 3 && words[0].equals("bench")) values.put(words[1], words[2]);
            }
            if (status == 0) return values;
            System.err.println("benchmark JVM failed (" + status + "): " + String.join(" ", command));
            lines.stream().skip(Math.max(0, lines.size() - 40)).forEach(System.err::println);
            return null;
        } finally {
            Files.deleteIfExists(log.toPath());
        }
    }

    private static void printTables(List<Run> runs) {
        System.out.println();
        System.out.println("Heap analyses (median of the repetitions; ns/object over the objects walked)");
        String timeFormat = "%-9s %-42s %11s %10s %10s %9s  %s%n";
        System.out.printf(timeFormat, "JDK", "measure", "objects", "median ms", "best ms", "ns/object", "ratio / goal");
        for (Run run : runs) {
            long objects = run.result("floor");
            long reached = run.result("reach");
            row(timeFormat, run, "heapHistogram", "histogram", objects,
                    goal(run.millis("histogram") / run.millis("floor"), HISTOGRAM_GOAL, "histogram/floor"));
            row(timeFormat, run, "floor: tag classes + IterateThroughHeap", "floor", objects, "");
            row(timeFormat, run, "jcmd GC.class_histogram -all", "jcmd", objects,
                    String.format(Locale.ROOT, "%.2fx floor", run.millis("jcmd") / run.millis("floor")));
            double net = run.millis("jcmd") - run.millis("jcmd.start");
            System.out.printf(Locale.ROOT, timeFormat, run.jdk(), "  less jcmd's start-up (VM.version)",
                    count(objects), ms(net), "", ns(net, objects),
                    String.format(Locale.ROOT, "%.2fx floor", net / run.millis("floor")));
            row(timeFormat, run, "gcRoots (" + run.result("gcroots") + " of " + run.time().get("targets")
                    + " targets)", "gcroots", reached,
                    goal(run.millis("gcroots") / run.millis("counter"), GC_ROOTS_GOAL, "gcRoots/counter floor"));
            row(timeFormat, run, "floor: FollowReferences + counter tags", "counter", run.result("counter"), "");
            row(timeFormat, run, "floor: FollowReferences + 40-byte records", "reach", reached,
                    String.format(Locale.ROOT, "gcRoots %.2fx this", run.millis("gcroots") / run.millis("reach")));
        }
        System.out.println();
        System.out.println("Resident memory added by one walk (peak VmHWM over VmRSS before it, each in a fresh JVM,");
        System.out.println("less the rise of a JVM on the same heap that runs no walk); the agent's share is gcRoots");
        System.out.println("less the counter-tag floor, whose extra memory is the VM's tag table alone");
        String rssFormat = "%-9s %11s %12s %11s %11s %11s %11s %9s %9s  %s%n";
        System.out.printf(rssFormat, "JDK", "objects", "heap RSS MB", "no walk MB", "gcRoots MB", "counter MB",
                "40-byte MB", "B/obj", "agent B", "ratio / goal");
        for (Run run : runs) {
            long none = run.extraKb().get("none");
            long gcRoots = run.extraKb().get("gcroots") - none;
            long floorWalk = run.extraKb().get("floor") - none;
            long counter = run.extraKb().get("counter") - none;
            long reached = run.result("reach");
            System.out.printf(Locale.ROOT, rssFormat, run.jdk(), count(reached), mb(run.beforeKb()), mb(none),
                    mb(gcRoots), mb(counter), mb(floorWalk), perObject(gcRoots, reached),
                    perObject(gcRoots - counter, reached),
                    goal((double) gcRoots / floorWalk, RSS_GOAL, "gcRoots/40-byte floor"));
        }
    }

    private static void row(String format, Run run, String label, String key, long objects, String verdict) {
        System.out.printf(Locale.ROOT, format, run.jdk(), label, count(objects), ms(run.millis(key)),
                ms(run.best(key)), ns(run.millis(key), objects), verdict);
    }

    private static String goal(double ratio, double goal, String what) {
        return String.format(Locale.ROOT, "%s %.2fx (goal <= %.2fx) %s", what, ratio, goal,
                ratio <= goal ? "ok" : "MISSED");
    }

    private static String perObject(long kb, long objects) {
        return String.format(Locale.ROOT, "%.1f", kb * 1024.0 / objects);
    }

    private static String count(long n) {
        return String.format(Locale.ROOT, "%,d", n);
    }

    private static String ms(double millis) {
        return String.format(Locale.ROOT, "%.1f", millis);
    }

    private static String ns(double millis, long objects) {
        return String.format(Locale.ROOT, "%.1f", millis * 1e6 / objects);
    }

    private static String mb(long kb) {
        return String.format(Locale.ROOT, "%.1f", kb / 1024.0);
    }
}
