package com.brantide.kelvane.bench.host;

import static com.brantide.kelvane.bench.host.HostBench.format;

import com.brantide.kelvane.bench.host.HostBench.Measure;
import java.util.ArrayList;
import java.util.List;

/**
 * The host benchmark's report: per figure, every configuration's median and 10th percentile and
 * their ratios against no agent; the inspection-only goal's verdict; and a table of all ratios, one
 * configuration a row.
 *
 * <p>The machine's noise only ever adds time, and comes in spells that last seconds, so that a
 * JVM's rounds are often all slow or all fast: a configuration's median moves with how many of its
 * JVMs met a slow spell, while its 10th percentile, the time the work takes when nothing else
 * interferes, moves far less. Both are given, and the control (no agent against itself) shows how
 * far each moves by noise alone.
 */
final class HostReport {
    private static final String ROW = "  %-44s %9s %9s %9s %8s %8s %8s  %s%n";
    private static final double MEDIAN = 0.5;
    private static final double P10 = 0.1;

    private final List<Configuration> configurations;
    private final List<Measure> measures;
    private final boolean inspectionMode;

    HostReport(List<Configuration> configurations, List<Measure> measures, boolean inspectionMode) {
        this.configurations = configurations;
        this.measures = measures;
        this.inspectionMode = inspectionMode;
    }

    void print() {
        for (Measure measure : measures) {
            printMeasure(measure);
        }
        printVerdict();
        printTable();
    }

    private void printMeasure(Measure measure) {
        System.out.printf("%n%s: %s (%d samples per configuration)%n", measure.title(), measure.description(),
                measure.count(Configuration.NO_AGENT));
        System.out.printf(ROW, "configuration", "median ms", "p10 ms", "CPU ms", "median", "p10", "CPU",
                "(ratios against no agent) goal or note");
        for (Configuration configuration : configurations) {
            String key = configuration.key();
            System.out.printf(ROW, configuration.name(), format("%.2f", wall(measure, key, MEDIAN)),
                    format("%.2f", wall(measure, key, P10)), cpu(measure, key), ratioText(ratio(measure, key, MEDIAN)),
                    ratioText(ratio(measure, key, P10)), cpuRatio(measure, key), goalOrNote(measure, configuration));
        }
    }

    private String goalOrNote(Measure measure, Configuration configuration) {
        if (configuration.key().equals(Configuration.INSPECTION) && judged(measure)) {
            return format("<= %.2fx: median %s, p10 %s", HostBench.INSPECTION_GOAL,
                    met(ratio(measure, Configuration.INSPECTION, MEDIAN)) ? "ok" : "MISSED",
                    met(ratio(measure, Configuration.INSPECTION, P10)) ? "ok" : "MISSED");
        }
        if (configuration.isFloor() && !configuration.key().equals(Configuration.FLOOR_ENV) && hasFloorEnv()) {
            return format("vs env: median %.2fx, p10 %.2fx", wall(measure, configuration.key(), MEDIAN)
                    / wall(measure, Configuration.FLOOR_ENV, MEDIAN), wall(measure, configuration.key(), P10)
                    / wall(measure, Configuration.FLOOR_ENV, P10));
        }
        return "";
    }

    private static boolean met(double ratio) {
        return ratio <= HostBench.INSPECTION_GOAL;
    }

    private boolean judged(Measure measure) {
        return inspectionMode && measure.hasGoal();
    }

    private boolean hasFloorEnv() {
        return configurations.stream().anyMatch(c -> c.key().equals(Configuration.FLOOR_ENV));
    }

    private void printVerdict() {
        if (configurations.stream().noneMatch(c -> c.key().equals(Configuration.INSPECTION))) {
            return;
        }
        System.out.printf("%ninspection only >= 0.97x of no agent's speed on every workload (wall time <= %.2fx):%n",
                HostBench.INSPECTION_GOAL);
        if (!inspectionMode) {
            System.out.println("  not judged: the library has no inspection-only mode");
            return;
        }
        for (double q : new double[] {MEDIAN, P10}) {
            List<String> missed = missedGoals(q);
            System.out.printf("  on %s: %s; the control moved by noise alone from %s%n", q == MEDIAN ? "medians" : "p10",
                    missed.isEmpty() ? "met" : "MISSED on " + String.join(", ", missed), controlRange(q));
        }
    }

    private List<String> missedGoals(double q) {
        List<String> missed = new ArrayList<>();
        for (Measure measure : measures) {
            double ratio = measure.hasGoal() ? ratio(measure, Configuration.INSPECTION, q) : 0;
            if (!met(ratio)) {
                missed.add(format("%s %.2fx", measure.title(), ratio));
            }
        }
        return missed;
    }

    /** The lowest and highest ratio of the control over the measures with a goal. */
    private String controlRange(double q) {
        double[] ratios = measures.stream().filter(Measure::hasGoal)
                .mapToDouble(m -> ratio(m, Configuration.CONTROL, q)).sorted().toArray();
        return format("%.2fx to %.2fx", ratios[0], ratios[ratios.length - 1]);
    }

    /** All wall-time ratios as a Markdown table: no agent's figures, then each configuration's ratios. */
    private void printTable() {
        StringBuilder header = new StringBuilder("| configuration |");
        StringBuilder rule = new StringBuilder("|---|");
        for (Measure measure : measures) {
            header.append(' ').append(measure.title()).append(" |");
            rule.append("---|");
        }
        System.out.printf("%nWall time, median (p10), against no agent:%n%s%n%s%n", header, rule);
        for (Configuration configuration : configurations) {
            StringBuilder line = new StringBuilder("| ").append(configuration.name()).append(" |");
            for (Measure measure : measures) {
                line.append(' ').append(tableCell(measure, configuration.key())).append(" |");
            }
            System.out.println(line);
        }
    }

    private static String tableCell(Measure measure, String key) {
        if (key.equals(Configuration.NO_AGENT)) {
            return format("%.1f ms (%.1f)", wall(measure, key, MEDIAN), wall(measure, key, P10));
        }
        return format("%s (%s)", ratioText(ratio(measure, key, MEDIAN)), ratioText(ratio(measure, key, P10)));
    }

    private static double wall(Measure measure, String key, double q) {
        return measure.quantile(key, measure.wall(), q);
    }

    private static double ratio(Measure measure, String key, double q) {
        return wall(measure, key, q) / wall(measure, Configuration.NO_AGENT, q);
    }

    private static String cpu(Measure measure, String key) {
        return measure.cpu() == null ? "" : format("%.2f", measure.quantile(key, measure.cpu(), MEDIAN));
    }

    private static String cpuRatio(Measure measure, String key) {
        if (measure.cpu() == null) {
            return "";
        }
        return ratioText(measure.quantile(key, measure.cpu(), MEDIAN)
                / measure.quantile(Configuration.NO_AGENT, measure.cpu(), MEDIAN));
    }

    private static String ratioText(double ratio) {
        return format("%.2fx", ratio);
    }
}
