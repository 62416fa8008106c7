package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.CONTINUE;
import static com.brantide.kelvane.plugin.jvmti.StepType.FIELD_MODIFICATION_COMPLETE;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.lang.instrument.ClassDefinition;
import java.lang.instrument.Instrumentation;
import java.lang.reflect.Field;
import java.lang.reflect.Proxy;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.function.Function;
import java.util.jar.JarOutputStream;
import java.util.jar.Manifest;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/**
 * Events, read through the probe variant of the agent: breakpoints and field watches as the agent
 * counts them and the VM refuses them, what the field, exception, class and thread hooks receive and
 * the thread they leave behind.
 */
class EventsProbeTest {
    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;
    private final List<List<Object>> calls = Collections.synchronizedList(new ArrayList<>());

    /** Runs the code on a fresh thread with the given events switched on for it. */
    private void onThreadWith(Runnable code, int... events) throws InterruptedException {
        Thread thread = ThreadKind.unstarted("event-subject", () -> {
            for (int event : events) {
                assertTrue(api.setEventNotificationMode(Thread.currentThread(), event, true));
            }
            code.run();
        });
        thread.setUncaughtExceptionHandler((t, e) -> calls.add(List.of("uncaught", e)));
        thread.start();
        thread.join(30_000);
    }

    /**
     * A hook of the given type that records each call as the method's name and its arguments in
     * brief, and answers what `answer` makes of that record.
     */
    private <T> T recorder(Class<T> type, Function<List<Object>, Object> answer) {
        return type.cast(Proxy.newProxyInstance(type.getClassLoader(), new Class<?>[] {type}, (proxy, method, args) -> {
            List<Object> call = new ArrayList<>(List.of(method.getName()));
            Stream.of(args).map(EventsProbeTest::brief).forEach(call::add);
            calls.add(call);
            return answer.apply(call);
        }));
    }

    /** Members, fields and threads by name (a thread not the current one marked so), exceptions by message. */
    private static Object brief(Object argument) {
        return argument instanceof BreakpointLocation location ? location.getMember().getName()
                : argument instanceof ThreadContext context ? context.getThread().getName()
                : argument instanceof Field field ? field.getName()
                : argument instanceof Throwable thrown ? thrown.getMessage()
                : argument instanceof Thread thread ? thread.getName() + (thread == Thread.currentThread() ? "" : " elsewhere")
                : argument;
    }

    @Test
    void watchesAreCountedOnceAndTheirHooksSeeValuesObjectsAndStaticFieldsAndMayThrow() throws Exception {
        EventTarget target = new EventTarget();
        Field count = EventTarget.class.getField("count");
        for (Field field : EventTarget.class.getFields()) {
            api.setFieldModificationWatch(EventTarget.class, field);
        }
        api.setFieldAccessWatch(EventTarget.class, count);
        assertEquals(40, assertThrows(JVMTIException.class,
                () -> api.setFieldAccessWatch(EventTarget.class, count)).getErrorCode(), "a duplicate");
        assertEquals(List.of(1, 5), List.of(AgentProbe.fieldAccessCount(), AgentProbe.fieldModificationCount()));
        List<Object> setCount = modified(target, "count", 5);
        api.registerFieldHook(recorder(FieldHook.class, call -> {
            if (call.contains("label")) {
                throw new IllegalStateException("a hook that fails");
            }
            return call.equals(setCount) ? FIELD_MODIFICATION_COMPLETE : CONTINUE;
        }));
        int[] result = new int[1];
        onThreadWith(() -> result[0] = target.update(), JvmtiEvent.FIELD_MODIFICATION, JvmtiEvent.FIELD_ACCESS);
        for (Field field : EventTarget.class.getFields()) {
            api.clearFieldModificationWatch(EventTarget.class, field);
        }
        api.clearFieldAccessWatch(EventTarget.class, count);
        assertEquals(41, assertThrows(JVMTIException.class,
                () -> api.clearFieldModificationWatch(EventTarget.class, count)).getErrorCode(), "none left");
        assertEquals(List.of(0, 0), List.of(AgentProbe.fieldAccessCount(), AgentProbe.fieldModificationCount()));
        assertEquals(5, result[0], "the application ran on as if the hook had not failed");
        assertEquals(List.of(setCount, List.of("fieldModifiedComplete", "update", "event-subject"),
                modified(target, "ratio", 0.5), modified(target, "label", "changed"),
                modified(target, "values", target.values), modified(null, "total", 42L),
                List.of("fieldAccess", "update", "event-subject", EventTarget.class, target, "count")), calls);
    }

    private static List<Object> modified(Object object, String field, Object value) {
        return Arrays.asList("fieldModified", "update", "event-subject", EventTarget.class, object, field, value);
    }

    @Test
    void exceptionHooksSeeThrowAndCatchButNeverAStackOverflow() throws Exception {
        api.registerExceptionHook(recorder(ExceptionHook.class, call -> CONTINUE));
        int[] caught = new int[1];
        onThreadWith(() -> {
            caught[0] = EventTarget.throwAndCatch();
            try {
                EventTarget.overflow(0);
            } catch (StackOverflowError expected) {
                caught[0]++;
            }
        }, JvmtiEvent.EXCEPTION, JvmtiEvent.EXCEPTION_CATCH);
        assertEquals(7, caught[0], "the application still catches what it threw");
        assertEquals(List.of(List.of("exceptionThrown", "throwAndCatch", "event-subject", "caught", "throwAndCatch"),
                List.of("exceptionCatch", "throwAndCatch", "event-subject", "caught")), calls,
                "nothing about the stack overflow");

        calls.clear();
        onThreadWith(EventTarget::throwUncaught, JvmtiEvent.EXCEPTION);
        // A virtual thread's own run method catches what its task lets through.
        assertEquals(Arrays.asList("exceptionThrown", "throwUncaught", "event-subject", "uncaught",
                ThreadKind.VIRTUAL ? "run" : null), calls.get(0), "no catch location in the application");
        assertEquals("uncaught", calls.get(calls.size() - 1).get(0), "the thread still died of it");
    }

    @Test
    void threadAndClassHooksHearAThreadAndItsFreshClassOnItAndARedefinitionButNoFirstLoad() throws Exception {
        api.registerThreadHook(recorder(ThreadHook.class, call -> {
            throw new IllegalStateException("a hook that throws");
        }));
        api.registerClassPrepareHook((ClassPrepareHook) (thread, clazz) -> {
            if (clazz.getName().endsWith("$Fresh")) {
                calls.add(List.of(thread.getName(), clazz));
            }
        });
        onThreadWith(() -> EventTarget.Fresh.value());
        // Apart from the thread hook's calls for other threads: an uncaught exception would show too.
        assertEquals(List.of(List.of("threadStart", "event-subject"), List.of("event-subject", EventTarget.Fresh.class),
                List.of("threadEnd", "event-subject")), new ArrayList<>(calls).stream().filter(call -> !call.get(0)
                .toString().startsWith("thread") || call.get(1).toString().startsWith("event-subject")).toList(), "each on the thread itself, and what the hook threw stayed in the agent");

        ChildJvm.Result result = ChildJvm.main(RedefineMain.class.getName())
                .jvmOption("-javaagent:" + redefiningAgentJar()).run().assertClean();
        assertEquals(List.of("redefined " + EventTarget.Fresh.class.getName()),
                result.stdoutLines().stream().filter(l -> l.startsWith("redefined")).toList());
    }

    /**
     * A jar naming RedefineMain as its instrumentation agent: one per run, as test classes run side
     * by side, deleted when this JVM ends.
     */
    private static Path redefiningAgentJar() throws IOException {
        Path jar = Files.createTempFile(ChildJvm.workDirectory(), "redefine-agent-", ".jar");
        jar.toFile().deleteOnExit();
        String manifest = "Manifest-Version: 1.0\nPremain-Class: " + RedefineMain.class.getName()
                + "\nCan-Redefine-Classes: true\n";
        new JarOutputStream(Files.newOutputStream(jar), new Manifest(new ByteArrayInputStream(manifest.getBytes(UTF_8))))
                .close();
        return jar;
    }

    /**
     * A child JVM's program, whose work its instrumentation agent does, with the instrumentation at
     * hand: it loads a class with the file-load hook registered, then redefines it.
     */
    public static final class RedefineMain {
        public static void main(String[] args) {
        }

        public static void premain(String args, Instrumentation instrumentation) throws Exception {
            JvmtiApi api = new JvmtiApi();
            api.registerClasses();
            api.registerFileLoadHook((FileLoadHook) clazz -> System.out.println("redefined " + clazz.getName()));
            EventTarget.Fresh.value();
            byte[] bytes = ClassFiles.bytesOf(EventTarget.Fresh.class);
            instrumentation.redefineClasses(new ClassDefinition(EventTarget.Fresh.class, bytes));
        }
    }

    @Test
    void everyKindOfMemberTakesABreakpointOnceAndWhatNamesNoCodeIsRefusedWithoutHarm() throws Exception {
        BreakpointLocation twice = BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 0);
        for (BreakpointLocation location : List.of(twice,
                BreakpointLocation.forMethod(Target.class.getMethod("sum", long.class, long.class), 2),
                BreakpointLocation.forConstructor(Target.class.getConstructor(int.class), 0),
                BreakpointLocation.forStaticInitializer(Target.class, 0))) {
            assertEquals(location, AgentProbe.roundTrip(location), "comes back in reflected form");
            api.setBreakpoint(location);
            assertEquals("JVMTI_ERROR_DUPLICATE",
                    assertThrows(JVMTIException.class, () -> api.setBreakpoint(location)).getMessage());
            assertEquals(1, AgentProbe.breakpointCount(), "counted once: " + location);
            api.clearBreakpoint(location);
            assertEquals(41, assertThrows(JVMTIException.class, () -> api.clearBreakpoint(location)).getErrorCode());
        }
        // Locations without code there are the VM's to refuse: past the end, native, abstract.
        for (BreakpointLocation noCode : List.of(in(Target.class, "twice(I)I", 10_000),
                in(Target.class, "nativeMethod()I", 0), in(Runnable.class, "run()V", 0))) {
            assertThrows(JVMTIException.class, () -> api.setBreakpoint(noCode), noCode.toString());
        }
        // Objects that name no code are refused by the agent, whatever they answer or throw.
        Object throwing = new BreakpointLocation(Target.class, "twice(I)I", 0) {
            @Override
            public String getMemberSignature() {
                throw new IllegalStateException("a location that throws");
            }
        };
        record Lookalike(Class<?> getMemberClass, String getMemberSignature) { } // the getters, no location field
        for (Object location : List.of(throwing, new Lookalike(Target.class, "twice(I)I"), in(null, "twice(I)I", 0),
                in(Target.class, "twice(J)I", 0), in(Target.class, "twice", 0), in(Target.class, null, 0),
                in(int.class, "twice(I)I", 0))) {
            assertEquals("Invalid BreakpointLocation",
                    assertThrows(IllegalArgumentException.class, () -> api.setBreakpoint(location)).getMessage());
            assertThrows(IllegalArgumentException.class, () -> api.clearBreakpoint(location));
        }
        api.setActive(false);
        assertEquals(99, assertThrows(JVMTICapabilityException.class, () -> api.setBreakpoint(twice)).getErrorCode());
        assertEquals(0, AgentProbe.breakpointCount());
    }

    private static BreakpointLocation in(Class<?> memberClass, String memberSignature, long location) {
        return new BreakpointLocation(memberClass, memberSignature, location);
    }
}
