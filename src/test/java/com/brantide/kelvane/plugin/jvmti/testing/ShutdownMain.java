package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.GCRootsCallback;
import com.brantide.kelvane.plugin.jvmti.api.HistogramCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadHook;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;

/**
 * A child JVM's program that calls System.exit(3) in the middle of everything: one thread sleeps
 * inside the breakpoint hook, another inside the thread-start hook, three step without end, two
 * hit the breakpoint and go on, one is suspended and never resumed, and heap walks run one after
 * the other over a large heap. The VM must end with status 3, promptly, and without a crash.
 *
 * <p>Argument: milliseconds to wait, once everything is in place, before the exit.
 */
public final class ShutdownMain {
    private static final JvmtiApi API = new JvmtiApi();
    private static final CountDownLatch IN_HOOK = new CountDownLatch(1);
    private static final CountDownLatch IN_START_HOOK = new CountDownLatch(1);
    private static final CountDownLatch STEPPING = new CountDownLatch(3);
    private static final CountDownLatch WALKING = new CountDownLatch(1);
    private static final CountDownLatch SPINNING = new CountDownLatch(1);
    private static final AtomicLong WALKS = new AtomicLong();
    private static final List<Object> HEAP = new ArrayList<>();

    private ShutdownMain() {
    }

    public static void main(String[] args) {
        try {
            run(Long.parseLong(args[0]));
        } catch (Throwable t) {
            // The other threads never end by themselves: a failed set-up must still end the VM.
            t.printStackTrace();
            Runtime.getRuntime().halt(99);
        }
    }

    private static void run(long delay) throws Exception {
        API.registerClasses();
        if (!API.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        StormTarget.keep(1000);
        for (int i = 0; i < 1_000_000; i++) {
            HEAP.add(new int[1]);
        }
        StormTarget.hit(0);
        new GCPathEntry(0, 0, null, null, 0, 0).hashCode();
        new TimeoutException().hashCode();
        API.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        API.registerBreakpointHook((BreakpointHook) ShutdownMain::stopped);
        API.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                if (thread.getName().equals("shutdown-slow-start")) {
                    IN_START_HOOK.countDown();
                    LockSupport.parkNanos(60_000_000_000L);
                }
            }

            @Override
            public void threadEnd(Thread thread) {
            }
        });

        start("shutdown-sleeper", () -> hitForever());
        for (int i = 0; i < 3; i++) {
            start("shutdown-stepper-" + i, () -> hitForever());
        }
        for (int i = 0; i < 2; i++) {
            start("shutdown-hitter-" + i, () -> hitForever());
        }
        start("shutdown-slow-start", () -> { });
        Thread suspended = start("shutdown-suspended", () -> {
            SPINNING.countDown();
            while (true) {
                StormTarget.inner(1);
            }
        });
        start("shutdown-heap", ShutdownMain::walkForever);

        IN_HOOK.await();
        IN_START_HOOK.await();
        STEPPING.await();
        WALKING.await();
        SPINNING.await();
        API.suspendThread(suspended, null);
        System.out.println("IN PLACE");
        System.out.flush();
        Thread.sleep(delay);
        System.exit(3);
    }

    private static Thread start(String name, Runnable body) {
        Thread thread = new Thread(body, name);
        thread.setDaemon(name.endsWith("-suspended"));
        thread.start();
        return thread;
    }

    private static void hitForever() {
        API.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
        for (int i = 0; ; i++) {
            StormTarget.hit(i);
        }
    }

    private static int stopped(BreakpointLocation location, ThreadContext context) {
        String name = Thread.currentThread().getName();
        if (name.equals("shutdown-sleeper")) {
            IN_HOOK.countDown();
            LockSupport.parkNanos(60_000_000_000L);
            return StepType.CONTINUE;
        }
        if (name.startsWith("shutdown-stepper-")) {
            if (location.getLocation() != 0) {
                STEPPING.countDown();
            }
            return location.getLocation() % 2 == 0 ? StepType.STEP_OVER : StepType.STEP_IN;
        }
        return StepType.CONTINUE;
    }

    private static void walkForever() {
        String marker = StormTarget.Marker.class.descriptorString();
        while (true) {
            WALKING.countDown();
            API.heapHistogram((HistogramCallback) (names, counts, sizes) -> WALKS.incrementAndGet(), 0);
            API.gcRoots((GCRootsCallback) root -> WALKS.incrementAndGet(), marker, 0, 3);
        }
    }
}
