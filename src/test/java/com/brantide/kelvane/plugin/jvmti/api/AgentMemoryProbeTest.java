package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

/**
 * The agent's own heap over many rounds of every feature: whatever a round allocates, it gives
 * back. The probe agent counts its C++ heap block by block; in the sanitized build LeakSanitizer
 * looks for blocks that nothing reaches any more, and only those allocated through the agent count.
 */
class AgentMemoryProbeTest {
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
                .withProbeAgent().property("kv.test.sources", System.getProperty("kv.test.sources")).start()) {
            result = child.await(300).assertClean();
        }
        List<String> lines = result.stdoutLines();
        String activity = lines.stream().filter(l -> l.startsWith("rounds=")).findFirst().orElseThrow();
        System.out.println(activity);
        assertTrue(!activity.matches(".*=0( .*|$)"), "every kind of work was done: " + activity);

        List<long[]> heap = new ArrayList<>();
        List<String> leaks = new ArrayList<>();
        for (String line : lines) {
            String[] fields = line.split(" ");
            if (fields[0].equals("heap")) {
                System.out.println("agent heap after " + fields[1] + ": " + fields[2] + " bytes in " + fields[3]
                        + " blocks, " + fields[4] + " allocations so far");
                heap.add(new long[] {Long.parseLong(fields[2]), Long.parseLong(fields[3]), Long.parseLong(fields[4])});
            } else if (fields[0].equals("leaks")) {
                leaks.add(fields[1]);
                assertNotEquals("-1", fields[2], "the sanitized agent runs without LeakSanitizer: set detect_leaks=1");
            }
        }
        if (!heap.isEmpty()) {
            long[] warm = heap.get(0);
            for (long[] later : heap.subList(1, heap.size())) {
                assertEquals(warm[0], later[0], "live bytes of the agent after more rounds");
                assertEquals(warm[1], later[1], "live blocks of the agent after more rounds");
            }
            long made = heap.get(heap.size() - 1)[2] - warm[2];
            assertTrue(made > 1_000, "the rounds went through the agent's heap: " + made + " allocations");
        } else if (!leaks.isEmpty()) {
            long[] first = agentLeaks(reports, leaks.get(0), result);
            long[] last = agentLeaks(reports, leaks.get(leaks.size() - 1), result);
            assertEquals(0, last[0], "unreachable blocks of the agent after all rounds (see the report)");
            assertTrue(last[0] <= first[0], "unreachable blocks of the agent grew from " + first[0]
                    + " after the warm-up to " + last[0] + " (see the reports)");
        } else {
            fail("no figures from the child:\n" + result.stdout);
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
            if (ALLOCATOR_FRAME.matcher(frame).find()) {
                continue;
            }
            return AGENT_FRAME.matcher(frame).find()
                    || JVMTI_FRAME.matcher(frame).find() && frames.stream().anyMatch(f -> AGENT_FRAME.matcher(f).find());
        }
        return false;
    }

    /** {agent blocks, agent bytes, all blocks} of the unreachable blocks in the report of a stage. */
    private static long[] agentLeaks(Path reports, String stage, ChildJvm.Result result) throws IOException {
        Path report;
        try (Stream<Path> files = Files.list(reports.getParent())) {
            report = files.filter(p -> p.getFileName().toString().startsWith(reports.getFileName() + "-" + stage + "."))
                    .findFirst().orElse(null);
        }
        if (report == null) {
            System.out.println("LeakSanitizer after " + stage + ": nothing unreachable");
            return new long[] {0, 0, 0};
        }
        String text = Files.readString(report);
        assertTrue(!text.contains("ERROR: AddressSanitizer") && !text.contains("runtime error:"), text);
        long agentBytes = 0;
        long agentBlocks = 0;
        long allBlocks = 0;
        StringBuilder agentRecords = new StringBuilder();
        for (String record : text.split("\n\\s*\n")) {
            Matcher leak = LEAK.matcher(record.strip());
            if (!leak.find()) {
                continue;
            }
            allBlocks += Long.parseLong(leak.group(3));
            if (allocatedByTheAgent(record)) {
                agentBytes += Long.parseLong(leak.group(2));
                agentBlocks += Long.parseLong(leak.group(3));
                agentRecords.append(record).append("\n\n");
            }
        }
        System.out.println("LeakSanitizer after " + stage + ": " + allBlocks + " unreachable blocks in the JVM, "
                + agentBlocks + " of them (" + agentBytes + " bytes) the agent's; report " + report);
        if (agentBlocks > 0) {
            System.out.println(agentRecords);
        }
        return new long[] {agentBlocks, agentBytes, allBlocks};
    }
}
