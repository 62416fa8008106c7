package com.brantide.kelvane.plugin.jvmti.testing;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
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

    public ChildJvm logLevel(int level) {
        return property("KV_JVMTI_LOG_LEVEL", Integer.toString(level));
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
        command.add("-agentpath:" + required("kv.test.agent") + (agentOptions == null ? "" : "=" + agentOptions));
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

    /** A child JVM that is still running. */
    public static final class Running {
        private final Process process;
        private final CompletableFuture<String> stdout;
        private final CompletableFuture<String> stderr;

        Running(Process process) {
            this.process = process;
            this.stdout = drain(process.getInputStream());
            this.stderr = drain(process.getErrorStream());
        }

        public long pid() {
            return process.pid();
        }

        public Result await(long seconds) throws Exception {
            if (!process.waitFor(seconds, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                fail("child JVM did not finish within " + seconds + " s; stderr:\n" + stderr.getNow(""));
            }
            return new Result(process.exitValue(), stdout.get(10, TimeUnit.SECONDS), stderr.get(10, TimeUnit.SECONDS));
        }

        private static CompletableFuture<String> drain(InputStream stream) {
            return CompletableFuture.supplyAsync(() -> {
                try (stream) {
                    return new String(stream.readAllBytes(), StandardCharsets.UTF_8);
                } catch (IOException e) {
                    return "<unreadable: " + e + ">";
                }
            });
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
