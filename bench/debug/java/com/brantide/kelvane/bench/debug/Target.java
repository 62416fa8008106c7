package com.brantide.kelvane.bench.debug;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.FrameCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.TreeMap;
import java.util.function.LongSupplier;
import java.util.function.Supplier;

/**
 * The debugged program, one benchmark per JVM. It reports its figures as "RESULT name value" lines
 * on standard output; under JDWP it says READY and waits for GO on standard input while the
 * debugger sets itself up.
 *
 * <pre>
 * Target breakpoint none|library|floor|contract|jdwp [main|virtual|as-virtual]
 *                                                      the breakpoint round trip, ns per hit, hit in
 *                                                      the main thread, a virtual thread, or the main
 *                                                      thread as high as the virtual one (library and
 *                                                      contract only)
 * Target step none|library|jdwp ITERATIONS [KINDS]     step over a line whose call loops ITERATIONS times,
 *                                                      and out of that call (the call alone under none);
 *                                                      KINDS: over,out by default (StepTimes)
 * Target singlestep library|floor DEPTH ITERATIONS     the same step, every bytecode of the call a
 *                                                      single-step event, with the callee DEPTH frames high
 * Target smap CLASS_DIR                                stepping through the generated 2,000-line method
 * Target stacks library|jdwp HEIGHT                    listing a stack of HEIGHT frames and its locals
 * Target vthreads none|library|hook                    starting and joining 10^6 trivial virtual threads,
 *                                                      ms per round; library: switched on, hook: with a
 *                                                      thread hook too; none under a floor agent's
 *                                                      load-only modes too
 * </pre>
 *
 * <p>The floor agent's mode goes with it: {@code floor} runs under the bare mode, {@code contract}
 * under the contract mode, {@code singlestep floor} under the step mode. {@code singlestep library}
 * expects the library started with {@code -Dkv.jvmti.enable.fast.stepping=false}.
 */
public final class Target {
    /** Timed repeats of each measurement; fewer (-Dkv.bench.repeats=1) for a reduced run under a profiler. */
    static final int REPEATS = Integer.getInteger("kv.bench.repeats", 5);
    static long sink;

    private Target() {
    }

    public static void main(String[] args) throws Exception {
        switch (args[0]) {
            case "breakpoint": breakpoint(args[1], args.length > 2 ? args[2] : "main"); break;
            case "step": step(args[1], Integer.parseInt(args[2]), stepKinds(args)); break;
            case "singlestep": singleStep(args[1], Integer.parseInt(args[2]), Integer.parseInt(args[3])); break;
            case "smap": smap(Path.of(args[1])); break;
            case "stacks": stacks(args[1], Integer.parseInt(args[2])); break;
            case "vthreads": VirtualThreads.startAndJoin(args[1]); break;
            default: throw new IllegalArgumentException(args[0]);
        }
    }

    static void result(String name, Object value) {
        System.out.println("RESULT " + name + " " + value);
    }

    static void awaitDebugger() throws IOException {
        System.out.println("READY");
        System.out.flush();
        String go = new BufferedReader(new InputStreamReader(System.in)).readLine();
        if (!"GO".equals(go)) {
            throw new IllegalStateException("no GO from the debugger: " + go);
        }
    }

    /** The library switched on, with breakpoint events for the current thread. */
    static JvmtiApi library() {
        JvmtiApi api = switchedOn();
        enableBreakpoints(api);
        return api;
    }

    static JvmtiApi switchedOn() {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        if (!api.setActive(true)) {
            throw new IllegalStateException("the library did not switch on");
        }
        api.setMaxStepDuration(3600);
        return api;
    }

    static void enableBreakpoints(JvmtiApi api) {
        if (!api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true)) {
            throw new IllegalStateException("breakpoint events not switched on");
        }
    }

    static Method method(Class<?> clazz, String name) {
        return Arrays.stream(clazz.getDeclaredMethods()).filter(m -> m.getName().equals(name)).findFirst().orElseThrow();
    }

    /** Bytecode index of the first instruction of each line, in line order. */
    static TreeMap<Integer, Long> lineStarts(JvmtiApi api, Method method) {
        TreeMap<Integer, Long> starts = new TreeMap<>();
        api.getLineNumbersV2(method.getDeclaringClass(), BreakpointLocation.signatureOf(method),
                (LineNumberCallback) (location, line) -> starts.merge(line, location, Math::min));
        return starts;
    }

    /** The best of the timed repeats: the machine may be shared, and interference only ever adds time. */
    static double best(double[] values) {
        return Arrays.stream(values).min().orElseThrow();
    }

    // ---- 1. breakpoint round trip

    /** Where the breakpoint stands, at its first bytecode. */
    static int hot(int x) {
        return x + 1;
    }

    static double nanosPerCall(int calls) {
        long start = System.nanoTime();
        long sum = 0;
        for (int i = 0; i < calls; i++) {
            sum += hot(i);
        }
        long elapsed = System.nanoTime() - start;
        sink += sum;
        return (double) elapsed / calls;
    }

    /** The hook of the round trip, for the library and the contract floor alike. */
    static final class CountingHook implements BreakpointHook {
        long hits;
        /** The stack height at the breakpoint, which the round trip walks for the context. */
        int frames;

        @Override
        public int breakpointHit(BreakpointLocation location, ThreadContext context) {
            hits++;
            frames = context.getFrameCount();
            return StepType.CONTINUE;
        }
    }

    /**
     * The round trip in the main thread or in a virtual thread; either switches breakpoint events
     * on for itself, where the agent has them per thread.
     */
    static void breakpoint(String agent, String thread) throws Exception {
        int calls = 20_000;
        CountingHook hook = new CountingHook();
        BreakpointLocation hot = BreakpointLocation.forMethod(method(Target.class, "hot"), 0);
        Runnable switchOn = () -> {
        };
        switch (agent) {
            case "none":
                calls = 10_000_000;
                break;
            case "library":
                JvmtiApi api = switchedOn();
                api.registerBreakpointHook(hook);
                api.setBreakpoint(hot);
                switchOn = () -> enableBreakpoints(api);
                break;
            case "floor":
                switchOn = floorBreakpoint(hot);
                break;
            case "contract":
                if (!Floor.setContractHook(hook, hot, ThreadContext.class)) {
                    throw new IllegalStateException("floor agent refused the hook");
                }
                switchOn = floorBreakpoint(hot);
                break;
            case "jdwp":
                calls = 500;
                awaitDebugger();
                break;
            default:
                throw new IllegalArgumentException(agent);
        }
        double[] perCall;
        switch (thread) {
            case "main": perCall = timeHits(switchOn, calls); break;
            case "virtual": perCall = hitsInVirtualThread(switchOn, calls); break;
            case "as-virtual": perCall = hitsAsHighAsVirtual(switchOn, calls, hook); break;
            default: throw new IllegalArgumentException(thread);
        }
        long expected = (long) calls * (REPEATS + 1);
        long seen = agent.equals("floor") ? Floor.hits : agent.equals("jdwp") ? expected : hook.hits;
        if (!agent.equals("none") && seen != expected) {
            throw new IllegalStateException(seen + " breakpoint hits, expected " + expected);
        }
        result("breakpoint.ns", best(perCall));
        result("breakpoint.hits", expected);
        result("breakpoint.frames", hook.frames);
    }

    /** Breakpoint events switched on, a warm-up and the timed repeats: ns per call of each repeat. */
    static double[] timeHits(Runnable switchOn, int calls) {
        switchOn.run();
        nanosPerCall(calls);
        double[] perCall = new double[REPEATS];
        for (int i = 0; i < REPEATS; i++) {
            perCall[i] = nanosPerCall(calls);
        }
        return perCall;
    }

    static double[] hitsInVirtualThread(Runnable switchOn, int calls) throws Exception {
        double[][] perCall = {null};
        Thread thread = VirtualThreads.start(() -> perCall[0] = timeHits(switchOn, calls));
        thread.join();
        if (perCall[0] == null) {
            throw new IllegalStateException("the virtual thread did not finish its hits");
        }
        return perCall[0];
    }

    /**
     * The hits in the main thread with its stack raised to the height of a virtual thread's at the
     * same place: the round trip walks the stack, and a virtual thread's has more frames of the
     * JDK's own at its bottom. A few calibrating hits in either thread give the heights.
     */
    static double[] hitsAsHighAsVirtual(Runnable switchOn, int calls, CountingHook hook) throws Exception {
        hitsInVirtualThread(switchOn, 1);
        int virtualHeight = hook.frames;
        raised(0, () -> timeHits(switchOn, 1));
        int extra = virtualHeight - hook.frames;
        if (extra < 0) {
            throw new IllegalStateException("the virtual thread stands " + virtualHeight + " frames high, the main one "
                    + hook.frames);
        }
        hook.hits = 0;
        double[] perCall = raised(extra, () -> timeHits(switchOn, calls));
        if (hook.frames != virtualHeight) {
            throw new IllegalStateException("raised to " + hook.frames + " frames, not " + virtualHeight);
        }
        return perCall;
    }

    static double[] raised(int frames, Supplier<double[]> task) {
        return frames == 0 ? task.get() : raised(frames - 1, task);
    }

    /** The floor agent's breakpoint; what switches its events on for the calling thread. */
    static Runnable floorBreakpoint(BreakpointLocation location) {
        if (!Floor.setBreakpoint((Method) location.getMember(), location.getLocation())) {
            throw new IllegalStateException("floor agent refused the breakpoint");
        }
        return () -> {
            if (!Floor.enableBreakpoints(Thread.currentThread())) {
                throw new IllegalStateException("floor agent refused to switch breakpoints on");
            }
        };
    }

    // ---- 2. step over and out of a long call

    /** The call line is stepped over; a step out of spin ends back on it. */
    static long stepOverSubject(int iterations) {
        long r = spin(iterations);
        return r + 1;
    }

    static long spin(int iterations) {
        long s = 0;
        for (int i = 0; i < iterations; i++) {
            s += i ^ (s >>> 3);
        }
        return s;
    }

    /**
     * Runs the subject as an application has run it by the time someone debugs it, before any
     * debugger sets a breakpoint: a few long calls, which compile spin's loop on the stack, then
     * many short ones, which compile both methods whole.
     */
    static void warmUp(int iterations) {
        for (int i = 0; i < 5; i++) {
            sink += stepOverSubject(iterations);
        }
        for (int i = 0; i < 20_000; i++) {
            sink += stepOverSubject(1_000);
        }
    }

    /** The calls of one kind of step: a warm-up and the timed repeats. */
    static void callSubject(int iterations) {
        for (int i = 0; i <= REPEATS; i++) {
            sink += stepOverSubject(iterations);
        }
    }

    /** The kinds of step to time, "over" and "out" unless the argument names some (StepTimes). */
    static List<String> stepKinds(String[] args) {
        return List.of(args.length > 3 ? args[3].split(",") : new String[] {"over", "out"});
    }

    static void step(String agent, int iterations, List<String> kinds) throws Exception {
        warmUp(iterations);
        if (agent.equals("jdwp")) {
            // The debugger answers the breakpoint with each kind of step in turn, times them and checks the stops.
            awaitDebugger();
            kinds.forEach(kind -> callSubject(iterations));
            return;
        }
        JvmtiApi api = agent.equals("none") ? null : library();
        for (String kind : kinds) {
            result("step." + kind + ".ms", api == null ? timeCalls(iterations) : timeSteps(api, kind, iterations));
        }
        if (api != null) {
            result("step.fast", api.isFastSteppingEnabled());
        }
    }

    /** With no debugger, the subject's call: what a step over its call line or out of spin covers. */
    static double timeCalls(int iterations) {
        double[] millis = new double[REPEATS];
        for (int i = -1; i < REPEATS; i++) {
            long start = System.nanoTime();
            sink += stepOverSubject(iterations);
            long elapsed = System.nanoTime() - start;
            if (i >= 0) {
                millis[i] = elapsed / 1e6;
            }
        }
        return best(millis);
    }

    /**
     * Steps of one kind (see {@link StepTimes}) from the library's breakpoint hook: the best time
     * from the hook's answer to the stop that ends the timed step, in ms.
     */
    static double timeSteps(JvmtiApi api, String kind, int iterations) {
        Method subject = method(Target.class, "stepOverSubject");
        TreeMap<Integer, Long> lines = lineStarts(api, subject);
        long call = lines.firstEntry().getValue();
        long next = lines.higherEntry(lines.firstKey()).getValue();
        BreakpointLocation start = StepTimes.startsInCallee(kind) ? BreakpointLocation.forMethod(method(Target.class, "spin"), 0)
                : BreakpointLocation.forMethod(subject, call);
        StepTimes times = new StepTimes(kind);
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            long now = System.nanoTime();
            String step = times.answer();
            if (step != null) {
                times.commanded();
                return step.equals("over") ? StepType.STEP_OVER : step.equals("in") ? StepType.STEP_IN : StepType.STEP_OUT;
            }
            times.stopped(now, location.getMember().equals(subject)
                    && StepTimes.endsStep(kind, location.getLocation(), call, next), location);
            return StepType.CONTINUE;
        });
        api.setBreakpoint(start);
        callSubject(iterations);
        api.clearBreakpoint(start);
        return times.best();
    }

    // ---- 2b. single stepping against stack depth

    /** Calls stepOverSubject under {@code extra} frames of its own. */
    static long stepUnder(int extra, int iterations) {
        if (extra == 0) {
            return stepOverSubject(iterations);
        }
        return stepUnder(extra - 1, iterations) + 1;
    }

    /**
     * Steps over the call line of stepOverSubject with the callee, spin, standing {@code depth}
     * frames high: every bytecode of the call is a single-step event. Reports the best time of a
     * step, the stack height seen at its start and, under the floor, the events of one step.
     */
    static void singleStep(String agent, int depth, int iterations) {
        Method subject = method(Target.class, "stepOverSubject");
        long[] startHeight = {0};
        List<String> wrong = new ArrayList<>();
        if (agent.equals("library")) {
            startLibrarySteps(subject, startHeight, wrong);
        } else if (!agent.equals("floor") || !Floor.prepareStep(subject, 0, method(Target.class, "spin"))
                || !Floor.enableBreakpoints(Thread.currentThread())) {
            throw new IllegalStateException("no single stepping under " + agent);
        }
        long[] events = new long[REPEATS + 1];
        double[] millis = timeStepsUnder(depth, iterations, agent.equals("floor") ? Floor::stepEvents : () -> 0, events);
        if (agent.equals("floor")) {
            startHeight[0] = Floor.stepDepth();
            if (Arrays.stream(events).distinct().count() != 1) {
                throw new IllegalStateException("steps of different lengths: " + Arrays.toString(events));
            }
            result("singlestep.events", events[0]);
        }
        // The step starts in stepOverSubject, one frame below spin.
        if (!wrong.isEmpty() || startHeight[0] != depth - 1) {
            throw new IllegalStateException("stepping started " + startHeight[0] + " frames high, expected "
                    + (depth - 1) + "; stops at " + wrong);
        }
        result("singlestep.ms", best(millis));
        result("singlestep.depth", depth);
    }

    /** A step over from the first bytecode of the subject; every stop must be on its next line. */
    static void startLibrarySteps(Method subject, long[] startHeight, List<String> wrong) {
        JvmtiApi api = library();
        if (api.isFastSteppingEnabled()) {
            throw new IllegalStateException("fast stepping is on: start with -Dkv.jvmti.enable.fast.stepping=false");
        }
        TreeMap<Integer, Long> lines = lineStarts(api, subject);
        long next = lines.higherEntry(lines.firstKey()).getValue();
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            if (location.getMember().equals(subject) && location.getLocation() == 0) {
                startHeight[0] = context.getFrameCount();
                return StepType.STEP_OVER;
            }
            if (!location.getMember().equals(subject) || location.getLocation() != next) {
                wrong.add(location.toString());
            }
            return StepType.CONTINUE;
        });
        api.setBreakpoint(BreakpointLocation.forMethod(subject, 0));
    }

    /**
     * Times a warm-up and REPEATS steps, each over a call of spin standing {@code depth} frames high;
     * the events each step adds to the counter go into {@code events}. The timed repeats, in ms.
     */
    static double[] timeStepsUnder(int depth, int iterations, LongSupplier counter, long[] events) {
        // This frame and those below it, then stepUnder's extra + 1, stepOverSubject and spin.
        int extra = depth - StackWalker.getInstance().walk(s -> (int) s.count()) - 3;
        double[] millis = new double[REPEATS];
        for (int i = -1; i < REPEATS; i++) {
            long before = counter.getAsLong();
            long start = System.nanoTime();
            sink += stepUnder(extra, iterations);
            long elapsed = System.nanoTime() - start;
            events[i + 1] = counter.getAsLong() - before;
            if (i >= 0) {
                millis[i] = elapsed / 1e6;
            }
        }
        return millis;
    }

    // ---- 3. stepping through a long method, with or without an SMAP

    static void smap(Path classes) throws Exception {
        JvmtiApi api = library();
        URLClassLoader loader = new URLClassLoader(new URL[] {classes.toUri().toURL()}, Target.class.getClassLoader());
        Class<?> generated = Class.forName(LongMethod.CLASS_NAME, true, loader);
        Method run = generated.getMethod("run", int.class);
        TreeMap<Integer, Long> lines = lineStarts(api, run);
        api.setBreakpoint(BreakpointLocation.forMethod(run, lines.firstEntry().getValue()));
        String extension = api.getSourceDebugExtension(generated);
        result("smap.extension", extension != null && extension.startsWith("SMAP"));
        for (int command : new int[] {StepType.STEP_OVER, StepType.STEP_IN}) {
            long[] stops = {0};
            long[] first = {0};
            long[] last = {0};
            api.registerBreakpointHook((BreakpointHook) (location, context) -> {
                if (location.getMemberClass() != generated) {
                    return StepType.CONTINUE; // stepped off the end into the caller
                }
                last[0] = System.nanoTime();
                if (stops[0]++ == 0) {
                    first[0] = last[0];
                }
                return command;
            });
            double[] micros = new double[REPEATS];
            for (int i = -1; i < REPEATS; i++) {
                stops[0] = 0;
                sink += (int) run.invoke(null, i);
                if (stops[0] != lines.size()) {
                    throw new IllegalStateException(stops[0] + " stops in " + lines.size() + " lines");
                }
                if (i >= 0) {
                    micros[i] = (last[0] - first[0]) / 1e3 / (stops[0] - 1);
                }
            }
            String name = command == StepType.STEP_OVER ? "over" : "in";
            result("smap." + name + ".us", best(micros));
            result("smap." + name + ".stops", lines.size());
        }
    }

    // ---- 4. listing a deep stack

    static int recurse(int remaining, long acc, String tag) {
        if (remaining == 0) {
            return leaf(acc);
        }
        int next = remaining - 1;
        return recurse(next, acc + remaining, tag) + 1;
    }

    /** Where the breakpoint stands. */
    static int leaf(long acc) {
        return (int) acc;
    }

    interface Call {
        void run();
    }

    /** Calls per second after a warm-up: the best of REPEATS windows of at least a tenth of a second. */
    static double rate(Call call) {
        for (int i = 0; i < 20; i++) {
            call.run();
        }
        double[] rates = new double[REPEATS];
        for (int window = 0; window < REPEATS; window++) {
            long start = System.nanoTime();
            long calls = 0;
            long elapsed;
            do {
                call.run();
                calls++;
                elapsed = System.nanoTime() - start;
            } while (elapsed < 100_000_000L);
            rates[window] = calls * 1e9 / elapsed;
        }
        return Arrays.stream(rates).max().orElseThrow();
    }

    /** Where the stacks benchmark stands: HEIGHT frames high, in leaf, under the agent's breakpoint. */
    static void stacks(String agent, int height) throws IOException {
        StackWalker walker = StackWalker.getInstance(StackWalker.Option.RETAIN_CLASS_REFERENCE);
        if (agent.equals("jdwp")) {
            awaitDebugger(); // the debugger sets the breakpoint in leaf and lists the stack there
        } else if (agent.equals("library")) {
            listStacksAtLeaf(library(), walker);
        } else {
            throw new IllegalArgumentException(agent);
        }
        // recurse(n) stands n + 1 frames high and leaf one more, on top of the frames below.
        int below = walker.walk(s -> (int) s.count());
        sink += recurse(height - below - 2, 0, "frame");
    }

    static void listStacksAtLeaf(JvmtiApi api, StackWalker walker) {
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            Thread thread = context.getThread();
            int frames = context.getFrameCount();
            long[] items = {0, 0, 0};
            result("stacks.height", frames);
            result("stacks.listStack.per.s", rate(() -> api.listStack(thread, frames, (FrameCallback) frame -> items[0]++)));
            result("stacks.listVariables.per.s", rate(() -> api.listVariables(thread, frames, frames,
                    (VariableCallback) (name, value, signature) -> ++items[1] > 0)));
            result("stacks.stackWalker.per.s", rate(() -> walker.forEach(frame -> {
                items[2] += frame.getByteCodeIndex() + frame.getMethodName().length() + frame.getDeclaringClass().hashCode();
            })));
            // What one call reports, from a single listing of each.
            items[0] = 0;
            items[1] = 0;
            api.listStack(thread, frames, (FrameCallback) frame -> items[0]++);
            api.listVariables(thread, frames, frames, (VariableCallback) (name, value, signature) -> ++items[1] > 0);
            result("stacks.frames", items[0]);
            result("stacks.variables", items[1]);
            return StepType.CONTINUE;
        });
        api.setBreakpoint(BreakpointLocation.forMethod(method(Target.class, "leaf"), 0));
    }
}
