package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.lang.management.ManagementFactory;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/**
 * What the agent must never do to its host: leave a thread suspended that nobody will resume, hold
 * a lock of its own while managed code runs, run application code by accident, or pin a class loader.
 */
class HostSafetyProbeTest {
    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;
    /** Lets the threads of a test go on; they wait for it holding StackTarget's monitors. */
    private final CountDownLatch release = new CountDownLatch(1);

    @AfterEach
    void releaseThreads() {
        release.countDown();
    }

    @Test
    void aThreadWithoutJavaFramesIsNeverLeftSuspended() {
        Thread frameless = AgentProbe.framelessThread();
        assertEquals("JVMTI_ERROR_NO_MORE_FRAMES", assertThrows(JVMTIException.class,
                () -> api.suspendThread(frameless, (SuspendCallback) (location, context) -> { })).getMessage());
        assertFalse(AgentProbe.isSuspended(frameless), "an error says: not suspended");
        // Suspended behind the agent's back, it is resumed by every command; a step has nowhere to
        // begin and says so once the thread runs again.
        for (int op : new int[] {StepType.CONTINUE, StepType.NOOP, StepType.STEP_OVER, StepType.STEP_IN, StepType.STEP_OUT}) {
            assertEquals(0, AgentProbe.suspendDirectly(frameless));
            if (op == StepType.CONTINUE || op == StepType.NOOP) {
                api.resumeThread(frameless, op);
            } else {
                assertEquals("JVMTI_ERROR_NO_MORE_FRAMES",
                        assertThrows(JVMTIException.class, () -> api.resumeThread(frameless, op)).getMessage());
            }
            assertFalse(AgentProbe.isSuspended(frameless), "resumed after " + StepType.name(op));
        }
    }

    @Test
    void noLockOfTheAgentIsHeldWhileACallbackRuns() throws Exception {
        Thread target = ThreadKind.inPlace("holder", 0, entered -> StackTarget.one(entered, release));
        Thread other = ThreadKind.inPlace("other", 0, entered -> StackTarget.three(entered, release));
        // The callback needs the monitor that the suspended target holds. Only another thread lets it
        // go on, by suspending and resuming a third one and then the target: no lock of the agent,
        // for suspensions or for the target, may hold that thread up.
        Thread debugger = daemon(new Thread(() -> api.suspendThread(target, (SuspendCallback) (location, context) -> {
            daemon(new Thread(() -> {
                api.suspendThread(other, (SuspendCallback) (where, suspended) -> { });
                api.resumeThread(other, StepType.CONTINUE);
                api.resumeThread(target, StepType.CONTINUE);
                release.countDown();
            }));
            synchronized (StackTarget.FIRST) {
                assertEquals(target, context.getThread());
            }
        })));
        debugger.join(20_000);
        assertFalse(debugger.isAlive(), "the callback waited for a thread that the agent held up");
    }

    @Test
    void noApplicationCodeRunsInsideTheAgent() throws Exception {
        // A thread whose getId() claims to be the caller: the agent must tell the two apart.
        Thread caller = Thread.currentThread();
        long callerEvents = AgentProbe.userEvents(caller);
        CountDownLatch waiting = new CountDownLatch(1);
        Thread liar = daemon(new Thread("liar") {
            @Override
            public long getId() {
                return caller.getId();
            }

            @Override
            public void run() {
                StackTarget.three(waiting, release);
            }
        });
        waiting.await();
        List<ThreadContext> seen = new ArrayList<>();
        api.suspendThread(liar, (SuspendCallback) (location, context) -> seen.add(context));
        api.resumeThread(liar, StepType.CONTINUE);
        assertEquals(liar, seen.get(0).getThread());
        assertTrue(api.setEventNotificationMode(liar, JvmtiEvent.BREAKPOINT, true));
        assertEquals(1L << (JvmtiEvent.BREAKPOINT - 50), AgentProbe.userEvents(liar));
        assertEquals(callerEvents, AgentProbe.userEvents(caller), "the switch went to the liar's own record");

        // A hook without breakpointHit is looked for once, not at every hit (each failed lookup
        // makes the VM build a NoSuchMethodError with its stack trace).
        api.registerBreakpointHook(new Object());
        agent.setBreakpoint(tickLocation());
        assertTrue(api.setEventNotificationMode(caller, JvmtiEvent.BREAKPOINT, true));
        com.sun.management.ThreadMXBean threads = (com.sun.management.ThreadMXBean) ManagementFactory.getThreadMXBean();
        long before = threads.getCurrentThreadAllocatedBytes();
        int sum = IntStream.range(0, 10_000).map(HostSafetyProbeTest::tick).sum();
        long allocated = threads.getCurrentThreadAllocatedBytes() - before;
        api.setEventNotificationMode(caller, JvmtiEvent.BREAKPOINT, false);
        assertTrue(sum > 0 && allocated < 10_000 * 16L, allocated + " bytes allocated by 10,000 hits");
    }

    @Test
    void registrationsLetTheirClassLoadersGo() throws Exception {
        List<WeakReference<ClassLoader>> loaders = new ArrayList<>();
        for (int round = 0; round < 100; round++) {
            loaders.add(new WeakReference<>(registerFromAPlugIn()));
        }
        assertTrue(api.setActive(true));
        long alive = loaders.size();
        for (int attempt = 0; attempt < 50 && alive > 0; attempt++) {
            System.gc();
            Thread.sleep(20);
            alive = loaders.stream().filter(loader -> loader.get() != null).count();
        }
        assertEquals(0, alive, "class loaders still held after their hooks and classes were replaced");
    }

    /**
     * A plug-in's round: its own copies of the classes the agent constructs and of a hook, all
     * registered and used (a hit, a JVMTI error raised), then the agent switched off, the hooks
     * cleared and the classes registered again from the application: the plug-in is gone.
     */
    private ClassLoader registerFromAPlugIn() throws Exception {
        // Over the platform's classes only, it defines its own copies of the managed layer and of the hook.
        URL[] jars = Stream.of(ThreadContext.class, LooseHook.class)
                .map(c -> c.getProtectionDomain().getCodeSource().getLocation()).toArray(URL[]::new);
        ClassLoader loader = new URLClassLoader(jars, ClassLoader.getPlatformClassLoader());
        for (String name : List.of("ThreadContext", "BreakpointLocation", "GCPathEntry", "JVMTIException",
                "JVMTICapabilityException")) {
            api.registerOsgiClass(name, loader.loadClass("com.brantide.kelvane.plugin.jvmti." + name));
        }
        Object hook = loader.loadClass(LooseHook.class.getName()).getConstructor().newInstance();
        Workload.setHooks(api, hook);
        assertTrue(api.setActive(true));
        BreakpointLocation tick = tickLocation();
        api.setBreakpoint(tick);
        assertTrue(api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true));
        tick(0);
        api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, false);
        api.clearBreakpoint(tick);
        // Its entry class is linked inside the search, whose class-prepare event must not upset JNI checking.
        api.gcRoots(hook, Thread.class.descriptorString(), 0, 1);
        assertEquals(2, hook.getClass().getField("hits").getInt(hook), "the plug-in's hook heard the hit and the search");
        RuntimeException raised = assertThrows(RuntimeException.class, () -> api.getStackDepth(new Thread()));
        assertEquals(loader, raised.getClass().getClassLoader());
        api.setActive(false);
        Workload.setHooks(api, null);
        api.registerClasses();
        return loader;
    }

    /** Where the tests set their breakpoints. */
    static int tick(int value) {
        return value + 1;
    }

    private static BreakpointLocation tickLocation() throws NoSuchMethodException {
        return BreakpointLocation.forMethod(HostSafetyProbeTest.class.getDeclaredMethod("tick", int.class), 0);
    }

    /** A hook as a plug-in writes it: found by name and descriptor, typed with the plug-in's classes. */
    public static final class LooseHook {
        public int hits;

        public int breakpointHit(BreakpointLocation location, ThreadContext context) {
            hits += location.getMember() != null && context.getThread() != null ? 1 : 0;
            return StepType.CONTINUE;
        }

        public void gcRoots(GCPathEntry root) {
            hits += root != null ? 1 : 0;
        }
    }

    private static Thread daemon(Thread thread) {
        thread.setDaemon(true);
        thread.start();
        return thread;
    }
}
