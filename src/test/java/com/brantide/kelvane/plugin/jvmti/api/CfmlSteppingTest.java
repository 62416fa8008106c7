package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OUT;
import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OVER;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Steps through classes shaped like compiled CFML: a page whose code sits in a hidden "_factor"
 * chunk and a component reached through a Java frame. Steps stop in CFML frames only.
 */
class CfmlSteppingTest {
    private final JvmtiApi api = new JvmtiApi();
    private final List<BreakpointLocation> set = new ArrayList<>();
    private final Stops stops = new Stops();
    private Class<?> page;
    private Class<?> component;

    @BeforeEach
    void activate() throws Exception {
        api.registerClasses();
        assertTrue(api.setActive(true));
        page = Class.forName("cfstep2ecfm100");
        component = Class.forName("cfcomp2ecfc200$funcWORK");
        runPage(0); // prepared and initialised, so that breakpoints can be set
        api.registerBreakpointHook(stops);
        api.registerSteppingAbortedHook(stops);
    }

    @AfterEach
    void deactivate() {
        set.forEach(api::clearBreakpoint);
        api.registerBreakpointHook(null);
        api.registerSteppingAbortedHook(null);
        api.setActive(false);
    }

    private int runPage(int x) throws Exception {
        Method runPage = page.getMethod("runPage", int.class);
        return (int) runPage.invoke(null, x);
    }

    private void breakAt(Class<?> clazz, String marker) {
        BreakpointLocation location = Stops.breakpointAt(api, clazz, marker);
        api.setBreakpoint(location);
        set.add(location);
    }

    @Test
    void stepOverSkipsTheJavaAndComponentCallsAndEndsSilentlyWithNoCfmlLeft() throws Exception {
        breakAt(page, "_factor0-a");
        stops.answer(STEP_OVER, STEP_OVER, STEP_OVER, STEP_OVER, STEP_OVER);
        assertEquals(14, (int) stops.run(api, () -> runPage(1)));
        List<String> expected = new ArrayList<>(Stops.at(page, "_factor0-a", "_factor0-call", "_factor0-after",
                "_factor0-return"));
        expected.addAll(Stops.at(page, "runPage-call"));
        assertEquals(expected, stops.stops(), "the last step left CFML code with no CFML caller below");
        assertEquals(0, stops.aborted(), "that step ends without a word to the managed side");
    }

    @Test
    void stepOutOfAComponentComesBackToThePageAcrossTheJavaFrame() throws Exception {
        breakAt(component, "work-first");
        stops.answer(STEP_OUT, STEP_OVER);
        stops.run(api, () -> runPage(1));
        List<String> expected = new ArrayList<>(Stops.at(component, "work-first"));
        expected.addAll(Stops.at(page, "_factor0-call", "_factor0-after"));
        assertEquals(expected, stops.stops());
    }
}
