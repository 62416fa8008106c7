package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.ClassPrepareHook;
import com.brantide.kelvane.plugin.jvmti.api.ExceptionHook;
import com.brantide.kelvane.plugin.jvmti.api.FieldHook;
import com.brantide.kelvane.plugin.jvmti.api.FileLoadHook;
import com.brantide.kelvane.plugin.jvmti.api.FrameCallback;
import com.brantide.kelvane.plugin.jvmti.api.GCRootsCallback;
import com.brantide.kelvane.plugin.jvmti.api.HistogramCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.MonitorCallback;
import com.brantide.kelvane.plugin.jvmti.api.SteppingAbortedHook;
import com.brantide.kelvane.plugin.jvmti.api.SuspendCallback;
import com.brantide.kelvane.plugin.jvmti.api.ThreadHook;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import java.lang.management.ManagementFactory;
import java.lang.reflect.Method;
import java.lang.reflect.Proxy;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentSkipListMap;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;
import java.util.concurrent.locks.LockSupport;
import javax.management.JMException;
import javax.management.ObjectName;

/**
 * What the reliability programs (the storm, the agent-memory rounds, shutdown under load, the soak's
 * web application) do with the agent, written once: hooks that count every event, a thread
 * suspended and looked at, heap walks that must count exactly what the program keeps alive, data
 * dumps. What went wrong is kept as failures, and the verdict gives the figures ("{name=value, ...}")
 * with "OK" or "FAILED". The soak copies this class into its web application, so it uses nothing but
 * the managed layer and the JDK.
 */
public final class Workload {
    /** The events, besides breakpoints, that every hitting thread switches on for itself. */
    public static final int[] WATCHED_EVENTS = {JvmtiEvent.FIELD_ACCESS, JvmtiEvent.FIELD_MODIFICATION,
        JvmtiEvent.EXCEPTION, JvmtiEvent.EXCEPTION_CATCH};
    /** Hits are answered with these in turn, and the steps after a hit with these until the third. */
    private static final int[] HIT_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.CONTINUE,
        StepType.STEP_OUT, StepType.NOOP, StepType.STEP_OVER};
    private static final int[] STEP_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.STEP_OUT};

    public final JvmtiApi api;
    /** Each hook type's method is found by name, so one object serves as all of them. */
    private static final Class<?>[] HOOK_TYPES = {BreakpointHook.class, ThreadHook.class, ExceptionHook.class,
        FieldHook.class, SteppingAbortedHook.class, ClassPrepareHook.class, FileLoadHook.class};

    /** Calls of the thread hook by thread: a thread's start and end make 2. */
    private final Map<Thread, Integer> threadHookCalls = new ConcurrentHashMap<>();
    private final Map<String, AtomicLong> figures = new ConcurrentSkipListMap<>();
    private final List<String> failures = new ArrayList<>();
    /** Calls of StormTarget.hit less the hits that reached the hook, by thread: all 0 in the end. */
    private final Map<Thread, AtomicLong> unmatchedCalls = new ConcurrentHashMap<>();
    private final ThreadLocal<int[]> stepsInSequence = ThreadLocal.withInitial(() -> new int[1]);
    private volatile BreakpointHook breakpoints;
    /** The thread in StormTarget.spin that {@link #suspendAndLook} suspends: its stops count as spinnerStops. */
    private volatile Thread spinner;

    public Workload(JvmtiApi api) {
        this.api = api;
    }

    /**
     * A workload on the library, switched on, for a child JVM's program. A failure on any thread
     * ends the VM with status 1, as the program's other threads may never end by themselves.
     * StormTarget's code has run once, before any breakpoint or watch is set in it.
     */
    public static Workload activated() {
        Thread.setDefaultUncaughtExceptionHandler((thread, failure) -> {
            failure.printStackTrace();
            Runtime.getRuntime().halt(1);
        });
        Workload work = new Workload(new JvmtiApi());
        work.api.registerClasses();
        if (!work.api.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        StormTarget.hit(0);
        StormTarget.throwAndCatch(0);
        return work;
    }

    public long count(String figure) {
        return figures.computeIfAbsent(figure, name -> new AtomicLong()).incrementAndGet();
    }

    public long figure(String name) {
        return figures.getOrDefault(name, new AtomicLong()).get();
    }

    /**
     * The figures on one line, then "OK", or "FAILED" with what went wrong; a `required` figure
     * still 0 went wrong too: the work it counts never reached the agent's hooks or callbacks.
     */
    public String verdict(String... required) {
        for (String name : required) {
            if (figure(name) == 0) {
                fail("nothing of " + name);
            }
        }
        synchronized (failures) {
            return figures + "\n" + (failures.isEmpty() ? "OK" : "FAILED " + failures);
        }
    }

    /** Keeps the first twenty failures: past those, more say nothing new. */
    public void fail(String failure) {
        synchronized (failures) {
            if (failures.size() < 20) {
                failures.add(failure);
            }
        }
    }

    /**
     * Registers hooks for every kind of event, a new object each time, so that each call really
     * replaces the agent's references; breakpoints and steps go to the given hook, see {@link #onEvent}.
     */
    public void registerHooks(BreakpointHook breakpoints) {
        this.breakpoints = breakpoints;
        setHooks(api, Proxy.newProxyInstance(Workload.class.getClassLoader(), HOOK_TYPES, this::onEvent));
    }

    /** The object as every hook of the library; null drops them all. */
    public static void setHooks(JvmtiApi api, Object hooks) {
        api.registerBreakpointHook(hooks);
        api.registerSteppingAbortedHook(hooks);
        api.registerThreadHook(hooks);
        api.registerExceptionHook(hooks);
        api.registerFieldHook(hooks);
        api.registerClassPrepareHook(hooks);
        api.registerFileLoadHook(hooks);
    }

    /** The stack, the locals of every frame and the owned monitors of a thread stopped `height` frames deep. */
    public void lookAt(Thread thread, int height) {
        api.listStack(thread, height, (FrameCallback) location -> count("listed"));
        api.listVariables(thread, height, height, (VariableCallback) (name, value, signature) -> count("listed") > 0);
        api.listOwnedMonitors(thread, height, (MonitorCallback) (monitor, depth) -> count("listed"));
    }

    /**
     * Starts the spinner and returns it once it runs its loop: a thread suspended before it has a
     * frame stays suspended although the call fails (see SuspendRaceMain).
     */
    public Thread startSpinner(String name) {
        StormTarget.spinning = true;
        long turns = StormTarget.workTurns;
        spinner = new Thread(() -> StormTarget.spin(new Object()), name);
        spinner.start();
        while (StormTarget.workTurns == turns) {
            Thread.onSpinWait();
        }
        return spinner;
    }

    public void stopSpinner() throws InterruptedException {
        StormTarget.spinning = false;
        spinner.join();
    }

    /**
     * Suspends the spinner, looks at it, and resumes it with the command (CONTINUE when the
     * suspension found no frame to step from). After a step it waits until the step has stopped
     * and the loop turns again: a thread suspended while inside the agent's own event code and then
     * resumed with a command is SuspendRaceMain's subject.
     */
    public void suspendAndLook(int command) {
        Thread target = spinner;
        boolean[] framed = {false};
        api.suspendThread(target, (SuspendCallback) (location, context) -> {
            framed[0] = location != null;
            if (context.getThread() != target) {
                fail("suspend callback for " + context.getThread() + ", not " + target);
            }
        });
        lookAt(target, api.getStackDepth(target));
        api.listContendedMonitor(target, (MonitorCallback) (monitor, depth) -> count("listed"));
        long stops = figure("spinnerStops");
        api.resumeThread(target, framed[0] ? command : StepType.CONTINUE);
        if (framed[0] && command != StepType.CONTINUE && command != StepType.NOOP) {
            awaitSpinner(stops);
        }
    }

    /** Until the spinner's step has stopped and its loop has turned twice since, or five seconds. */
    private void awaitSpinner(long stopsBefore) {
        long deadline = System.nanoTime() + 5_000_000_000L;
        while (figure("spinnerStops") == stopsBefore && StormTarget.spinning && System.nanoTime() < deadline) {
            LockSupport.parkNanos(100_000);
        }
        long turns = StormTarget.workTurns;
        while (StormTarget.workTurns < turns + 2 && StormTarget.spinning && System.nanoTime() < deadline) {
            LockSupport.parkNanos(100_000);
        }
    }

    /** A histogram and a GC-root search, each of which must count exactly `expected` instances of the class. */
    public void checkHeap(Class<?> kept, long expected, long timeLimitMillis) {
        long[] counted = {-1};
        api.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            int at = List.of(names).indexOf(kept.getName());
            counted[0] = at < 0 ? 0 : counts[at];
        }, timeLimitMillis);
        GCPathEntry[] root = {null};
        api.gcRoots((GCRootsCallback) entry -> root[0] = entry, kept.descriptorString(), timeLimitMillis, 3);
        long found = root[0] == null ? 0 : root[0].getCount();
        if (counted[0] != expected || found != expected) {
            fail("heap walks counted " + counted[0] + " and " + found + " of " + kept.getSimpleName() + ", not " + expected);
        }
    }

    /** A data dump, asked for as jcmd JVMTI.data_dump asks for it. */
    public void requestDump() {
        try {
            ManagementFactory.getPlatformMBeanServer().invoke(new ObjectName("com.sun.management:type=DiagnosticCommand"),
                    "jvmtiDataDump", new Object[0], new String[0]);
            count("dumps");
        } catch (JMException e) {
            fail("data dump: " + e);
        }
    }

    /**
     * Switches breakpoint and watched events on for the calling thread and calls StormTarget.hit
     * `times` times or until `stop`, throwing and catching at every 16th call.
     */
    public void hit(int times, BooleanSupplier stop) {
        Thread self = Thread.currentThread();
        switchBreakpoints(self, true);
        for (int event : WATCHED_EVENTS) {
            api.setEventNotificationMode(self, event, true);
        }
        AtomicLong mine = unmatchedCalls.computeIfAbsent(self, t -> new AtomicLong());
        for (int i = 0; i < times && !stop.getAsBoolean(); i++) {
            mine.incrementAndGet();
            StormTarget.hit(i);
            if (i % 16 == 0) {
                StormTarget.throwAndCatch(i);
            }
        }
    }

    /** Switches breakpoint events for the thread, or for the whole VM with null; a refusal is a failure. */
    public void switchBreakpoints(Thread thread, boolean on) {
        if (!api.setEventNotificationMode(thread, JvmtiEvent.BREAKPOINT, on)) {
            fail("breakpoints not switched " + (on ? "on" : "off") + " for " + thread);
        }
    }

    /** The answer to a stop of a hitting thread, which must be told its own thread: see HIT_ANSWERS. */
    public int answer(BreakpointLocation location, ThreadContext context) {
        Thread thread = Thread.currentThread();
        if (context.getThread() != thread) {
            fail("hook called on " + thread.getName() + " for " + context.getThread());
        }
        int[] sequence = stepsInSequence.get();
        if (location.getMemberClass() == StormTarget.class && location.getLocation() == 0
                && "hit".equals(location.getMethodName())) {
            unmatchedCalls.computeIfAbsent(thread, t -> new AtomicLong()).decrementAndGet();
            sequence[0] = 0;
            return HIT_ANSWERS[(int) (count("hits") % HIT_ANSWERS.length)];
        }
        count("steps");
        return ++sequence[0] >= 3 ? StepType.CONTINUE : STEP_ANSWERS[sequence[0] % STEP_ANSWERS.length];
    }

    /** Every hitting thread's hits equal its calls; each thread of `created` reached the thread hook at its start and end. */
    public void checkAccounts(Collection<Thread> created) {
        unmatchedCalls.forEach((thread, calls) -> {
            if (calls.get() != 0) {
                fail(thread.getName() + ": " + calls + " calls more than hits");
            }
        });
        long amiss = created.stream().filter(t -> threadHookCalls.getOrDefault(t, 0) != 2).count();
        if (amiss > 0) {
            fail("the thread hook did not hear exactly the start and end of " + amiss + " threads");
        }
    }

    private int counted(String figure) {
        count(figure);
        return StepType.CONTINUE;
    }

    /**
     * The hooks: they count every event but class events, which run while a class is being
     * prepared or loaded, where counting could load a class and come back in. A thread named
     * "parked-in-" and a hook method's name stays in that hook, for exits in the middle of one.
     */
    private Object onEvent(Object hooks, Method method, Object[] args) {
        String hook = method.getName();
        if (hook.equals("prepareClass") || hook.equals("redefinedClass")) {
            return null;
        }
        if (Thread.currentThread().getName().equals("parked-in-" + hook)) {
            count("parked");
            LockSupport.parkNanos(60_000_000_000L);
        }
        return switch (hook) {
            case "breakpointHit" -> ((ThreadContext) args[1]).getThread() == spinner ? counted("spinnerStops")
                    : breakpoints.breakpointHit((BreakpointLocation) args[0], (ThreadContext) args[1]);
            case "threadStart", "threadEnd" -> threadHookCalls.merge((Thread) args[0], 1, Integer::sum);
            case "steppingAborted" -> count("stepAborts");
            case "exceptionThrown", "exceptionCatch" -> counted("exceptionEvents");
            // Every other field write asks to hear when the write is done.
            case "fieldModified" -> count("fieldEvents") % 2 == 0 ? StepType.FIELD_MODIFICATION_COMPLETE : StepType.CONTINUE;
            case "fieldAccess", "fieldModifiedComplete" -> counted("fieldEvents");
            default -> throw new UnsupportedOperationException(hook);
        };
    }
}
