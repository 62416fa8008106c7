package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.FrameCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.locks.LockSupport;
import java.util.function.Supplier;
import java.util.stream.Stream;

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
 *
 * <p>With kv.test.storm.exit.ms, it exits mid-storm instead: see {@link #exitMidStorm}.
 */
public final class StormMain {
    private static final int HITTERS = 8;
    private static final int KEPT = 4321;
    private static final int[] RESUME_ANSWERS = {StepType.STEP_OVER, StepType.CONTINUE, StepType.NOOP};

    private final Workload work = Workload.activated();
    private final JvmtiApi api = work.api;
    private volatile boolean stop;
    private final Set<Thread> created = ConcurrentHashMap.newKeySet();
    /** The short-lived thread started last, maybe ended already. */
    private volatile Thread newest;
    private final List<Thread> hitters = new ArrayList<>();
    private Thread spinner;
    /** Milliseconds from everything in place to System.exit(0), or -1 for a storm until standard input closes. */
    private final long exitDelay = Long.getLong("kv.test.storm.exit.ms", -1);
    /** Objects that make the heap walks long, so that the exit finds one under way. */
    private final List<int[]> ballast = Stream.generate(() -> new int[1]).limit(exitDelay < 0 ? 0 : 1_000_000).toList();

    public static void main(String[] args) throws Exception {
        new StormMain().run();
    }

    private void run() throws Exception {
        StormTarget.keep(KEPT);
        api.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        Field watched = StormTarget.class.getField("watched");
        api.setFieldAccessWatch(StormTarget.class, watched);
        api.setFieldModificationWatch(StormTarget.class, watched);
        work.registerHooks(this::breakpointHit);

        for (int i = 0; i < HITTERS; i++) {
            hitters.add(new Thread(() -> work.hit(Integer.MAX_VALUE, () -> stop), "storm-hitter-" + i));
        }
        List<Thread> drivers = new ArrayList<>(hitters);
        drivers.add(new Thread(this::registerLoop, "storm-registerer"));
        drivers.add(new Thread(this::spawnLoop, "storm-spawner"));
        Supplier<Thread> builder = ThreadKind.maker(() -> { });
        // Threads built and dropped: the heap walks meet threads under construction.
        drivers.add(new Thread(() -> { while (!stop) builder.get(); }, "storm-builder"));
        drivers.add(new Thread(this::switchLoop, "storm-switcher"));
        drivers.add(new Thread(this::suspendLoop, "storm-suspender"));
        drivers.add(new Thread(this::inspectLoop, "storm-inspector"));
        spinner = work.startSpinner("storm-spinner");
        drivers.forEach(Thread::start);
        System.out.println("STARTED");
        if (exitDelay >= 0) {
            exitMidStorm();
        }
        System.in.readAllBytes();

        stop = true;
        drivers.addAll(created);
        // The spinner ends last: the suspender may be looking at it until the suspender ends.
        drivers.add(spinner);
        for (Thread thread : drivers) {
            if (thread == spinner) {
                StormTarget.spinning = false;
            }
            // One still running after 30 s is stuck: the failure ends the program.
            thread.join(30_000);
            if (thread.isAlive()) {
                throw new IllegalStateException("STUCK " + thread.getName() + " at " + Arrays.toString(thread.getStackTrace()));
            }
        }
        work.checkHeap(StormTarget.Marker.class, KEPT, 0);
        work.checkAccounts(created);
        System.out.println(work.verdict("hits", "steps", "spinnerStops", "listed", "switches", "exceptionEvents",
                "fieldEvents", "dumps"));
        Workload.setHooks(api, null);
        api.setActive(false);
    }

    /**
     * Calls System.exit(0) in the middle of everything, once one thread sleeps inside the
     * breakpoint hook and another inside the thread-start hook, the hitters have stepped, a heap
     * walk has run and the spinner is suspended for good. The drivers never end by themselves, so
     * no other way out of the program ends with status 0.
     */
    private void exitMidStorm() throws InterruptedException {
        new Thread(() -> work.hit(Integer.MAX_VALUE, () -> false), "parked-in-breakpointHit").start();
        new Thread(() -> { }, "parked-in-threadStart").start();
        while (work.figure("parked") < 2 || work.figure("steps") == 0 || work.figure("dumps") == 0
                || work.figure("suspendedForGood") == 0) {
            Thread.sleep(1);
        }
        System.out.println("IN PLACE");
        Thread.sleep(exitDelay);
        System.exit(0);
    }

    private int breakpointHit(BreakpointLocation location, ThreadContext context) {
        // Only the stack here: locals and monitors wait for the VM, which the switcher keeps busy.
        if (work.figure("steps") % 16 == 0) {
            api.listStack(context.getThread(), context.getFrameCount(), (FrameCallback) frame -> work.count("listed"));
        }
        return work.answer(location, context);
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
                    n % 2 == 0 ? () -> work.hit(1, () -> stop) : () -> LockSupport.parkNanos(300_000));
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
     * SuspendRaceMain's subject.
     */
    private void switchLoop() {
        int[] events = Workload.WATCHED_EVENTS;
        for (int i = 0; !stop; i++) {
            Thread target = i % 2 == 0 ? hitters.get(i / 2 % hitters.size()) : newest;
            if (target != null && api.setEventNotificationMode(target, events[i / 16 % events.length], (i / 8 & 1) == 0)) {
                work.count("switches");
            }
        }
    }
    /** The spinner suspended, looked at and resumed, a third of the times with a step; before an exit, at last suspended for good. */
    private void suspendLoop() {
        for (int i = 0; !stop; i++) {
            if (exitDelay >= 0 && i == 3) {
                api.suspendThread(spinner, null);
                work.count("suspendedForGood");
                return;
            }
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
