package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
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
        ChildJvm.Result result = ChildJvm.main(ThreadStormMain.class, "6").run().assertClean();
        String figures = result.stdoutLines().get(0);
        System.out.println(figures);
        assertTrue(result.stdout.contains("OK"), result.stdout);
        int threads = Integer.parseInt(figures.replaceAll("threads=(\\d+) .*", "$1"));
        assertTrue(threads > 1000, figures);
        assertTrue(!figures.contains("dumps=0") && !figures.contains("switches=0 "), figures);
    }
}
