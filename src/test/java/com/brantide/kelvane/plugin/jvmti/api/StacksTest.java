package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Stacks, depths, threads and monitors of suspended threads. */
class StacksTest {
    private final JvmtiApi api = new JvmtiApi();
    private final CountDownLatch release = new CountDownLatch(1);
    private final List<Thread> started = new ArrayList<>();

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
    }

    @AfterEach
    void finish() throws InterruptedException {
        release.countDown();
        for (Thread thread : started) {
            thread.join(10_000);
        }
        api.setActive(false);
    }

    /** Starts the code on a new thread, waits until it is in place, and suspends it. */
    private Thread suspended(String name, long stackSize, Job job) throws InterruptedException {
        CountDownLatch entered = new CountDownLatch(1);
        Thread thread = ThreadKind.unstarted(name, stackSize, () -> {
            try {
                job.run(entered);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        });
        started.add(thread);
        thread.start();
        assertTrue(entered.await(30, TimeUnit.SECONDS), name + " never got in place");
        while (thread.getState() != Thread.State.WAITING && thread.getState() != Thread.State.BLOCKED) {
            Thread.onSpinWait();
        }
        api.suspendThread(thread, null);
        return thread;
    }

    interface Job {
        void run(CountDownLatch entered) throws InterruptedException;
    }

    private List<String> stack(Thread thread, int stackFrame) {
        List<String> names = new ArrayList<>();
        api.listStack(thread, stackFrame, (FrameCallback) location -> names.add(location.getMember().getName()));
        return names;
    }

    @Test
    void stacksAreListedNewestFirstFromTheGivenHeight() throws Exception {
        Thread thread = suspended("chain", 0, entered -> StackTarget.one(entered, release));
        int depth = api.getStackDepth(thread);
        List<String> all = stack(thread, depth);
        assertEquals(depth, all.size());
        int three = all.indexOf("three");
        assertEquals(List.of("three", "two", "one"), all.subList(three, three + 3));
        assertEquals(all.subList(three, depth), stack(thread, depth - three), "the oldest frames from 'three' down");
        assertEquals(all.subList(depth - 1, depth), stack(thread, 1));
        List<String> locals = new ArrayList<>();
        api.listVariables(thread, depth - three, 1, (VariableCallback) (name, value, signature) -> locals.add(name));
        assertEquals(List.of("entered", "release"), locals, "the locals of a suspended thread's frame");
        api.resumeThread(thread, StepType.CONTINUE);
        assertEquals("stackFrame must be >= 1",
                assertThrows(IllegalArgumentException.class, () -> api.listStack(thread, 0, null)).getMessage());
        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> api.listStack(null, 1, null)).getMessage());
        assertEquals(-1, catchDepth(null));
    }

    private int catchDepth(Thread thread) {
        try {
            return api.getStackDepth(thread);
        } catch (IllegalArgumentException e) {
            assertEquals("thread is null", e.getMessage());
            return -1;
        }
    }

    @Test
    void aTenThousandFrameRecursionIsListedWhole() throws Exception {
        Thread thread = suspended("deep", 256L << 20, entered -> StackTarget.recurse(10_000, entered, release));
        int depth = api.getStackDepth(thread);
        assertTrue(depth > 10_000, "depth " + depth);
        List<String> all = stack(thread, depth);
        assertEquals(depth, all.size());
        assertEquals(10_001, all.stream().filter("recurse"::equals).count());
        api.resumeThread(thread, StepType.CONTINUE);
    }

    @Test
    void ownedMonitorsCarryDepthsRelativeToTheListedFrames() throws Exception {
        Thread thread = suspended("owner", 0, entered -> StackTarget.one(entered, release));
        int depth = api.getStackDepth(thread);
        List<String> all = stack(thread, depth);
        Map<Object, Integer> owned = new HashMap<>();
        api.listOwnedMonitors(thread, depth, (MonitorCallback) owned::put);
        assertEquals(Map.of(StackTarget.THIRD, all.indexOf("two"), StackTarget.SECOND, all.indexOf("two"),
                StackTarget.FIRST, all.indexOf("one")), owned);

        owned.clear();
        int fromOne = depth - all.indexOf("one");
        api.listOwnedMonitors(thread, fromOne, (MonitorCallback) owned::put);
        assertEquals(Map.of(StackTarget.FIRST, 0), owned, "monitors of frames above the listed ones are left out");
        api.resumeThread(thread, StepType.CONTINUE);
        assertEquals("callback is null", assertThrows(IllegalArgumentException.class,
                () -> api.listOwnedMonitors(null, 0, null)).getMessage());
    }

    @Test
    void theContendedMonitorOfABlockedThread() throws Exception {
        Object lock = new Object();
        List<Object> contended = new ArrayList<>();
        Thread blocked;
        synchronized (lock) {
            blocked = suspended("blocked", 0, entered -> {
                entered.countDown();
                StackTarget.enter(lock);
            });
            api.listContendedMonitor(blocked, (MonitorCallback) (monitor, depth) -> {
                contended.add(monitor);
                assertEquals(0, depth);
            });
            api.resumeThread(blocked, StepType.CONTINUE);
        }
        assertEquals(1, contended.size());
        assertSame(lock, contended.get(0));
        blocked.join();
        Thread idle = suspended("idle", 0, entered -> StackTarget.three(entered, release));
        api.listContendedMonitor(idle, (MonitorCallback) (monitor, depth) -> contended.add(monitor));
        api.resumeThread(idle, StepType.CONTINUE);
        assertEquals(1, contended.size(), "a thread that waits on no monitor entry reports nothing");
    }

    @Test
    void listThreadsReportsOnlyThreadsTheAgentSawStart() throws Exception {
        Thread waiting = suspended("listed", 0, entered -> StackTarget.three(entered, release));
        api.resumeThread(waiting, StepType.CONTINUE);
        List<String> names = new ArrayList<>();
        api.listThreads((ThreadCallback) thread -> names.add(thread.getName()));
        // Platform threads only: virtual ones are not among the VM's threads.
        assertEquals(!ThreadKind.VIRTUAL, names.contains("listed"), names.toString());
        assertTrue(names.contains(Thread.currentThread().getName()), names.toString());
        assertFalse(names.contains("Reference Handler"), "started before the agent listened: " + names);
        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> api.listThreads(null)).getMessage());
    }
}
