package com.brantide.kelvane.bench.debug;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStreamWriter;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * A {@link Target} JVM: its RESULT lines, and a conversation on its standard streams. The words of
 * the environment variable KV_BENCH_CHILD_WRAPPER, when set, go before its command: a profiler,
 * for instance.
 */
final class Child {
    private static final long TIME_LIMIT_MINUTES = 10;

    private final Process process;
    private final BufferedReader out;
    private final Path err;
    private final Map<String, String> results = new HashMap<>();
    private final String description;

    Child(List<String> jvmOptions, String classpath, String... args) throws IOException {
        List<String> command = new ArrayList<>();
        String wrapper = System.getenv("KV_BENCH_CHILD_WRAPPER");
        if (wrapper != null && !wrapper.isBlank()) {
            command.addAll(List.of(wrapper.trim().split("\\s+")));
        }
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.addAll(jvmOptions);
        String repeats = System.getProperty("kv.bench.repeats");
        if (repeats != null) {
            command.add("-Dkv.bench.repeats=" + repeats); // the figures' repeats, the same on both sides
        }
        command.addAll(List.of("-cp", classpath, Target.class.getName()));
        command.addAll(List.of(args));
        description = String.join(" ", command);
        err = Files.createTempFile("kv-bench-child", ".err");
        process = new ProcessBuilder(command).redirectError(err.toFile()).start();
        out = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
    }

    /** Runs a child to its end and returns its results. */
    static Map<String, String> run(List<String> jvmOptions, String classpath, String... args) throws Exception {
        return new Child(jvmOptions, classpath, args).finish();
    }

    /** Reads up to the first line that starts with the prefix and returns the rest of that line. */
    String await(String prefix) throws IOException {
        for (String line; (line = out.readLine()) != null; ) {
            if (line.startsWith(prefix)) {
                return line.substring(prefix.length()).trim();
            }
            record(line);
        }
        throw failure("ended before printing '" + prefix + "'");
    }

    void send(String line) throws IOException {
        Writer in = new OutputStreamWriter(process.getOutputStream(), StandardCharsets.UTF_8);
        in.write(line + "\n");
        in.flush();
    }

    Map<String, String> finish() throws Exception {
        for (String line; (line = out.readLine()) != null; ) {
            record(line);
        }
        if (!process.waitFor(TIME_LIMIT_MINUTES, TimeUnit.MINUTES)) {
            process.destroyForcibly();
            throw failure("did not finish within " + TIME_LIMIT_MINUTES + " minutes");
        }
        if (process.exitValue() != 0) {
            throw failure("exited with status " + process.exitValue());
        }
        Files.deleteIfExists(err);
        return results;
    }

    void kill() {
        process.destroyForcibly();
    }

    private void record(String line) {
        if (line.startsWith("RESULT ")) {
            String[] parts = line.split(" ", 3);
            results.put(parts[1], parts[2]);
        }
    }

    private IllegalStateException failure(String what) throws IOException {
        return new IllegalStateException(description + "\n  " + what + "; its standard error:\n"
                + Files.readString(err));
    }
}
