package com.brantide.kelvane.plugin.jvmti.testing;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.extension.AfterEachCallback;
import org.junit.jupiter.api.extension.BeforeEachCallback;
import org.junit.jupiter.api.extension.ExtensionContext;

/**
 * The library switched on for each test of a class, and left as it was found: every breakpoint set
 * through it cleared, every hook dropped, the step limit back at its default, switched off.
 * Use as {@code @RegisterExtension final ActiveApi agent = new ActiveApi();}.
 */
public final class ActiveApi implements BeforeEachCallback, AfterEachCallback {
    public final JvmtiApi api = new JvmtiApi();
    private final List<BreakpointLocation> breakpoints = new ArrayList<>();

    @Override
    public void beforeEach(ExtensionContext context) {
        api.registerClasses();
        assertTrue(api.setActive(true));
    }

    @Override
    public void afterEach(ExtensionContext context) {
        for (BreakpointLocation location : breakpoints) {
            try {
                api.clearBreakpoint(location);
            } catch (RuntimeException clearedByTheTest) {
                // A test may clear its own breakpoint: the VM then no longer knows it.
            }
        }
        breakpoints.clear();
        Workload.setHooks(api, null);
        api.setMaxStepDuration(15);
        api.setActive(false);
    }

    /** Sets the breakpoint and clears it after the test. */
    public void setBreakpoint(BreakpointLocation location) {
        api.setBreakpoint(location);
        breakpoints.add(location);
    }
}
