package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.LocalsTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StackTarget;
import com.brantide.kelvane.plugin.jvmti.fixtures.StepTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.function.BiConsumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/**
 * Threads stopped at a breakpoint or suspended from outside: their locals, read and written, their
 * stacks and monitors, and each command that lets them go.
 */
class StoppedThreadsTest {
    @RegisterExtension
    final ActiveApi agent = new ActiveApi();
    private final JvmtiApi api = agent.api;
    private final CountDownLatch release = new CountDownLatch(1);

    @AfterEach
    void finish() {
        release.countDown();
        StepTarget.spinning = false;
    }

    private List<String> stack(Thread thread, int stackFrame) {
        List<String> names = new ArrayList<>();
        api.listStack(thread, stackFrame, (FrameCallback) location -> names.add(location.getMember().getName()));
        return names;
    }

    /** Whether the spinner counts on within the time (polled, so that a busy machine only slows a pass). */
    private static boolean spinsWithin(long millis) throws InterruptedException {
        long before = StepTarget.spins;
        for (long waited = 0; waited < millis && StepTarget.spins == before; waited += 10) {
            Thread.sleep(10);
        }
        return StepTarget.spins != before;
    }

    @Test
    void aDeepStackItsLocalsAndMonitorsAreListedNewestFirstFromAnyHeight() throws Exception {
        Thread thread = ThreadKind.inPlace("deep", 256L << 20, entered -> StackTarget.recurse(10_000, entered, release));
        api.suspendThread(thread, null);
        int depth = api.getStackDepth(thread);
        List<String> all = stack(thread, depth);
        assertEquals(depth, all.size());
        assertEquals(10_001, all.stream().filter("recurse"::equals).count());
        int three = all.indexOf("three");
        assertEquals(List.of("three", "two", "one", "recurse"), all.subList(three, three + 4));
        assertEquals(all.subList(three, depth), stack(thread, depth - three), "the oldest frames from 'three' down");
        List<String> locals = new ArrayList<>();
        api.listVariables(thread, depth - three, 1, (VariableCallback) (name, value, signature) -> locals.add(name));
        assertEquals(List.of("entered", "release"), locals);

        Map<Object, Integer> monitors = new HashMap<>();
        api.listOwnedMonitors(thread, depth, (MonitorCallback) monitors::put);
        assertEquals(Map.of(StackTarget.THIRD, three + 1, StackTarget.SECOND, three + 1, StackTarget.FIRST, three + 2),
                monitors, "at the depths of 'two' and 'one'");
        monitors.clear();
        api.listOwnedMonitors(thread, depth - three - 2, (MonitorCallback) monitors::put);
        assertEquals(Map.of(StackTarget.FIRST, 0), monitors, "monitors of frames above the listed ones are left out");
        monitors.clear();
        api.listContendedMonitor(thread, (MonitorCallback) monitors::put);
        api.resumeThread(thread, StepType.CONTINUE);
        Thread blocked = ThreadKind.inPlace("blocked", 0, entered -> {
            entered.countDown();
            StackTarget.one(new CountDownLatch(1), release); // blocks entering the first monitor, held by "deep"
        });
        api.suspendThread(blocked, null);
        api.listContendedMonitor(blocked, (MonitorCallback) monitors::put);
        api.resumeThread(blocked, StepType.CONTINUE);
        assertEquals(Map.of(StackTarget.FIRST, 0), monitors, "the blocked thread's; the owner waits on no entry");

        List<String> names = new ArrayList<>();
        api.listThreads((ThreadCallback) listed -> names.add(listed.getName()));
        // The threads the agent saw start, not the reference handler that started before it listened;
        // virtual threads are not among the VM's.
        assertEquals(List.of(!ThreadKind.VIRTUAL, true, false), Stream.of("deep", Thread.currentThread().getName(),
                "Reference Handler").map(names::contains).toList(), names.toString());
    }

    @Test
    void aSuspendedThreadStandsStillUntilAnyCommandResumesIt() throws Exception {
        StepTarget.spinning = true;
        Thread spinner = ThreadKind.unstarted("spinner", () -> {
            api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
            StepTarget.spin();
        });
        spinner.setDaemon(true);
        spinner.start();
        assertTrue(spinsWithin(10_000), "spinning");
        Stops stops = new Stops().watching(spinner);
        api.registerBreakpointHook(stops);
        for (int op : new int[] {StepType.CONTINUE, StepType.NOOP, StepType.STOP_WITH_TIMEOUT, StepType.STEP_OVER}) {
            List<String> seen = new ArrayList<>();
            api.suspendThread(spinner, (SuspendCallback) (location, context) -> seen.add(location.getMember().getName()
                    + " on " + context.getThread().getName() + ", frames above 1: " + (context.getFrameCount() > 1)));
            assertEquals(List.of("spin on spinner, frames above 1: true"), seen);
            assertThrows(IllegalArgumentException.class, () -> api.resumeThread(spinner, StepType.STOP));
            assertFalse(spinsWithin(100), "suspended, and a refused command changes nothing");
            api.resumeThread(spinner, op);
            assertTrue(spinsWithin(10_000), "running again after " + StepType.name(op));
        }
        api.suspendThread(spinner, null);
        assertFalse(spinsWithin(100), "a null callback still suspends");
        api.resumeThread(spinner, StepType.NOOP); // goes on with a step, were one left
        assertEquals("JVMTI_ERROR_THREAD_NOT_SUSPENDED",
                assertThrows(JVMTIException.class, () -> api.resumeThread(spinner, StepType.CONTINUE)).getMessage());
        // The step over ended after at most one line, long before the pause that follows it.
        assertEquals(1, stops.stops().size(), "one step to the next line, then running on: " + stops.stops());
        List<String> loop = Stops.at(StepTarget.class, "spin-test", "spin-body");
        assertTrue(loop.contains(stops.stops().get(0)), stops.stops() + " not in " + loop);
    }

    /**
     * Runs the code on a breakpoint-enabled thread; at the first stop, hands the thread and its height
     * to `atStop`, whose failure fails the test (the agent would clear it as a hook's).
     */
    private <T> T stopAt(BreakpointLocation location, BiConsumer<Thread, Integer> atStop, Callable<T> code)
            throws Exception {
        agent.setBreakpoint(location);
        List<Throwable> outcome = new ArrayList<>();
        api.registerBreakpointHook((BreakpointHook) (where, context) -> {
            try {
                if (outcome.isEmpty()) {
                    atStop.accept(context.getThread(), context.getFrameCount());
                    outcome.add(null);
                }
            } catch (Throwable failure) {
                outcome.add(failure);
            }
            return StepType.CONTINUE;
        });
        T result = new Stops().run(api, code, true);
        assertEquals(Collections.singletonList(null), outcome, "stopped, and no failure there");
        return result;
    }

    private BreakpointLocation marked(String marker) {
        LocalsTarget.twoLoops(); // prepared: the VM has no line table of a class before
        return Stops.breakpointAt(api, LocalsTarget.class, marker);
    }

    private List<String> list(Thread thread, int height, int depth, int stopAfter) {
        List<String> seen = new ArrayList<>();
        api.listVariables(thread, height, depth, (VariableCallback) (name, value, signature) -> {
            seen.add(name + "=" + (value instanceof int[] ? Arrays.toString((int[]) value) : value) + ":" + signature
                    + (value == null ? "" : ":" + value.getClass().getSimpleName()));
            return seen.size() != stopAfter;
        });
        return seen;
    }

    @Test
    void everyTypeListedAndWrittenOfSeveralFramesAndOnlyWhatIsLive() throws Exception {
        String described = stopAt(marked("every-stop"), (thread, height) -> {
            assertEquals(List.of("z=true:Z:Boolean", "b=7:B:Byte", "c=x:C:Character", "s=300:S:Short", "i=42:I:Integer",
                    "j=1099511627776:J:Long", "f=1.5:F:Float", "d=2.25:D:Double", "text=text:Ljava/lang/String;:String",
                    "array=[1, 2]:[I:int[]", "none=null:Ljava/lang/Object;",
                    "marker=outer:Ljava/lang/String;:String", "array=[1, 2]:[I:int[]"), list(thread, height, 2, -1),
                    "result is not live yet; the caller's frame follows");
            assertEquals(2, list(thread, height, 1, 2).size(), "the callback stopped the walk");
            assertEquals(List.of(), list(thread, height, Integer.MAX_VALUE, -1),
                    "a range past the outermost frame, not one that wraps around");
            write(thread, height, "z", false, "b", (byte) 1, "c", 'y', "s", (short) 2, "i", 'A', "j", 4L, "f", 5.5f,
                    "d", 6.25, "text", "new", "nothing", 1);
            if (!ThreadKind.VIRTUAL) {
                api.setVariable(thread, height + 5, "z", true); // no such frame: nothing written
            }
        }, LocalsTarget::caller);
        assertEquals(ThreadKind.VIRTUAL ? "outertrue,7,x,300,42,1099511627776,1.5,2.25,text,2,null"
                : "outerfalse,1,y,2,65,4,5.5,6.25,new,2,null", described, "a Character written to an int");
    }

    @Test
    void argumentsWithoutDebugInformationAndLoopVariablesAreWrittenAtTheirTrueSlots() throws Exception {
        Class<?> args = ClassFiles.withoutDebugInformation();
        Object instance = args.getConstructor().newInstance();
        Method mixed = args.getMethod("mixed", String.class, long.class, double.class, int.class);
        Method both = args.getMethod("both", int[].class, int.class);
        String result = stopAt(BreakpointLocation.forMethod(mixed, 0), (thread, height) -> {
            assertEquals(List.of("this=" + instance + ":Ljava/lang/Object;:Args", "arg1=s:Ljava/lang/String;:String",
                    "arg2=1:J:Long", "arg4=2.5:D:Double", "arg6=3:I:Integer"), list(thread, height, 1, -1));
            write(thread, height, "arg2", 99L, "arg6", 7, "this", null, "arg0", "ignored");
        }, () -> (String) mixed.invoke(instance, "s", 1L, 2.5, 3));
        assertEquals(ThreadKind.VIRTUAL ? "s12.53" : "s992.57", result);

        int sum = stopAt(BreakpointLocation.forMethod(both, 0), (thread, height) -> {
            assertEquals(List.of("arg0=[0, 0]:[I:int[]", "arg1=1:I:Integer"), list(thread, height, 1, -1),
                    "a static method has no this");
            write(thread, height, "arg1", 40);
        }, () -> (int) both.invoke(null, new int[2], 1));
        assertEquals(ThreadKind.VIRTUAL ? 3 : 42, sum);

        int total = stopAt(marked("twoLoops-second"), (thread, height) -> write(thread, height, "i", 100),
                LocalsTarget::twoLoops);
        assertEquals(ThreadKind.VIRTUAL ? 5024 : 3 + 100 + 5000, total,
                "the second loop's i only; kept, in the first loop's old slot, unchanged");
    }

    /**
     * Name, value pairs. The VM writes no local of a virtual thread below its topmost frame (the
     * hook's frames are above the stopped one): there the first write is refused, and none tried.
     */
    private void write(Thread thread, int height, Object... writes) {
        if (ThreadKind.VIRTUAL) {
            assertEquals("JVMTI_ERROR_OPAQUE_FRAME", assertThrows(JVMTIException.class,
                    () -> api.setVariable(thread, height, (String) writes[0], writes[1])).getMessage());
        }
        for (int i = 0; i < writes.length && !ThreadKind.VIRTUAL; i += 2) {
            api.setVariable(thread, height, (String) writes[i], writes[i + 1]);
        }
    }
}
