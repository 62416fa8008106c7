package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.StormMain;
import com.brantide.kelvane.plugin.jvmti.testing.SuspendRaceMain;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Everything at once (StormMain), and the races of suspension (SuspendRaceMain), in child JVMs that
 * must report no JNI misuse. With kv.test.storm.compiled the child steps at compiled speed; with
 * kv.test.thread.kind=virtual the storm's short-lived threads are virtual.
 */
class StormTest {
    private static final Pattern DUMPS = Pattern.compile("dumps=(\\d+)");

    private static ChildJvm child(Class<?> program, String... args) {
        ChildJvm storm = ChildJvm.main(program.getName(), args);
        if (Boolean.getBoolean("kv.test.storm.compiled")) {
            storm.property("kv.jvmti.enable.compiled.stepping", "true");
        }
        return storm.property("kv.test.thread.kind", ThreadKind.VIRTUAL ? "virtual" : "platform");
    }

    /**
     * A storm of a fixed time, while this test asks the child for data dumps with jcmd again and
     * again. The VM must live through it and end normally; the child's own accounts must hold (hits,
     * thread starts and ends, heap counts, every kind of work done), and every dump, the child's
     * and jcmd's, must have been written whole. The storm lasts kv.test.storm.seconds (or
     * $KV_STORM_SECONDS) seconds, 15 by default; the full run is tools/storm.sh.
     */
    @Test
    void theAgentLivesThroughEverythingAtOnce() throws Exception {
        long seconds = Long.parseLong(System.getProperty("kv.test.storm.seconds",
                System.getenv().getOrDefault("KV_STORM_SECONDS", "15")));
        int jcmdDumps = 0;
        ChildJvm.Result result;
        try (ChildJvm.Running child = child(StormMain.class).start()) {
            child.awaitStdout("STARTED", 60);
            // A child that died stops the dumps: its exit status and output then tell why.
            for (long end = System.nanoTime() + seconds * 1_000_000_000L; System.nanoTime() < end
                    && child.process().isAlive(); jcmdDumps++) {
                ChildJvm.jcmd(child.process().pid(), "JVMTI.data_dump");
            }
            child.process().getOutputStream().close(); // the storm ends then
            result = child.await(120).assertClean();
        }
        System.out.println("storm " + seconds + " s: " + result.stdoutLines() + " jcmdDumps=" + jcmdDumps);
        Matcher dumps = DUMPS.matcher(result.stdout());
        assertTrue(result.stdoutLines().contains("OK") && dumps.find(), result.stdout());
        long written = result.stderrLines().stream().filter(l -> l.equals("Thread Events")).count();
        assertEquals(jcmdDumps + Long.parseLong(dumps.group(1)), written, "dumps written whole");
    }

    /**
     * System.exit in the middle of the storm, while threads sit in hooks, step, hit breakpoints,
     * stay suspended and walk the heap: the VM ends with the status it was given, within the
     * minute, never crashes (a crash ends it with another status). The exit comes at once, or a
     * little later, when the threads are further into their work.
     */
    @ParameterizedTest(name = "exit {0} ms after everything is in place")
    @ValueSource(ints = {0, 40, 400})
    void anExitMidStormEndsWithItsStatus(int delay) throws Exception {
        ChildJvm.Result result;
        try (ChildJvm.Running child = child(StormMain.class).property("kv.test.storm.exit.ms", Integer.toString(delay))
                .jvmOption("-XX:-CreateCoredumpOnCrash").start()) {
            result = child.await(60).assertClean();
        }
        assertTrue(result.stdoutLines().contains("IN PLACE"), result.stdout());
    }

    /**
     * Suspending and resuming a thread that is busy inside the agent's own native code.
     * Suspension takes hold only when the thread next enters the VM, so whatever the agent holds or
     * uses on that thread at that moment stays held or in use while it is suspended: resuming must
     * never hang, also with a step while the thread is inside its step callback.
     */
    @ParameterizedTest(name = "a thread busy {0}")
    @ValueSource(strings = {"switching", "stepping"})
    void resumingAThreadSuspendedInsideTheAgentIsSafe(String busy) throws Exception {
        ChildJvm.Result result;
        try (ChildJvm.Running child = child(SuspendRaceMain.class, busy, "5000").start()) {
            result = child.await(60).assertClean();
        }
        assertTrue(result.stdoutLines().contains("DONE"), result.stdout());
    }
}
