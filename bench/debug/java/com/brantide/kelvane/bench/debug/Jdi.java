package com.brantide.kelvane.bench.debug;

import com.sun.jdi.AbsentInformationException;
import com.sun.jdi.Bootstrap;
import com.sun.jdi.IncompatibleThreadStateException;
import com.sun.jdi.Location;
import com.sun.jdi.Method;
import com.sun.jdi.ReferenceType;
import com.sun.jdi.StackFrame;
import com.sun.jdi.ThreadReference;
import com.sun.jdi.VMDisconnectedException;
import com.sun.jdi.VirtualMachine;
import com.sun.jdi.connect.AttachingConnector;
import com.sun.jdi.connect.Connector;
import com.sun.jdi.event.BreakpointEvent;
import com.sun.jdi.event.Event;
import com.sun.jdi.event.EventSet;
import com.sun.jdi.event.LocatableEvent;
import com.sun.jdi.event.StepEvent;
import com.sun.jdi.event.VMDisconnectEvent;
import com.sun.jdi.request.BreakpointRequest;
import com.sun.jdi.request.EventRequest;
import com.sun.jdi.request.EventRequestManager;
import com.sun.jdi.request.StepRequest;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The same benchmarks driven the way an out-of-process debugger does it: the target runs the JDK's
 * JDWP agent and this JVM is its JDI client, resuming every event as soon as it arrives.
 */
final class Jdi {
    private static final String JDWP = "-agentlib:jdwp=transport=dt_socket,server=y,suspend=n,address=127.0.0.1:0";
    private static final String LISTENING = "Listening for transport dt_socket at address:";

    private Jdi() {
    }

    /** What the debugger does: asks for events once the target is ready, then answers each. */
    private interface Debugger {
        void setUp(VirtualMachine vm, ReferenceType target) throws Exception;

        void handle(EventRequestManager requests, Event event);
    }

    /** The breakpoint round trip; the target times its own loop. */
    static Map<String, String> breakpoint(String classpath) throws Exception {
        long[] hits = {0};
        Map<String, String> results = session(classpath, new Debugger() {
            @Override
            public void setUp(VirtualMachine vm, ReferenceType target) {
                breakpoint(vm.eventRequestManager(), method(target, "hot").location());
            }

            @Override
            public void handle(EventRequestManager requests, Event event) {
                if (event instanceof BreakpointEvent) {
                    hits[0]++;
                }
            }
        }, "breakpoint", "jdwp");
        if (hits[0] != Long.parseLong(results.get("breakpoint.hits"))) {
            throw new IllegalStateException("the debugger saw " + hits[0] + " breakpoint events");
        }
        return results;
    }

    /**
     * Steps over the call line of Target.stepOverSubject, then in and out of its callee (see
     * {@link StepTimes}), from a breakpoint on the call line; each timed step from the resume to its
     * step event.
     */
    static Map<String, String> steps(String classpath, int iterations) throws Exception {
        Map<String, StepTimes> times = Map.of("over", new StepTimes("over"), "out", new StepTimes("out"));
        String[] kind = {"over"};
        Location[] call = {null};
        long[] next = {0};
        Map<String, String> results = session(classpath, new Debugger() {
            @Override
            public void setUp(VirtualMachine vm, ReferenceType target) throws Exception {
                List<Location> lines = method(target, "stepOverSubject").allLineLocations();
                call[0] = lines.get(0);
                next[0] = lines.stream().filter(l -> l.lineNumber() != call[0].lineNumber()).findFirst().orElseThrow()
                        .codeIndex();
                breakpoint(vm.eventRequestManager(), call[0]);
            }

            @Override
            public void handle(EventRequestManager requests, Event event) {
                if (!(event instanceof BreakpointEvent) && !(event instanceof StepEvent)) {
                    return;
                }
                long now = System.nanoTime();
                if (event instanceof StepEvent) {
                    requests.deleteEventRequest(event.request());
                }
                LocatableEvent stop = (LocatableEvent) event;
                StepTimes steps = times.get(kind[0]);
                String step = steps.answer();
                if (step != null) {
                    step(requests, stop.thread(), step);
                    steps.commanded();
                    return;
                }
                Location at = stop.location();
                steps.stopped(now, at.method().equals(call[0].method())
                        && StepTimes.endsStep(kind[0], at.codeIndex(), call[0].codeIndex(), next[0]), at);
                if (steps.complete()) {
                    kind[0] = "out";
                }
            }
        }, "step", "jdwp", Integer.toString(iterations));
        times.forEach((name, steps) -> results.put("step." + name + ".ms", Double.toString(steps.best())));
        return results;
    }

    /** One line step ("over", "in" or "out") of the thread, ending at the first stop. */
    private static void step(EventRequestManager requests, ThreadReference thread, String step) {
        StepRequest request = requests.createStepRequest(thread, StepRequest.STEP_LINE,
                step.equals("over") ? StepRequest.STEP_OVER : step.equals("in") ? StepRequest.STEP_INTO : StepRequest.STEP_OUT);
        request.addCountFilter(1);
        request.setSuspendPolicy(EventRequest.SUSPEND_EVENT_THREAD);
        request.enable();
    }

    private static void breakpoint(EventRequestManager requests, Location location) {
        BreakpointRequest request = requests.createBreakpointRequest(location);
        request.setSuspendPolicy(EventRequest.SUSPEND_EVENT_THREAD);
        request.enable();
    }

    /**
     * The locals of every frame of a HEIGHT-frame stack, listed the way a debugger lists them while
     * the target stands at the breakpoint in Target.leaf: each frame's values of its visible
     * variables. Listings per second, measured here while the target waits.
     */
    static Map<String, String> stacks(String classpath, int height) throws Exception {
        Map<String, String> measured = new HashMap<>();
        Map<String, String> results = session(classpath, new Debugger() {
            @Override
            public void setUp(VirtualMachine vm, ReferenceType target) {
                breakpoint(vm.eventRequestManager(), method(target, "leaf").location());
            }

            @Override
            public void handle(EventRequestManager requests, Event event) {
                if (event instanceof BreakpointEvent) {
                    measureListings(((BreakpointEvent) event).thread(), measured);
                }
            }
        }, "stacks", "jdwp", Integer.toString(height));
        if (measured.isEmpty()) {
            throw new IllegalStateException("the debugger never stopped in leaf");
        }
        results.putAll(measured);
        return results;
    }

    private static void measureListings(ThreadReference thread, Map<String, String> measured) {
        try {
            measured.put("stacks.jdi.height", Integer.toString(thread.frameCount()));
            long start = System.nanoTime();
            measured.put("stacks.jdi.variables", Long.toString(listVariables(thread)));
            measured.put("stacks.jdi.first.ms", Double.toString((System.nanoTime() - start) / 1e6));
            measured.put("stacks.jdi.per.s", Double.toString(Target.rate(() -> listVariables(thread))));
        } catch (IncompatibleThreadStateException e) {
            throw new IllegalStateException(e);
        }
    }

    /** One listing: the values of every frame's visible variables; how many there were. */
    private static long listVariables(ThreadReference thread) {
        try {
            long count = 0;
            for (StackFrame frame : thread.frames()) {
                count += frame.getValues(frame.visibleVariables()).size();
            }
            return count;
        } catch (IncompatibleThreadStateException | AbsentInformationException e) {
            throw new IllegalStateException(e);
        }
    }

    private static Method method(ReferenceType type, String name) {
        return type.methodsByName(name).get(0);
    }

    /** Runs a Target under JDWP with this debugger attached; the target's results. */
    private static Map<String, String> session(String classpath, Debugger debugger, String... args) throws Exception {
        Child child = new Child(List.of(JDWP), classpath, args);
        Thread pump = null;
        try {
            int port = Integer.parseInt(child.await(LISTENING).replaceAll(".*:", ""));
            child.await("READY");
            VirtualMachine vm = attach(port);
            debugger.setUp(vm, vm.classesByName(Target.class.getName()).get(0));
            EventRequestManager requests = vm.eventRequestManager();
            Throwable[] failed = {null};
            pump = new Thread(() -> {
                try {
                    while (true) {
                        EventSet events = vm.eventQueue().remove();
                        for (Event event : events) {
                            if (event instanceof VMDisconnectEvent) {
                                return;
                            }
                            debugger.handle(requests, event);
                        }
                        events.resume();
                    }
                } catch (VMDisconnectedException e) {
                    // the target has ended
                } catch (Throwable e) {
                    failed[0] = e;
                    child.kill();
                }
            }, "jdi-events");
            pump.start();
            child.send("GO");
            Map<String, String> results = child.finish();
            pump.join();
            if (failed[0] != null) {
                throw new IllegalStateException("the debugger failed", failed[0]);
            }
            return results;
        } finally {
            child.kill();
            if (pump != null) {
                pump.join(10_000);
            }
        }
    }

    private static VirtualMachine attach(int port) throws Exception {
        AttachingConnector socket = Bootstrap.virtualMachineManager().attachingConnectors().stream()
                .filter(c -> c.name().equals("com.sun.jdi.SocketAttach")).findFirst().orElseThrow();
        Map<String, Connector.Argument> arguments = socket.defaultArguments();
        arguments.get("hostname").setValue("127.0.0.1");
        arguments.get("port").setValue(Integer.toString(port));
        return socket.attach(arguments);
    }
}
