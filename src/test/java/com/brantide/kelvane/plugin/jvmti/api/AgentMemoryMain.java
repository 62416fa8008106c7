package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.HeapTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import java.lang.management.ManagementFactory;
import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import javax.management.ObjectName;

/**
 * A child JVM's program for the agent's own memory (probe agent). It runs every feature of the
 * agent round after round: hooks replaced, breakpoints set and cleared, steps of every kind, locals,
 * stacks and monitors of stopped and of suspended threads, field watches, exceptions, threads
 * starting and ending, histograms, GC-root searches, class and line lookups, refused calls and data
 * dumps. After the warm-up rounds and after each batch of rounds it prints the agent's heap,
 * "heap STAGE BYTES BLOCKS ALLOCATIONS", or, in the sanitized build, runs LeakSanitizer and prints
 * "leaks STAGE RESULT". Then "rounds=... stops=..." with what the rounds did.
 *
 * <p>Arguments: warm-up rounds, rounds per batch, batches, path prefix for leak reports.
 */
public final class AgentMemoryMain {
    private static final int[] SCRIPT = {StepType.STEP_OVER, StepType.STEP_IN, StepType.STEP_OUT, StepType.STEP_OVER,
        StepType.CONTINUE};

    private static final JvmtiApi API = new JvmtiApi();
    private static final AtomicLong STOPS = new AtomicLong();
    private static final AtomicLong SPINNER_STOPS = new AtomicLong();
    private static final AtomicLong LISTED = new AtomicLong();
    private static final AtomicLong FIELD_EVENTS = new AtomicLong();
    private static final AtomicLong EXCEPTION_EVENTS = new AtomicLong();
    private static final AtomicLong THREAD_EVENTS = new AtomicLong();
    private static final AtomicLong REFUSED = new AtomicLong();
    private static final AtomicLong HEAP_WALKS = new AtomicLong();
    private static final AtomicInteger SCRIPT_INDEX = new AtomicInteger();
    private static final Object SPIN_LOCK = new Object();
    private static volatile boolean spinning;
    private static volatile long spinTurns;
    private static volatile Thread worker;
    private static volatile Thread spinner;

    private AgentMemoryMain() {
    }

    public static void main(String[] args) {
        try {
            run(args);
        } catch (Throwable t) {
            // A thread left suspended would keep the VM alive: end it with the failure.
            t.printStackTrace();
            Runtime.getRuntime().halt(1);
        }
    }

    private static void run(String[] args) throws Exception {
        int warmUp = Integer.parseInt(args[0]);
        int perBatch = Integer.parseInt(args[1]);
        int batches = Integer.parseInt(args[2]);
        String reports = args[3];
        API.registerClasses();
        if (!API.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        HeapTarget.buildList(100);
        // Prepared now rather than inside a native: on JDK 17, checked JNI misreads the local
        // references of a native that holds many while a class-prepare event runs on its thread.
        new GCPathEntry(0, 0, null, null, 0, 0).hashCode();
        new TimeoutException().hashCode();
        int round = 0;
        for (; round < warmUp; round++) {
            round(round);
        }
        measure("warm", reports);
        for (int batch = 1; batch <= batches; batch++) {
            for (int i = 0; i < perBatch; i++, round++) {
                round(round);
            }
            measure("batch" + batch, reports);
        }
        System.out.println("rounds=" + round + " stops=" + STOPS + " spinnerStops=" + SPINNER_STOPS + " listed=" + LISTED
                + " fieldEvents=" + FIELD_EVENTS + " exceptionEvents=" + EXCEPTION_EVENTS + " threadEvents="
                + THREAD_EVENTS + " refused=" + REFUSED + " heapWalks=" + HEAP_WALKS);
        API.setActive(false);
    }

    private static void measure(String stage, String reports) {
        long[] heap = MemoryProbe.agentHeap();
        if (heap != null) {
            System.out.println("heap " + stage + " " + heap[0] + " " + heap[1] + " " + heap[2]);
        } else {
            System.out.println("leaks " + stage + " " + MemoryProbe.leakCheck(reports + "-" + stage));
        }
    }

    private static void round(int round) throws Exception {
        registerHooks();
        BreakpointLocation callee = Stops.breakpointAt(API, StepTarget.class, "callee-first");
        BreakpointLocation caller = Stops.breakpointAt(API, StepTarget.class, "caller-a");
        API.setBreakpoint(callee);
        API.setBreakpoint(caller);
        Field value = Target.class.getField("value");
        API.setFieldAccessWatch(Target.class, value);
        API.setFieldModificationWatch(Target.class, value);

        Thread stepping = new Thread(AgentMemoryMain::work, "memory-worker-" + round);
        worker = stepping;
        stepping.start();
        stepping.join();
        suspendAndLook(round);

        API.clearBreakpoint(callee);
        API.clearBreakpoint(caller);
        API.clearFieldAccessWatch(Target.class, value);
        API.clearFieldModificationWatch(Target.class, value);
        walkTheHeap();
        lookUp();
        refusedCalls();
        ManagementFactory.getPlatformMBeanServer().invoke(new ObjectName("com.sun.management:type=DiagnosticCommand"),
                "jvmtiDataDump", new Object[0], new String[0]);
        clearHooks();
    }

    private static void registerHooks() {
        // New objects every round, so that each registration really replaces a reference.
        API.registerBreakpointHook(new Stopper());
        API.registerSteppingAbortedHook((SteppingAbortedHook) thread -> STOPS.incrementAndGet());
        API.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                THREAD_EVENTS.incrementAndGet();
            }

            @Override
            public void threadEnd(Thread thread) {
                THREAD_EVENTS.incrementAndGet();
            }
        });
        API.registerExceptionHook(new ExceptionHook() {
            @Override
            public int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
                    BreakpointLocation catchLocation) {
                EXCEPTION_EVENTS.incrementAndGet();
                return StepType.CONTINUE;
            }

            @Override
            public int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception) {
                EXCEPTION_EVENTS.incrementAndGet();
                return StepType.CONTINUE;
            }
        });
        API.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                FIELD_EVENTS.incrementAndGet();
                return StepType.CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object newValue) {
                return FIELD_EVENTS.incrementAndGet() % 2 == 0 ? StepType.FIELD_MODIFICATION_COMPLETE : StepType.CONTINUE;
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                FIELD_EVENTS.incrementAndGet();
                return StepType.CONTINUE;
            }
        });
        API.registerClassPrepareHook((ClassPrepareHook) (thread, clazz) -> { });
    }

    private static void clearHooks() {
        API.registerBreakpointHook(null);
        API.registerSteppingAbortedHook(null);
        API.registerThreadHook(null);
        API.registerExceptionHook(null);
        API.registerFieldHook(null);
        API.registerClassPrepareHook(null);
    }

    /** The stepping worker: breakpoints, steps, watched fields and an exception thrown and caught. */
    private static void work() {
        Thread self = Thread.currentThread();
        for (int event : new int[] {JvmtiEvent.BREAKPOINT, JvmtiEvent.EXCEPTION, JvmtiEvent.EXCEPTION_CATCH,
            JvmtiEvent.FIELD_ACCESS, JvmtiEvent.FIELD_MODIFICATION}) {
            if (!API.setEventNotificationMode(self, event, true)) {
                throw new IllegalStateException("event " + event + " not switched on");
            }
        }
        long sum = 0;
        for (int k = 0; k < 6; k++) {
            sum += StepTarget.outer(k);
            sum += new Target(k).twice(2);
            try {
                throw new IllegalStateException("thrown " + k);
            } catch (IllegalStateException e) {
                sum += e.getMessage().length();
            }
        }
        API.setEventNotificationMode(self, JvmtiEvent.FIELD_ACCESS, false);
        if (sum == 42) {
            System.out.println("unlikely");
        }
    }

    /** A thread suspended from outside, looked at, let go, and let go again with a step. */
    private static void suspendAndLook(int round) throws Exception {
        spinning = true;
        Thread thread = new Thread(AgentMemoryMain::spin, "memory-spinner-" + round);
        spinner = thread;
        spinTurns = 0;
        thread.start();
        // Suspended only once it runs its loop: a thread suspended before its first frame stays
        // suspended although the call fails (see SuspendRaceTest).
        while (spinTurns == 0) {
            Thread.onSpinWait();
        }
        API.suspendThread(thread, (SuspendCallback) (location, context) -> LISTED.incrementAndGet());
        int depth = API.getStackDepth(thread);
        lookAt(thread, depth);
        API.listContendedMonitor(thread, (MonitorCallback) (monitor, at) -> LISTED.incrementAndGet());
        API.resumeThread(thread, StepType.CONTINUE);
        long before = SPINNER_STOPS.get();
        API.suspendThread(thread, null);
        API.resumeThread(thread, StepType.STEP_OVER);
        for (int waited = 0; SPINNER_STOPS.get() == before && waited < 10_000; waited++) {
            Thread.sleep(1);
        }
        spinning = false;
        thread.join();
    }

    private static void spin() {
        long turns = 0;
        synchronized (SPIN_LOCK) {
            while (spinning) {
                turns++;
                spinTurns = turns;
            }
        }
        if (turns == 42) {
            System.out.println("unlikely");
        }
    }

    private static void lookAt(Thread thread, int height) {
        API.listStack(thread, height, (FrameCallback) location -> LISTED.incrementAndGet());
        API.listVariables(thread, height, 1, (VariableCallback) (name, value, signature) -> {
            LISTED.incrementAndGet();
            return true;
        });
        API.listOwnedMonitors(thread, height, (MonitorCallback) (monitor, depth) -> LISTED.incrementAndGet());
    }

    private static void walkTheHeap() throws Exception {
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> HEAP_WALKS.incrementAndGet(), 0);
        try {
            API.heapHistogram((HistogramCallback) (names, counts, sizes) -> HEAP_WALKS.incrementAndGet(), 1);
        } catch (Exception e) {
            // The native raises the checked TimeoutException when the limit cut the walk short.
            if (!(e instanceof TimeoutException)) {
                throw e;
            }
            HEAP_WALKS.incrementAndGet();
        }
        Path file = Files.createTempFile("memory-histogram", ".csv");
        API.heapHistogramToFile(file.toString(), 0);
        Files.delete(file);
        String node = HeapTarget.Node.class.descriptorString();
        API.gcRoots((GCRootsCallback) root -> HEAP_WALKS.incrementAndGet(), node, 0, 5);
        try {
            API.gcRoots((GCRootsCallback) root -> {
                throw new IllegalStateException("callback failure");
            }, node, 0, 2);
        } catch (IllegalStateException e) {
            HEAP_WALKS.incrementAndGet();
        }
        API.gcRoots((GCRootsCallback) root -> HEAP_WALKS.incrementAndGet(), "Lno/such/Clazz;", 0, 5);
    }

    private static void lookUp() {
        List<Object> seen = new ArrayList<>();
        API.listThreads((ThreadCallback) seen::add);
        API.listClasses((ClassCallback) seen::add);
        API.getLineNumbersV2(Target.class, "twice(I)I", (LineNumberCallback) (location, line) -> seen.add(line));
        seen.add(API.getSourceFileName(Target.class));
        seen.add(API.getSourceDebugExtension(Target.class));
        LISTED.addAndGet(seen.size());
    }

    private static void refusedCalls() {
        Runnable[] calls = {
            () -> API.setBreakpoint(new BreakpointLocation(Target.class, "noSuchMethod()V", 0)),
            () -> API.resumeThread(Thread.currentThread(), StepType.CONTINUE),
            () -> API.listStack(null, 1, (FrameCallback) location -> { }),
            () -> API.listVariables(Thread.currentThread(), 1, 0, new Object()),
            () -> API.heapHistogram(null, 0),
        };
        for (Runnable call : calls) {
            try {
                call.run();
            } catch (IllegalArgumentException | JVMTIException e) {
                REFUSED.incrementAndGet();
            }
        }
        Thread ended = new Thread(() -> { }, "memory-ended");
        ended.start();
        try {
            ended.join();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        if (!API.setEventNotificationMode(ended, JvmtiEvent.BREAKPOINT, true)) {
            REFUSED.incrementAndGet();
        }
    }

    /** Answers the worker's stops from the script and looks at its frames; the spinner's stops continue. */
    private static final class Stopper implements BreakpointHook {
        @Override
        public int breakpointHit(BreakpointLocation location, ThreadContext context) {
            Thread thread = context.getThread();
            if (thread == spinner) {
                SPINNER_STOPS.incrementAndGet();
                return StepType.CONTINUE;
            }
            STOPS.incrementAndGet();
            lookAt(thread, context.getFrameCount());
            return thread == worker ? SCRIPT[SCRIPT_INDEX.getAndIncrement() % SCRIPT.length] : StepType.CONTINUE;
        }
    }
}
