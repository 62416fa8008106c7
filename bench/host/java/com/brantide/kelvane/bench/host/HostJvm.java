package com.brantide.kelvane.bench.host;

import java.io.BufferedReader;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/** One {@link HostTarget} JVM run to its end: its RESULT lines, and its start-up time. */
final class HostJvm {
    private static final long TIME_LIMIT_MINUTES = 10;

    private HostJvm() {
    }

    /**
     * Runs the host with a workload under a configuration. The result "startup.ms" is the time from
     * launching the process to reading its first line, which main prints first.
     */
    static Map<String, String> run(Configuration configuration, Workload workload, String classpath)
            throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(java(), "-Xms1g", "-Xmx1g"));
        command.addAll(configuration.jvmOptions());
        command.add("-Dkv.bench.repeats=" + HostTarget.REPEATS);
        command.addAll(List.of("-cp", classpath, HostTarget.class.getName(), workload.key(),
                configuration.switchedOn() ? "on" : "off"));
        Path err = Files.createTempFile("kv-bench-host", ".err");
        try {
            long launched = System.nanoTime();
            Process process = new ProcessBuilder(command).redirectError(err.toFile()).start();
            Map<String, String> results = readResults(process, launched);
            awaitSuccess(process, command, err);
            return results;
        } finally {
            Files.deleteIfExists(err);
        }
    }

    /** The standard error of `java OPTIONS -version`: what an agent says at load. */
    static String loadMessages(List<String> options) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(java()));
        command.addAll(options);
        command.add("-version");
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), java.nio.charset.StandardCharsets.UTF_8);
        process.waitFor();
        return output;
    }

    private static String java() {
        return Path.of(System.getProperty("java.home"), "bin", "java").toString();
    }

    private static Map<String, String> readResults(Process process, long launched) throws IOException {
        Map<String, String> results = new HashMap<>();
        try (BufferedReader out = process.inputReader()) {
            for (String line = out.readLine(); line != null; line = out.readLine()) {
                String[] parts = line.split(" ", 3);
                if (parts.length == 3 && parts[0].equals("RESULT")) {
                    results.putIfAbsent("startup.ms", String.format(Locale.ROOT, "%.3f", (System.nanoTime() - launched) / 1e6));
                    results.put(parts[1], parts[2]);
                }
            }
        }
        return results;
    }

    private static void awaitSuccess(Process process, List<String> command, Path err)
            throws IOException, InterruptedException {
        String failure = null;
        if (!process.waitFor(TIME_LIMIT_MINUTES, TimeUnit.MINUTES)) {
            process.destroyForcibly();
            failure = "did not finish within " + TIME_LIMIT_MINUTES + " minutes";
        } else if (process.exitValue() != 0) {
            failure = "exited with status " + process.exitValue();
        }
        if (failure != null) {
            throw new IllegalStateException(String.join(" ", command) + "\n  " + failure + "; its standard error:\n"
                    + Files.readString(err));
        }
    }
}
