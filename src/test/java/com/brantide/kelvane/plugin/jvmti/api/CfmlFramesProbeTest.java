package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import java.util.Set;
import java.util.function.IntSupplier;
import org.junit.jupiter.api.Test;

/**
 * CFML depth and CFML parent on classes shaped like compiled CFML (page, hidden chunk, Java, component),
 * which also takes the agent's reading of frame names and languages through a real JVM.
 */
class CfmlFramesProbeTest {
    @Test
    void depthLeavesHiddenFramesOutAndTheParentIsTheCfmlCaller() throws Exception {
        int[] seen = new int[6];
        IntSupplier probe = () -> {
            seen[0] = AgentProbe.frameCount();
            seen[1] = AgentProbe.cfDepth();
            seen[2] = indexOf("work");
            seen[3] = AgentProbe.cfParent(seen[0] - seen[2]);
            seen[4] = AgentProbe.cfParent(seen[0]);
            seen[5] = indexOf("_factor0");
            return 0;
        };
        Class.forName("cfcomp2ecfc200$funcWORK").getField("probe").set(null, probe);
        Class.forName("cfstep2ecfm100").getMethod("runPage", int.class).invoke(null, 1);
        assertEquals(seen[0] - 1, seen[1], "_factor0 is not counted");
        assertEquals(seen[5], seen[3],
                "the component's CFML caller is the first CFML frame below it, across Java, hidden or not");
        assertEquals(seen[2], seen[4], "from the Java native on top (a Java lambda below it), the first CFML frame");
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
