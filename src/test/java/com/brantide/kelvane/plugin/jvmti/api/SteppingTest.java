package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OVER;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.SmapTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.ForkJoinPool;
import java.util.concurrent.TimeUnit;
import java.util.function.LongUnaryOperator;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestInstance;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Breakpoints and the three steps through Java, CFML-shaped and source-mapped code, checked by the
 * exact lines at which the hook is called. The suite runs this class with each way of skipping a
 * call (frame pops, single steps, compiled speed to its return) on platform and virtual threads:
 * all must land on the same lines.
 */
@TestInstance(TestInstance.Lifecycle.PER_CLASS)
class SteppingTest {
    /** The agent's own step time limit, in seconds, and the one that cuts a long step short. */
    private static final int USUAL = 15;
    private static final int TIGHT = 1;
    /** An answer that drops the breakpoint hook, then steps over: the step goes on unheard. */
    private static final int LEAVE = -1;
    /**
     * An answer that switches the thread's breakpoints off and tries to switch its single steps off
     * (which is refused), then steps over: the step goes on by the agent's own switches.
     */
    private static final int OFF = -2;
    private static final Map<String, Integer> ANSWERS = Map.of("in", StepType.STEP_IN, "over", STEP_OVER, "out",
            StepType.STEP_OUT, "noop", StepType.NOOP, "continue", StepType.CONTINUE, "leave", LEAVE, "off", OFF,
            "garbage", 99);

    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final Class<?> page = Class.forName("cfstep2ecfm100");
    private final LongUnaryOperator mapped;
    private final LongUnaryOperator noLines;
    private final List<Class<?>> sources;

    SteppingTest() throws Exception {
        StepTarget.outer(0); // initialised, so that breakpoints can be set before its first call
        runPage(0);
        int line = Stops.line(SmapTarget.class, "applyAsLong-1");
        // Template line 1 takes the first three Java lines, line 2 the next two, line 3 the last two.
        String smap = "SMAP\nSmapTarget.java\nCFML\n*S CFML\n*F\n+ 0 page.cfm\npage.cfm\n*L\n1:" + line + ",3\n2:"
                + (line + 3) + ",2\n3:" + (line + 5) + ",2\n*E\n";
        mapped = (LongUnaryOperator) ClassFiles.withSourceDebugExtension(SmapTarget.class, smap).getConstructor()
                .newInstance();
        noLines = (LongUnaryOperator) ClassFiles.withoutDebugInformation().getConstructor().newInstance();
        sources = List.of(StepTarget.class, mapped.getClass(), page, Class.forName("cfcomp2ecfc200$funcWORK"));
    }

    /**
     * A scenario: the step time limit, the markers where breakpoints stand, the hook's answers in
     * turn, the code the thread under test runs, and the stops expected: markers, and "aborted"
     * where the time limit ends a step; after " | ", the stops where called code is single-stepped,
     * when they differ.
     */
    record Scenario(int limit, String name, String breakpoints, String answers, Callable<?> code, String expected) {
        @Override
        public String toString() {
            return name;
        }
    }

    Stream<Scenario> scenarios() {
        return Stream.of(
                new Scenario(USUAL, "step over: over the call, off the end into the caller; once onto a breakpoint",
                        "caller-a caller-call", "over over over over over", () -> StepTarget.outer(1),
                        "caller-a caller-call caller-after caller-return outer-call outer-after"),
                new Scenario(USUAL, "step in: into the call, off its end back on the line of the call", "caller-call",
                        "in in in",
                        () -> StepTarget.caller(1), "caller-call callee-first callee-return caller-call"),
                new Scenario(USUAL, "step out: to the caller where the call returns", "callee-first", "out over out",
                        () -> StepTarget.outer(1), "callee-first caller-call caller-after outer-call"),
                new Scenario(USUAL, "at a breakpoint in a stepped-over call, NOOP goes on with the step, CONTINUE ends it",
                        "caller-call callee-first", "over noop continue over continue",
                        () -> StepTarget.caller(1) + StepTarget.caller(1),
                        "caller-call callee-first caller-after caller-call callee-first"),
                new Scenario(USUAL, "over a recursion that passes the line it returns to, deeper", "countdown-call",
                        "over noop noop",
                        () -> StepTarget.countdown(3), "countdown-call countdown-call countdown-call countdown-after"),
                new Scenario(USUAL, "over a call that throws, caught in the stepped method", "catches-call", "over",
                        () -> StepTarget.catches(0), "catches-call catches-catch"),
                new Scenario(USUAL, "over a call whose exception ends the stepped method too, caught two frames up",
                        "throwsFrom-call", "over", () -> StepTarget.catches(0), "throwsFrom-call catches-catch"),
                new Scenario(USUAL, "over a call that parks (a virtual thread may go on on another carrier)",
                        "sleepsOver-call", "over", () -> StepTarget.sleepsOver(50), "sleepsOver-call sleepsOver-after"),
                new Scenario(TIGHT, "the time limit ends a step over a long call", "callsThrough-call", "over",
                        () -> StepTarget.callsThrough(n -> StepTarget.busy(1500)), "callsThrough-call aborted"),
                new Scenario(TIGHT, "over code without line numbers: skipped whole, or single-stepped past the limit",
                        "callsThrough-call", "over", () -> StepTarget.callsThrough(noLines),
                        "callsThrough-call callsThrough-after | callsThrough-call aborted"),
                new Scenario(TIGHT, "an unknown command ends the step", "caller-a", "garbage",
                        () -> StepTarget.caller(1), "caller-a"),
                new Scenario(TIGHT, "a hook that leaves mid-step: the step ends unheard, not at the time limit",
                        "caller-a", "leave", () -> StepTarget.caller(1) + StepTarget.busy(1500), "caller-a"),
                new Scenario(USUAL, "breakpoints switched off at a step stop on one: the step goes on, and once they are"
                        + " on again no hit is lost", "caller-a caller-after", "over over off", () -> {
                            StepTarget.caller(1);
                            agent.api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
                            return StepTarget.caller(1);
                        }, "caller-a caller-call caller-after caller-return caller-a caller-after"),
                new Scenario(USUAL, "CFML: over the Java and component calls, and silently out of the last CFML frame",
                        "_factor0-a", "over over over over over", () -> runPage(1),
                        "_factor0-a _factor0-call _factor0-after _factor0-return runPage-call"),
                new Scenario(USUAL, "CFML: out of a component back to the page, across the Java frame between",
                        "work-first", "out over", () -> runPage(1), "work-first _factor0-call _factor0-after"),
                new Scenario(USUAL, "source-mapped: one stop per template line, at its first Java line",
                        "applyAsLong-1", "over over over", () -> StepTarget.callsThrough(mapped),
                        "applyAsLong-1 applyAsLong-4 applyAsLong-6 callsThrough-call"));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("scenarios")
    void stopsWhereTheScenarioSays(Scenario scenario) throws Exception {
        agent.api.setMaxStepDuration(scenario.limit);
        Stops stops = new Stops() {
            @Override
            public int breakpointHit(BreakpointLocation location, ThreadContext context) {
                int answer = super.breakpointHit(location, context);
                if (answer == LEAVE) {
                    agent.api.registerBreakpointHook(null);
                } else if (answer == OFF) {
                    agent.api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, false);
                    agent.api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.SINGLE_STEP, false);
                }
                return answer < 0 ? STEP_OVER : answer;
            }
        }.answer(words(scenario.answers).mapToInt(ANSWERS::get).toArray());
        agent.api.registerBreakpointHook(stops);
        agent.api.registerSteppingAbortedHook(stops);
        words(scenario.breakpoints).forEach(m -> agent.setBreakpoint(Stops.breakpointAt(agent.api, classOf(m), m)));
        stops.run(agent.api, scenario.code, true);
        String[] ways = scenario.expected.split(" \\| ");
        String expected = agent.api.isFastSteppingEnabled() ? ways[0] : ways[ways.length - 1];
        assertEquals(words(expected).map(m -> m.equals("aborted") ? m : Stops.at(classOf(m), m).get(0)).toList(),
                stops.stops());
    }

    @Test
    void twoThreadsStepOverTheSameCallAtOnceEachToItsOwnStop() throws Exception {
        agent.setBreakpoint(Stops.breakpointAt(agent.api, StepTarget.class, "callsThrough-call"));
        Stops first = new Stops().answer(STEP_OVER);
        Stops second = new Stops().answer(STEP_OVER);
        agent.api.registerBreakpointHook(Stops.either(first, second));
        Callable<Long> overABusyCall = () -> StepTarget.callsThrough(n -> StepTarget.busy(300));
        var other = ForkJoinPool.commonPool().submit(() -> second.run(agent.api, overABusyCall, true));
        first.run(agent.api, overABusyCall, true);
        other.get(60, TimeUnit.SECONDS);
        List<String> overTheCall = Stops.at(StepTarget.class, "callsThrough-call", "callsThrough-after");
        assertEquals(List.of(overTheCall, overTheCall), List.of(first.stops(), second.stops()));
    }

    @Test
    void breakpointsSwitchedForTheWholeVmReachAThreadThatSwitchedNothing() throws Exception {
        agent.setBreakpoint(Stops.breakpointAt(agent.api, StepTarget.class, "caller-a"));
        agent.setBreakpoint(Stops.breakpointAt(agent.api, StepTarget.class, "caller-call"));
        Stops stops = new Stops().answer(STEP_OVER, STEP_OVER);
        agent.api.registerBreakpointHook(stops);
        assertTrue(agent.api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, true));
        try {
            // Switched on again by the thread that hits, then off by another: off for it too.
            stops.run(agent.api, () -> {
                StepTarget.caller(1);
                assertTrue(agent.api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, true));
                ThreadKind.ranToEnd("off", () -> agent.api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, false));
                return StepTarget.caller(1);
            }, false);
        } finally {
            agent.api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, false);
        }
        assertEquals(Stops.at(StepTarget.class, "caller-a", "caller-call", "caller-after"), stops.stops(),
                "a step onto a breakpoint stops there once, and nothing after the switch-off");
    }

    private int runPage(int x) throws ReflectiveOperationException {
        return (int) page.getMethod("runPage", int.class).invoke(null, x);
    }

    /** The class among the scenarios' sources that has the method the marker names. */
    private Class<?> classOf(String marker) {
        return sources.stream().filter(c -> Stream.of(c.getDeclaredMethods())
                .anyMatch(m -> m.getName().equals(Stops.method(marker)))).findFirst().orElseThrow();
    }

    private static Stream<String> words(String text) {
        return Arrays.stream(text.split(" "));
    }
}
