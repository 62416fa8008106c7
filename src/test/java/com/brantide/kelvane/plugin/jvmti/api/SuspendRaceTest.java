package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.SuspendRaceMain;
import org.junit.jupiter.api.Test;

/**
 * Suspending and resuming a thread that is busy inside the agent's own native code
 * (SuspendRaceMain). Suspension takes hold only when the thread next enters the VM, so whatever the
 * agent holds or uses on that thread at that moment stays held or in use while it is suspended.
 */
class SuspendRaceTest {
    @Test
    void resumingAThreadSuspendedWhileItSwitchesEventsOfAnotherNeverHangs() throws Exception {
        ChildJvm.Result result = ChildJvm.main(SuspendRaceMain.class, "switching", "5000").run().assertClean();
        assertTrue(result.stdoutLines().contains("DONE"));
    }

    @Test
    void resumingWithAStepWhileTheThreadIsInItsStepCallbackIsSafe() throws Exception {
        ChildJvm.Result result = ChildJvm.main(SuspendRaceMain.class, "stepping", "5000").run().assertClean();
        assertTrue(result.stdoutLines().contains("DONE"));
    }
}
