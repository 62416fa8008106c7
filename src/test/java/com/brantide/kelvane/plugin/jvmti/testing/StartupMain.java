package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.api.AgentProbe;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import java.util.List;
import java.util.concurrent.CountDownLatch;

/**
 * A child JVM's program for start-up and the data dump. Without arguments it prints the agent's
 * switches; "plain", started without the agent, loads the library as a plain one and calls natives
 * that need the agent; "inspect" inspects and tries to debug in inspection-only mode (with
 * "attach": after attaching the agent to its own VM with jcmd, twice); "dump" sets up hooks, events,
 * breakpoints and watches and asks its own VM for a data dump with jcmd.
 */
public final class StartupMain {
    private static final long SELF = ProcessHandle.current().pid();

    private StartupMain() {
    }

    public static void main(String[] args) throws Exception {
        JvmtiApi api = new JvmtiApi();
        switch (args.length > 0 ? args[0] : "") {
            case "plain" -> callWithoutTheAgent(api);
            case "inspect" -> inspect(api, args.length > 1);
            case "dump" -> dump(api);
            default -> switches(api);
        }
    }

    private static void switches(JvmtiApi api) {
        // Before the classes are registered, a JVMTI error can only be raised as an IllegalStateException.
        System.out.println("unregistered=" + outcome(() -> api.getStackDepth(new Thread())));
        api.registerClasses();
        System.out.println("fastStepping=" + api.isFastSteppingEnabled() + " exceptions=" + api.isExceptionsEnabled()
                + " active=" + api.isActive());
        // Only the basic set is held until the agent is switched on.
        System.out.println(locals(api));
    }

    private static void callWithoutTheAgent(JvmtiApi api) {
        System.load(System.getProperty("kv.test.library"));
        api.registerClasses();
        System.out.println(api.getLibraryVersionString());
        System.out.println("version=" + api.getApiVersion() + " active=" + api.isActive());
        Thread self = Thread.currentThread();
        List<Runnable> calls = List.of(() -> api.setActive(true), () -> api.getStackDepth(self),
                () -> api.listThreads((ThreadCallback) thread -> { }), () -> api.suspendThread(new Thread(), null),
                () -> api.setEventNotificationMode(self, JvmtiEvent.BREAKPOINT, true), () -> api.heapHistogram(null, 0),
                () -> api.getSourceFileName(String.class));
        calls.forEach(call -> System.out.println(outcome(call)));
    }

    /** Inspection only: what needs no debugging capability works, what needs one is refused. */
    private static void inspect(JvmtiApi api, boolean attached) throws Exception {
        if (attached) {
            ChildJvm.jcmd(SELF, "JVMTI.agent_load", System.getProperty("kv.test.library"));
            ChildJvm.jcmd(SELF, "JVMTI.agent_load", System.getProperty("kv.test.library"));  // refused: loaded already
        }
        // Switched on, or it throws; then both heap walks must count the three markers.
        Workload work = Workload.activated();
        StormTarget.keep(3);
        work.checkHeap(StormTarget.Marker.class, 3, 0);
        Thread sleeper = ThreadKind.inPlace("sleeper", 0, entered -> StackTarget.three(entered, new CountDownLatch(1)));
        api.suspendThread(sleeper, null);
        int depth = api.getStackDepth(sleeper);
        api.resumeThread(sleeper, 2);
        System.out.println("heap " + work.verdict().replace('\n', ' ') + " suspendedDepth>0=" + (depth > 0)
                + " source=" + api.getSourceFileName(StartupMain.class));
        BreakpointLocation here = BreakpointLocation.forMethod(StartupMain.class.getDeclaredMethod("inspect",
                JvmtiApi.class, boolean.class), 0);
        System.out.println("breakpoint=" + outcome(() -> api.setBreakpoint(here)));
        System.out.println(locals(api));
        System.out.println("switch=" + api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true));
    }

    private static void dump(JvmtiApi api) throws Exception {
        outcome(() -> api.getStackDepth(new Thread()));  // an error before registration, for the log
        api.registerClasses();
        Thread worker = ThreadKind.inPlace("dump-worker", 0, entered -> StackTarget.three(entered, new CountDownLatch(1)));
        new Target(1); // prepared, so that its members can carry breakpoints and watches
        api.setActive(true);
        api.registerThreadHook(new Object());
        api.registerBreakpointHook(new Object());
        api.registerFieldHook(new Object());
        // The worker's step is switched as the agent's stepping does it, apart from the user's switches.
        if (!api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true)
                || !api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true)
                || !AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false)
                || !api.setEventNotificationMode(null, JvmtiEvent.FIELD_ACCESS, true)) {
            throw new IllegalStateException("event not switched");
        }
        api.setBreakpoint(BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 0));
        api.setBreakpoint(BreakpointLocation.forMethod(Target.class.getMethod("sum", long.class, long.class), 0));
        api.setFieldAccessWatch(Target.class, Target.class.getField("value"));
        api.setFieldModificationWatch(Target.class, Target.class.getField("value"));
        api.setFieldModificationWatch(Target.class, Target.class.getField("created"));
        System.out.println("worker=" + worker.getId() + " main=" + Thread.currentThread().getId());
        ChildJvm.jcmd(SELF, "JVMTI.data_dump");
    }

    /** Listing the caller's locals needs a debugging capability. */
    private static String locals(JvmtiApi api) {
        return "locals=" + outcome(() -> api.listVariables(Thread.currentThread(), 1, 1, (VariableCallback) (n, v, t) -> true));
    }

    /** "none", or the exception the call raised: its class and message. */
    private static String outcome(Runnable call) {
        try {
            call.run();
            return "none";
        } catch (RuntimeException e) {
            return e.getClass().getSimpleName() + ": " + e.getMessage();
        }
    }
}
