package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ShutdownMain;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * System.exit while threads sit in hooks, step, hit breakpoints, stay suspended and walk the heap
 * (ShutdownMain): the VM ends with the status it was given, within the minute, and never crashes.
 * The exit comes at once, or a little later, when the threads are further into their work.
 */
class ShutdownTest {
    private static final Pattern JNI_WARNING =
            Pattern.compile("WARNING in native method|FATAL ERROR in native method|JNI local refs: \\d+, exceeds capacity");

    @ParameterizedTest(name = "exit {0} ms after everything is in place")
    @ValueSource(ints = {0, 40, 400})
    void exitInTheMiddleOfEverythingEndsWithItsStatus(int delay) throws Exception {
        Path errors = Files.createDirectories(ChildJvm.workDirectory().resolve("shutdown-" + delay));
        try (Stream<Path> old = Files.list(errors)) {
            for (Path file : old.toList()) {
                Files.delete(file);
            }
        }
        ChildJvm.Result result;
        long start = System.nanoTime();
        try (ChildJvm.Running child = ChildJvm.main(ShutdownMain.class, Integer.toString(delay))
                .jvmOption("-XX:ErrorFile=" + errors.resolve("hs_err_pid%p.log"))
                .jvmOption("-XX:-CreateCoredumpOnCrash")
                .start()) {
            result = child.await(60);
        }
        long millis = (System.nanoTime() - start) / 1_000_000;
        System.out.println("exit after " + delay + " ms: status " + result.exitCode + " in " + millis + " ms");
        List<Path> crashes;
        try (Stream<Path> files = Files.list(errors)) {
            crashes = files.toList();
        }
        assertEquals(List.of(), crashes, "crash reports\nstderr:\n" + result.stderr);
        assertTrue(result.stdoutLines().contains("IN PLACE"), result.stdout + result.stderr);
        assertEquals(3, result.exitCode, "stdout:\n" + result.stdout + "\nstderr:\n" + result.stderr);
        assertFalse(JNI_WARNING.matcher(result.stdout + result.stderr).find(), result.stderr);
    }
}
