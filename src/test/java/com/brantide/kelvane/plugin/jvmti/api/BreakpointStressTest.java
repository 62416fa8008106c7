package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.Test;

/** Breakpoint hits on several threads while the hook is replaced over and over. */
class BreakpointStressTest {
    private static final int THREADS = 4;
    private static final int CALLS = 2_000;

    @Test
    void everyHitReachesAHookWhileTheHookIsReplaced() throws Exception {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        assertTrue(api.setActive(true));
        StepTarget.callee(0);
        AtomicLong hits = new AtomicLong();
        BreakpointHook counting = (location, context) -> {
            hits.incrementAndGet();
            return StepType.CONTINUE;
        };
        api.registerBreakpointHook(counting);
        BreakpointLocation location = Stops.breakpointAt(api, StepTarget.class, "callee-first");
        api.setBreakpoint(location);

        AtomicBoolean hitting = new AtomicBoolean(true);
        AtomicInteger replacements = new AtomicInteger();
        Thread replacer = new Thread(() -> {
            while (hitting.get() || replacements.get() < 5_000) {
                // A new object each time, so that each registration really replaces the reference.
                api.registerBreakpointHook((BreakpointHook) counting::breakpointHit);
                replacements.incrementAndGet();
            }
        }, "hook-replacer");
        replacer.start();
        List<Thread> hitters = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            Thread hitter = new Thread(() -> {
                api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
                for (int call = 0; call < CALLS; call++) {
                    StepTarget.callee(call);
                }
            }, "hitter-" + i);
            hitters.add(hitter);
            hitter.start();
        }
        for (Thread hitter : hitters) {
            hitter.join(120_000);
        }
        hitting.set(false);
        replacer.join(120_000);
        api.clearBreakpoint(location);
        api.registerBreakpointHook(null);
        api.setActive(false);

        assertEquals((long) THREADS * CALLS, hits.get(), "every hit reached a hook");
        assertTrue(replacements.get() >= 5_000, "replaced " + replacements.get() + " times");
    }
}
