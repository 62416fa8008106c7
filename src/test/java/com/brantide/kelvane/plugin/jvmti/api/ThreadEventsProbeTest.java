package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Per-thread records and event switching, checked through the probe variant of the agent. */
class ThreadEventsProbeTest {
    private static final long BREAKPOINT = 1L << (JvmtiEvent.BREAKPOINT - 50);
    private static final long SINGLE_STEP = 1L << (JvmtiEvent.SINGLE_STEP - 50);

    private final JvmtiApi api = new JvmtiApi();
    private final CountDownLatch release = new CountDownLatch(1);
    private Thread worker;

    @BeforeEach
    void startWorker() throws InterruptedException {
        assertTrue(api.setActive(true));
        CountDownLatch started = new CountDownLatch(1);
        worker = ThreadKind.unstarted("events-worker", () -> {
            started.countDown();
            awaitQuietly(release);
        });
        worker.start();
        started.await();
    }

    @AfterEach
    void stopWorker() throws InterruptedException {
        release.countDown();
        worker.join();
        api.registerThreadHook(null);
        api.setActive(false);
    }

    @Test
    void onlyThreadsSeenStartingHaveRecords() {
        // A virtual thread gets its record only when it first needs one.
        assertEquals(!ThreadKind.VIRTUAL, AgentProbe.hasThreadData(worker));
        assertTrue(AgentProbe.hasThreadData(Thread.currentThread()));
        Thread early = systemThreadStartedBeforeTheAgentListened();
        assertFalse(AgentProbe.hasThreadData(early));
        assertFalse(api.setEventNotificationMode(early, JvmtiEvent.BREAKPOINT, true));
        assertEquals(-1, AgentProbe.userEvents(early));
    }

    @Test
    void userAndActiveMasksFollowTheSwitches() {
        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true));
        assertMasks(BREAKPOINT, BREAKPOINT);
        assertTrue(AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false), "internal switch");
        assertMasks(BREAKPOINT, BREAKPOINT | SINGLE_STEP);
        assertEquals("SINGLE_STEP,BREAKPOINT", AgentProbe.eventMaskToString(AgentProbe.activeEvents(worker)));

        assertFalse(api.setEventNotificationMode(worker, JvmtiEvent.THREAD_START, true),
                "thread start cannot be switched per thread");
        assertFalse(api.setEventNotificationMode(worker, 999, true));
        for (int stepping : new int[] {JvmtiEvent.SINGLE_STEP, JvmtiEvent.FRAME_POP, JvmtiEvent.METHOD_ENTRY,
                JvmtiEvent.METHOD_EXIT}) {
            assertFalse(api.setEventNotificationMode(worker, stepping, true), "stepping's own events: " + stepping);
            assertFalse(api.setEventNotificationMode(worker, stepping, false));
        }
        assertMasks(BREAKPOINT, BREAKPOINT | SINGLE_STEP);
        api.setActive(false);
        assertFalse(api.setEventNotificationMode(worker, JvmtiEvent.FIELD_ACCESS, true), "capability given back");
        assertMasks(BREAKPOINT, BREAKPOINT | SINGLE_STEP);
        assertTrue(api.setActive(true));

        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, false));
        assertMasks(0, SINGLE_STEP);
        assertTrue(AgentProbe.setEvent(false, JvmtiEvent.SINGLE_STEP, worker, false));
        assertMasks(0, 0);
    }

    @Test
    void clearingAndRestoringBracketAHookCall() {
        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true));
        assertTrue(AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false));

        long saved = AgentProbe.clearActiveEvents(worker);
        assertEquals(BREAKPOINT | SINGLE_STEP, saved);
        assertMasks(BREAKPOINT, 0);
        AgentProbe.restoreUserEvents(worker, -1);
        assertMasks(BREAKPOINT, BREAKPOINT);

        AgentProbe.clearActiveEvents(worker);
        AgentProbe.restoreUserEvents(worker, saved);
        assertMasks(BREAKPOINT, BREAKPOINT | SINGLE_STEP);

        Thread early = systemThreadStartedBeforeTheAgentListened();
        assertEquals(-1, AgentProbe.clearActiveEvents(early));
        AgentProbe.restoreUserEvents(early, saved);
        assertEquals(-1, AgentProbe.activeEvents(early));
    }

    @Test
    void threadHookHearsEveryStartAndEndAndSurvivesThrowingHooks() throws InterruptedException {
        Set<Thread> started = ConcurrentHashMap.newKeySet();
        Set<Thread> ended = ConcurrentHashMap.newKeySet();
        AtomicBoolean onItself = new AtomicBoolean(true);
        api.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                started.add(thread);
                onItself.compareAndSet(true, thread == Thread.currentThread());
                throw new IllegalStateException("a hook that throws");
            }

            @Override
            public void threadEnd(Thread thread) {
                ended.add(thread);
                onItself.compareAndSet(true, thread == Thread.currentThread());
                throw new IllegalStateException("a hook that throws");
            }
        });
        AtomicReference<Throwable> leaked = new AtomicReference<>();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < 50; i++) {
            Thread thread = ThreadKind.unstarted("hooked-" + i,
                    () -> assertEquals(!ThreadKind.VIRTUAL, AgentProbe.hasThreadData(Thread.currentThread())));
            thread.setUncaughtExceptionHandler((t, e) -> leaked.set(e));
            threads.add(thread);
            thread.start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        assertEquals(null, leaked.get(), "nothing a hook threw reached the application thread");
        assertTrue(started.containsAll(threads) && ended.containsAll(threads));
        assertTrue(onItself.get(), "each hook call ran on the thread it was about");
    }

    private void assertMasks(long user, long active) {
        assertEquals(user, AgentProbe.userEvents(worker), "user mask");
        assertEquals(active, AgentProbe.activeEvents(worker), "active mask");
    }

    private static Thread systemThreadStartedBeforeTheAgentListened() {
        return Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler"))
                .findFirst()
                .orElseThrow();
    }

    private static void awaitQuietly(CountDownLatch latch) {
        try {
            latch.await();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
