package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.testing.StormTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.util.Map;
import java.util.concurrent.ConcurrentSkipListMap;

/**
 * A child JVM's program (probe agent, JDK 21 or later, kv.test.thread.kind=virtual, one carrier) that prints
 * what the agent does with a virtual thread at a breakpoint, as one map: a virtual thread that
 * switches breakpoints on for itself, with no record of the agent before that, stops at the
 * breakpoint and at the step its hook asks for; one that runs on a carrier whose breakpoints are
 * switched on does not stop; and every stop is reported for the thread it happens on.
 */
public final class VirtualThreadMain {
    private static final JvmtiApi API = Workload.activated().api;
    /** What was found, sorted; a stop adds to "NAME.stops", and one reported for another thread adds "wrongContext". */
    private static final Map<String, Object> FOUND = new ConcurrentSkipListMap<>();

    private VirtualThreadMain() {
    }

    public static void main(String[] args) throws Exception {
        StormTarget.hit(0);
        API.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        API.registerBreakpointHook((BreakpointHook) VirtualThreadMain::stopped);
        runVirtual("own", () -> {
            FOUND.put("own.record", AgentProbe.hasThreadData(Thread.currentThread()));
            FOUND.put("own.switched", API.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true));
            StormTarget.hit(1);
        });
        // The scheduler's only worker carries every virtual thread.
        Thread carrier = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().startsWith("ForkJoinPool-1-worker-")).findFirst().orElseThrow();
        FOUND.put("carrier.switched", API.setEventNotificationMode(carrier, JvmtiEvent.BREAKPOINT, true));
        runVirtual("mounted", () -> StormTarget.hit(2));
        System.out.println(FOUND);
    }

    private static int stopped(BreakpointLocation location, ThreadContext context) {
        Thread self = Thread.currentThread();
        if (context.getThread() != self) {
            FOUND.put("wrongContext", context.getThread());
        }
        FOUND.merge(self.getName() + ".stops", 1, (stops, one) -> (Integer) stops + 1);
        // One step, from the breakpoint: where it stops shows as a second stop.
        return location.getLocation() == 0 ? StepType.STEP_OVER : StepType.CONTINUE;
    }

    /** Runs the body on a virtual thread; what it raises ends the VM with status 1. */
    private static void runVirtual(String name, Runnable body) throws InterruptedException {
        Thread thread = ThreadKind.unstarted(name, body);
        thread.start();
        thread.join();
    }
}
