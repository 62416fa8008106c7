package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.CONTINUE;
import static com.brantide.kelvane.plugin.jvmti.StepType.FIELD_MODIFICATION_COMPLETE;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/** Field, exception and class hooks: what they receive, and the thread they leave behind. */
class EventHooksTest {
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

    @Test
    void fieldHooksSeeValuesObjectsAndStaticFieldsAndAThrowingHookChangesNothing() throws Exception {
        EventTarget target = new EventTarget();
        Field count = EventTarget.class.getField("count");
        for (Field field : EventTarget.class.getFields()) {
            api.setFieldModificationWatch(EventTarget.class, field);
        }
        api.setFieldAccessWatch(EventTarget.class, count);
        api.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                calls.add(Arrays.asList("read " + field.getName(), object, location.getMember().getName()));
                return CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object value) {
                if (field.getName().equals("label")) {
                    throw new IllegalStateException("a hook that fails");
                }
                calls.add(Arrays.asList(field.getName(), object, value, fieldClass));
                return field.getName().equals("count") ? FIELD_MODIFICATION_COMPLETE : CONTINUE;
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                calls.add(List.of("complete", location.getMember().getName(), context.getThread().getName()));
                return CONTINUE;
            }
        });
        int[] result = new int[1];
        onThreadWith(() -> result[0] = target.update(), JvmtiEvent.FIELD_MODIFICATION, JvmtiEvent.FIELD_ACCESS);
        for (Field field : EventTarget.class.getFields()) {
            api.clearFieldModificationWatch(EventTarget.class, field);
        }
        api.clearFieldAccessWatch(EventTarget.class, count);
        assertEquals(5, result[0], "the application ran on as if the hook had not failed");
        assertEquals(List.of(List.of("count", target, 5, EventTarget.class),
                List.of("complete", "update", "event-subject"), List.of("ratio", target, 0.5, EventTarget.class),
                List.of("values", target, target.values, EventTarget.class),
                Arrays.asList("total", null, 42L, EventTarget.class), List.of("read count", target, "update")), calls);
    }

    @Test
    void exceptionHooksSeeThrowAndCatchButNeverAStackOverflow() throws Exception {
        api.registerExceptionHook(new ExceptionHook() {
            @Override
            public int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
                    BreakpointLocation catchLocation) {
                calls.add(Arrays.asList("thrown", exception.getMessage(), location.getMember().getName(),
                        catchLocation == null ? null : catchLocation.getMember().getName()));
                return CONTINUE;
            }

            @Override
            public int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception) {
                calls.add(List.of("caught", exception.getMessage(), location.getMember().getName()));
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
        assertEquals(List.of(List.of("thrown", "caught", "throwAndCatch", "throwAndCatch"),
                List.of("caught", "caught", "throwAndCatch")), calls, "nothing about the stack overflow");

        calls.clear();
        onThreadWith(EventTarget::throwUncaught, JvmtiEvent.EXCEPTION);
        // A virtual thread's own run method catches what its task lets through.
        assertEquals(Arrays.asList("thrown", "uncaught", "throwUncaught", ThreadKind.VIRTUAL ? "run" : null), calls.get(0));
        assertEquals("uncaught", calls.get(calls.size() - 1).get(0), "the thread still died of it");
    }

    @Test
    void classPrepareReportsAFreshClassOnItsThreadAndARedefinitionButNoFirstLoad() throws Exception {
        api.registerClassPrepareHook((ClassPrepareHook) (thread, clazz) -> {
            if (clazz.getName().endsWith("$Fresh")) {
                calls.add(List.of(thread.getName(), clazz));
            }
        });
        onThreadWith(() -> EventTarget.Fresh.value());
        assertEquals(List.of(List.of("event-subject", EventTarget.Fresh.class)), calls);

        ChildJvm.Result result = ChildJvm.main(RedefineMain.class)
                .jvmOption("-javaagent:" + RedefineMain.agentJar())
                .run();
        result.assertClean();
        assertEquals(List.of("redefined " + EventTarget.Fresh.class.getName()),
                result.stdoutLines().stream().filter(l -> l.startsWith("redefined")).toList());
    }
}
