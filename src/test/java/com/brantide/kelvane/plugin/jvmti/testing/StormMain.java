package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.FrameCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;

/**
 * A child JVM's program: everything the agent does, at once, until its standard input closes.
 * Eight threads hit a breakpoint and step (the hook answers with every command in turn); another
 * registers every hook anew over and over; short-lived threads (virtual ones with
 * kv.test.thread.kind=virtual) start and end, half of them hitting the breakpoint too; a switcher
 * turns events of other threads on and off; a spinning thread is suspended, looked at and resumed,
 * now and then with a step; histograms, GC-root searches and data dumps run (and the test adds its own
 * dumps with jcmd).
 *
 * <p>Prints "STARTED" once everything runs, then, after the storm, a line of figures and "OK" when
 * every thread's hits equal its calls, every thread start and end reached the thread hook, every
 * heap walk counted the kept objects exactly and every kind of work reached the agent's hooks and
 * callbacks; otherwise "FAILED" with the reasons.
 */
public final class StormMain {
    private static final int HITTERS = 8;
    private static final int KEPT = 4321;
    private static final int[] HIT_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.CONTINUE,
        StepType.STEP_OUT, StepType.NOOP, StepType.STEP_OVER};
    private static final int[] STEP_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.STEP_OUT};
    private static final int[] RESUME_ANSWERS = {StepType.STEP_OVER, StepType.CONTINUE, StepType.NOOP};
    /** Never breakpoints, which every hit needs. */
    private static final int[] SWITCHED = {JvmtiEvent.FIELD_ACCESS, JvmtiEvent.FIELD_MODIFICATION,
        JvmtiEvent.EXCEPTION, JvmtiEvent.EXCEPTION_CATCH};

    private final Workload work = Workload.activated();
    private final JvmtiApi api = work.api;
    private volatile boolean stop;
    /** Calls of the breakpointed method less the hits that reached the hook, by thread: all 0 in the end. */
    private final Map<Thread, AtomicLong> unmatchedCalls = new ConcurrentHashMap<>();
    private final Set<Thread> created = ConcurrentHashMap.newKeySet();
    /** The short-lived thread started last, maybe ended already. */
    private volatile Thread newest;
    private final List<Thread> hitters = new ArrayList<>();
    private final ThreadLocal<int[]> stepsInSequence = ThreadLocal.withInitial(() -> new int[1]);

    private StormMain() {
    }

    public static void main(String[] args) {
        Workload.runOrHalt(() -> new StormMain().run());
    }

    private void run() throws Exception {
        StormTarget.keep(KEPT);
        StormTarget.hit(0);
        StormTarget.throwAndCatch(0);
        work.checkHeap(StormTarget.Marker.class, KEPT, 0);
        BreakpointLocation breakpoint = BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0);
        api.setBreakpoint(breakpoint);
        Field watched = StormTarget.class.getField("watched");
        api.setFieldAccessWatch(StormTarget.class, watched);
        api.setFieldModificationWatch(StormTarget.class, watched);
        work.registerHooks(this::breakpointHit);

        for (int i = 0; i < HITTERS; i++) {
            hitters.add(new Thread(this::hitLoop, "storm-hitter-" + i));
        }
        List<Thread> drivers = new ArrayList<>(hitters);
        drivers.add(new Thread(this::registerLoop, "storm-registerer"));
        drivers.add(new Thread(this::spawnLoop, "storm-spawner"));
        drivers.add(new Thread(this::switchLoop, "storm-switcher"));
        drivers.add(new Thread(this::suspendLoop, "storm-suspender"));
        drivers.add(new Thread(this::inspectLoop, "storm-inspector"));
        Thread spinner = work.startSpinner("storm-spinner");
        drivers.forEach(Thread::start);
        drivers.add(spinner);
        System.out.println("STARTED");
        System.in.readAllBytes();

        stop = true;
        StormTarget.spinning = false;
        drivers.addAll(created);
        for (Thread thread : drivers) {
            joinOrHalt(thread);
        }
        api.clearBreakpoint(breakpoint);
        api.clearFieldAccessWatch(StormTarget.class, watched);
        api.clearFieldModificationWatch(StormTarget.class, watched);
        checkTheAccounts();
        work.clearHooks();
        api.setActive(false);
    }

    private void checkTheAccounts() {
        // No class events into hooks during the last heap walks: on JDK 17, checked JNI misreads the
        // local references of a native that holds many while a class-prepare event runs on its thread.
        api.registerClassPrepareHook(null);
        api.registerFileLoadHook(null);
        work.checkHeap(StormTarget.Marker.class, KEPT, 0);
        unmatchedCalls.forEach((thread, calls) -> {
            if (calls.get() != 0) {
                work.fail(thread.getName() + ": " + calls + " calls more than hits");
            }
        });
        long missedStarts = created.stream().filter(t -> !work.started.contains(t)).count();
        long missedEnds = created.stream().filter(t -> !work.ended.contains(t)).count();
        if (missedStarts + missedEnds > 0) {
            work.fail("thread hook missed " + missedStarts + " starts and " + missedEnds + " ends");
        }
        System.out.println(work.verdict("hits", "steps", "spinnerStops", "listed", "switches", "exceptionEvents",
                "fieldEvents", "dumps"));
    }

    /** Joins the thread; one still running after 30 s is stuck, and ends the program. */
    private static void joinOrHalt(Thread thread) throws InterruptedException {
        thread.join(30_000);
        if (thread.isAlive()) {
            throw new IllegalStateException("STUCK " + thread.getName() + " at " + Arrays.toString(thread.getStackTrace()));
        }
    }

    private int breakpointHit(BreakpointLocation location, ThreadContext context) {
        Thread thread = Thread.currentThread();
        if (context.getThread() != thread) {
            work.fail("hook called on " + thread.getName() + " for " + context.getThread());
        }
        int[] sequence = stepsInSequence.get();
        if (location.getMemberClass() == StormTarget.class && location.getLocation() == 0
                && "hit".equals(location.getMethodName())) {
            unmatchedCalls.computeIfAbsent(thread, t -> new AtomicLong()).decrementAndGet();
            sequence[0] = 0;
            return HIT_ANSWERS[(int) (work.count("hits") % HIT_ANSWERS.length)];
        }
        // Only the stack here: locals and monitors wait for the VM, which the switcher keeps busy.
        if (work.count("steps") % 16 == 0) {
            api.listStack(thread, context.getFrameCount(), (FrameCallback) frame -> work.count("listed"));
        }
        return ++sequence[0] >= 3 ? StepType.CONTINUE : STEP_ANSWERS[sequence[0] % STEP_ANSWERS.length];
    }

    /** Switches breakpoints on for the calling thread and calls the breakpointed method `times` times. */
    private void hit(int times) {
        Thread self = Thread.currentThread();
        if (!api.setEventNotificationMode(self, JvmtiEvent.BREAKPOINT, true)) {
            work.fail("breakpoints not switched on for " + self.getName());
            return;
        }
        AtomicLong mine = unmatchedCalls.computeIfAbsent(self, t -> new AtomicLong());
        for (int i = 0; i < times && !stop; i++) {
            mine.incrementAndGet();
            StormTarget.hit(i);
            if (i % 16 == 0) {
                StormTarget.throwAndCatch(i);
            }
        }
    }

    private void hitLoop() {
        hit(Integer.MAX_VALUE);
    }

    private void registerLoop() {
        for (int i = 1; !stop; i++) {
            work.registerHooks(this::breakpointHit);
            // Thousands of registrations a second, while leaving the other threads their share of
            // the processors.
            if (i % 64 == 0) {
                LockSupport.parkNanos(100_000);
            }
        }
    }

    /** Short-lived threads: half hit the breakpoint once, half idle for the switcher to play with. */
    private void spawnLoop() {
        for (int n = 0; !stop; n++) {
            Thread thread = ThreadKind.unstarted("storm-short-" + n,
                    n % 2 == 0 ? () -> hit(1) : () -> LockSupport.parkNanos(300_000));
            created.add(thread);
            thread.start();
            newest = thread;
            if (n % 8 == 0) {
                LockSupport.parkNanos(1_000_000);
            }
        }
    }

    /**
     * Field and exception events of other threads switched on and off: of the hitters, and of the
     * newest short-lived thread, which may be ending. The spinner's events are left to its own
     * steps: it is suspended while inside them now and then, and what that may do is
     * SuspendRaceTest's subject.
     */
    private void switchLoop() {
        for (int i = 0; !stop; i++) {
            Thread target = i % 2 == 0 ? hitters.get(i / 2 % hitters.size()) : newest;
            if (target != null && api.setEventNotificationMode(target, SWITCHED[i / 16 % SWITCHED.length], (i / 8 & 1) == 0)) {
                work.count("switches");
            }
        }
    }

    /** The spinner suspended, looked at and resumed, a third of the times with a step. */
    private void suspendLoop() {
        for (int i = 0; !stop; i++) {
            work.suspendAndLook(RESUME_ANSWERS[i % RESUME_ANSWERS.length]);
            LockSupport.parkNanos(500_000);
        }
    }

    /** Heap walks that must count the kept markers exactly, a data dump every other turn, now and then a GC. */
    private void inspectLoop() {
        for (int i = 0; !stop; i++) {
            work.checkHeap(StormTarget.Marker.class, KEPT, 0);
            if (i % 2 == 0) {
                work.requestDump();
            }
            if (i % 10 == 9) {
                api.forceGC();
            }
            LockSupport.parkNanos(20_000_000);
        }
    }
}
