package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.STEP_OVER;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.fixtures.SmapTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import java.lang.reflect.Method;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** A class whose source map folds several Java lines into one template line steps by template lines. */
class SmapSteppingTest {
    private final JvmtiApi api = new JvmtiApi();
    private final Stops stops = new Stops();
    private BreakpointLocation breakpoint;

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
        api.registerBreakpointHook(stops);
    }

    @AfterEach
    void deactivate() {
        if (breakpoint != null) {
            api.clearBreakpoint(breakpoint);
        }
        api.registerBreakpointHook(null);
        api.setActive(false);
    }

    @Test
    void stepOverMovesByTemplateLines() throws Exception {
        int first = Stops.line(SmapTarget.class, "page-1");
        String smap = "SMAP\nSmapTarget.java\nCFML\n*S CFML\n*F\n+ 0 page.cfm\npage.cfm\n*L\n"
                + "1:" + first + ",3\n" // template line 1: the first three Java lines
                + "2:" + (first + 3) + ",2\n" // template line 2: the next two
                + "3:" + (first + 5) + ",2\n*E\n"; // template line 3: the last two
        Class<?> mapped = ClassFiles.withSourceDebugExtension(SmapTarget.class, smap);
        Method page = mapped.getMethod("page", int.class);
        page.invoke(null, 0);
        breakpoint = Stops.breakpointAt(api, mapped, "page-1");
        api.setBreakpoint(breakpoint);
        stops.answer(STEP_OVER, STEP_OVER, STEP_OVER);
        stops.run(api, () -> page.invoke(null, 1));
        assertEquals(Stops.at(SmapTarget.class, "page-1", "page-4", "page-6"), stops.stops().subList(0, 3),
                "one stop per template line, at its first Java line");
    }
}
