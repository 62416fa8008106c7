package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import org.junit.jupiter.api.MethodOrderer.OrderAnnotation;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/**
 * Unboxing and the exception raisers, reached through the probe variant of the agent. The class
 * registry is process-wide, so the exception tests run in a fixed order.
 */
@TestMethodOrder(OrderAnnotation.class)
class InternalsProbeTest {
    private final JvmtiApi api = new JvmtiApi();

    @Test
    void unboxesAcceptedWrappersAndAnswersMinus42ForTheRest() {
        assertEquals(7, AgentProbe.unBoxToInt(7));
        assertEquals(1, AgentProbe.unBoxToInt(Boolean.TRUE));
        assertEquals(0, AgentProbe.unBoxToInt(Boolean.FALSE));
        assertEquals(65, AgentProbe.unBoxToInt('A'));
        assertEquals(0xffff, AgentProbe.unBoxToInt('\uffff'), "char is zero-extended");
        assertEquals(-1, AgentProbe.unBoxToInt((byte) -1), "byte is sign-extended");
        assertEquals(-2, AgentProbe.unBoxToInt((short) -2), "short is sign-extended");
        assertEquals(-42, AgentProbe.unBoxToInt(5L));
        assertEquals(-42, AgentProbe.unBoxToInt(1.0));
        assertEquals(-42, AgentProbe.unBoxToInt("7"));
        assertEquals(-42, AgentProbe.unBoxToInt(null));
        assertEquals(Long.MAX_VALUE, AgentProbe.unBoxToLong(Long.MAX_VALUE));
        assertEquals(-42L, AgentProbe.unBoxToLong(3));
        assertEquals(2.5f, AgentProbe.unBoxToFloat(2.5f));
        assertEquals(-42.0f, AgentProbe.unBoxToFloat(2.5));
        assertEquals(0.125, AgentProbe.unBoxToDouble(0.125));
        assertEquals(-42.0, AgentProbe.unBoxToDouble(2.5f), "a Float is not a Double");
        assertEquals(-42.0, AgentProbe.unBoxToDouble(null));
    }

    @Test
    @Order(1)
    void withoutRegisteredClassesJvmtiErrorsBecomeIllegalState() {
        IllegalStateException e =
                assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(23));
        assertEquals("JVMTI Exception class not found", e.getMessage());
        e = assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(99));
        assertEquals("JVMTI Exception class not found", e.getMessage());
    }

    @Test
    @Order(2)
    void registeredClassesCarryCodeAndName() {
        api.registerClasses();
        JVMTIException e = assertThrows(JVMTIException.class, () -> AgentProbe.throwJvmtiException(23));
        assertEquals(JVMTIException.class, e.getClass());
        assertEquals(23, e.getErrorCode());
        assertEquals("JVMTI_ERROR_INVALID_METHODID", e.getMessage());
        JVMTICapabilityException c =
                assertThrows(JVMTICapabilityException.class, () -> AgentProbe.throwJvmtiException(99));
        assertEquals(99, c.getErrorCode());
        assertEquals("JVMTI_ERROR_MUST_POSSESS_CAPABILITY", c.getMessage());
    }

    /** A replacement registered under the same name. */
    public static class OtherJvmtiException extends JVMTIException {
        private static final long serialVersionUID = 1L;

        public OtherJvmtiException(int code, String message) {
            super(code, message);
        }
    }

    /** Has the right constructor but cannot be instantiated. */
    public abstract static class AbstractJvmtiException extends RuntimeException {
        private static final long serialVersionUID = 1L;

        public AbstractJvmtiException(int code, String message) {
            super(message + code);
        }
    }

    @Test
    @Order(3)
    void unusableRegisteredClassesFallBackToIllegalState() {
        api.registerOsgiClass("JVMTIException", OtherJvmtiException.class);
        assertEquals(OtherJvmtiException.class,
                assertThrows(JVMTIException.class, () -> AgentProbe.throwJvmtiException(15)).getClass());

        api.registerOsgiClass("JVMTIException", IllegalStateException.class);
        assertEquals("JVMTI Exception constructor not found",
                assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(15)).getMessage());

        api.registerOsgiClass("JVMTIException", AbstractJvmtiException.class);
        assertEquals("Cannot create new exception",
                assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(15)).getMessage());

        api.registerOsgiClass("JVMTIException", String.class);
        assertEquals("JVMTI Exception class not found",
                assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(15)).getMessage());

        api.registerOsgiClass("jvmtiexception", JVMTIException.class);
        assertEquals("JVMTI Exception class not found",
                assertThrows(IllegalStateException.class, () -> AgentProbe.throwJvmtiException(15)).getMessage(),
                "names are case-sensitive");
        api.registerClasses();
    }

    @Test
    void errnoAndNamedExceptions() {
        IllegalStateException e = assertThrows(IllegalStateException.class, () -> AgentProbe.throwErrno(2));
        assertEquals("Native error 'No such file or directory' 2", e.getMessage());

        String longText = "x".repeat(5000);
        IllegalArgumentException cut = assertThrows(IllegalArgumentException.class,
                () -> AgentProbe.throwException("java/lang/IllegalArgumentException", longText));
        assertEquals(1023, cut.getMessage().length());

        String percent = "100% sure %s %n";
        assertEquals(percent, assertThrows(IllegalArgumentException.class,
                () -> AgentProbe.throwException("java/lang/IllegalArgumentException", percent)).getMessage());

        assertThrows(NoClassDefFoundError.class, () -> AgentProbe.throwException("no/such/Clazz", "m"));
    }
}
