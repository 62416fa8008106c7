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
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
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
        Thread ended = ThreadKind.ranToEnd("ended", () -> { });
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        String illegal = "IllegalArgumentException: ";
        return Stream.of(
                // Switched off (twice) it is inactive. Thread start is switched VM-wide only; stepping's
                // own events are the agent's alone, on and off.
                returningFalse(() -> API.setActive(false) || API.setActive(false) || API.isActive(),
                        () -> API.setEventNotificationMode(SELF, JvmtiEvent.THREAD_START, true),
                        () -> Stream.of(JvmtiEvent.SINGLE_STEP, JvmtiEvent.FRAME_POP, JvmtiEvent.METHOD_ENTRY, JvmtiEvent.METHOD_EXIT)
                                .anyMatch(e -> API.setEventNotificationMode(SELF, e, true) || API.setEventNotificationMode(SELF, e, false)),
                        () -> API.setEventNotificationMode(SELF, 9999, true),
                        () -> API.setEventNotificationMode(null, Integer.MIN_VALUE, true),
                        () -> API.setEventNotificationMode(ended, JvmtiEvent.BREAKPOINT, true),
                        () -> API.setEventNotificationMode(early, JvmtiEvent.BREAKPOINT, true)),
                raising(illegal + "thread is null", () -> API.getStackDepth(null), () -> API.listStack(null, 1, CALLBACK),
                        () -> API.listOwnedMonitors(null, 1, CALLBACK), () -> API.listContendedMonitor(null, CALLBACK),
                        () -> API.suspendThread(null, CALLBACK), () -> API.setVariable(null, 1, "x", 1)),
                raising(illegal + "callback is null", () -> API.listThreads(null), () -> API.listVariables(SELF, 1, 1, null),
                        () -> API.heapHistogram(null, 0), () -> API.gcRoots(null, "LTarget;", 0, 1),
                        () -> API.listClasses(null)),
                raising(illegal + "name is null", () -> API.registerOsgiClass(null, String.class)),
                raising(illegal + "clazz is null", () -> API.registerOsgiClass("ThreadContext", null)),
                raising(illegal + "stackFrame must be >= 1", () -> API.listStack(SELF, 0, CALLBACK)),
                raising(illegal + "thread cannot be the current thread", () -> API.suspendThread(SELF, CALLBACK)),
                raising(illegal + "op code must be >= 2 && <= 8", () -> API.resumeThread(early, 99)),
                raising(illegal + "stackFrame must be > 1", () -> API.listVariables(SELF, -1, 1, CALLBACK)),
                raising(illegal + "depth must be >= 1", () -> API.listVariables(SELF, 1, 0, CALLBACK)),
                raising(illegal + "stackFrameDepth must be >= 1", () -> API.setVariable(SELF, 0, "x", 1)),
                raising(illegal + "variableName is null", () -> API.setVariable(SELF, 1, null, 1)),
                raising(illegal + "Invalid BreakpointLocation", () -> API.setBreakpoint(null)),
                raising(illegal + "Invalid Field", () -> API.setFieldAccessWatch(Target.class, null)),
                raising(illegal + "filename is null", () -> API.heapHistogramToFile(null, 0)),
                raising(illegal + "maxDepth is negative", () -> API.gcRoots(CALLBACK, "LTarget;", 0, -1)),
                raising(illegal + "signature is null", () -> API.gcRoots(CALLBACK, null, 0, 1)),
                raising("NoSuchMethodError", () -> API.listClasses(CALLBACK)),
                raising("JVMTIException: JVMTI_ERROR_INVALID_CLASS 21", () -> API.getSourceFileName(null)),
                // The classes the agent raises its JVMTI errors with, registered wrong.
                raising("JVMTICapabilityException: JVMTI_ERROR_THREAD_NOT_ALIVE 15",
                        raisedWith("JVMTIException", JVMTICapabilityException.class)),
                raising("IllegalStateException: JVMTI Exception constructor not found",
                        raisedWith("JVMTIException", IllegalStateException.class)),
                raising("IllegalStateException: Cannot create new exception", raisedWith("JVMTIException", AbstractJvmtiException.class)),
                raising("IllegalStateException: JVMTI Exception class not found", raisedWith("JVMTIException", String.class)),
                raising("JVMTIException: JVMTI_ERROR_THREAD_NOT_ALIVE 15", raisedWith("jvmtiexception", String.class)))
                .flatMap(rows -> rows);
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

    private static Stream<Arguments> returningFalse(ThrowingSupplier<?>... calls) {
        return Stream.of(calls).map(call -> Arguments.of("returned false", call));
    }

    /** Calls whose outcome must be the expected exception; "returned nothing" when they end normally. */
    private static Stream<Arguments> raising(String expected, Executable... calls) {
        return Stream.of(calls).map(call -> Arguments.of(expected, (ThrowingSupplier<?>) () -> {
            call.execute();
            return "nothing";
        }));
    }

    /** A failing call after the class was registered under the name (names are case-sensitive). */
    private static Executable raisedWith(String name, Class<?> clazz) {
        return () -> {
            API.registerOsgiClass(name, clazz);
            API.getStackDepth(new Thread());
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
