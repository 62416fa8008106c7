package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.CONTINUE;
import static com.brantide.kelvane.plugin.jvmti.StepType.NOOP;
import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_IN;
import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OUT;
import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OVER;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.function.LongUnaryOperator;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Breakpoints and the three steps on real code, checked by the exact lines at which the hook is
 * called. The suite runs this class twice: with fast stepping and with single stepping only; both
 * must land on the same lines.
 */
class SteppingTest {
    private final JvmtiApi api = new JvmtiApi();
    private final List<BreakpointLocation> set = new ArrayList<>();
    private Stops stops;

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
        StepTarget.outer(0); // prepared and initialised, so that breakpoints can be set
        stops = new Stops();
        api.registerBreakpointHook(stops);
        api.registerSteppingAbortedHook(stops);
    }

    @AfterEach
    void deactivate() {
        set.forEach(api::clearBreakpoint);
        api.registerBreakpointHook(null);
        api.registerSteppingAbortedHook(null);
        api.setMaxStepDuration(15);
        api.setActive(false);
    }

    private void breakAt(String... markers) {
        for (String marker : markers) {
            BreakpointLocation location = Stops.breakpointAt(api, StepTarget.class, marker);
            api.setBreakpoint(location);
            set.add(location);
        }
    }

    private static List<String> at(String... markers) {
        return Stops.at(StepTarget.class, markers);
    }

    @Test
    void stepOverWalksTheMethodOverTheCallAndOffTheEndIntoTheCaller() throws Exception {
        breakAt("caller-a");
        stops.answer(STEP_OVER, STEP_OVER, STEP_OVER, STEP_OVER, STEP_OVER);
        assertEquals(13, (int) stops.run(api, () -> StepTarget.outer(1)));
        assertEquals(at("caller-a", "caller-call", "caller-after", "caller-return", "outer-call", "outer-after"),
                stops.stops());

        // Over a recursion five calls deep, over a call that an exception ends two frames down, and
        // over one whose exception ends the stepped method too, caught two frames up.
        breakAt("recursesFrom-call", "catches-call", "throwsFrom-call");
        Stops over = new Stops().answer(STEP_OVER, CONTINUE, STEP_OVER, CONTINUE, STEP_OVER);
        api.registerBreakpointHook(over);
        over.run(api, () -> StepTarget.recursesFrom(5) + StepTarget.catches(0) + StepTarget.catchesTwoUp(0));
        assertEquals(at("recursesFrom-call", "recursesFrom-after", "catches-call", "catches-catch", "throwsFrom-call",
                "catchesTwoUp-catch"), over.stops());

        // Over a call that passes the place it returns to, deeper, in each of its recursions.
        breakAt("countdown-call");
        Stops recursion = new Stops().answer(STEP_OVER, NOOP, NOOP);
        api.registerBreakpointHook(recursion);
        recursion.run(api, () -> StepTarget.countdown(3));
        assertEquals(at("countdown-call", "countdown-call", "countdown-call", "countdown-after"), recursion.stops());

        // Over a call that parks the thread (a virtual one unmounts, and may go on on another carrier).
        breakAt("sleepsOver-call");
        Stops parked = new Stops().answer(STEP_OVER);
        api.registerBreakpointHook(parked);
        parked.run(api, () -> StepTarget.sleepsOver(50));
        assertEquals(at("sleepsOver-call", "sleepsOver-after"), parked.stops());

        // Two threads over the same call at once: each stops after its own.
        breakAt("callsBusy-call");
        Stops first = new Stops().answer(STEP_OVER);
        Stops second = new Stops().answer(STEP_OVER);
        api.registerBreakpointHook(Stops.either(first, second));
        CompletableFuture<Integer> other = CompletableFuture.supplyAsync(() -> second.runUnchecked(api,
                () -> StepTarget.callsBusy(300)));
        first.run(api, () -> StepTarget.callsBusy(300));
        other.get(60, TimeUnit.SECONDS);
        assertEquals(List.of(at("callsBusy-call", "callsBusy-after"), at("callsBusy-call", "callsBusy-after")),
                List.of(first.stops(), second.stops()));
    }

    @Test
    void stepInEntersACallAndWalksALineWithoutOne() throws Exception {
        breakAt("caller-call");
        stops.answer(STEP_IN, STEP_IN, STEP_IN);
        stops.run(api, () -> StepTarget.caller(1));
        assertEquals(at("caller-call", "callee-first", "callee-return", "caller-call"), stops.stops(),
                "off the end of the callee, back on the line of the call");
    }

    @Test
    void stepOutStopsInTheCallerWhereTheCallReturns() throws Exception {
        breakAt("callee-first");
        stops.answer(STEP_OUT, STEP_OVER, STEP_OUT);
        stops.run(api, () -> StepTarget.outer(1));
        assertEquals(at("callee-first", "caller-call", "caller-after", "outer-call"), stops.stops());
    }

    @Test
    void noopLetsAStepFinishAndContinueEndsIt() throws Exception {
        breakAt("caller-call", "callee-first");
        stops.answer(STEP_OVER, NOOP);
        stops.run(api, () -> StepTarget.caller(1));
        assertEquals(at("caller-call", "callee-first", "caller-after"), stops.stops(),
                "the breakpoint inside the stepped-over call answered NOOP: the step goes on");

        Stops continued = new Stops().answer(STEP_OVER, CONTINUE);
        api.registerBreakpointHook(continued);
        continued.run(api, () -> StepTarget.caller(1));
        assertEquals(at("caller-call", "callee-first"), continued.stops(), "CONTINUE ended the step");
    }

    @Test
    void aStepOntoABreakpointStopsOnceWithBreakpointsSwitchedPerThreadOrForTheVm() throws Exception {
        breakAt("caller-a", "caller-call");
        stops.answer(STEP_OVER, STEP_OVER);
        stops.run(api, () -> StepTarget.caller(1));
        assertEquals(at("caller-a", "caller-call", "caller-after"), stops.stops());

        // Switched for the whole VM from here, heard on a thread that switched nothing itself.
        Stops anyThread = new Stops().answer(STEP_OVER, STEP_OVER);
        api.registerBreakpointHook(anyThread);
        assertTrue(api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, true));
        try {
            anyThread.runUnswitched(api, () -> StepTarget.caller(1));
        } finally {
            assertTrue(api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, false));
        }
        assertEquals(at("caller-a", "caller-call", "caller-after"), anyThread.stops());

        // Switched on by the thread that hits, off by another: off for the first one too.
        Stops switcher = new Stops();
        api.registerBreakpointHook(switcher);
        switcher.runUnswitched(api, () -> {
            assertTrue(api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, true));
            StepTarget.caller(1);
            Thread off = new Thread(() -> assertTrue(api.setEventNotificationMode(null, JvmtiEvent.BREAKPOINT, false)));
            off.start();
            off.join();
            return StepTarget.caller(1);
        });
        assertEquals(at("caller-a", "caller-call"), switcher.stops());
    }

    @Test
    void theTimeLimitEndsAStepOverALongCallUnlessItIsSkippedWhole() throws Exception {
        api.setMaxStepDuration(1);
        breakAt("callsBusy-call");
        stops.answer(STEP_OVER);
        stops.run(api, () -> StepTarget.callsBusy(1500));
        assertEquals(at("callsBusy-call"), stops.stops());
        assertEquals(1, stops.aborted(), "steppingAborted");

        // A call into code without line numbers is waited for like any other when calls can be
        // skipped whole; single-stepped, its two million turns outlast the time limit.
        LongUnaryOperator noLines = (LongUnaryOperator) ClassFiles.compiledWithoutDebugInformation("nolines.Loop",
                "package nolines; public class Loop implements java.util.function.LongUnaryOperator {"
                        + " public long applyAsLong(long n) { long s = 0; for (long i = 0; i < n; i++) s += i ^ s; return s; } }")
                .getConstructor().newInstance();
        Stops through = new Stops().answer(STEP_OVER);
        api.registerBreakpointHook(through);
        api.registerSteppingAbortedHook(through);
        breakAt("callsThrough-call");
        through.run(api, () -> StepTarget.callsThrough(noLines));
        boolean skipped = api.isFastSteppingEnabled();
        assertEquals(skipped ? at("callsThrough-call", "callsThrough-after") : at("callsThrough-call"), through.stops());
        assertEquals(skipped ? 0 : 1, through.aborted());
    }

    @Test
    void aHookThatAnswersGarbageOrLeavesMidStepLetsTheThreadGo() throws Exception {
        api.setMaxStepDuration(1);
        breakAt("caller-a");
        stops.answer(99);
        assertEquals(14, (int) stops.run(api, () -> StepTarget.caller(1)));
        assertEquals(at("caller-a"), stops.stops(), "an unknown command ends the step");

        Stops leaving = new Stops() {
            @Override
            public int breakpointHit(BreakpointLocation location, ThreadContext context) {
                super.breakpointHit(location, context);
                api.registerBreakpointHook(null);
                return STEP_OVER;
            }
        };
        api.registerBreakpointHook(leaving);
        api.registerSteppingAbortedHook(leaving);
        leaving.run(api, () -> StepTarget.caller(1) + StepTarget.callsBusy(1500));
        assertEquals(at("caller-a"), leaving.stops());
        assertEquals(0, leaving.aborted(), "the step ended where nobody could hear it, not at the time limit");
    }
}
