package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.Test;

/**
 * Hook replacement while other threads copy the hook and call it, as event callbacks do. A global
 * reference deleted while a copy still used it would be reported by JNI checking and fail the run.
 */
class HookStressProbeTest {
    private final JvmtiApi api = new JvmtiApi();

    @Test
    void replacingHooksWhileCallbacksCopyThemIsSafe() throws Exception {
        assertTrue(api.setActive(true), "references are only deleted while the agent is active");
        Set<Integer> registered = ConcurrentHashMap.newKeySet();
        registered.add(0);
        AtomicBoolean stop = new AtomicBoolean();
        AtomicLong calls = new AtomicLong();
        AtomicReference<Throwable> failure = new AtomicReference<>();
        List<Thread> callers = new ArrayList<>();
        for (int i = 0; i < 4; i++) {
            Thread caller = new Thread(() -> {
                try {
                    while (!stop.get()) {
                        int hash = AgentProbe.callBreakpointHookHashCode();
                        if (!registered.contains(hash)) {
                            throw new AssertionError("called an object that was never registered: " + hash);
                        }
                        calls.incrementAndGet();
                    }
                } catch (Throwable t) {
                    failure.compareAndSet(null, t);
                }
            });
            caller.start();
            callers.add(caller);
        }
        long deadline = System.nanoTime() + 2_000_000_000L;
        int replacements = 0;
        while (System.nanoTime() < deadline) {
            Object hook = new Object();
            registered.add(hook.hashCode());
            api.registerBreakpointHook(replacements % 10 == 9 ? null : hook);
            replacements++;
        }
        stop.set(true);
        for (Thread caller : callers) {
            caller.join();
        }
        if (failure.get() != null) {
            throw new AssertionError(failure.get());
        }
        assertTrue(calls.get() > 0 && replacements > 1000, calls + " calls, " + replacements + " replacements");

        Object last = new Object();
        api.registerBreakpointHook(last);
        assertEquals(1, AgentProbe.breakpointHookCopies(), "only the global holds the hook");
        assertEquals(last.hashCode(), AgentProbe.callBreakpointHookHashCode());
        api.registerBreakpointHook(null);
        assertEquals(0, AgentProbe.breakpointHookCopies());
        assertEquals(0, AgentProbe.callBreakpointHookHashCode());
    }
}
