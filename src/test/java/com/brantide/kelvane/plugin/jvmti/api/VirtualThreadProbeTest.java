package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.util.List;
import org.junit.jupiter.api.Test;

/**
 * Virtual threads at a breakpoint (VirtualThreadMain, on one carrier thread): a virtual thread gets
 * its record when it first needs one, and its own events and steps; its carrier's switches never
 * stand in for it; the hook is told the thread it runs on; the thread hook hears each start and
 * end; and the agent logs no error.
 */
class VirtualThreadProbeTest {
    @Test
    void aVirtualThreadStopsByItsOwnSwitchesOnly() throws Exception {
        assumeTrue(Runtime.version().feature() >= 21, "virtual threads need JDK 21");
        ChildJvm.Result result;
        try (ChildJvm.Running child = ChildJvm.main(VirtualThreadMain.class.getName()).withProbeAgent()
                .property("kv.test.thread.kind", "virtual")
                .property("jdk.virtualThreadScheduler.parallelism", "1")
                .property("jdk.virtualThreadScheduler.maxPoolSize", "1")
                .start()) {
            result = child.await(60).assertClean();
        }
        assertTrue(result.stdoutLines().contains("OK"), result.stdout() + result.stderr());
        assertEquals(List.of(), result.stderrLines().stream().filter(l -> l.startsWith("ERROR")).toList(), result.stderr());
    }
}
