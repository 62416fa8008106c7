package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.testing.StormTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/**
 * A child JVM's program for the agent's own memory (probe agent). It runs every feature of the
 * agent round after round: hooks replaced, breakpoints set and cleared, steps of every kind, locals,
 * stacks and monitors of stopped and of suspended threads, field watches, exceptions, threads
 * starting and ending, heap walks of every kind, class and line lookups, refused calls and data
 * dumps. After the warm-up rounds and after each batch of rounds it prints the agent's heap,
 * "heap STAGE BYTES BLOCKS ALLOCATIONS", or, in the sanitized build, runs LeakSanitizer and prints
 * "leaks STAGE RESULT". Then the figures of what the rounds did, and "OK" when every kind of work
 * reached the agent's hooks and callbacks and nothing went wrong, or "FAILED ...".
 *
 * <p>Arguments: warm-up rounds, rounds per batch, batches, path prefix for leak reports.
 */
public final class AgentMemoryMain {
    private static final int KEPT = 100;

    private static final Workload WORK = Workload.activated();
    private static final JvmtiApi API = WORK.api;

    private AgentMemoryMain() {
    }

    public static void main(String[] args) throws Exception {
        int warmUp = Integer.parseInt(args[0]);
        int perBatch = Integer.parseInt(args[1]);
        int batches = Integer.parseInt(args[2]);
        StormTarget.keep(KEPT);
        int round = 0;
        for (int stage = 0; stage <= batches; stage++) {
            for (int i = 0; i < (stage == 0 ? warmUp : perBatch); i++) {
                round(round++);
            }
            measure(stage == 0 ? "warm" : "batch" + stage, args[3]);
        }
        System.out.println(WORK.verdict("hits", "steps", "spinnerStops", "listed", "fieldEvents", "exceptionEvents"));
        API.setActive(false);
    }

    private static void measure(String stage, String reports) {
        long[] heap = MemoryProbe.agentHeap();
        System.out.println(heap != null ? "heap " + stage + " " + heap[0] + " " + heap[1] + " " + heap[2]
                : "leaks " + stage + " " + MemoryProbe.leakCheck(reports + "-" + stage));
    }

    private static void round(int round) throws Exception {
        WORK.registerHooks(AgentMemoryMain::stopped);
        BreakpointLocation hit = BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0);
        BreakpointLocation inner = BreakpointLocation.forMethod(StormTarget.class.getMethod("inner", int.class), 0);
        Field watched = StormTarget.class.getField("watched");
        API.setBreakpoint(hit);
        API.setBreakpoint(inner);
        API.setFieldAccessWatch(StormTarget.class, watched);
        API.setFieldModificationWatch(StormTarget.class, watched);
        // Breakpoints, steps, watched fields and exceptions thrown and caught.
        Thread worker = ThreadKind.ranToEnd("memory-worker-" + round, () -> WORK.hit(6, () -> false));
        WORK.checkAccounts(List.of(worker));
        // A thread suspended from outside, looked at, let go, and let go again with a step.
        WORK.startSpinner("memory-spinner-" + round);
        WORK.suspendAndLook(StepType.CONTINUE);
        WORK.suspendAndLook(StepType.STEP_OVER);
        WORK.stopSpinner();
        API.clearBreakpoint(hit);
        API.clearBreakpoint(inner);
        API.clearFieldAccessWatch(StormTarget.class, watched);
        API.clearFieldModificationWatch(StormTarget.class, watched);
        walkTheHeapEveryWay();
        lookUpAndBeRefused();
        WORK.requestDump();
        Workload.setHooks(API, null);
    }

    /** The stopped worker looked at. */
    private static int stopped(BreakpointLocation location, ThreadContext context) {
        WORK.lookAt(context.getThread(), context.getFrameCount());
        return WORK.answer(location, context);
    }

    /**
     * Beside the exact counts: a walk to a file and one for no such class. Walks cut short by their
     * time limit are HeapProbeTest's, whose sanitized run finds what they leak.
     */
    private static void walkTheHeapEveryWay() throws Exception {
        WORK.checkHeap(StormTarget.Marker.class, KEPT, 0);
        Path file = Files.createTempFile("memory-histogram", ".csv");
        API.heapHistogramToFile(file.toString(), 0);
        Files.delete(file);
        API.gcRoots((GCRootsCallback) root -> { }, "Lno/such/Clazz;", 0, 5);
    }

    /** Lookups, and calls that fail: refused ones and a heap walk whose callback throws. */
    private static void lookUpAndBeRefused() throws InterruptedException {
        API.listThreads((ThreadCallback) thread -> WORK.count("listed"));
        API.listClasses((ClassCallback) clazz -> WORK.count("listed"));
        API.getLineNumbersV2(StormTarget.class, "inner(I)I", (LineNumberCallback) (location, line) -> WORK.count("listed"));
        API.getSourceFileName(StormTarget.class);
        API.getSourceDebugExtension(StormTarget.class);
        Thread ended = ThreadKind.ranToEnd("memory-ended", () -> { });
        Runnable[] failing = {
            () -> API.setBreakpoint(new BreakpointLocation(StormTarget.class, "noSuchMethod()V", 0)),
            () -> API.resumeThread(Thread.currentThread(), StepType.CONTINUE),
            () -> API.listStack(null, 1, (FrameCallback) location -> { }),
            () -> API.listVariables(Thread.currentThread(), 1, 0, new Object()),
            () -> API.heapHistogram(null, 0),
            // The callback's exception comes back to the caller, the walk given up.
            () -> API.gcRoots((GCRootsCallback) root -> {
                throw new IllegalStateException("callback failure");
            }, StormTarget.Marker.class.descriptorString(), 0, 2),
        };
        for (Runnable call : failing) {
            try {
                call.run();
                WORK.fail("a call did not fail");
            } catch (IllegalArgumentException | IllegalStateException | JVMTIException expected) {
                // What a failed call raises; its arguments are given back like any others.
            }
        }
        if (API.setEventNotificationMode(ended, JvmtiEvent.BREAKPOINT, true)) {
            WORK.fail("events switched on for an ended thread");
        }
    }
}
