package com.brantide.kelvane.bench.host;

import static com.brantide.kelvane.bench.host.HostBench.format;

import com.brantide.kelvane.bench.host.HostBench.Measure;
import java.util.ArrayList;
import java.util.List;

/**
 * The host benchmark's report: per figure, every configuration's medians and their ratios against
 * no agent; the inspection-only goal's verdict; and a table of all ratios, one configuration a row.
 */
final class HostReport {
    private static final String ROW = "  %-42s %10s %10s %9s %9s  %s%n";

    private final List<Configuration> configurations;
    private final List<Measure> measures;
    private final boolean inspectionMode;
    private final List<String> missed = new ArrayList<>();

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
        System.out.printf(ROW, "configuration", "wall ms", "CPU ms", "wall/none", "CPU/none", "goal or note");
        for (Configuration configuration : configurations) {
            String key = configuration.key();
            System.out.printf(ROW, configuration.name(), format("%.2f", measure.median(key, measure.wall())),
                    cpu(measure, key), ratioText(wallRatio(measure, key)), cpuRatio(measure, key),
                    goalOrNote(measure, configuration));
        }
    }

    private String goalOrNote(Measure measure, Configuration configuration) {
        if (configuration.key().equals(Configuration.INSPECTION) && judged(measure)) {
            double ratio = wallRatio(measure, Configuration.INSPECTION);
            boolean met = ratio <= HostBench.INSPECTION_GOAL;
            if (!met) {
                missed.add(format("%s %.2fx", measure.title(), ratio));
            }
            return format("<= %.2fx %s", HostBench.INSPECTION_GOAL, met ? "ok" : "MISSED");
        }
        if (configuration.isFloor() && !configuration.key().equals(Configuration.FLOOR_ENV) && hasFloorEnv()) {
            return format("vs env %.2fx", measure.median(configuration.key(), measure.wall())
                    / measure.median(Configuration.FLOOR_ENV, measure.wall()));
        }
        return "";
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
        String goal = "inspection only >= 0.97x of no agent's speed on every workload (wall time <= 1.03x): ";
        if (!inspectionMode) {
            System.out.printf("%n%snot judged: the library has no inspection-only mode%n", goal);
        } else {
            System.out.printf("%n%s%s%n", goal, missed.isEmpty() ? "met" : "MISSED on " + String.join(", ", missed));
            System.out.printf("noise: the control (no agent against itself) moved from %s%n", controlRange());
        }
    }

    /** The lowest and highest wall-time ratio of the control over the measures with a goal. */
    private String controlRange() {
        double[] ratios = measures.stream().filter(Measure::hasGoal)
                .mapToDouble(m -> wallRatio(m, Configuration.CONTROL)).sorted().toArray();
        return format("%.2fx to %.2fx", ratios[0], ratios[ratios.length - 1]);
    }

    /** All wall-time ratios as a Markdown table: no agent's medians, then each configuration's ratios. */
    private void printTable() {
        StringBuilder header = new StringBuilder("| configuration |");
        StringBuilder rule = new StringBuilder("|---|");
        for (Measure measure : measures) {
            header.append(' ').append(measure.title()).append(" |");
            rule.append("---|");
        }
        System.out.printf("%nWall time, medians (no agent) and ratios against no agent:%n%s%n%s%n", header, rule);
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
            return format("%.1f ms", measure.median(key, measure.wall()));
        }
        return ratioText(wallRatio(measure, key));
    }

    private static double wallRatio(Measure measure, String key) {
        return measure.median(key, measure.wall()) / measure.median(Configuration.NO_AGENT, measure.wall());
    }

    private static String cpu(Measure measure, String key) {
        return measure.cpu() == null ? "" : format("%.2f", measure.median(key, measure.cpu()));
    }

    private static String cpuRatio(Measure measure, String key) {
        if (measure.cpu() == null) {
            return "";
        }
        return ratioText(measure.median(key, measure.cpu()) / measure.median(Configuration.NO_AGENT, measure.cpu()));
    }

    private static String ratioText(double ratio) {
        return format("%.2fx", ratio);
    }
}
