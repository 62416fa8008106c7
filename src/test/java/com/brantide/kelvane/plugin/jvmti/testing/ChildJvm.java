package com.brantide.kelvane.plugin.jvmti.testing;

import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * A JVM started with the agent loaded and JNI checking on, for behaviour that only shows at start-up
 * or in the process's output. Its standard output and error go to files, read while it runs and
 * checked once it ended. The test JVM passes the paths in kv.test.* properties.
 */
public final class ChildJvm {
    /** One levelled line of the agent's log: level, time, source place, function, message. */
    public static final Pattern LOG_LINE = Pattern.compile(
            "^(ERROR|WARN |DEBUG|FINE ) Kelvane JVMTI: \\d+\\.\\d{6} src/main/cpp/[a-z_]+\\.cpp:\\d+:([A-Za-z_~][A-Za-z0-9_]*)\\(\\) (.*)$");
    private static final Pattern JNI_WARNING =
            Pattern.compile("WARNING in native method|FATAL ERROR in native method|JNI local refs: \\d+, exceeds capacity");

    private final List<String> options = new ArrayList<>();
    private final List<String> program = new ArrayList<>();
    private List<String> agent = List.of("-agentpath:" + required("kv.test.agent"));

    public static ChildJvm main(String mainClass, String... args) {
        ChildJvm child = new ChildJvm();
        child.program.add(mainClass);
        child.program.addAll(List.of(args));
        return child;
    }

    public ChildJvm property(String name, String value) {
        return jvmOption("-D" + name + "=" + value);
    }

    public ChildJvm jvmOption(String option) {
        options.add(option);
        return this;
    }

    /** Starts the JVM without the agent: the program may still load the library as a plain one. */
    public ChildJvm withoutAgent() {
        agent = List.of();
        return property("kv.test.library", required("kv.test.agent"));
    }

    /** Loads the probe variant of the agent, whose extra natives the tests use. */
    public ChildJvm withProbeAgent() {
        agent = List.of("-agentpath:" + required("kv.test.probe-agent"));
        return this;
    }

    /** Starts the JVM and hands it back while it runs, for tests that talk to it (jcmd). */
    public Running start() throws IOException {
        List<String> command = new ArrayList<>(List.of(required("kv.test.java"), "-Xcheck:jni"));
        command.addAll(agent);
        command.addAll(options);
        command.addAll(List.of("-cp", required("kv.test.classpath")));
        command.addAll(program);
        Path stdout = Files.createTempFile(workDirectory(), "child-", ".out");
        Path stderr = Files.createTempFile(workDirectory(), "child-", ".err");
        Process process = new ProcessBuilder(command).redirectOutput(stdout.toFile()).redirectError(stderr.toFile()).start();
        return new Running(process, stdout, stderr);
    }

    /** Runs the JVM to its end (at most two minutes) and returns what it wrote. */
    public Result run() throws Exception {
        try (Running running = start()) {
            return running.await(120);
        }
    }

    public static Path workDirectory() throws IOException {
        return Files.createDirectories(Path.of(System.getProperty("kv.test.workdir", System.getProperty("java.io.tmpdir"))));
    }

    private static String required(String property) {
        return Objects.requireNonNull(System.getProperty(property), property + " is not set; run the tests through ctest");
    }

    /**
     * Runs jcmd against the VM of the process, this one or a child's own; the VM has carried the
     * command out when it returns. Its output goes into a file, not a pipe: newer VMs stream a
     * histogram to jcmd while they hold the VM at a safepoint, so a pipe that the same VM must
     * drain would never empty.
     */
    public static String jcmd(long pid, String... command) throws Exception {
        List<String> line = new ArrayList<>(List.of(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(), Long.toString(pid)));
        line.addAll(List.of(command));
        Path file = Files.createTempFile(workDirectory(), "jcmd-", ".out");
        Process jcmd = new ProcessBuilder(line).redirectErrorStream(true).redirectOutput(file.toFile()).start();
        boolean ended = jcmd.waitFor(60, TimeUnit.SECONDS);
        String output = Files.readString(file);
        Files.delete(file);
        if (!ended || jcmd.exitValue() != 0) {
            throw new IllegalStateException("jcmd failed: " + output);
        }
        return output;
    }

    /**
     * A child JVM that is still running; what it wrote so far is read from its files. Used in a
     * try-with-resources statement, so that a failing test leaves no process behind.
     */
    public record Running(Process process, Path stdout, Path stderr) implements AutoCloseable {
        @Override
        public void close() {
            process.destroyForcibly();
        }

        /** Waits until the child wrote a line equal to the text on standard output. */
        public void awaitStdout(String line, long seconds) throws Exception {
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
            while (read(stdout).lines().noneMatch(line::equals)) {
                if (!process.isAlive() || System.nanoTime() > deadline) {
                    fail("no line " + line + " on stdout:\n" + read(stdout) + "\nstderr:\n" + read(stderr));
                }
                Thread.sleep(20);
            }
        }

        public Result await(long seconds) throws Exception {
            if (!process.waitFor(seconds, TimeUnit.SECONDS)) {
                fail("child JVM did not finish within " + seconds + " s; stderr:\n" + read(stderr));
            }
            Result result = new Result(process.exitValue(), read(stdout), read(stderr));
            Files.delete(stdout);
            Files.delete(stderr);
            return result;
        }

        /** The file's text so far; a character cut in half at its end reads as a replacement. */
        private static String read(Path file) throws IOException {
            return new String(Files.readAllBytes(file), UTF_8);
        }
    }

    /** What a finished child JVM wrote. */
    public record Result(int exitCode, String stdout, String stderr) {
        public List<String> stderrLines() {
            return stderr.lines().toList();
        }

        public List<String> stdoutLines() {
            return stdout.lines().toList();
        }

        /** The agent's levelled lines, each reduced to its level word and message. */
        public List<String> agentMessages() {
            return stderr.lines().map(LOG_LINE::matcher).filter(Matcher::matches)
                    .map(m -> m.group(1).trim() + " " + m.group(3)).toList();
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
