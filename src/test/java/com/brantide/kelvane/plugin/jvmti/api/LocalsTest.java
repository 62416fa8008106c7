package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.LocalsTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.function.BiConsumer;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Reading and writing the locals of a thread stopped at a breakpoint, from its own hook. */
class LocalsTest {
    private static final String NO_DEBUG_SOURCE = "package nodebug; public class Args {"
            + " public String mixed(String s, long j, double d, int i) { return s + j + d + i; }"
            + " public static int both(int[] a, int b) { return a.length + b; } }";

    private final JvmtiApi api = new JvmtiApi();
    private final List<BreakpointLocation> set = new ArrayList<>();

    @BeforeEach
    void activate() {
        api.registerClasses();
        assertTrue(api.setActive(true));
        LocalsTarget.caller();
        LocalsTarget.twoLoops();
    }

    @AfterEach
    void deactivate() {
        set.forEach(api::clearBreakpoint);
        api.registerBreakpointHook(null);
        api.setActive(false);
    }

    /** Runs the code on a breakpoint-enabled thread; at the stop, hands the thread and its height to `atStop`. */
    private <T> T stopAt(BreakpointLocation location, BiConsumer<Thread, Integer> atStop, Callable<T> code)
            throws Exception {
        api.setBreakpoint(location);
        set.add(location);
        int[] stopped = {0};
        api.registerBreakpointHook((BreakpointHook) (where, context) -> {
            if (stopped[0]++ == 0) {
                atStop.accept(context.getThread(), context.getFrameCount());
            }
            return StepType.CONTINUE;
        });
        T result = new Stops().run(api, code);
        assertEquals(1, stopped[0], "stopped once");
        return result;
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
    void everyTypeOfSeveralFramesAndOnlyWhatIsLive() throws Exception {
        List<List<String>> listed = new ArrayList<>();
        stopAt(Stops.breakpointAt(api, LocalsTarget.class, "every-stop"), (thread, height) -> {
            listed.add(list(thread, height, 2, -1));
            listed.add(list(thread, height, 1, 2));
            listed.add(list(thread, height, height + 1, -1));
        }, LocalsTarget::caller);
        assertEquals(List.of("z=true:Z:Boolean", "b=7:B:Byte", "c=x:C:Character", "s=300:S:Short", "i=42:I:Integer",
                "j=1099511627776:J:Long", "f=1.5:F:Float", "d=2.25:D:Double", "text=text:Ljava/lang/String;:String",
                "array=[1, 2]:[I:int[]", "none=null:Ljava/lang/Object;",
                "marker=outer:Ljava/lang/String;:String", "array=[1, 2]:[I:int[]"), listed.get(0),
                "result is not live yet; the caller's frame follows");
        assertEquals(2, listed.get(1).size(), "the callback stopped the walk");
        assertEquals(List.of(), listed.get(2), "a range past the outermost frame lists nothing");
    }

    @Test
    void argumentsOfAClassWithoutDebugInformation() throws Exception {
        Class<?> args = ClassFiles.compiledWithoutDebugInformation("nodebug.Args", NO_DEBUG_SOURCE);
        Object instance = args.getConstructor().newInstance();
        Method mixed = args.getMethod("mixed", String.class, long.class, double.class, int.class);
        Method both = args.getMethod("both", int[].class, int.class);
        List<String> seen = new ArrayList<>();
        String result = stopAt(BreakpointLocation.forMethod(mixed, 0), (thread, height) -> {
            seen.addAll(list(thread, height, 1, -1));
            if (!ThreadKind.VIRTUAL) {
                api.setVariable(thread, height, "arg2", 99L);
                api.setVariable(thread, height, "arg6", 7);
                api.setVariable(thread, height, "this", null);
                api.setVariable(thread, height, "arg0", "ignored");
            }
        }, () -> (String) mixed.invoke(instance, "s", 1L, 2.5, 3));
        assertEquals(List.of("this=" + instance + ":Ljava/lang/Object;:Args", "arg1=s:Ljava/lang/String;:String",
                "arg2=1:J:Long", "arg4=2.5:D:Double", "arg6=3:I:Integer"), seen);
        assertEquals(ThreadKind.VIRTUAL ? "s12.53" : "s992.57", result, "longs and doubles written at their true slots");

        seen.clear();
        int sum = stopAt(BreakpointLocation.forMethod(both, 0), (thread, height) -> {
            seen.addAll(list(thread, height, 1, -1));
            if (!ThreadKind.VIRTUAL) {
                api.setVariable(thread, height, "arg1", 40);
            }
        }, () -> (int) both.invoke(null, new int[2], 1));
        assertEquals(List.of("arg0=[0, 0]:[I:int[]", "arg1=1:I:Integer"), seen);
        assertEquals(ThreadKind.VIRTUAL ? 3 : 42, sum);
    }

    @Test
    void setVariableWritesEveryTypeAndOnlyTheLiveLoopVariable() throws Exception {
        if (ThreadKind.VIRTUAL) {
            // The VM writes no local of a virtual thread below its topmost frame, and says so.
            String[] refused = new String[1];
            stopAt(Stops.breakpointAt(api, LocalsTarget.class, "every-stop"), (thread, height) -> refused[0] =
                    assertThrows(JVMTIException.class, () -> api.setVariable(thread, height, "z", false)).getMessage(),
                    LocalsTarget::caller);
            assertEquals("JVMTI_ERROR_OPAQUE_FRAME", refused[0]);
            return;
        }
        String described = stopAt(Stops.breakpointAt(api, LocalsTarget.class, "every-stop"), (thread, height) -> {
            api.setVariable(thread, height, "z", false);
            api.setVariable(thread, height, "b", (byte) 1);
            api.setVariable(thread, height, "c", 'y');
            api.setVariable(thread, height, "s", (short) 2);
            api.setVariable(thread, height, "i", 'A');
            api.setVariable(thread, height, "j", 4L);
            api.setVariable(thread, height, "f", 5.5f);
            api.setVariable(thread, height, "d", 6.25);
            api.setVariable(thread, height, "text", "new");
            api.setVariable(thread, height, "nothing", 1);
            api.setVariable(thread, height + 5, "z", true);
        }, LocalsTarget::caller);
        assertEquals("outerfalse,1,y,2,65,4,5.5,6.25,new,2,null", described, "a Character written to an int");

        int total = stopAt(Stops.breakpointAt(api, LocalsTarget.class, "twoLoops-second"),
                (thread, height) -> api.setVariable(thread, height, "i", 100), LocalsTarget::twoLoops);
        assertEquals(3 + 100 + 5000, total, "the second loop's i only; kept, in the first loop's old slot, unchanged");
    }

    @Test
    void argumentsAreCheckedInOrder() throws Exception {
        Thread self = Thread.currentThread();
        VariableCallback any = (name, value, signature) -> true;
        assertEquals("stackFrame must be > 1",
                assertThrows(IllegalArgumentException.class, () -> api.listVariables(self, -1, 0, null)).getMessage());
        assertEquals("depth must be >= 1",
                assertThrows(IllegalArgumentException.class, () -> api.listVariables(self, 1, 0, null)).getMessage());
        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> api.listVariables(self, 1, 1, null)).getMessage());
        assertEquals("stackFrameDepth must be >= 1",
                assertThrows(IllegalArgumentException.class, () -> api.setVariable(null, 0, null, 1)).getMessage());
        assertEquals("variableName is null",
                assertThrows(IllegalArgumentException.class, () -> api.setVariable(null, 1, null, 1)).getMessage());
        assertEquals("thread is null",
                assertThrows(IllegalArgumentException.class, () -> api.setVariable(null, 1, "x", 1)).getMessage());
        VariableCallback none = (name, value, signature) -> {
            throw new AssertionError("nothing to list");
        };
        api.listVariables(self, 0, 1, none);
        api.listVariables(self, 1, Integer.MAX_VALUE, none); // a range past the stack, not one that wraps around
        Thread ended = new Thread(() -> { });
        ended.start();
        ended.join();
        assertThrows(RuntimeException.class, () -> api.listVariables(ended, 1, 1, any), "a thread that is not alive");
    }
}
