package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.StormMain;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;

/**
 * Everything at once for a fixed time (StormMain), while this test asks the child for data dumps
 * with jcmd again and again. The VM must live through it and end normally, with no JNI warning;
 * every breakpoint hit and every thread start and end must have reached a hook, and every
 * histogram and GC-root search must have counted the kept objects exactly (no tag left behind).
 *
 * <p>The storm lasts kv.test.storm.seconds (or $KV_STORM_SECONDS) seconds, 15 by default; the
 * full run is tools/storm.sh. With kv.test.storm.compiled the child steps at compiled speed.
 */
class StormTest {
    private static final Pattern FIGURE = Pattern.compile("(\\w+)=(\\d+)");

    @Test
    void theAgentLivesThroughEverythingAtOnce() throws Exception {
        long seconds = Long.parseLong(System.getProperty("kv.test.storm.seconds",
                System.getenv().getOrDefault("KV_STORM_SECONDS", "15")));
        int jcmdDumps = 0;
        ChildJvm.Result result;
        ChildJvm storm = ChildJvm.main(StormMain.class);
        if (Boolean.getBoolean("kv.test.storm.compiled")) {
            storm.property("kv.jvmti.enable.compiled.stepping", "true");
        }
        try (ChildJvm.Running child = storm.start()) {
            child.awaitStdout("STARTED", 60);
            long end = System.nanoTime() + seconds * 1_000_000_000L;
            while (System.nanoTime() < end) {
                child.jcmd("JVMTI.data_dump");
                jcmdDumps++;
            }
            child.closeStdin();
            result = child.await(120).assertClean();
        }
        List<String> lines = result.stdoutLines();
        String figures = lines.stream().filter(l -> l.startsWith("hits=")).findFirst().orElse("no figures");
        System.out.println("storm " + seconds + " s: " + figures + " jcmdDumps=" + jcmdDumps);
        assertTrue(lines.contains("OK"), result.stdout);

        Matcher matcher = FIGURE.matcher(figures);
        while (matcher.find()) {
            if (!matcher.group(1).equals("stepAborts")) {
                assertTrue(Long.parseLong(matcher.group(2)) > 0, "nothing of " + matcher.group(1) + ": " + figures);
            }
        }
        // Every dump, asked for by jcmd or by the child itself, was written whole.
        long childDumps = Long.parseLong(figures.replaceAll(".*dumps=(\\d+).*", "$1"));
        long written = result.stderrLines().stream().filter(l -> l.equals("Thread Events")).count();
        assertEquals(jcmdDumps + childDumps, written, "dumps written");
        assertTrue(jcmdDumps > 0);
    }
}
