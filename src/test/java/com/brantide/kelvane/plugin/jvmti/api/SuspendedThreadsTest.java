package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/** Threads suspended from outside: their stacks, locals and monitors, and each command that lets them go. */
class SuspendedThreadsTest {
    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;
    private final CountDownLatch release = new CountDownLatch(1);
    private final List<Thread> started = new ArrayList<>();

    @AfterEach
    void finish() throws InterruptedException {
        release.countDown();
        StepTarget.spinning = false;
        for (Thread thread : started) {
            thread.join(10_000);
        }
    }

    /** Starts the job on a new thread, waits until it waits or blocks in place, and suspends it. */
    private Thread suspended(String name, long stackSize, Consumer<CountDownLatch> job) throws InterruptedException {
        CountDownLatch entered = new CountDownLatch(1);
        Thread thread = start(ThreadKind.unstarted(name, stackSize, () -> job.accept(entered)));
        assertTrue(entered.await(30, TimeUnit.SECONDS), name + " never got in place");
        while (thread.getState() != Thread.State.WAITING && thread.getState() != Thread.State.BLOCKED) {
            Thread.onSpinWait();
        }
        api.suspendThread(thread, null);
        return thread;
    }

    private Thread start(Thread thread) {
        started.add(thread);
        thread.start();
        return thread;
    }

    private List<String> stack(Thread thread, int stackFrame) {
        List<String> names = new ArrayList<>();
        api.listStack(thread, stackFrame, (FrameCallback) location -> names.add(location.getMember().getName()));
        return names;
    }

    /** Whether the spinner counts on within the time (polled, so that a busy machine only slows a pass). */
    private static boolean spinsWithin(long millis) throws InterruptedException {
        long before = StepTarget.spins;
        for (long waited = 0; waited < millis && StepTarget.spins == before; waited += 10) {
            Thread.sleep(10);
        }
        return StepTarget.spins != before;
    }

    @Test
    void aDeepStackItsLocalsAndMonitorsAreListedNewestFirstFromAnyHeight() throws Exception {
        Thread thread = suspended("deep", 256L << 20, entered -> StackTarget.recurse(10_000, entered, release));
        int depth = api.getStackDepth(thread);
        List<String> all = stack(thread, depth);
        assertEquals(depth, all.size());
        assertEquals(10_001, all.stream().filter("recurse"::equals).count());
        int three = all.indexOf("three");
        assertEquals(List.of("three", "two", "one", "recurse"), all.subList(three, three + 4));
        assertEquals(all.subList(three, depth), stack(thread, depth - three), "the oldest frames from 'three' down");
        assertEquals(all.subList(depth - 1, depth), stack(thread, 1));
        List<String> locals = new ArrayList<>();
        api.listVariables(thread, depth - three, 1, (VariableCallback) (name, value, signature) -> locals.add(name));
        assertEquals(List.of("entered", "release"), locals);

        Map<Object, Integer> monitors = new HashMap<>();
        api.listOwnedMonitors(thread, depth, (MonitorCallback) monitors::put);
        assertEquals(Map.of(StackTarget.THIRD, three + 1, StackTarget.SECOND, three + 1, StackTarget.FIRST, three + 2),
                monitors, "at the depths of 'two' and 'one'");
        monitors.clear();
        api.listOwnedMonitors(thread, depth - three - 2, (MonitorCallback) monitors::put);
        assertEquals(Map.of(StackTarget.FIRST, 0), monitors, "monitors of frames above the listed ones are left out");
        monitors.clear();
        api.listContendedMonitor(thread, (MonitorCallback) monitors::put);
        api.resumeThread(thread, StepType.CONTINUE);
        Thread blocked = suspended("blocked", 0, entered -> {
            entered.countDown();
            StackTarget.one(new CountDownLatch(1), release); // blocks entering the first monitor, held by "deep"
        });
        api.listContendedMonitor(blocked, (MonitorCallback) monitors::put);
        api.resumeThread(blocked, StepType.CONTINUE);
        assertEquals(Map.of(StackTarget.FIRST, 0), monitors, "the blocked thread's; the owner waits on no entry");

        List<String> names = new ArrayList<>();
        api.listThreads((ThreadCallback) listed -> names.add(listed.getName()));
        // The threads the agent saw start, not the reference handler that started before; virtual ones are not the VM's.
        assertEquals(List.of(!ThreadKind.VIRTUAL, true, false), Stream.of("deep", Thread.currentThread().getName(),
                "Reference Handler").map(names::contains).toList(), names.toString());
    }

    @Test
    void aSuspendedThreadStandsStillUntilAnyCommandResumesIt() throws Exception {
        StepTarget.spinning = true;
        Thread spinner = start(ThreadKind.unstarted("spinner", () -> {
            api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
            StepTarget.spin();
        }));
        assertTrue(spinsWithin(10_000), "spinning");
        assertThrows(IllegalArgumentException.class, () -> api.suspendThread(Thread.currentThread(), null),
                "a thread that suspended itself could never resume");
        for (int op : new int[] {StepType.CONTINUE, StepType.NOOP, StepType.STOP_WITH_TIMEOUT}) {
            List<String> seen = new ArrayList<>();
            api.suspendThread(spinner, (SuspendCallback) (location, context) -> seen.add(location.getMember().getName()
                    + " on " + context.getThread().getName() + ", frames above 1: " + (context.getFrameCount() > 1)));
            assertEquals(List.of("spin on spinner, frames above 1: true"), seen);
            for (int refused : new int[] {StepType.STOP, 9, -1}) {
                assertThrows(IllegalArgumentException.class, () -> api.resumeThread(spinner, refused));
            }
            assertFalse(spinsWithin(100), "suspended, and refused commands change nothing");
            api.resumeThread(spinner, op);
            assertTrue(spinsWithin(10_000), "running again after " + StepType.name(op));
        }
        assertEquals("JVMTI_ERROR_THREAD_NOT_SUSPENDED",
                assertThrows(JVMTIException.class, () -> api.resumeThread(spinner, StepType.CONTINUE)).getMessage());

        Stops stops = new Stops().watching(spinner);
        api.registerBreakpointHook(stops);
        api.suspendThread(spinner, null);
        assertFalse(spinsWithin(100), "a null callback still suspends");
        api.resumeThread(spinner, StepType.STEP_OVER);
        for (int waited = 0; stops.stops().isEmpty() && waited < 10_000; waited += 10) {
            Thread.sleep(10);
        }
        Thread.sleep(100);
        assertEquals(1, stops.stops().size(), "one step to the next line, then running on");
        List<String> loop = Stops.at(StepTarget.class, "spin-test", "spin-body");
        assertTrue(loop.contains(stops.stops().get(0)), stops.stops() + " not in " + loop);
    }
}
