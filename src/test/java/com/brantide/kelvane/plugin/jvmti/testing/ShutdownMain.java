package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadHook;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.locks.LockSupport;

/**
 * A child JVM's program that calls System.exit(0) in the middle of everything: one thread sleeps
 * inside the breakpoint hook, another inside the thread-start hook, three step without end, two
 * hit the breakpoint and go on, one is suspended and never resumed, and heap walks run one after
 * the other over a large heap. The VM must end with status 0, promptly, and without a crash: its
 * threads never end, so no other way out of the program ends with 0.
 *
 * <p>Argument: milliseconds to wait, once every thread is in place, before the exit.
 */
public final class ShutdownMain {
    private static final Workload WORK = Workload.activated();
    private static final Set<String> IN_PLACE = ConcurrentHashMap.newKeySet();
    private static final List<Object> HEAP = new ArrayList<>();

    private ShutdownMain() {
    }

    public static void main(String[] args) {
        Workload.runOrHalt(() -> run(Long.parseLong(args[0])));
    }

    private static void run(long delay) throws Exception {
        JvmtiApi api = WORK.api;
        StormTarget.keep(1000);
        for (int i = 0; i < 1_000_000; i++) {
            HEAP.add(new int[1]);
        }
        StormTarget.hit(0);
        api.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        api.registerBreakpointHook((BreakpointHook) ShutdownMain::stopped);
        api.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                if (thread.getName().equals("slow-start")) {
                    sleepInPlace("slow-start");
                }
            }

            @Override
            public void threadEnd(Thread thread) {
            }
        });
        for (String name : List.of("sleeper", "stepper-0", "stepper-1", "stepper-2", "hitter-0", "hitter-1")) {
            new Thread(() -> WORK.hit(Integer.MAX_VALUE, () -> false), name).start();
        }
        new Thread(() -> { }, "slow-start").start();
        new Thread(() -> {
            while (true) {
                IN_PLACE.add("walker");
                WORK.checkHeap(StormTarget.Marker.class, 1000, 0);
            }
        }, "walker").start();
        Thread suspended = WORK.startSpinner("suspended");
        // The sleeper, the slow start, three steppers and the walker.
        while (IN_PLACE.size() < 6) {
            Thread.sleep(1);
        }
        api.suspendThread(suspended, null);
        System.out.println("IN PLACE");
        System.out.flush();
        Thread.sleep(delay);
        System.exit(0);
    }

    private static void sleepInPlace(String name) {
        IN_PLACE.add(name);
        LockSupport.parkNanos(60_000_000_000L);
    }

    private static int stopped(BreakpointLocation location, ThreadContext context) {
        String name = Thread.currentThread().getName();
        if (name.equals("sleeper")) {
            sleepInPlace(name);
        } else if (name.startsWith("stepper-")) {
            if (location.getLocation() != 0) {
                IN_PLACE.add(name);
            }
            return location.getLocation() % 2 == 0 ? StepType.STEP_OVER : StepType.STEP_IN;
        }
        return StepType.CONTINUE;
    }
}
