package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import java.lang.reflect.Method;
import java.util.List;
import java.util.Set;
import java.util.function.IntSupplier;
import org.junit.jupiter.api.Test;

/** Frame languages, CFML depth and CFML parent, on classes shaped like compiled CFML. */
class CfmlFramesProbeTest {
    @Test
    void classesAreClassifiedByTheirSignature() throws Exception {
        Class<?> template = Class.forName("cfindex2ecfm1234");
        Class<?> component = Class.forName("org.x.page_cfm$cf");
        assertEquals(2, AgentProbe.methodType(template.getMethod("runPage", IntSupplier.class)));
        assertEquals(2, AgentProbe.methodType(component.getMethod("render", IntSupplier.class)));
        assertEquals(1, AgentProbe.methodType(Class.forName("cfg.Util").getMethod("same", int.class)));
        assertEquals(1, AgentProbe.methodType(Target.class.getConstructor(int.class)));
    }

    @Test
    void depthLeavesHiddenFramesOutAndTheParentIsTheCfmlCaller() throws Exception {
        Method runPage = Class.forName("cfindex2ecfm1234").getMethod("runPage", IntSupplier.class);
        int[] seen = new int[5];
        IntSupplier probe = () -> {
            seen[0] = AgentProbe.frameCount();
            seen[1] = AgentProbe.cfDepth();
            seen[2] = indexOf("render");
            seen[3] = AgentProbe.cfParent(seen[0] - seen[2]);
            seen[4] = AgentProbe.cfParent(seen[0]);
            return 0;
        };
        runPage.invoke(null, probe);
        assertEquals(seen[0] - 2, seen[1], "_factor0 and _call0 are not counted");
        assertEquals(seen[2] + 1, seen[3], "render's CFML caller is the first CFML frame below it, hidden or not");
        assertEquals(seen[2], seen[4], "from the Java native on top, the first CFML frame below");
        assertEquals(-1, AgentProbe.cfParent(AgentProbe.frameCount() + 1));
    }

    /**
     * The index, counted as the agent counts from a native called where this is called, of the
     * nearest frame running the named method. Hidden frames (the lambda's own class) count too.
     */
    private static int indexOf(String method) {
        List<String> names = StackWalker.getInstance(Set.of(StackWalker.Option.SHOW_HIDDEN_FRAMES,
                StackWalker.Option.SHOW_REFLECT_FRAMES)).walk(s -> s.map(StackWalker.StackFrame::getMethodName).toList());
        return names.indexOf(method);
    }
}
