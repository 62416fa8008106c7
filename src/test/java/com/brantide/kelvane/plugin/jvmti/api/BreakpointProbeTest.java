package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import java.lang.reflect.Constructor;
import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Breakpoints and field watches: what the VM accepts, refuses, and what the counters say. */
class BreakpointProbeTest {
    private final JvmtiApi api = new JvmtiApi();

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
    }

    @AfterEach
    void deactivate() {
        api.setActive(false);
    }

    static List<BreakpointLocation> everyKindOfMember() throws Exception {
        return List.of(
                BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 0),
                BreakpointLocation.forMethod(Target.class.getMethod("sum", long.class, long.class), 2),
                BreakpointLocation.forConstructor(Target.class.getConstructor(int.class), 0),
                BreakpointLocation.forStaticInitializer(Target.class, 0));
    }

    @Test
    void setTwiceAndClearTwiceOnEveryKindOfMember() throws Exception {
        int before = AgentProbe.breakpointCount();
        for (BreakpointLocation location : everyKindOfMember()) {
            api.setBreakpoint(location);
            JVMTIException duplicate = assertThrows(JVMTIException.class, () -> api.setBreakpoint(location));
            assertEquals(40, duplicate.getErrorCode(), location.toString());
            assertEquals("JVMTI_ERROR_DUPLICATE", duplicate.getMessage());
            assertEquals(before + 1, AgentProbe.breakpointCount(), "counted once: " + location);
            api.clearBreakpoint(location);
            assertEquals(41, assertThrows(JVMTIException.class, () -> api.clearBreakpoint(location)).getErrorCode());
            assertEquals(before, AgentProbe.breakpointCount());
        }
    }

    @Test
    void inactiveAgentRaisesTheCapabilityException() throws Exception {
        api.setActive(false);
        BreakpointLocation location = everyKindOfMember().get(0);
        JVMTICapabilityException e = assertThrows(JVMTICapabilityException.class, () -> api.setBreakpoint(location));
        assertEquals(99, e.getErrorCode());
        assertEquals(0, AgentProbe.breakpointCount());
    }

    /** A location whose members answer whatever the test wants. */
    static class Forged extends BreakpointLocation {
        private final Class<?> memberClass;
        private final String memberSignature;

        Forged(Class<?> memberClass, String memberSignature) {
            super(Target.class, "twice(I)I", 0);
            this.memberClass = memberClass;
            this.memberSignature = memberSignature;
        }

        @Override
        public Class<?> getMemberClass() {
            return memberClass;
        }

        @Override
        public String getMemberSignature() {
            if ("throw".equals(memberSignature)) {
                throw new IllegalStateException("a location that throws");
            }
            return memberSignature;
        }
    }

    /** Has the two methods but no location field. */
    public static class NoLocationField {
        public Class<?> getMemberClass() {
            return Target.class;
        }

        public String getMemberSignature() {
            return "twice(I)I";
        }
    }

    @Test
    void unusableLocationsAreRefusedWithoutHarm() {
        List<Object> invalid = List.of(new Object(), new NoLocationField(),
                new Forged(Target.class, "twice(J)I"), new Forged(Target.class, "twice"),
                new Forged(null, "twice(I)I"), new Forged(Target.class, null), new Forged(Target.class, "throw"),
                new Forged(int.class, "twice(I)I"));
        for (Object location : invalid) {
            IllegalArgumentException e = assertThrows(IllegalArgumentException.class, () -> api.setBreakpoint(location));
            assertEquals("Invalid BreakpointLocation", e.getMessage(), location.getClass().getName());
            assertThrows(IllegalArgumentException.class, () -> api.clearBreakpoint(location));
        }
        assertEquals("Invalid BreakpointLocation",
                assertThrows(IllegalArgumentException.class, () -> api.setBreakpoint(null)).getMessage());
        assertEquals(0, AgentProbe.breakpointCount());
    }

    @Test
    void badBytecodeIndexIsTheVmsToRefuse() throws Exception {
        BreakpointLocation outside = BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 10_000);
        assertEquals(24, assertThrows(JVMTIException.class, () -> api.setBreakpoint(outside)).getErrorCode(),
                "JVMTI_ERROR_INVALID_LOCATION");
        BreakpointLocation nativeMethod = BreakpointLocation.forMethod(Target.class.getMethod("nativeMethod"), 0);
        assertThrows(JVMTIException.class, () -> api.setBreakpoint(nativeMethod));
        assertThrows(JVMTIException.class, () -> api.setBreakpoint(new Forged(Runnable.class, "run()V")),
                "an abstract method has no code");
        assertEquals(0, AgentProbe.breakpointCount());
    }

    @Test
    void watchesAreCountedAndRefusedLikeBreakpoints() throws Exception {
        Field value = Target.class.getField("value");
        Field created = Target.class.getField("created");
        for (Field field : List.of(value, created)) {
            api.setFieldAccessWatch(Target.class, field);
            api.setFieldModificationWatch(Target.class, field);
            assertEquals(40, assertThrows(JVMTIException.class,
                    () -> api.setFieldAccessWatch(Target.class, field)).getErrorCode());
            assertEquals(1, AgentProbe.fieldAccessCount());
            assertEquals(1, AgentProbe.fieldModificationCount());
            api.clearFieldAccessWatch(Target.class, field);
            api.clearFieldModificationWatch(Target.class, field);
            assertEquals(41, assertThrows(JVMTIException.class,
                    () -> api.clearFieldModificationWatch(Target.class, field)).getErrorCode());
            assertEquals(0, AgentProbe.fieldAccessCount() + AgentProbe.fieldModificationCount());
        }
        for (Runnable call : List.<Runnable>of(() -> api.setFieldAccessWatch(Target.class, null),
                () -> api.clearFieldAccessWatch(Target.class, null),
                () -> api.setFieldModificationWatch(Target.class, null),
                () -> api.clearFieldModificationWatch(Target.class, null))) {
            assertEquals("Invalid Field", assertThrows(IllegalArgumentException.class, call::run).getMessage());
        }
    }

    @Test
    void locationsComeBackInReflectedForm() throws Exception {
        Method sum = Target.class.getMethod("sum", long.class, long.class);
        BreakpointLocation staticMethod = (BreakpointLocation) AgentProbe.roundTrip(BreakpointLocation.forMethod(sum, 3));
        assertEquals(sum, staticMethod.getMember());
        assertTrue(Modifier.isStatic(((Method) staticMethod.getMember()).getModifiers()));
        assertEquals(3, staticMethod.getLocation());

        Constructor<Target> constructor = Target.class.getConstructor(int.class);
        BreakpointLocation built = (BreakpointLocation) AgentProbe.roundTrip(BreakpointLocation.forConstructor(constructor, 1));
        assertEquals(constructor, built.getMember());
        assertEquals("<init>(I)V", built.getMemberSignature());

        BreakpointLocation initializer =
                (BreakpointLocation) AgentProbe.roundTrip(BreakpointLocation.forStaticInitializer(Target.class, 0));
        assertEquals("<clinit>()V", initializer.getMemberSignature());
        assertEquals(Target.class, initializer.getMemberClass());

        assertNull(AgentProbe.roundTrip(new Forged(Target.class, "nothing()V")));
    }
}
