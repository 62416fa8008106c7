package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

/** The data dump, asked for with jcmd and read line by line from the child's error output. */
class DumpTest {
    @Test
    void emptyStateAtLevelZero() throws Exception {
        List<String> dump = dumpOf(ChildJvm.main(DumpMain.class).logLevel(0));
        List<String> expected = new ArrayList<>(List.of("", "Capabilities"));
        assertEquals(expected, dump.subList(1, 3));
        assertTrue(dump.get(0).startsWith("Kelvane JVMTI Revision: "));
        assertEquals("\tcan_tag_objects=1", dump.get(3));
        assertEquals("\tcan_generate_breakpoint_events=0", dump.get(3 + 19), "only the basic set is held");
        assertEquals("\tcan_generate_resource_exhaustion_threads_events=0", dump.get(43));
        // Held from load on where the VM has virtual threads.
        boolean virtual = Runtime.version().feature() >= 21;
        assertEquals(virtual, dump.get(44).equals("\tcan_support_virtual_threads=1"));
        dump = dump.subList(virtual ? 1 : 0, dump.size());
        assertEquals(List.of("", "Hooks", "\tClassPrepareHook=Unset", "\tFileLoadHook=Unset", "\tThreadHook=Unset",
                "\tBreakpointHook=Unset", "\tExceptionHook=Unset", "\tFieldHook=Unset", "", "Counters",
                "\tBreakpoints=0", "\tFieldAccess=0", "\tFieldWatch=0", "Thread Events", ""), dump.subList(44, dump.size()));
    }

    @Test
    void hooksAndThreadEventsInShortAndLongForm() throws Exception {
        List<String> dump;
        ChildJvm.Result result;
        ChildJvm busy = ChildJvm.main(DumpMain.class, "busy").withProbeAgent();
        if (ThreadKind.VIRTUAL) {
            busy.property("kv.test.thread.kind", "virtual");  // its line follows the platform threads' lines
        }
        try (ChildJvm.Running child = busy.start()) {
            child.awaitStdout("READY", 60);
            dump = requestDump(child);
            child.closeStdin();
            result = child.await(60).assertClean();
        }
        String ids = result.stdoutLines().stream().filter(l -> l.startsWith("worker=")).findFirst().orElseThrow();
        String workerId = ids.replaceAll("worker=(\\d+) .*", "$1");
        String mainId = ids.replaceAll(".* main=(\\d+)", "$1");

        assertTrue(dump.contains("\tcan_generate_breakpoint_events=1"), "the agent is active");
        int hooks = dump.indexOf("Hooks");
        assertEquals(List.of("\tClassPrepareHook=Unset", "\tFileLoadHook=Unset", "\tThreadHook=Set",
                "\tBreakpointHook=Set", "\tExceptionHook=Unset", "\tFieldHook=Set"), dump.subList(hooks + 1, hooks + 7));
        int counters = dump.indexOf("Counters");
        assertEquals(List.of("\tBreakpoints=2", "\tFieldAccess=1", "\tFieldWatch=2"),
                dump.subList(counters + 1, counters + 4));
        int threads = dump.indexOf("Thread Events");
        List<String> listed = dump.subList(threads + 1, dump.size() - 1);
        assertEquals(3, listed.size(), listed.toString());
        assertEquals("\tVM-wide \"FIELD_ACCESS\" 8192", listed.get(0), "switched for every thread");
        assertTrue(listed.contains("\tThread id=" + mainId + " name=\"main\" \"BREAKPOINT\" 4096"), listed.toString());
        assertTrue(listed.contains("\tThread id=" + workerId
                + " name=\"dump-worker\" \"SINGLE_STEP,BREAKPOINT\" 5120 (\"BREAKPOINT\" 4096)"), listed.toString());
        assertEquals("", dump.get(dump.size() - 1));
    }

    private static List<String> dumpOf(ChildJvm child) throws Exception {
        try (ChildJvm.Running running = child.start()) {
            running.awaitStdout("READY", 60);
            List<String> dump = requestDump(running);
            running.closeStdin();
            running.await(60).assertClean();
            return dump;
        }
    }

    /** Asks for a dump and returns its lines: from the second banner up to the end of the thread block. */
    private static List<String> requestDump(ChildJvm.Running child) throws Exception {
        int before = child.stderrSoFar().size();
        child.jcmd("JVMTI.data_dump");
        child.awaitStderr(line -> line.equals("Thread Events"), 60);
        long deadline = System.nanoTime() + 10_000_000_000L;
        while (true) {
            List<String> lines = child.stderrSoFar();
            List<String> dump = lines.subList(before, lines.size());
            int threads = dump.indexOf("Thread Events");
            int end = threads < 0 ? -1 : dump.subList(threads, dump.size()).indexOf("");
            if (end > 0) {
                int start = dump.size() - 1;
                while (!dump.get(start).startsWith("Kelvane JVMTI Revision: ")) {
                    start--;
                }
                return new ArrayList<>(dump.subList(start, threads + end + 1));
            }
            assertTrue(System.nanoTime() < deadline, "dump incomplete: " + dump);
            Thread.sleep(20);
        }
    }
}
