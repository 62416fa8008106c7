package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.MethodOrderer.OrderAnnotation;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/** The control natives and the class registry, in a JVM that loaded the agent. */
@TestMethodOrder(OrderAnnotation.class)
class ControlTest {
    private final JvmtiApi api = new JvmtiApi();

    @Test
    @Order(1)
    void switchesOnAndOff() {
        assertFalse(api.isActive(), "inactive after load");
        assertFalse(api.setActive(false), "switching off an inactive agent");
        assertTrue(api.setActive(true));
        assertTrue(api.isActive());
        assertTrue(api.setActive(true), "switching on again acquires the same set again");
        assertFalse(api.setActive(false));
        assertFalse(api.isActive());
        assertTrue(api.setActive(true));
        assertFalse(api.setActive(false));
    }

    @Test
    @Order(2)
    void maxStepDurationReturnsThePreviousValueUnchecked() {
        assertEquals(15, api.setMaxStepDuration(30));
        assertEquals(30, api.setMaxStepDuration(-1));
        assertEquals(-1, api.setMaxStepDuration(15));
    }

    @Test
    void versionsAndSettings() {
        assertEquals(5, api.getApiVersion());
        assertEquals(JvmtiApi.API_VERSION, api.getApiVersion());
        assertTrue(api.getLibraryVersionString().startsWith("Kelvane JVMTI Revision: "));
        assertTrue(api.isFastSteppingEnabled());
        assertTrue(api.isExceptionsEnabled());
    }

    @Test
    void hooksCanBeRegisteredReplacedAndCleared() {
        Object hook = new Object();
        for (int round = 0; round < 3; round++) {
            api.registerClassPrepareHook(hook);
            api.registerBreakpointHook(hook);
            api.registerExceptionHook(hook);
            api.registerThreadHook(hook);
            api.registerFieldHook(hook);
            api.registerSteppingAbortedHook(hook);
            api.registerFileLoadHook(hook);
            api.registerClassPrepareHook(null);
            api.registerBreakpointHook(null);
            api.registerExceptionHook(null);
            api.registerThreadHook(null);
            api.registerFieldHook(null);
            api.registerSteppingAbortedHook(null);
            api.registerFileLoadHook(null);
        }
    }

    @Test
    void registryRejectsNullsNamingTheFirstOne() {
        IllegalArgumentException noName =
                assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass(null, String.class));
        assertEquals("name is null", noName.getMessage());
        noName = assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass(null, null));
        assertEquals("name is null", noName.getMessage());
        IllegalArgumentException noClass =
                assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass("ThreadContext", null));
        assertEquals("clazz is null", noClass.getMessage());
        api.registerClasses();
    }
}
