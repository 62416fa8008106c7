package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

/**
 * The agent's own heap over many rounds of every feature (AgentMemoryMain): whatever a round
 * allocates, it gives back. The probe agent counts its C++ heap block by block; in the sanitized
 * build LeakSanitizer looks for blocks that nothing reaches any more, and only those allocated
 * through the agent count.
 */
class AgentMemoryProbeTest {
    private static final Pattern LEAK = Pattern.compile("^(Direct|Indirect) leak of ");
    private static final Pattern AGENT_FRAME = Pattern.compile("libkvjvmti|/src/main/cpp/|/src/test/cpp/probe/");
    private static final Pattern FRAME = Pattern.compile("^\\s*#\\d+ ");
    /** Frames of the allocators themselves: the sanitizer's, the C++ runtime's and the JVM's. */
    private static final Pattern ALLOCATOR_FRAME = Pattern.compile("libsanitizer|__interceptor_|operator new|"
            + "os::malloc|os::realloc|os::strdup|AllocateHeap|ReallocateHeap|JvmtiEnvBase::allocate|CHeapObj");
    /** A JVMTI function that hands its caller a buffer to give back. */
    private static final Pattern JVMTI_FRAME = Pattern.compile(" in (JvmtiEnv::|jvmti_)");

    @Test
    void roundAfterRoundTheAgentGivesBackWhatItTook() throws Exception {
        Path reports = Files.createTempDirectory(ChildJvm.workDirectory(), "agent-leaks").resolve("report");
        ChildJvm.Result result;
        try (ChildJvm.Running child = ChildJvm.main(AgentMemoryMain.class.getName(), "5", "15", "2", reports.toString())
                .withProbeAgent().start()) {
            result = child.await(300).assertClean();
        }
        List<String> lines = result.stdoutLines();
        assertTrue(lines.contains("OK"), result.stdout());
        List<String[]> stages = lines.stream().map(l -> l.split(" ")).filter(f -> f[0].matches("heap|leaks")).toList();
        assertTrue(stages.size() > 1, result.stdout());
        String[] warm = stages.get(0);
        String[] last = stages.get(stages.size() - 1);
        if (warm[0].equals("heap")) {
            stages.forEach(stage -> assertEquals(List.of(warm[2], warm[3]), List.of(stage[2], stage[3]),
                    "live bytes and blocks of the agent after more rounds:\n" + result.stdout()));
            long made = Long.parseLong(last[4]) - Long.parseLong(warm[4]);
            assertTrue(made > 1_000, "the rounds went through the agent's heap: " + made + " allocations");
        } else {
            stages.forEach(stage -> assertNotEquals("-1", stage[2], "the sanitized agent runs without LeakSanitizer"));
            for (Path report : reportsOf(reports, "")) {
                String text = Files.readString(report);
                assertTrue(!text.contains("ERROR: AddressSanitizer") && !text.contains("runtime error:"), text);
            }
            // The blocks still unreachable after the last round; those of the warm-up may have been
            // reached again since.
            for (Path report : reportsOf(reports, last[1] + ".")) {
                List<String> agentBlocks = Stream.of(Files.readString(report).split("\n\\s*\n"))
                        .filter(record -> LEAK.matcher(record.strip()).find() && allocatedByTheAgent(record)).toList();
                assertEquals(List.of(), agentBlocks, "unreachable blocks of the agent after all rounds, in " + report);
            }
        }
    }

    /** The LeakSanitizer reports ("<reports>-<stage>.<pid>") whose stage part starts with `stage`. */
    private static List<Path> reportsOf(Path reports, String stage) throws IOException {
        try (Stream<Path> files = Files.list(reports.getParent())) {
            return files.filter(p -> p.getFileName().toString().startsWith(reports.getFileName() + "-" + stage)).toList();
        }
    }

    /**
     * Whether the agent owns the block: the agent's own code allocated it, or a JVMTI function
     * allocated it as a result for the agent to give back. Blocks that the JVM allocates for itself
     * while serving the agent (method and field ids, profiles) are the JVM's: it keeps them in
     * memory that LeakSanitizer does not scan, so they look unreachable.
     */
    private static boolean allocatedByTheAgent(String record) {
        List<String> frames = record.lines().filter(line -> FRAME.matcher(line).find()).toList();
        for (String frame : frames) {
            if (!ALLOCATOR_FRAME.matcher(frame).find()) {
                return AGENT_FRAME.matcher(frame).find()
                        || JVMTI_FRAME.matcher(frame).find() && frames.stream().anyMatch(f -> AGENT_FRAME.matcher(f).find());
            }
        }
        return false;
    }
}
