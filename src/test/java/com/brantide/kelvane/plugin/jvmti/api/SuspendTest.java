package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** A thread stopped from outside, looked at, and let go with each kind of command. */
class SuspendTest {
    private final JvmtiApi api = new JvmtiApi();
    private Thread spinner;

    @BeforeEach
    void startSpinning() throws InterruptedException {
        api.registerClasses();
        assertTrue(api.setActive(true));
        StepTarget.spinning = true;
        StepTarget.spins = 0;
        spinner = ThreadKind.unstarted("spinner", () -> {
            api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
            StepTarget.spin();
        });
        spinner.setDaemon(true);
        spinner.start();
        while (StepTarget.spins < 1000) {
            Thread.onSpinWait();
        }
    }

    @AfterEach
    void stopSpinning() throws InterruptedException {
        StepTarget.spinning = false;
        spinner.join(10_000);
        api.registerBreakpointHook(null);
        api.setActive(false);
    }

    private BreakpointLocation suspend() {
        List<BreakpointLocation> seen = new ArrayList<>();
        api.suspendThread(spinner, (SuspendCallback) (location, context) -> {
            assertEquals(spinner, context.getThread());
            assertTrue(context.getFrameCount() >= 2, "spin and whatever runs it");
            seen.add(location);
        });
        assertEquals(1, seen.size());
        return seen.get(0);
    }

    private long spinsWhileWaiting() throws InterruptedException {
        long before = StepTarget.spins;
        Thread.sleep(100);
        return StepTarget.spins - before;
    }

    @Test
    void aSuspendedThreadStandsStillUntilResumed() throws Exception {
        for (int op : new int[] {StepType.CONTINUE, StepType.NOOP}) {
            BreakpointLocation location = suspend();
            assertEquals("spin", location.getMember().getName());
            assertEquals(0, spinsWhileWaiting(), "suspended");
            api.resumeThread(spinner, op);
            assertTrue(spinsWhileWaiting() > 0, "running again after " + StepType.name(op));
        }
    }

    @Test
    void stepOverFromASuspendedThreadStopsAtTheNextLine() throws Exception {
        Stops stops = new Stops().watching(spinner);
        api.registerBreakpointHook(stops);
        suspend();
        List<String> loop = Stops.at(StepTarget.class, "spin-test", "spin-body");
        api.resumeThread(spinner, StepType.STEP_OVER);
        for (int waited = 0; stops.stops().isEmpty() && waited < 10_000; waited += 10) {
            Thread.sleep(10);
        }
        Thread.sleep(100);
        assertEquals(1, stops.stops().size());
        assertTrue(loop.contains(stops.stops().get(0)), stops.stops() + " not in " + loop);
    }

    @Test
    void refusedCallsChangeNothing() throws Exception {
        suspend();
        for (int op : new int[] {StepType.STOP, 9, -1}) {
            assertEquals("op code must be >= 2 && <= 8",
                    assertThrows(IllegalArgumentException.class, () -> api.resumeThread(spinner, op)).getMessage());
        }
        assertEquals(0, spinsWhileWaiting(), "still suspended");
        Thread self = Thread.currentThread();
        assertEquals("thread cannot be the current thread",
                assertThrows(IllegalArgumentException.class, () -> api.resumeThread(self, StepType.CONTINUE)).getMessage());
        assertEquals("thread cannot be the current thread",
                assertThrows(IllegalArgumentException.class, () -> api.suspendThread(self, null)).getMessage());
        assertThrows(IllegalArgumentException.class, () -> api.resumeThread(null, StepType.CONTINUE));
        assertThrows(IllegalArgumentException.class, () -> api.suspendThread(null, new Object()));
        api.resumeThread(spinner, StepType.STOP_WITH_TIMEOUT);
        assertTrue(spinsWhileWaiting() > 0, "STOP_WITH_TIMEOUT is accepted and resumes");
        JVMTIException notSuspended =
                assertThrows(JVMTIException.class, () -> api.resumeThread(spinner, StepType.CONTINUE));
        assertEquals("JVMTI_ERROR_THREAD_NOT_SUSPENDED", notSuspended.getMessage());
        api.suspendThread(spinner, null);
        assertEquals(0, spinsWhileWaiting(), "a null callback still suspends");
        api.resumeThread(spinner, StepType.CONTINUE);
    }
}
