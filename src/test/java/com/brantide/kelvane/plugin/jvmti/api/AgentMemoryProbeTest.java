package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
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
    private static final List<String> WORK_DONE = List.of("stops", "spinnerStops", "suspends", "listed", "fieldEvents",
            "exceptionEvents", "threadEvents", "heapWalks", "refused", "dumps");
    private static final Pattern LEAK = Pattern.compile("^(Direct|Indirect) leak of (\\d+) byte\\(s\\) in (\\d+) object");
    private static final Pattern AGENT_FRAME = Pattern.compile("libkvjvmti|/src/main/cpp/|/src/test/cpp/probe/");
    private static final Pattern FRAME = Pattern.compile("^\\s*#\\d+ ");
    /** Frames of the allocators themselves: the sanitizer's, the C++ runtime's and the JVM's. */
    private static final Pattern ALLOCATOR_FRAME = Pattern.compile("libsanitizer|__interceptor_|operator new|"
            + "os::malloc|os::realloc|os::strdup|AllocateHeap|ReallocateHeap|JvmtiEnvBase::allocate|CHeapObj");
    /** A JVMTI function that hands its caller a buffer to give back. */
    private static final Pattern JVMTI_FRAME = Pattern.compile(" in (JvmtiEnv::|jvmti_)");

    @Test
    void roundAfterRoundTheAgentGivesBackWhatItTook() throws Exception {
        Path reports = ChildJvm.workDirectory().resolve("agent-leaks");
        try (Stream<Path> old = Files.list(reports.getParent())) {
            for (Path file : old.filter(p -> p.getFileName().toString().startsWith("agent-leaks")).toList()) {
                Files.delete(file);
            }
        }
        ChildJvm.Result result;
        try (ChildJvm.Running child = ChildJvm.main(AgentMemoryMain.class, "5", "15", "2", reports.toString())
                .withProbeAgent().start()) {
            result = child.await(300).assertClean();
        }
        List<String> lines = result.stdoutLines();
        String figures = lines.stream().filter(l -> l.contains("rounds=")).findFirst().orElseThrow();
        System.out.println(figures);
        assertTrue(lines.contains("OK"), result.stdout);
        Map<String, Long> done = Workload.figures(figures);
        WORK_DONE.forEach(work -> assertTrue(done.getOrDefault(work, 0L) > 0, "nothing of " + work + ": " + figures));

        List<String[]> stages = lines.stream().map(l -> l.split(" ")).filter(f -> f[0].matches("heap|leaks")).toList();
        assertTrue(stages.size() > 1, result.stdout);
        if (stages.get(0)[0].equals("heap")) {
            String[] warm = stages.get(0);
            String[] last = stages.get(stages.size() - 1);
            stages.forEach(stage -> System.out.println("agent heap after " + stage[1] + ": " + stage[2] + " bytes in "
                    + stage[3] + " blocks, " + stage[4] + " allocations so far"));
            stages.forEach(stage -> assertEquals(List.of(warm[2], warm[3]), List.of(stage[2], stage[3]),
                    "live bytes and blocks of the agent after more rounds"));
            long made = Long.parseLong(last[4]) - Long.parseLong(warm[4]);
            assertTrue(made > 1_000, "the rounds went through the agent's heap: " + made + " allocations");
        } else {
            stages.forEach(stage -> assertNotEquals("-1", stage[2], "the sanitized agent runs without LeakSanitizer"));
            long first = agentLeaks(reports, stages.get(0)[1]);
            long last = agentLeaks(reports, stages.get(stages.size() - 1)[1]);
            assertEquals(0, last, "unreachable blocks of the agent after all rounds (see the report)");
            assertTrue(last <= first, "unreachable blocks of the agent grew after the warm-up (see the reports)");
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

    /** The agent's unreachable blocks in the LeakSanitizer report of a stage, printed. */
    private static long agentLeaks(Path reports, String stage) throws IOException {
        Path report;
        try (Stream<Path> files = Files.list(reports.getParent())) {
            report = files.filter(p -> p.getFileName().toString().startsWith(reports.getFileName() + "-" + stage + "."))
                    .findFirst().orElse(null);
        }
        if (report == null) {
            System.out.println("LeakSanitizer after " + stage + ": nothing unreachable");
            return 0;
        }
        String text = Files.readString(report);
        assertTrue(!text.contains("ERROR: AddressSanitizer") && !text.contains("runtime error:"), text);
        long agentBlocks = 0;
        long allBlocks = 0;
        List<String> agentRecords = new ArrayList<>();
        for (String record : text.split("\n\\s*\n")) {
            Matcher leak = LEAK.matcher(record.strip());
            if (leak.find()) {
                allBlocks += Long.parseLong(leak.group(3));
                if (allocatedByTheAgent(record)) {
                    agentBlocks += Long.parseLong(leak.group(3));
                    agentRecords.add(record);
                }
            }
        }
        System.out.println("LeakSanitizer after " + stage + ": " + allBlocks + " unreachable blocks in the JVM, "
                + agentBlocks + " of them the agent's; report " + report + "\n" + String.join("\n\n", agentRecords));
        return agentBlocks;
    }
}
