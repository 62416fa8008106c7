package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadStormMain;
import org.junit.jupiter.api.Test;

/**
 * Thousands of short-lived threads while their events are switched from another thread and dumps
 * read every record: the VM must survive without a JNI warning, and the thread hook must hear of
 * every start and end.
 */
class ThreadStormTest {
    @Test
    void recordsSurviveThreadsComingAndGoing() throws Exception {
        ChildJvm storm = ChildJvm.main(ThreadStormMain.class, "6");
        if (ThreadKind.VIRTUAL) {
            storm.property("kv.test.thread.kind", "virtual");  // records made and freed as they start and end
        }
        ChildJvm.Result result = storm.run().assertClean();
        String figures = result.stdoutLines().get(0);
        System.out.println(figures);
        assertTrue(result.stdout.contains("OK"), result.stdout);
        int threads = Integer.parseInt(figures.replaceAll("threads=(\\d+) .*", "$1"));
        assertTrue(threads > 1000, figures);
        assertTrue(!figures.contains("dumps=0") && !figures.contains("switches=0 "), figures);
    }
}
