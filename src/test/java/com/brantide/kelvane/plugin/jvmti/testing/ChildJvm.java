package com.brantide.kelvane.plugin.jvmti.testing;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.Predicate;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/**
 * Starts a JVM with the agent loaded and JNI checking on, for behaviour that only shows at start-up
 * or in the process's error output. The test JVM passes the paths in kv.test.* properties.
 */
public final class ChildJvm {
    private static final Pattern JNI_WARNING =
            Pattern.compile("WARNING in native method|FATAL ERROR in native method|JNI local refs: \\d+, exceeds capacity");

    private final List<String> jvmOptions = new ArrayList<>();
    private String mainClass;
    private final List<String> args = new ArrayList<>();
    private String agentOptions;
    private String agentProperty = "kv.test.agent";

    public static ChildJvm main(Class<?> mainClass, String... args) {
        return main(mainClass.getName(), args);
    }

    public static ChildJvm main(String mainClass, String... args) {
        ChildJvm child = new ChildJvm();
        child.mainClass = mainClass;
        child.args.addAll(Arrays.asList(args));
        return child;
    }

    public ChildJvm property(String name, String value) {
        jvmOptions.add("-D" + name + "=" + value);
        return this;
    }

    public ChildJvm jvmOption(String option) {
        jvmOptions.add(option);
        return this;
    }

    public ChildJvm logLevel(int level) {
        return property("KV_JVMTI_LOG_LEVEL", Integer.toString(level));
    }

    /** Starts the JVM without the agent: the program may still load the library as a plain one. */
    public ChildJvm withoutAgent() {
        agentProperty = null;
        return property("kv.test.library", required("kv.test.agent"));
    }

    /** Loads the probe variant of the agent, whose extra natives the tests use. */
    public ChildJvm withProbeAgent() {
        agentProperty = "kv.test.probe-agent";
        return this;
    }

    public ChildJvm agentOptions(String options) {
        agentOptions = options;
        return this;
    }

    /** Starts the JVM and hands it back while it runs, for tests that talk to it (jcmd). */
    public Running start() throws IOException {
        List<String> command = new ArrayList<>();
        command.add(required("kv.test.java"));
        command.add("-Xcheck:jni");
        if (agentProperty != null) {
            command.add("-agentpath:" + required(agentProperty) + (agentOptions == null ? "" : "=" + agentOptions));
        }
        command.addAll(jvmOptions);
        command.add("-cp");
        command.add(required("kv.test.classpath"));
        command.add(mainClass);
        command.addAll(args);
        Process process = new ProcessBuilder(command).start();
        return new Running(process);
    }

    /** Runs the JVM to its end (at most a minute) and returns what it wrote. */
    public Result run() throws Exception {
        return start().await(60);
    }

    public static Path workDirectory() throws IOException {
        Path dir = Path.of(System.getProperty("kv.test.workdir", System.getProperty("java.io.tmpdir")));
        Files.createDirectories(dir);
        return dir;
    }

    private static String required(String property) {
        String value = System.getProperty(property);
        if (value == null) {
            fail("system property " + property + " is not set; run the tests through ctest");
        }
        return value;
    }

    /** A child JVM that is still running; its output is collected line by line as it comes. */
    public static final class Running implements AutoCloseable {
        private final Process process;
        private final List<String> stdout = new ArrayList<>();
        private final List<String> stderr = new ArrayList<>();
        private final Thread[] readers;

        Running(Process process) {
            this.process = process;
            this.readers = new Thread[] {reader(process.getInputStream(), stdout), reader(process.getErrorStream(), stderr)};
        }

        /** Ends the child if it still runs, so that a failing test leaves no process behind. */
        @Override
        public void close() {
            process.destroyForcibly();
        }

        public long pid() {
            return process.pid();
        }

        /** Waits until the child wrote a line equal to the text on standard output. */
        public void awaitStdout(String line, long seconds) throws InterruptedException {
            awaitLine(stdout, line::equals, seconds);
        }

        /** Waits until a line on standard error matches, and returns how many lines it had then. */
        public int awaitStderr(Predicate<String> matches, long seconds) throws InterruptedException {
            return awaitLine(stderr, matches, seconds);
        }

        /** The lines written to standard error so far. */
        public List<String> stderrSoFar() {
            synchronized (stderr) {
                return new ArrayList<>(stderr);
            }
        }

        /** Closes the child's standard input: the child programs of the tests end then. */
        public void closeStdin() throws IOException {
            process.getOutputStream().close();
        }

        /** Runs jcmd against the child and returns its output. */
        public String jcmd(String... command) throws Exception {
            Path java = Path.of(required("kv.test.java"));
            List<String> line = new ArrayList<>(List.of(java.resolveSibling("jcmd").toString(), Long.toString(pid())));
            line.addAll(Arrays.asList(command));
            Process jcmd = new ProcessBuilder(line).redirectErrorStream(true).start();
            String output = new String(jcmd.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertTrue(jcmd.waitFor(60, TimeUnit.SECONDS) && jcmd.exitValue() == 0, "jcmd failed: " + output);
            return output;
        }

        public Result await(long seconds) throws Exception {
            if (!process.waitFor(seconds, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                fail("child JVM did not finish within " + seconds + " s; stderr:\n" + String.join("\n", stderrSoFar()));
            }
            for (Thread reader : readers) {
                reader.join(10_000);
            }
            return new Result(process.exitValue(), joined(stdout), joined(stderr));
        }

        private int awaitLine(List<String> lines, Predicate<String> matches, long seconds) throws InterruptedException {
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
            synchronized (lines) {
                while (true) {
                    for (int i = 0; i < lines.size(); i++) {
                        if (matches.test(lines.get(i))) {
                            return lines.size();
                        }
                    }
                    long left = deadline - System.nanoTime();
                    if (left <= 0 || !process.isAlive() && !readersAlive()) {
                        process.destroyForcibly();
                        fail("expected line not seen; lines so far:\n" + String.join("\n", lines));
                    }
                    lines.wait(Math.max(1, TimeUnit.NANOSECONDS.toMillis(Math.min(left, 100_000_000L))));
                }
            }
        }

        private boolean readersAlive() {
            return readers[0].isAlive() || readers[1].isAlive();
        }

        private static String joined(List<String> lines) {
            synchronized (lines) {
                return lines.isEmpty() ? "" : String.join("\n", lines) + "\n";
            }
        }

        private static Thread reader(InputStream stream, List<String> lines) {
            Thread reader = new Thread(() -> {
                try (BufferedReader in = new BufferedReader(new InputStreamReader(stream, StandardCharsets.UTF_8))) {
                    for (String line = in.readLine(); line != null; line = in.readLine()) {
                        synchronized (lines) {
                            lines.add(line);
                            lines.notifyAll();
                        }
                    }
                } catch (IOException e) {
                    synchronized (lines) {
                        lines.add("<unreadable: " + e + ">");
                    }
                }
            }, "child-output");
            reader.setDaemon(true);
            reader.start();
            return reader;
        }
    }

    /** What a finished child JVM wrote. */
    public static final class Result {
        public final int exitCode;
        public final String stdout;
        public final String stderr;

        Result(int exitCode, String stdout, String stderr) {
            this.exitCode = exitCode;
            this.stdout = stdout;
            this.stderr = stderr;
        }

        public List<String> stderrLines() {
            return stderr.lines().collect(Collectors.toList());
        }

        public List<String> stdoutLines() {
            return stdout.lines().collect(Collectors.toList());
        }

        /** The agent's levelled lines, each reduced to its level word and message. */
        public List<String> agentMessages() {
            return stderrLines().stream()
                    .map(LogLine::parse)
                    .filter(line -> line != null)
                    .map(line -> line.level + " " + line.message)
                    .collect(Collectors.toList());
        }

        /** Asserts a normal end with no JNI misuse reported. */
        public Result assertClean() {
            String all = stdout + stderr;
            assertTrue(!JNI_WARNING.matcher(all).find(), "JNI warning in child output:\n" + all);
            assertTrue(exitCode == 0, "child exit code " + exitCode + "\nstdout:\n" + stdout + "\nstderr:\n" + stderr);
            return this;
        }
    }
}
