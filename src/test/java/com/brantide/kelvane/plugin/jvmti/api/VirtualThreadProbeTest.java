package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;

/**
 * Virtual threads meet the agent (VirtualThreadMain, on one carrier thread): breakpoints switched on
 * by the virtual thread itself and for its carrier, a step asked for from the hook, stacks and
 * locals read, and a virtual thread suspended from outside. The findings are printed.
 */
class VirtualThreadProbeTest {
    @Test
    void virtualThreadsAtABreakpointNeverBringTheVmDown() throws Exception {
        assumeTrue(Runtime.version().feature() >= 21, "virtual threads need JDK 21");
        ChildJvm.Result result;
        try (ChildJvm.Running child = ChildJvm.main(VirtualThreadMain.class).withProbeAgent()
                .property("jdk.virtualThreadScheduler.parallelism", "1")
                .property("jdk.virtualThreadScheduler.maxPoolSize", "1")
                .start()) {
            result = child.await(60).assertClean();
        }
        Map<String, String> found = new LinkedHashMap<>();
        for (String line : result.stdoutLines()) {
            int equals = line.indexOf('=');
            if (equals > 0) {
                found.put(line.substring(0, equals), line.substring(equals + 1));
            }
        }
        found.forEach((name, value) -> System.out.println("virtual threads: " + name + " = " + value));
        long errors = result.stderrLines().stream().filter(l -> l.startsWith("ERROR")).count();
        System.out.println("virtual threads: agent ERROR lines = " + errors);
        result.stderrLines().stream().filter(l -> l.startsWith("ERROR")).distinct().limit(10)
                .forEach(l -> System.out.println("virtual threads:   " + l.replaceAll("^ERROR \\S+ \\S+ \\S+ ", "")));

        assertTrue(result.stdoutLines().contains("DONE"), result.stdout);
        assertEquals("true", found.get("own.isVirtual"));
        assertEquals("none", found.get("own.failure"));
        assertEquals("none", found.get("mounted.failure"));
        // A virtual thread gets its record when it first needs one, and its own events and step;
        // its carrier's switches and record never stand in for it.
        assertEquals(List.of("false", "true", "2"),
                List.of(found.get("own.record"), found.get("own.switched"), found.get("own.hookCalls")));
        assertEquals(List.of("true", "0"), List.of(found.get("carrier.switched"), found.get("mounted.hookCalls")));
        assertEquals(0, errors, "no agent ERROR line");
        // Whatever reaches the hook is told about the thread it runs on.
        found.entrySet().stream().filter(e -> e.getKey().endsWith(".contextIsSelf"))
                .forEach(e -> assertEquals("true", e.getValue(), e.getKey()));
    }
}
