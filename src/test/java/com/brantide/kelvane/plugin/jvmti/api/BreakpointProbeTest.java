package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import java.lang.reflect.Field;
import java.util.Arrays;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/** Breakpoints and field watches: what the VM accepts, refuses, and what the counters say. */
class BreakpointProbeTest {
    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;

    @Test
    void everyKindOfMemberTakesABreakpointOnceAndComesBackInReflectedForm() throws Exception {
        BreakpointLocation twice = BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 0);
        for (BreakpointLocation location : List.of(twice,
                BreakpointLocation.forMethod(Target.class.getMethod("sum", long.class, long.class), 2),
                BreakpointLocation.forConstructor(Target.class.getConstructor(int.class), 0),
                BreakpointLocation.forStaticInitializer(Target.class, 0))) {
            assertEquals(location, AgentProbe.roundTrip(location));
            api.setBreakpoint(location);
            assertEquals("JVMTI_ERROR_DUPLICATE",
                    assertThrows(JVMTIException.class, () -> api.setBreakpoint(location)).getMessage());
            assertEquals(1, AgentProbe.breakpointCount(), "counted once: " + location);
            api.clearBreakpoint(location);
            assertEquals(41, assertThrows(JVMTIException.class, () -> api.clearBreakpoint(location)).getErrorCode());
            assertEquals(0, AgentProbe.breakpointCount());
        }
        api.setActive(false);
        assertEquals(99, assertThrows(JVMTICapabilityException.class, () -> api.setBreakpoint(twice)).getErrorCode());
        assertEquals(0, AgentProbe.breakpointCount());
    }

    @Test
    void whatNamesNoCodeIsRefusedByTheVmOrTheAgentWithoutHarm() throws Exception {
        // Locations without code there are the VM's to refuse: past the end, native, abstract.
        for (BreakpointLocation noCode : List.of(in(Target.class, "twice(I)I", 10_000),
                in(Target.class, "nativeMethod()I", 0), in(Runnable.class, "run()V", 0))) {
            assertThrows(JVMTIException.class, () -> api.setBreakpoint(noCode), noCode.toString());
        }
        assertNull(AgentProbe.roundTrip(in(Target.class, "nothing()V", 0)), "names no method");
        // Objects that name no code are refused by the agent, whatever they answer or throw.
        Object throwing = new BreakpointLocation(Target.class, "twice(I)I", 0) {
            @Override
            public String getMemberSignature() {
                throw new IllegalStateException("a location that throws");
            }
        };
        Object withoutLocationField = new Object() {
            public Class<?> getMemberClass() {
                return Target.class;
            }

            public String getMemberSignature() {
                return "twice(I)I";
            }
        };
        for (Object location : Arrays.asList(null, new Object(), throwing, withoutLocationField,
                in(Target.class, "twice(J)I", 0), in(Target.class, "twice", 0), in(null, "twice(I)I", 0),
                in(Target.class, null, 0), in(int.class, "twice(I)I", 0))) {
            assertEquals("Invalid BreakpointLocation",
                    assertThrows(IllegalArgumentException.class, () -> api.setBreakpoint(location)).getMessage());
            assertThrows(IllegalArgumentException.class, () -> api.clearBreakpoint(location));
        }
        assertEquals(0, AgentProbe.breakpointCount());
    }

    private static BreakpointLocation in(Class<?> memberClass, String memberSignature, long location) {
        return new BreakpointLocation(memberClass, memberSignature, location);
    }

    @Test
    void watchesAreCountedAndRefusedLikeBreakpoints() throws Exception {
        for (Field field : List.of(Target.class.getField("value"), Target.class.getField("created"))) {
            api.setFieldAccessWatch(Target.class, field);
            api.setFieldModificationWatch(Target.class, field);
            assertEquals(40, assertThrows(JVMTIException.class,
                    () -> api.setFieldAccessWatch(Target.class, field)).getErrorCode(), "a duplicate");
            assertEquals(List.of(1, 1), List.of(AgentProbe.fieldAccessCount(), AgentProbe.fieldModificationCount()));
            api.clearFieldAccessWatch(Target.class, field);
            api.clearFieldModificationWatch(Target.class, field);
            assertEquals(41, assertThrows(JVMTIException.class,
                    () -> api.clearFieldModificationWatch(Target.class, field)).getErrorCode(), "none left");
            assertEquals(List.of(0, 0), List.of(AgentProbe.fieldAccessCount(), AgentProbe.fieldModificationCount()));
        }
    }
}
