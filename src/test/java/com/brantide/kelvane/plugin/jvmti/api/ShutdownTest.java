package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.StormMain;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * System.exit in the middle of the storm (StormMain), while threads sit in hooks, step, hit
 * breakpoints, stay suspended and walk the heap: the VM ends with the status it was given, within the minute, never crashes (a
 * crash ends it with another status) and reports no JNI misuse. The exit comes at once, or a
 * little later, when the threads are further into their work.
 */
class ShutdownTest {
    @ParameterizedTest(name = "exit {0} ms after everything is in place")
    @ValueSource(ints = {0, 40, 400})
    void exitInTheMiddleOfEverythingEndsWithItsStatus(int delay) throws Exception {
        ChildJvm.Result result;
        try (ChildJvm.Running child = ChildJvm.main(StormMain.class, Integer.toString(delay))
                .jvmOption("-XX:-CreateCoredumpOnCrash").start()) {
            result = child.await(60).assertClean();
        }
        assertTrue(result.stdoutLines().contains("IN PLACE"), result.stdout);
    }
}
