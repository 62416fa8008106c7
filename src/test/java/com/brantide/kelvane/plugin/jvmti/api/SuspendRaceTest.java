package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.SuspendRaceMain;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Suspending and resuming a thread that is busy inside the agent's own native code
 * (SuspendRaceMain). Suspension takes hold only when the thread next enters the VM, so whatever the
 * agent holds or uses on that thread at that moment stays held or in use while it is suspended:
 * resuming must never hang, also with a step while the thread is inside its step callback.
 */
class SuspendRaceTest {
    @ParameterizedTest(name = "a thread busy {0}")
    @ValueSource(strings = {"switching", "stepping"})
    void resumingAThreadSuspendedInsideTheAgentIsSafe(String busy) throws Exception {
        ChildJvm.Result result = ChildJvm.main(SuspendRaceMain.class, busy, "5000").run().assertClean();
        assertTrue(result.stdoutLines().contains("DONE"), result.stdout);
    }
}
