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
import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentLinkedDeque;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * A child JVM's program: everything the agent does, at once, until its standard input closes.
 * Eight threads hit a breakpoint and step (the hook answers with every command in turn); another
 * re-registers every hook over and over; short-lived threads start and end, half of them hitting
 * the breakpoint too; a switcher turns events of other threads on and off; a worker is suspended,
 * looked at (stack, locals, monitors) and resumed, now and then with a step; histograms and GC-root
 * searches run; data dumps are requested (and the test adds its own with jcmd).
 *
 * <p>Prints "STARTED" once everything runs, then, after the storm, one line of figures and "OK"
 * when every hit and every thread start and end reached a hook and every histogram and search
 * counted the kept objects exactly; otherwise "FAILED" with the reasons.
 */
public final class StormMain {
    private static final int HITTERS = 8;
    private static final int KEPT = 4321;
    private static final int[] HIT_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.CONTINUE,
        StepType.STEP_OUT, StepType.NOOP, StepType.STEP_OVER};
    private static final int[] STEP_ANSWERS = {StepType.STEP_OVER, StepType.STEP_IN, StepType.STEP_OUT};
    private static final int[] RESUME_ANSWERS = {StepType.CONTINUE, StepType.NOOP, StepType.STEP_OVER};
    private static final int[] SWITCHED_ON_HITTERS = {JvmtiEvent.FIELD_ACCESS, JvmtiEvent.FIELD_MODIFICATION,
        JvmtiEvent.EXCEPTION, JvmtiEvent.EXCEPTION_CATCH};
    private static final int[] SWITCHED_ON_OTHERS = {JvmtiEvent.BREAKPOINT, JvmtiEvent.FIELD_ACCESS,
        JvmtiEvent.EXCEPTION, JvmtiEvent.FIELD_MODIFICATION};

    private final JvmtiApi api = new JvmtiApi();
    private final AtomicBoolean stop = new AtomicBoolean();
    private final List<String> failures = new ArrayList<>();

    private final AtomicLong calls = new AtomicLong();
    private final AtomicLong hits = new AtomicLong();
    private final AtomicLong steps = new AtomicLong();
    private final AtomicLong aborted = new AtomicLong();
    private final AtomicLong exceptionEvents = new AtomicLong();
    private final AtomicLong fieldEvents = new AtomicLong();
    private final AtomicLong registrations = new AtomicLong();
    private final AtomicLong switches = new AtomicLong();
    private final AtomicLong suspends = new AtomicLong();
    private final AtomicLong workerStops = new AtomicLong();
    private final AtomicLong listed = new AtomicLong();
    private final AtomicLong histograms = new AtomicLong();
    private final AtomicLong searches = new AtomicLong();
    private final AtomicLong dumps = new AtomicLong();
    private final Map<Thread, AtomicLong> callsByThread = new ConcurrentHashMap<>();
    private final Map<Thread, AtomicLong> hitsByThread = new ConcurrentHashMap<>();
    private final Set<Thread> created = ConcurrentHashMap.newKeySet();
    private final Set<Thread> started = ConcurrentHashMap.newKeySet();
    private final Set<Thread> ended = ConcurrentHashMap.newKeySet();
    private final ConcurrentLinkedDeque<Thread> idle = new ConcurrentLinkedDeque<>();
    private final List<Thread> hitters = new ArrayList<>();
    private final ThreadLocal<int[]> stepsInSequence = ThreadLocal.withInitial(() -> new int[1]);
    private volatile Thread worker;

    private StormMain() {
    }

    public static void main(String[] args) {
        try {
            new StormMain().run();
        } catch (Throwable t) {
            // The storm's threads never end by themselves: a failure must still end the VM.
            t.printStackTrace();
            Runtime.getRuntime().halt(1);
        }
    }

    private void run() throws Exception {
        api.registerClasses();
        if (!api.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        StormTarget.keep(KEPT);
        StormTarget.hit(0);
        StormTarget.throwAndCatch(0);
        // Prepared before any hook is registered and outside the natives: on JDK 17, checked JNI
        // misreads the local references of a native that holds many while a class-prepare event
        // runs on its thread.
        new GCPathEntry(0, 0, null, null, 0, 0).hashCode();
        new TimeoutException().hashCode();
        checkHeap();

        Method hit = StormTarget.class.getMethod("hit", int.class);
        BreakpointLocation breakpoint = BreakpointLocation.forMethod(hit, 0);
        api.setBreakpoint(breakpoint);
        Field watched = StormTarget.class.getField("watched");
        api.setFieldAccessWatch(StormTarget.class, watched);
        api.setFieldModificationWatch(StormTarget.class, watched);
        registerHooks();

        List<Thread> drivers = new ArrayList<>();
        for (int i = 0; i < HITTERS; i++) {
            Thread hitter = new Thread(this::hitLoop, "storm-hitter-" + i);
            hitters.add(hitter);
            drivers.add(hitter);
        }
        Object workerLock = new Object();
        worker = new Thread(() -> StormTarget.work(stop, workerLock), "storm-worker");
        drivers.add(worker);
        drivers.add(new Thread(this::registerLoop, "storm-registerer"));
        drivers.add(new Thread(this::spawnLoop, "storm-spawner"));
        drivers.add(new Thread(this::switchLoop, "storm-switcher"));
        drivers.add(new Thread(this::suspendLoop, "storm-suspender"));
        drivers.add(new Thread(this::heapLoop, "storm-heap"));
        drivers.add(new Thread(this::dumpLoop, "storm-dumper"));
        drivers.forEach(Thread::start);
        System.out.println("STARTED");
        System.in.readAllBytes();

        stop.set(true);
        List<Thread> all = new ArrayList<>(drivers);
        all.addAll(created);
        for (Thread thread : all) {
            thread.join(30_000);
            if (thread.isAlive()) {
                stuck(thread);
            }
        }
        registerCore();
        api.clearBreakpoint(breakpoint);
        api.clearFieldAccessWatch(StormTarget.class, watched);
        api.clearFieldModificationWatch(StormTarget.class, watched);
        checkHeap();

        if (hits.get() != calls.get()) {
            failures.add("hits " + hits + " != calls " + calls + "; by thread: " + mismatches());
        }
        if (!started.containsAll(created) || !ended.containsAll(created)) {
            failures.add("thread hook missed " + created.stream().filter(t -> !started.contains(t)).count()
                    + " starts and " + created.stream().filter(t -> !ended.contains(t)).count() + " ends");
        }
        System.out.println("hits=" + hits + " steps=" + steps + " stepAborts=" + aborted + " threads=" + created.size()
                + " suspends=" + suspends + " workerStops=" + workerStops + " listed=" + listed + " histograms="
                + histograms + " gcRoots=" + searches + " registrations=" + registrations + " switches=" + switches
                + " exceptionEvents=" + exceptionEvents + " fieldEvents=" + fieldEvents + " dumps=" + dumps);
        synchronized (failures) {
            System.out.println(failures.isEmpty() ? "OK" : "FAILED " + failures);
        }
        api.registerThreadHook(null);
        api.registerBreakpointHook(null);
        api.setActive(false);
    }

    private void fail(String failure) {
        synchronized (failures) {
            if (failures.size() < 20) {
                failures.add(failure);
            }
        }
    }

    private static void stuck(Thread thread) {
        System.out.println("STUCK " + thread.getName());
        for (StackTraceElement frame : thread.getStackTrace()) {
            System.out.println("\tat " + frame);
        }
        System.out.flush();
        Runtime.getRuntime().halt(1);
    }

    private String mismatches() {
        StringBuilder text = new StringBuilder();
        for (Map.Entry<Thread, AtomicLong> entry : callsByThread.entrySet()) {
            AtomicLong reached = hitsByThread.getOrDefault(entry.getKey(), new AtomicLong());
            if (reached.get() != entry.getValue().get()) {
                text.append(entry.getKey().getName()).append(' ').append(reached).append('/').append(entry.getValue())
                        .append(' ');
            }
        }
        return text.toString();
    }

    // ---- hooks: one core that counts, registered again and again behind new wrappers

    private int breakpointHit(BreakpointLocation location, ThreadContext context) {
        Thread thread = Thread.currentThread();
        if (context.getThread() != thread) {
            fail("hook called on " + thread.getName() + " for " + context.getThread());
        }
        if (thread == worker) {
            workerStops.incrementAndGet();
            return StepType.CONTINUE;
        }
        int[] sequence = stepsInSequence.get();
        if (location.getMemberClass() == StormTarget.class && location.getLocation() == 0
                && "hit".equals(location.getMethodName())) {
            long reached = hits.incrementAndGet();
            hitsByThread.computeIfAbsent(thread, t -> new AtomicLong()).incrementAndGet();
            sequence[0] = 0;
            return HIT_ANSWERS[(int) (reached % HIT_ANSWERS.length)];
        }
        long step = steps.incrementAndGet();
        if (step % 16 == 0) {
            api.listStack(thread, context.getFrameCount(), (FrameCallback) frame -> listed.incrementAndGet());
        }
        return ++sequence[0] >= 3 ? StepType.CONTINUE : STEP_ANSWERS[sequence[0] % STEP_ANSWERS.length];
    }

    private void registerHooks() {
        api.registerBreakpointHook((BreakpointHook) this::breakpointHit);
        api.registerSteppingAbortedHook((SteppingAbortedHook) thread -> aborted.incrementAndGet());
        api.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                started.add(thread);
            }

            @Override
            public void threadEnd(Thread thread) {
                ended.add(thread);
            }
        });
        api.registerExceptionHook(new ExceptionHook() {
            @Override
            public int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
                    BreakpointLocation catchLocation) {
                exceptionEvents.incrementAndGet();
                return StepType.CONTINUE;
            }

            @Override
            public int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception) {
                exceptionEvents.incrementAndGet();
                return StepType.CONTINUE;
            }
        });
        api.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                fieldEvents.incrementAndGet();
                return StepType.CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object newValue) {
                return fieldEvents.incrementAndGet() % 32 == 0 ? StepType.FIELD_MODIFICATION_COMPLETE : StepType.CONTINUE;
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                fieldEvents.incrementAndGet();
                return StepType.CONTINUE;
            }
        });
        api.registerClassPrepareHook((ClassPrepareHook) (thread, clazz) -> { });
        api.registerFileLoadHook((FileLoadHook) clazz -> { });
        registrations.addAndGet(7);
    }

    private void registerCore() {
        api.registerBreakpointHook((BreakpointHook) this::breakpointHit);
        api.registerClassPrepareHook(null);
        api.registerFileLoadHook(null);
    }

    // ---- the storm's threads

    private void hitLoop() {
        Thread self = Thread.currentThread();
        if (!api.setEventNotificationMode(self, JvmtiEvent.BREAKPOINT, true)) {
            fail("breakpoints not switched on for " + self.getName());
            return;
        }
        AtomicLong mine = callsByThread.computeIfAbsent(self, t -> new AtomicLong());
        for (int i = 0; !stop.get(); i++) {
            calls.incrementAndGet();
            mine.incrementAndGet();
            StormTarget.hit(i);
            if (i % 64 == 0) {
                StormTarget.throwAndCatch(i);
            }
        }
    }

    private void registerLoop() {
        for (int i = 1; !stop.get(); i++) {
            registerHooks();
            // Thousands of registrations a second, while leaving the other threads their share of
            // the processors.
            if (i % 64 == 0) {
                LockSupport.parkNanos(100_000);
            }
        }
    }

    /** Short-lived threads: half hit the breakpoint once, half idle for the switcher to play with. */
    private void spawnLoop() {
        for (int n = 0; !stop.get(); n++) {
            boolean hitting = n % 2 == 0;
            int number = n;
            Thread thread = new Thread(() -> {
                if (hitting) {
                    Thread self = Thread.currentThread();
                    if (!api.setEventNotificationMode(self, JvmtiEvent.BREAKPOINT, true)) {
                        fail("breakpoints not switched on for a short-lived thread");
                        return;
                    }
                    calls.incrementAndGet();
                    callsByThread.computeIfAbsent(self, t -> new AtomicLong()).incrementAndGet();
                    StormTarget.hit(number);
                } else {
                    LockSupport.parkNanos(300_000);
                }
            }, "storm-short-" + n);
            created.add(thread);
            thread.start();
            if (!hitting) {
                idle.addLast(thread);
                while (idle.size() > 32) {
                    idle.pollFirst();
                }
            }
            if (n % 8 == 0) {
                LockSupport.parkNanos(1_000_000);
            }
        }
    }

    /**
     * Events of other threads switched on and off: the hitters' field and exception events (never
     * their breakpoints, which every hit needs), and anything of the idle short-lived threads. The
     * worker's events are left to its own steps: it is suspended while inside them now and then,
     * and what that may do is SuspendRaceTest's subject.
     */
    private void switchLoop() {
        for (int i = 0; !stop.get(); i++) {
            Thread target;
            int event;
            if (i % 2 == 0) {
                target = hitters.get(i / 2 % hitters.size());
                event = SWITCHED_ON_HITTERS[i / 16 % SWITCHED_ON_HITTERS.length];
            } else {
                target = idle.peekLast();
                event = SWITCHED_ON_OTHERS[i / 16 % SWITCHED_ON_OTHERS.length];
            }
            if (target != null && api.setEventNotificationMode(target, event, (i / 8 & 1) == 0)) {
                switches.incrementAndGet();
            }
        }
    }

    /**
     * The worker suspended, looked at and resumed, a third of the times with a step (where it stands
     * in its own code). After a step the next suspension waits until the step has stopped and the
     * worker runs its loop again: a thread suspended while inside the agent's own event code and
     * then resumed with a command can hang or corrupt its step (see SuspendRaceTest), which this
     * storm leaves to that test.
     */
    private void suspendLoop() {
        Thread target = worker;
        // A thread suspended before it has a frame stays suspended although the call fails (see
        // SuspendRaceTest): start once the worker runs its loop.
        while (StormTarget.workTurns == 0) {
            LockSupport.parkNanos(100_000);
        }
        for (int i = 0; !stop.get(); i++) {
            boolean[] inTarget = {false};
            api.suspendThread(target, (SuspendCallback) (location, context) -> {
                inTarget[0] = location.getMemberClass() == StormTarget.class;
                if (context.getThread() != target) {
                    fail("suspend callback for " + context.getThread());
                }
            });
            suspends.incrementAndGet();
            int depth = api.getStackDepth(target);
            api.listStack(target, depth, (FrameCallback) location -> listed.incrementAndGet());
            api.listVariables(target, depth, depth, (VariableCallback) (name, value, signature) -> {
                listed.incrementAndGet();
                return true;
            });
            api.listOwnedMonitors(target, depth, (MonitorCallback) (monitor, at) -> listed.incrementAndGet());
            api.listContendedMonitor(target, (MonitorCallback) (monitor, at) -> listed.incrementAndGet());
            int answer = RESUME_ANSWERS[i % RESUME_ANSWERS.length];
            boolean step = answer == StepType.STEP_OVER && inTarget[0];
            long stopsBefore = workerStops.get();
            api.resumeThread(target, step || answer != StepType.STEP_OVER ? answer : StepType.CONTINUE);
            if (step) {
                awaitWorker(stopsBefore);
            }
            LockSupport.parkNanos(500_000);
        }
    }

    /** Until the worker's step has stopped and its loop has turned twice since, or five seconds. */
    private void awaitWorker(long stopsBefore) {
        long deadline = System.nanoTime() + 5_000_000_000L;
        while (workerStops.get() == stopsBefore && System.nanoTime() < deadline && !stop.get()) {
            LockSupport.parkNanos(100_000);
        }
        long turns = StormTarget.workTurns;
        while (StormTarget.workTurns < turns + 2 && System.nanoTime() < deadline && !stop.get()) {
            LockSupport.parkNanos(100_000);
        }
    }

    private void heapLoop() {
        for (int i = 0; !stop.get(); i++) {
            checkHeap();
            if (i % 10 == 9) {
                api.forceGC();
            }
            LockSupport.parkNanos(20_000_000);
        }
    }

    /** A histogram and a GC-root search, each of which must count the kept markers exactly. */
    private void checkHeap() {
        String marker = StormTarget.Marker.class.getName();
        long[] counted = {-1};
        api.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            for (int k = 0; k < names.length; k++) {
                if (marker.equals(names[k])) {
                    counted[0] = counts[k];
                }
            }
        }, 0);
        histograms.incrementAndGet();
        if (counted[0] != KEPT) {
            fail("histogram counted " + counted[0] + " markers, not " + KEPT);
        }
        GCPathEntry[] root = {null};
        api.gcRoots((GCRootsCallback) entry -> root[0] = entry, StormTarget.Marker.class.descriptorString(), 0, 3);
        searches.incrementAndGet();
        if (root[0] == null || root[0].getCount() != KEPT) {
            fail("GC-root search found " + (root[0] == null ? "nothing" : root[0].getCount() + " markers"));
        }
    }

    private void dumpLoop() {
        try {
            MBeanServer server = ManagementFactory.getPlatformMBeanServer();
            ObjectName diagnostics = new ObjectName("com.sun.management:type=DiagnosticCommand");
            while (!stop.get()) {
                server.invoke(diagnostics, "jvmtiDataDump", new Object[0], new String[0]);
                dumps.incrementAndGet();
                LockSupport.parkNanos(50_000_000);
            }
        } catch (Exception e) {
            fail("data dump: " + e);
        }
    }
}
