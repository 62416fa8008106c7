package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/** Per-thread records and event switching, checked through the probe variant of the agent. */
class ThreadEventsProbeTest {
    private static final long BREAKPOINT = 1L << (JvmtiEvent.BREAKPOINT - 50);
    private static final long SINGLE_STEP = 1L << (JvmtiEvent.SINGLE_STEP - 50);

    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;

    @Test
    void userAndActiveMasksFollowTheSwitchesAndBracketAHookCall() throws InterruptedException {
        CountDownLatch started = new CountDownLatch(1);
        CountDownLatch release = new CountDownLatch(1);
        Thread worker = ThreadKind.unstarted("events-worker", () -> StackTarget.three(started, release));
        worker.setDaemon(true);
        worker.start();
        started.await();
        // A virtual thread gets its record only when it first needs one; a thread that started
        // before the agent listened never has one, and nothing can be switched for it.
        assertEquals(!ThreadKind.VIRTUAL, AgentProbe.hasThreadData(worker));
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        assertFalse(AgentProbe.hasThreadData(early));
        assertFalse(api.setEventNotificationMode(early, JvmtiEvent.BREAKPOINT, true));
        assertEquals(-1, AgentProbe.clearActiveEvents(early));

        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true));
        assertTrue(AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false), "internal switch");
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);
        // Thread start is VM-wide only; stepping's own events are the agent's alone.
        for (int refused : new int[] {JvmtiEvent.THREAD_START, 999, JvmtiEvent.SINGLE_STEP, JvmtiEvent.FRAME_POP,
                JvmtiEvent.METHOD_ENTRY, JvmtiEvent.METHOD_EXIT}) {
            assertFalse(api.setEventNotificationMode(worker, refused, true), "event " + refused);
            assertFalse(api.setEventNotificationMode(worker, refused, false), "event " + refused);
        }
        api.setActive(false);
        assertFalse(api.setEventNotificationMode(worker, JvmtiEvent.FIELD_ACCESS, true), "capability given back");
        assertTrue(api.setActive(true));
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);

        long saved = AgentProbe.clearActiveEvents(worker);
        assertEquals(BREAKPOINT | SINGLE_STEP, saved);
        assertMasks(worker, BREAKPOINT, 0);
        AgentProbe.restoreUserEvents(worker, -1);
        assertMasks(worker, BREAKPOINT, BREAKPOINT);
        AgentProbe.clearActiveEvents(worker);
        AgentProbe.restoreUserEvents(worker, saved);
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);

        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, false));
        assertMasks(worker, 0, SINGLE_STEP);
        assertTrue(AgentProbe.setEvent(false, JvmtiEvent.SINGLE_STEP, worker, false));
        assertMasks(worker, 0, 0);
        release.countDown();
    }

    private static void assertMasks(Thread thread, long user, long active) {
        assertEquals(List.of(user, active), List.of(AgentProbe.userEvents(thread), AgentProbe.activeEvents(thread)),
                "user and active masks");
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
        assertNull(leaked.get(), "nothing a hook threw reached the application thread");
        assertTrue(started.containsAll(threads) && ended.containsAll(threads));
        assertTrue(onItself.get(), "each hook call ran on the thread it was about");
    }
}
