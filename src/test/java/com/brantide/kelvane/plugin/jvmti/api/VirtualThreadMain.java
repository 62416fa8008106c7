package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.testing.StormTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.util.List;

/**
 * A child JVM's program (probe agent, JDK 21 or later, kv.test.thread.kind=virtual, one carrier) for
 * what the agent does with a virtual thread at a breakpoint: a virtual thread that switches
 * breakpoints on for itself, with no record of the agent before that, stops at the breakpoint and
 * at the steps its hook asks for, each stop reported for the thread it happens on; one that runs on
 * a carrier whose breakpoints are switched on does not stop. Prints the figures and "OK", or
 * "FAILED" with what went wrong.
 */
public final class VirtualThreadMain {
    private VirtualThreadMain() {
    }

    public static void main(String[] args) throws Exception {
        Workload work = Workload.activated();
        work.api.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        work.registerHooks(work::answer);
        Thread own = ThreadKind.ranToEnd("own", () -> {
            if (AgentProbe.userEvents(Thread.currentThread()) != -1) {
                work.fail("a record before the thread's first switch");
            }
            work.hit(1, () -> false);
        });
        // The scheduler's only worker carries every virtual thread.
        Thread carrier = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().startsWith("ForkJoinPool-1-worker-")).findFirst().orElseThrow();
        work.switchBreakpoints(carrier, true);
        // A stop here would be a hit without a call of the workload: the accounts tell.
        Thread mounted = ThreadKind.ranToEnd("mounted", () -> StormTarget.hit(2));
        work.checkAccounts(List.of(own, mounted));
        System.out.println(work.verdict("hits", "steps"));
    }
}
