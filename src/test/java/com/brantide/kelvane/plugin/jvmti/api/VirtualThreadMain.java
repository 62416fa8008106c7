package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.testing.StormTarget;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicReference;

/**
 * A child JVM's program (probe agent, JDK 21 or later, one carrier thread) in which virtual threads
 * meet the agent: a breakpoint hit with breakpoints switched on for the virtual thread itself, then
 * for its carrier; the hook answers with a step once, and looks at the stopped thread's stack and
 * locals; another thread suspends a virtual thread and lists its stack. Each finding is printed as
 * "name=value"; "DONE" at the end.
 */
public final class VirtualThreadMain {
    private static final JvmtiApi API = new JvmtiApi();
    private static final List<String> HOOK_CALLS = new ArrayList<>();
    private static volatile boolean spinning = true;

    private VirtualThreadMain() {
    }

    public static void main(String[] args) throws Exception {
        API.registerClasses();
        if (!API.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        StormTarget.hit(0);
        API.setBreakpoint(BreakpointLocation.forMethod(StormTarget.class.getMethod("hit", int.class), 0));
        API.registerBreakpointHook((BreakpointHook) VirtualThreadMain::stopped);

        // Breakpoints asked for by the virtual thread itself.
        runVirtual("own", () -> {
            Thread self = Thread.currentThread();
            report("own.isVirtual", isVirtual(self));
            report("own.record", AgentProbe.hasThreadData(self));
            report("own.switched", API.setEventNotificationMode(self, JvmtiEvent.BREAKPOINT, true));
            StormTarget.hit(1);
        });
        report("own.hookCalls", hookCalls("own"));

        // Breakpoints switched on for the carrier, which the agent saw start.
        Thread carrier = findCarrier();
        report("carrier.found", carrier != null);
        if (carrier != null) {
            report("carrier.record", AgentProbe.hasThreadData(carrier));
            report("carrier.switched", API.setEventNotificationMode(carrier, JvmtiEvent.BREAKPOINT, true));
            runVirtual("mounted", () -> StormTarget.hit(2));
            report("mounted.hookCalls", hookCalls("mounted"));
            API.setEventNotificationMode(carrier, JvmtiEvent.BREAKPOINT, false);
        }

        // A virtual thread looked at and suspended from a platform thread.
        CountDownLatch running = new CountDownLatch(1);
        Thread spinner = startVirtual("spinner", () -> {
            running.countDown();
            while (spinning) {
                StormTarget.inner(1);
            }
        });
        running.await();
        report("spinner.record", AgentProbe.hasThreadData(spinner));
        attempt("spinner.depth", () -> API.getStackDepth(spinner));
        attempt("spinner.stack", () -> {
            List<String> frames = new ArrayList<>();
            API.listStack(spinner, Math.max(1, API.getStackDepth(spinner)),
                    (FrameCallback) location -> frames.add(location.getMethodName()));
            return frames.size();
        });
        attempt("spinner.suspend", () -> {
            API.suspendThread(spinner, null);
            API.resumeThread(spinner, StepType.CONTINUE);
            return "suspended and resumed";
        });
        List<Thread> listed = new ArrayList<>();
        API.listThreads((ThreadCallback) listed::add);
        report("listThreads.includesVirtual", listed.contains(spinner));
        spinning = false;
        spinner.join();
        API.registerBreakpointHook(null);
        API.setActive(false);
        System.out.println("DONE");
    }

    private static int stopped(BreakpointLocation location, ThreadContext context) {
        Thread self = Thread.currentThread();
        String name = self.getName();
        synchronized (HOOK_CALLS) {
            HOOK_CALLS.add(name + "@" + location.getMethodName() + ":" + location.getLocation());
        }
        report(name + ".contextIsSelf", context.getThread() == self);
        attempt(name + ".hookDepth", () -> API.getStackDepth(self));
        attempt(name + ".hookLocals", () -> {
            List<String> names = new ArrayList<>();
            API.listVariables(self, context.getFrameCount(), 1, (VariableCallback) (variable, value, signature) ->
                    names.add(variable));
            return names;
        });
        // One step, from the breakpoint: where it stops (if anywhere) shows as a second hook call.
        return location.getLocation() == 0 ? StepType.STEP_OVER : StepType.CONTINUE;
    }

    private static long hookCalls(String thread) {
        synchronized (HOOK_CALLS) {
            long count = HOOK_CALLS.stream().filter(call -> call.startsWith(thread + "@")).count();
            report(thread + ".stops", HOOK_CALLS.stream().filter(call -> call.startsWith(thread + "@")).toList());
            return count;
        }
    }

    private static void runVirtual(String name, Runnable body) throws InterruptedException {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        Thread thread = startVirtual(name, () -> {
            try {
                body.run();
            } catch (Throwable t) {
                failure.set(t);
            }
        });
        thread.join();
        report(name + ".failure", failure.get() == null ? "none" : failure.get().toString());
    }

    private static Thread startVirtual(String name, Runnable body) {
        try {
            Object builder = Thread.class.getMethod("ofVirtual").invoke(null);
            Class<?> builderType = Class.forName("java.lang.Thread$Builder");
            builder = builderType.getMethod("name", String.class).invoke(builder, name);
            return (Thread) builderType.getMethod("start", Runnable.class).invoke(builder, body);
        } catch (ReflectiveOperationException e) {
            throw new IllegalStateException("no virtual threads in this JDK", e);
        }
    }

    private static boolean isVirtual(Thread thread) {
        try {
            Method method = Thread.class.getMethod("isVirtual");
            return (Boolean) method.invoke(thread);
        } catch (ReflectiveOperationException e) {
            return false;
        }
    }

    /** The carrier of the virtual threads: the scheduler's only worker. */
    private static Thread findCarrier() {
        for (Thread thread : Thread.getAllStackTraces().keySet()) {
            if (thread.getName().startsWith("ForkJoinPool-1-worker-")) {
                return thread;
            }
        }
        return null;
    }

    interface Attempt {
        Object run();
    }

    private static void attempt(String name, Attempt attempt) {
        try {
            report(name, attempt.run());
        } catch (IllegalArgumentException | IllegalStateException | JVMTIException e) {
            report(name, "refused " + e.getClass().getSimpleName() + ": " + e.getMessage());
        }
    }

    private static void report(String name, Object value) {
        System.out.println(name + "=" + value);
    }
}
