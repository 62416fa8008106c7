package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.function.ThrowingSupplier;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** Switching on and off, what each native refuses, and the class registry: source files, debug extensions, line tables, the class list. */
class ControlAndLookupTest {
    /** The natives keep no state in the object: the rows call through one of their own. */
    private static final JvmtiApi API = new JvmtiApi();
    private static final Thread SELF = Thread.currentThread();
    private static final Object CALLBACK = new Object();
    /** Prepared: the VM lists the methods of prepared classes only. */
    private static final Target PREPARED = new Target(1);

    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;

    static Stream<Arguments> refusals() throws Exception {
        Thread ended = new Thread(() -> { }, "ended");
        ended.start();
        ended.join();
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        return Stream.of(
                // Switched off (twice) it is inactive.
                row("returned false", () -> API.setActive(false) || API.setActive(false) || API.isActive()),
                row("IllegalArgumentException: name is null", () -> API.registerOsgiClass(null, String.class)),
                row("IllegalArgumentException: clazz is null", () -> API.registerOsgiClass("ThreadContext", null)),
                row("IllegalArgumentException: thread is null", () -> API.getStackDepth(null)),
                row("IllegalArgumentException: stackFrame must be >= 1", () -> API.listStack(SELF, 0, CALLBACK)),
                row("IllegalArgumentException: thread is null", () -> API.listStack(null, 1, CALLBACK)),
                row("IllegalArgumentException: callback is null", () -> API.listThreads(null)),
                row("IllegalArgumentException: thread is null", () -> API.listOwnedMonitors(null, 1, CALLBACK)),
                row("IllegalArgumentException: thread is null", () -> API.listContendedMonitor(null, CALLBACK)),
                row("IllegalArgumentException: thread is null", () -> API.suspendThread(null, CALLBACK)),
                row("IllegalArgumentException: thread cannot be the current thread", () -> API.suspendThread(SELF, CALLBACK)),
                row("IllegalArgumentException: op code must be >= 2 && <= 8", () -> API.resumeThread(early, 99)),
                row("IllegalArgumentException: stackFrame must be > 1", () -> API.listVariables(SELF, -1, 1, CALLBACK)),
                row("IllegalArgumentException: depth must be >= 1", () -> API.listVariables(SELF, 1, 0, CALLBACK)),
                row("IllegalArgumentException: callback is null", () -> API.listVariables(SELF, 1, 1, null)),
                row("IllegalArgumentException: stackFrameDepth must be >= 1", () -> API.setVariable(SELF, 0, "x", 1)),
                row("IllegalArgumentException: variableName is null", () -> API.setVariable(SELF, 1, null, 1)),
                row("IllegalArgumentException: thread is null", () -> API.setVariable(null, 1, "x", 1)),
                row("IllegalArgumentException: Invalid BreakpointLocation", () -> API.setBreakpoint(null)),
                row("IllegalArgumentException: Invalid Field", () -> API.setFieldAccessWatch(Target.class, null)),
                // Thread start is switched VM-wide only; stepping's own events are the agent's alone.
                row("returned false", () -> API.setEventNotificationMode(SELF, JvmtiEvent.THREAD_START, true)),
                row("returned false", () -> API.setEventNotificationMode(SELF, JvmtiEvent.SINGLE_STEP, true)),
                row("returned false", () -> API.setEventNotificationMode(SELF, JvmtiEvent.FRAME_POP, false)),
                row("returned false", () -> API.setEventNotificationMode(SELF, JvmtiEvent.METHOD_ENTRY, true)),
                row("returned false", () -> API.setEventNotificationMode(SELF, JvmtiEvent.METHOD_EXIT, false)),
                row("returned false", () -> API.setEventNotificationMode(SELF, 9999, true)),
                row("returned false", () -> API.setEventNotificationMode(null, Integer.MIN_VALUE, true)),
                row("returned false", () -> API.setEventNotificationMode(ended, JvmtiEvent.BREAKPOINT, true)),
                row("returned false", () -> API.setEventNotificationMode(early, JvmtiEvent.BREAKPOINT, true)),
                row("IllegalArgumentException: callback is null", () -> API.heapHistogram(null, 0)),
                row("IllegalArgumentException: filename is null", () -> API.heapHistogramToFile(null, 0)),
                row("IllegalArgumentException: callback is null", () -> API.gcRoots(null, "LTarget;", 0, 1)),
                row("IllegalArgumentException: maxDepth is negative", () -> API.gcRoots(CALLBACK, "LTarget;", 0, -1)),
                row("IllegalArgumentException: signature is null", () -> API.gcRoots(CALLBACK, null, 0, 1)),
                row("IllegalArgumentException: callback is null", () -> API.listClasses(null)),
                row("NoSuchMethodError", () -> API.listClasses(CALLBACK)),
                row("JVMTIException: JVMTI_ERROR_INVALID_CLASS 21", () -> API.getSourceFileName(null)),
                // The classes the agent raises its JVMTI errors with, registered wrong.
                row("JVMTICapabilityException: JVMTI_ERROR_THREAD_NOT_ALIVE 15",
                        raisedWith("JVMTIException", JVMTICapabilityException.class)),
                row("IllegalStateException: JVMTI Exception constructor not found",
                        raisedWith("JVMTIException", IllegalStateException.class)),
                row("IllegalStateException: Cannot create new exception", raisedWith("JVMTIException", AbstractJvmtiException.class)),
                row("IllegalStateException: JVMTI Exception class not found", raisedWith("JVMTIException", String.class)),
                row("JVMTIException: JVMTI_ERROR_THREAD_NOT_ALIVE 15", raisedWith("jvmtiexception", String.class)));
    }

    @ParameterizedTest(name = "[{index}] {0}")
    @MethodSource("refusals")
    void everyNativeAnswersEdgeCasesAsDocumented(String expected, ThrowingSupplier<?> call) {
        String outcome;
        try {
            outcome = "returned " + call.get();
        } catch (JVMTIException e) {
            outcome = e.getClass().getSimpleName() + ": " + e.getMessage() + " " + e.getErrorCode();
        } catch (RuntimeException e) {
            outcome = e.getClass().getSimpleName() + ": " + e.getMessage();
        } catch (Throwable e) {
            outcome = e.getClass().getSimpleName();  // the VM's own errors: their text varies with the JDK
        }
        assertEquals(expected, outcome);
    }

    private static Arguments row(String expected, ThrowingSupplier<?> call) {
        return Arguments.of(expected, call);
    }

    private static Arguments row(String expected, Executable call) {
        return Arguments.of(expected, (ThrowingSupplier<?>) () -> {
            call.execute();
            return "nothing";
        });
    }

    /** A failing call after the class was registered under the name (names are case-sensitive). */
    private static ThrowingSupplier<?> raisedWith(String name, Class<?> clazz) {
        return () -> {
            API.registerOsgiClass(name, clazz);
            return API.getStackDepth(new Thread());
        };
    }

    /** Has the right constructor but cannot be instantiated. */
    public abstract static class AbstractJvmtiException extends RuntimeException {
        private static final long serialVersionUID = 1L;

        public AbstractJvmtiException(int code, String message) {
            super(message + code);
        }
    }

    @Test
    void sourceAttributesLineTablesAndTheClassListAreTheVmsOwn() throws Exception {
        Class<?> plain = ClassFiles.withoutDebugInformation();
        assertEquals("Target.java", api.getSourceFileName(Target.class));
        assertEquals("", api.getSourceDebugExtension(Target.class), "absent: empty, not an error");
        assertEquals("", api.getSourceFileName(plain));
        String smap = "SMAP\nPage.java\nJSP\n*S JSP\n*F\n+ 0 page.jsp\npage.jsp\n*L\n1,3:10\n*E\n";
        Class<?> mapped = ClassFiles.withSourceDebugExtension(Target.class, smap);
        assertEquals(smap, api.getSourceDebugExtension(mapped));
        assertEquals("Target.java", api.getSourceFileName(mapped));
        for (String key : List.of("twice(I)I", "sum(JJ)J", "<init>(I)V", "<clinit>()V")) {
            // The VM's own table of the method named by the key: javac's tables begin at the method's first instruction.
            List<Long> reported = new ArrayList<>();
            api.getLineNumbersV2(Target.class, key, (LineNumberCallback) (location, line) -> reported.add(location));
            assertEquals(0L, reported.stream().min(Long::compare).orElseThrow(), key);
        }
        List<String> calls = new ArrayList<>();
        LineNumberCallback record = (location, line) -> calls.add(location + ":" + line);
        api.getLineNumbersV2(Target.class, "twice", record);
        api.getLineNumbersV2(Target.class, "toString()Ljava/lang/String;", record); // declared by a superclass
        api.getLineNumbersV2(Target.class, "nativeMethod()I", record);
        api.getLineNumbersV2(plain, "both([II)I", record);
        api.getLineNumbersV2(Target.class, null, record);
        api.getLineNumbersV2(null, "twice(I)I", record);
        assertEquals(List.of(), calls);

        Set<Class<?>> found = new HashSet<>();
        api.listClasses((ClassCallback) found::add);
        // Array classes are never prepared.
        assertTrue(found.contains(Target.class) && !found.contains(int[].class) && found.size() > 400, found.toString());
        assertThrows(IllegalStateException.class, () -> api.listClasses((ClassCallback) clazz -> {
            calls.add(clazz.getName());
            throw new IllegalStateException("stop");
        }));
        assertEquals(1, calls.size(), "a callback that throws ends the listing");
    }
}
