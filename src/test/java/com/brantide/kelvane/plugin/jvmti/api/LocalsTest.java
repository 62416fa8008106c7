package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.fixtures.LocalsTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import com.brantide.kelvane.plugin.jvmti.testing.Stops;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.function.BiConsumer;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/** Reading and writing the locals of a thread stopped at a breakpoint, from its own hook. */
class LocalsTest {
    private static final String NO_DEBUG_SOURCE = "package nodebug; public class Args {"
            + " public String mixed(String s, long j, double d, int i) { return s + j + d + i; }"
            + " public static int both(int[] a, int b) { return a.length + b; } }";

    @RegisterExtension
    final ActiveApi agent = new ActiveApi();

    /** Runs the code on a breakpoint-enabled thread; at the first stop, hands the thread and its height to `atStop`. */
    private <T> T stopAt(BreakpointLocation location, BiConsumer<Thread, Integer> atStop, Callable<T> code)
            throws Exception {
        agent.setBreakpoint(location);
        int[] stopped = {0};
        agent.api.registerBreakpointHook((BreakpointHook) (where, context) -> {
            if (stopped[0]++ == 0) {
                atStop.accept(context.getThread(), context.getFrameCount());
            }
            return StepType.CONTINUE;
        });
        T result = new Stops().run(agent.api, code);
        assertTrue(stopped[0] > 0, "stopped");
        return result;
    }

    private BreakpointLocation marked(String marker) {
        LocalsTarget.twoLoops(); // prepared: the VM has no line table of a class before
        return Stops.breakpointAt(agent.api, LocalsTarget.class, marker);
    }

    private List<String> list(Thread thread, int height, int depth, int stopAfter) {
        List<String> seen = new ArrayList<>();
        agent.api.listVariables(thread, height, depth, (VariableCallback) (name, value, signature) -> {
            seen.add(name + "=" + (value instanceof int[] ? Arrays.toString((int[]) value) : value) + ":" + signature
                    + (value == null ? "" : ":" + value.getClass().getSimpleName()));
            return seen.size() != stopAfter;
        });
        return seen;
    }

    @Test
    void everyTypeListedAndWrittenOfSeveralFramesAndOnlyWhatIsLive() throws Exception {
        List<List<String>> listed = new ArrayList<>();
        String described = stopAt(marked("every-stop"), (thread, height) -> {
            listed.add(list(thread, height, 2, -1));
            listed.add(list(thread, height, 1, 2));
            listed.add(list(thread, height, Integer.MAX_VALUE, -1));
            if (ThreadKind.VIRTUAL) { // the VM writes no local of a virtual thread below its topmost frame
                listed.add(List.of(assertThrows(JVMTIException.class,
                        () -> agent.api.setVariable(thread, height, "z", false)).getMessage()));
            }
            writeUnlessVirtual(thread, height, "z", false, "b", (byte) 1, "c", 'y', "s", (short) 2, "i", 'A',
                    "j", 4L, "f", 5.5f, "d", 6.25, "text", "new", "nothing", 1);
            writeUnlessVirtual(thread, height + 5, "z", true); // no such frame: nothing written
        }, LocalsTarget::caller);
        assertEquals(List.of("z=true:Z:Boolean", "b=7:B:Byte", "c=x:C:Character", "s=300:S:Short", "i=42:I:Integer",
                "j=1099511627776:J:Long", "f=1.5:F:Float", "d=2.25:D:Double", "text=text:Ljava/lang/String;:String",
                "array=[1, 2]:[I:int[]", "none=null:Ljava/lang/Object;",
                "marker=outer:Ljava/lang/String;:String", "array=[1, 2]:[I:int[]"), listed.get(0),
                "result is not live yet; the caller's frame follows");
        assertEquals(2, listed.get(1).size(), "the callback stopped the walk");
        assertEquals(List.of(), listed.get(2), "a range past the outermost frame, not one that wraps around");
        if (ThreadKind.VIRTUAL) {
            assertEquals(List.of("JVMTI_ERROR_OPAQUE_FRAME"), listed.get(3));
        }
        assertEquals(ThreadKind.VIRTUAL ? "outertrue,7,x,300,42,1099511627776,1.5,2.25,text,2,null"
                : "outerfalse,1,y,2,65,4,5.5,6.25,new,2,null", described, "a Character written to an int");
    }

    @Test
    void argumentsWithoutDebugInformationAndLoopVariablesAreWrittenAtTheirTrueSlots() throws Exception {
        Class<?> args = ClassFiles.compiledWithoutDebugInformation("nodebug.Args", NO_DEBUG_SOURCE);
        Object instance = args.getConstructor().newInstance();
        Method mixed = args.getMethod("mixed", String.class, long.class, double.class, int.class);
        Method both = args.getMethod("both", int[].class, int.class);
        List<String> seen = new ArrayList<>();
        String result = stopAt(BreakpointLocation.forMethod(mixed, 0), (thread, height) -> {
            seen.addAll(list(thread, height, 1, -1));
            writeUnlessVirtual(thread, height, "arg2", 99L, "arg6", 7, "this", null, "arg0", "ignored");
        }, () -> (String) mixed.invoke(instance, "s", 1L, 2.5, 3));
        assertEquals(List.of("this=" + instance + ":Ljava/lang/Object;:Args", "arg1=s:Ljava/lang/String;:String",
                "arg2=1:J:Long", "arg4=2.5:D:Double", "arg6=3:I:Integer"), seen);
        assertEquals(ThreadKind.VIRTUAL ? "s12.53" : "s992.57", result);

        seen.clear();
        int sum = stopAt(BreakpointLocation.forMethod(both, 0), (thread, height) -> {
            seen.addAll(list(thread, height, 1, -1));
            writeUnlessVirtual(thread, height, "arg1", 40);
        }, () -> (int) both.invoke(null, new int[2], 1));
        assertEquals(List.of("arg0=[0, 0]:[I:int[]", "arg1=1:I:Integer"), seen, "a static method has no this");
        assertEquals(ThreadKind.VIRTUAL ? 3 : 42, sum);

        int total = stopAt(marked("twoLoops-second"),
                (thread, height) -> writeUnlessVirtual(thread, height, "i", 100), LocalsTarget::twoLoops);
        assertEquals(ThreadKind.VIRTUAL ? 5024 : 3 + 100 + 5000, total,
                "the second loop's i only; kept, in the first loop's old slot, unchanged");
    }

    /** Name, value pairs; the VM writes no local of a virtual thread below its topmost frame. */
    private void writeUnlessVirtual(Thread thread, int height, Object... writes) {
        for (int i = 0; i < writes.length && !ThreadKind.VIRTUAL; i += 2) {
            agent.api.setVariable(thread, height, (String) writes[i], writes[i + 1]);
        }
    }
}
