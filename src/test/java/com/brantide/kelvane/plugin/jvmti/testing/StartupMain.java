package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.api.GCRootsCallback;
import com.brantide.kelvane.plugin.jvmti.api.HistogramCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.locks.LockSupport;

/**
 * A child JVM's program: prints the agent's settings on standard output, then switches it as the
 * arguments say ("on", "off"), switches events the managed side may not switch ("refused": a
 * thread started before the agent, one that has ended, a stepping event), or, started without the
 * agent, loads the library as a plain one and calls natives that need the agent ("plain"), or
 * inspects and tries to debug in inspection-only mode ("inspect", "inspect attached").
 */
public final class StartupMain {
    private StartupMain() {
    }

    public static void main(String[] args) throws Exception {
        if (args.length > 0 && args[0].equals("plain")) {
            callWithoutTheAgent();
            return;
        }
        if (args.length > 0 && args[0].equals("inspect")) {
            inspect(args.length > 1 && args[1].equals("attached"));
            return;
        }
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println("fastStepping=" + api.isFastSteppingEnabled());
        System.out.println("exceptions=" + api.isExceptionsEnabled());
        System.out.println("active=" + api.isActive());
        for (String arg : args) {
            if (arg.equals("refused")) {
                refusedSwitches(api);
                continue;
            }
            System.err.println("-- setActive(" + arg.equals("on") + ")");
            System.out.println("setActive(" + arg.equals("on") + ")=" + api.setActive(arg.equals("on")));
        }
    }

    private static void refusedSwitches(JvmtiApi api) {
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        Thread ended = new Thread(() -> { }, "ended");
        ended.start();
        try {
            ended.join();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
        System.out.println("early=" + api.setEventNotificationMode(early, 62, true));
        System.out.println("ended=" + api.setEventNotificationMode(ended, 62, true));
        System.out.println("stepping=" + api.setEventNotificationMode(Thread.currentThread(), 60, true));
    }

    /** Kept, for the GC-root search of the inspection run to find. */
    private static final List<Object> KEPT = new ArrayList<>();

    /**
     * Inspection only: what needs no debugging capability works, what needs one is refused. With
     * "attached", the agent is loaded into this running VM first: READY, then a line on standard
     * input once it is there.
     */
    private static void inspect(boolean attached) throws Exception {
        if (attached) {
            System.out.println("READY");
            new BufferedReader(new InputStreamReader(System.in)).readLine();
        }
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println("active=" + api.setActive(true));
        for (int i = 0; i < 3; i++) {
            KEPT.add(new Kept());
        }
        long[] kept = {0};
        api.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            for (int i = 0; i < names.length; i++) {
                kept[0] += names[i].equals(Kept.class.getName()) ? counts[i] : 0;
            }
        }, 0);
        int[] rooted = {0};
        api.gcRoots((GCRootsCallback) root -> rooted[0] = root.getCount(), Kept.class.descriptorString(), 0, 3);
        Thread sleeper = new Thread(() -> LockSupport.parkNanos(2_000_000_000L), "sleeper");
        sleeper.start();
        while (sleeper.getState() != Thread.State.TIMED_WAITING) {
            Thread.onSpinWait();
        }
        api.suspendThread(sleeper, null);
        int depth = api.getStackDepth(sleeper);
        api.resumeThread(sleeper, 2);
        System.out.println("histogram=" + kept[0] + " gcRoots=" + rooted[0] + " suspendedDepth>0=" + (depth > 0)
                + " source=" + api.getSourceFileName(StartupMain.class));
        Thread self = Thread.currentThread();
        BreakpointLocation here = BreakpointLocation.forMethod(StartupMain.class.getDeclaredMethod("inspect", boolean.class), 0);
        System.out.println("breakpoint=" + refusal(() -> api.setBreakpoint(here))
                + " locals=" + refusal(() -> api.listVariables(self, 1, 1, (VariableCallback) (n, v, t) -> true))
                + " switch=" + api.setEventNotificationMode(self, 62, true));
        sleeper.interrupt();
    }

    private static String refusal(Runnable call) {
        try {
            call.run();
            return "none";
        } catch (RuntimeException e) {
            return e.getClass().getSimpleName();
        }
    }

    /** A class of its own, so that its instances can be counted and searched for. */
    private static final class Kept {
    }

    private static void callWithoutTheAgent() {
        System.load(System.getProperty("kv.test.library"));
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println(api.getLibraryVersionString());
        System.out.println("version=" + api.getApiVersion() + " active=" + api.isActive());
        Thread self = Thread.currentThread();
        List<Runnable> calls = List.of(() -> api.setActive(true), () -> api.getStackDepth(self),
                () -> api.listThreads((ThreadCallback) thread -> { }), () -> api.suspendThread(new Thread(), null),
                () -> api.setEventNotificationMode(self, 62, true), () -> api.heapHistogram(null, 0),
                () -> api.getSourceFileName(String.class));
        for (Runnable call : calls) {
            try {
                call.run();
                System.out.println("no exception");
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
        }
    }
}
