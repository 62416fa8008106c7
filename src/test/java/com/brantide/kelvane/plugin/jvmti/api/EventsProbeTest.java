package com.brantide.kelvane.plugin.jvmti.api;

import static com.brantide.kelvane.plugin.jvmti.StepType.CONTINUE;
import static com.brantide.kelvane.plugin.jvmti.StepType.FIELD_MODIFICATION_COMPLETE;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Field;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/**
 * Events, read through the probe variant of the agent: breakpoints and field watches as the agent
 * counts them and the VM refuses them, what the field, exception, class and thread hooks receive and
 * the thread they leave behind, and the per-thread records and event switches.
 */
class EventsProbeTest {
    private static final long BREAKPOINT = 1L << (JvmtiEvent.BREAKPOINT - 50);
    private static final long SINGLE_STEP = 1L << (JvmtiEvent.SINGLE_STEP - 50);

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
        assertEquals(41, assertThrows(JVMTIException.class,
                () -> api.clearFieldModificationWatch(EventTarget.class, count)).getErrorCode(), "none left");
        assertEquals(List.of(0, 0), List.of(AgentProbe.fieldAccessCount(), AgentProbe.fieldModificationCount()));
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
        assertEquals(Arrays.asList("thrown", "uncaught", "throwUncaught", ThreadKind.VIRTUAL ? "run" : null),
                calls.get(0), "no catch location in the application");
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

        if (!ThreadKind.VIRTUAL) { // the child's threads are its own; and the twins would share its agent jar
            ChildJvm.Result result = ChildJvm.main(RedefineMain.class)
                    .jvmOption("-javaagent:" + RedefineMain.agentJar()).run().assertClean();
            assertEquals(List.of("redefined " + EventTarget.Fresh.class.getName()),
                    result.stdoutLines().stream().filter(l -> l.startsWith("redefined")).toList());
        }
    }

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
        new Target(1); // prepared: the VM lists the methods of prepared classes only
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
    void userAndActiveMasksFollowTheSwitchesAndBracketAHookCall() throws InterruptedException {
        CountDownLatch started = new CountDownLatch(1);
        CountDownLatch release = new CountDownLatch(1);
        Thread worker = ThreadKind.unstarted("events-worker", () -> StackTarget.three(started, release));
        worker.setDaemon(true);
        worker.start();
        started.await();
        // A virtual thread gets its record only when it first needs one; a thread that started
        // before the agent listened never has one, and nothing can be switched for it.
        assertEquals(!ThreadKind.VIRTUAL, AgentProbe.hasThreadData(worker));
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        assertFalse(AgentProbe.hasThreadData(early));
        assertFalse(api.setEventNotificationMode(early, JvmtiEvent.BREAKPOINT, true));
        assertEquals(-1, AgentProbe.clearActiveEvents(early));

        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true));
        assertTrue(AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false), "internal switch");
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);
        // Thread start is VM-wide only; stepping's own events are the agent's alone.
        for (int refused : new int[] {JvmtiEvent.THREAD_START, 999, JvmtiEvent.SINGLE_STEP, JvmtiEvent.FRAME_POP,
                JvmtiEvent.METHOD_ENTRY, JvmtiEvent.METHOD_EXIT}) {
            assertFalse(api.setEventNotificationMode(worker, refused, true), "event " + refused);
            assertFalse(api.setEventNotificationMode(worker, refused, false), "event " + refused);
        }
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);

        // Around a hook call: nothing is delivered to the thread, then everything is as it was.
        long saved = AgentProbe.clearActiveEvents(worker);
        assertEquals(BREAKPOINT | SINGLE_STEP, saved);
        assertMasks(worker, BREAKPOINT, 0);
        AgentProbe.restoreUserEvents(worker, saved);
        assertMasks(worker, BREAKPOINT, BREAKPOINT | SINGLE_STEP);

        assertTrue(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, false));
        assertMasks(worker, 0, SINGLE_STEP);
        assertTrue(AgentProbe.setEvent(false, JvmtiEvent.SINGLE_STEP, worker, false));
        assertMasks(worker, 0, 0);
        release.countDown();
    }

    private static void assertMasks(Thread thread, long user, long active) {
        assertEquals(List.of(user, active), List.of(AgentProbe.userEvents(thread), AgentProbe.activeEvents(thread)),
                "user and active masks");
    }

    @Test
    void threadHookHearsEveryStartAndEndOnItsThreadAndSurvivesThrowingHooks() throws InterruptedException {
        Map<String, Integer> heard = new ConcurrentHashMap<>();
        api.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                hear("start", thread);
            }

            @Override
            public void threadEnd(Thread thread) {
                hear("end", thread);
            }

            private void hear(String what, Thread thread) {
                if (thread.getName().equals("event-subject")) {
                    heard.merge(what + (thread == Thread.currentThread() ? " on itself" : " elsewhere"), 1, Integer::sum);
                }
                throw new IllegalStateException("a hook that throws");
            }
        });
        for (int i = 0; i < 50; i++) {
            onThreadWith(() -> assertEquals(!ThreadKind.VIRTUAL, AgentProbe.hasThreadData(Thread.currentThread())));
        }
        assertEquals(List.of(), calls, "nothing a hook threw reached the application thread");
        assertEquals(Map.of("start on itself", 50, "end on itself", 50), heard);
    }
}
