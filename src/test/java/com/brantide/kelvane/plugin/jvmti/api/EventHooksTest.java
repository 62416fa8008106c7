package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.CONTINUE;
import static com.brantide.kelvane.plugin.jvmti.StepType.FIELD_MODIFICATION_COMPLETE;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Field, exception and class hooks: what they receive, and the thread they leave behind. */
class EventHooksTest {
    private final JvmtiApi api = new JvmtiApi();
    private final List<Object[]> calls = Collections.synchronizedList(new ArrayList<>());

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
        new EventTarget();
    }

    @AfterEach
    void deactivate() {
        api.registerFieldHook(null);
        api.registerExceptionHook(null);
        api.registerClassPrepareHook(null);
        api.setActive(false);
    }

    /** Runs the code on a fresh thread with the given events switched on for it. */
    private void onThreadWith(Runnable code, int... events) throws InterruptedException {
        Thread thread = ThreadKind.unstarted("event-subject", () -> {
            for (int event : events) {
                assertTrue(api.setEventNotificationMode(Thread.currentThread(), event, true));
            }
            code.run();
        });
        thread.setUncaughtExceptionHandler((t, e) -> calls.add(new Object[] {"uncaught", e}));
        thread.start();
        thread.join(30_000);
    }

    private static String where(BreakpointLocation location) {
        return location.getMember().getName() + ":" + location.getLocation();
    }

    @Test
    void fieldHooksSeeBoxedValuesObjectsAndStaticFields() throws Exception {
        EventTarget target = new EventTarget();
        for (Field field : EventTarget.class.getFields()) {
            api.setFieldModificationWatch(EventTarget.class, field);
        }
        api.setFieldAccessWatch(EventTarget.class, EventTarget.class.getField("count"));
        api.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                calls.add(new Object[] {"read " + field.getName(), object, where(location)});
                return CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object value) {
                calls.add(new Object[] {field.getName(), object, value, fieldClass});
                return field.getName().equals("count") ? FIELD_MODIFICATION_COMPLETE : CONTINUE;
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                calls.add(new Object[] {"complete", where(location), context.getThread().getName()});
                return CONTINUE;
            }
        });
        onThreadWith(target::update, JvmtiEvent.FIELD_MODIFICATION, JvmtiEvent.FIELD_ACCESS);
        for (Field field : EventTarget.class.getFields()) {
            api.clearFieldModificationWatch(EventTarget.class, field);
        }
        api.clearFieldAccessWatch(EventTarget.class, EventTarget.class.getField("count"));

        assertEquals(7, calls.size(), describe());
        assertEquals(List.of("count", target, 5, EventTarget.class), Arrays.asList(calls.get(0)));
        assertEquals("complete", calls.get(1)[0], "the statement that set count completed");
        assertEquals("event-subject", calls.get(1)[2]);
        assertEquals(List.of("ratio", target, 0.5, EventTarget.class), Arrays.asList(calls.get(2)));
        assertEquals("changed", calls.get(3)[2]);
        assertSame(target.values, calls.get(4)[2], "an array is passed as itself");
        assertEquals("total", calls.get(5)[0]);
        assertNull(calls.get(5)[1], "a static field has no object");
        assertEquals(42L, calls.get(5)[2]);
        assertEquals("read count", calls.get(6)[0]);
        assertSame(target, calls.get(6)[1]);
        assertTrue(((String) calls.get(6)[2]).startsWith("update:"));
    }

    @Test
    void exceptionHooksSeeThrowAndCatchButNeverAStackOverflow() throws Exception {
        api.registerExceptionHook(new ExceptionHook() {
            @Override
            public int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
                    BreakpointLocation catchLocation) {
                calls.add(new Object[] {"thrown", exception.getMessage(), location.getMember().getName(),
                        catchLocation == null ? null : catchLocation.getMember().getName()});
                return CONTINUE;
            }

            @Override
            public int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception) {
                calls.add(new Object[] {"caught", exception.getMessage(), location.getMember().getName()});
                return CONTINUE;
            }
        });
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
        assertEquals(List.of("thrown", "caught", "throwAndCatch", "throwAndCatch"), Arrays.asList(calls.get(0)));
        assertEquals(List.of("caught", "caught", "throwAndCatch"), Arrays.asList(calls.get(1)));
        assertEquals(2, calls.size(), "nothing about the stack overflow: " + describe());

        calls.clear();
        onThreadWith(EventTarget::throwUncaught, JvmtiEvent.EXCEPTION);
        assertEquals("uncaught", calls.get(0)[1]);
        // A virtual thread's own run method catches what its task lets through.
        assertEquals(ThreadKind.VIRTUAL ? "run" : null, calls.get(0)[3], "no catch location in the application");
        assertEquals("uncaught", calls.get(calls.size() - 1)[0], "the thread still died of it");
    }

    @Test
    void classPrepareReportsAFreshClassOnItsThread() throws Exception {
        api.registerClassPrepareHook((ClassPrepareHook) (thread, clazz) -> {
            if (clazz.getName().endsWith("$Fresh")) {
                calls.add(new Object[] {thread.getName(), clazz});
            }
        });
        onThreadWith(() -> EventTarget.Fresh.value());
        assertEquals(1, calls.size());
        assertEquals("event-subject", calls.get(0)[0]);
        assertEquals(EventTarget.Fresh.class, calls.get(0)[1]);
    }

    @Test
    void aHookThatThrowsLeavesTheThreadClean() throws Exception {
        api.setFieldModificationWatch(EventTarget.class, EventTarget.class.getField("ratio"));
        api.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                return CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object value) {
                throw new IllegalStateException("hook failure");
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                return CONTINUE;
            }
        });
        int[] result = new int[1];
        onThreadWith(() -> result[0] = new EventTarget().update(), JvmtiEvent.FIELD_MODIFICATION);
        api.clearFieldModificationWatch(EventTarget.class, EventTarget.class.getField("ratio"));
        assertEquals(5, result[0], "the application ran on as if nothing had happened");
        assertTrue(calls.isEmpty(), describe());
    }

    @Test
    void aRedefinitionIsReportedAndAFirstLoadIsNot() throws Exception {
        ChildJvm.Result result = ChildJvm.main(RedefineMain.class)
                .jvmOption("-javaagent:" + RedefineMain.agentJar())
                .run();
        result.assertClean();
        assertEquals(List.of("redefined " + EventTarget.Fresh.class.getName()),
                result.stdoutLines().stream().filter(l -> l.startsWith("redefined")).toList());
    }

    private String describe() {
        StringBuilder text = new StringBuilder();
        calls.forEach(call -> text.append(Arrays.asList(call)).append('\n'));
        return text.toString();
    }
}
