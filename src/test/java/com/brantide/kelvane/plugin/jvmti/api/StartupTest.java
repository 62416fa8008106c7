package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm.Result;
import com.brantide.kelvane.plugin.jvmti.testing.LogLine;
import com.brantide.kelvane.plugin.jvmti.testing.StartupMain;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Start-up and the data dump, read from the output of child JVMs (StartupMain). */
class StartupTest {
    private static final String BANNER =
            "^Kelvane JVMTI Revision: (\\S+) Build: \\d+\\.[0-9a-f]{40}\\.\\1 Date: [A-Z][a-z]{2} \\d{2} \\d{4} \\d{2}:\\d{2}:\\d{2}$";
    private static final String MAIN = StartupMain.class.getName();
    private static final String INSPECTION_ONLY =
            "inspection only (kv.jvmti.inspection.only or attached to a running VM): no debugging capability";

    @Test
    void debugLevelLogsStartUpAndUnload() throws Exception {
        Result result = ChildJvm.main(MAIN).property("KV_JVMTI_LOG_LEVEL", "4").run().assertClean();
        List<String> lines = result.stderrLines();
        assertTrue(lines.get(0).matches(BANNER), lines.get(0));
        List<LogLine> logged = lines.subList(1, lines.size()).stream().map(LogLine::parse).toList();
        assertTrue(logged.stream().allMatch(Objects::nonNull), result.stderr);
        assertEquals(List.of("ERROR OSGI class 'JVMTIException' not configured"),
                result.agentMessages().stream().filter(m -> !m.startsWith("DEBUG")).toList(), "only the call before registration fails");
        assertEquals(List.of("agentargs = (null)", "mode = debugging"), logged.subList(0, 2).stream().map(l -> l.message).toList());
        // The debugging set is acquired at load, while the VM still offers it.
        assertTrue(result.agentMessages().contains("DEBUG \tcan_generate_breakpoint_events=1"));
        assertEquals("Agent_OnUnload", logged.get(logged.size() - 1).function);
        assertEquals(List.of("unregistered=IllegalStateException: JVMTI Exception class not found",
                "fastStepping=true exceptions=true active=false"), result.stdoutLines());
    }

    @ParameterizedTest(name = "KV_JVMTI_LOG_LEVEL={0}")
    @CsvSource(quoteCharacter = '"', value = {", ERROR OSGI class 'JVMTIException' not configured", "abc,"})
    void otherLevelsWriteTheBannerAndNoDebugLine(String level, String error) throws Exception {
        ChildJvm child = ChildJvm.main(MAIN);
        Result result = (level == null ? child : child.property("KV_JVMTI_LOG_LEVEL", level)).run().assertClean();
        assertTrue(result.stderrLines().get(0).matches(BANNER), result.stderr);
        assertEquals(error == null ? List.of() : List.of(error), result.agentMessages());
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
        "no properties                         | com.brantide.kelvane.plugin.jvmti.testing.StartupMain |                                        | true  | true  | true",
        "coldfusion.home set                   | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=/opt/cf                | false | false | false",
        "ColdFusion main class                 | com.adobe.coldfusion.Launcher                         |                                        | false | false | false",
        "switches win over ColdFusion          | com.adobe.coldfusion.Launcher                         | kv.jvmti.enable.exceptions=true        | false | true  | true",
        "fast stepping on under ColdFusion     | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=x,kv.jvmti.enable.fast.stepping=true | true | false | false",
        "compiled stepping hears catches       | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | kv.jvmti.enable.exceptions=false,kv.jvmti.enable.compiled.stepping=true | true | false | true",
        "compiled stepping needs fast stepping | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=x,kv.jvmti.enable.compiled.stepping=true | false | false | false",
    })
    void propertiesDecideTheSwitches(String name, String main, String properties, boolean fastStepping,
            boolean exceptions, boolean catches) throws Exception {
        ChildJvm child = ChildJvm.main(main).property("KV_JVMTI_LOG_LEVEL", "4");
        for (String property : properties == null ? new String[0] : properties.split(",")) {
            child.property(property.substring(0, property.indexOf('=')), property.substring(property.indexOf('=') + 1));
        }
        Result result = child.run().assertClean();
        assertTrue(result.stdout.contains("fastStepping=" + fastStepping + " exceptions=" + exceptions), result.stdout);
        List<String> messages = result.agentMessages();
        assertTrue(messages.contains("DEBUG \tcan_generate_exception_events=" + (catches ? 1 : 0)));
        assertEquals(catches, messages.contains("DEBUG \tExceptionCatch registered"));
    }

    @ParameterizedTest
    @CsvSource({"at load by its property", "attached with jcmd"})
    void inspectionOnlyInspectsAndRefusesToDebug(String how) throws Exception {
        boolean attach = how.startsWith("attached");
        ChildJvm child = ChildJvm.main(MAIN, attach ? new String[] {"inspect", "attached"} : new String[] {"inspect"})
                .property("KV_JVMTI_LOG_LEVEL", "4");
        Result result;
        try (ChildJvm.Running running = (attach ? child.withoutAgent() : child.property("kv.jvmti.inspection.only", "true"))
                .start()) {
            if (attach) {
                running.awaitStdout("READY", 60);
                String agent = System.getProperty("kv.test.agent");
                running.jcmd("JVMTI.agent_load", agent);
                running.jcmd("JVMTI.agent_load", agent);  // refused: the agent is there already
                running.send("attached");
            }
            result = running.await(60).assertClean();
        }
        String refused = "JVMTICapabilityException: JVMTI_ERROR_MUST_POSSESS_CAPABILITY";
        assertEquals(List.of("active=true", "histogram=3 gcRoots=3 suspendedDepth>0=true source=StartupMain.java",
                "breakpoint=" + refused, "locals=" + refused, "switch=false"),
                result.stdoutLines().subList(attach ? 1 : 0, result.stdoutLines().size()));
        List<String> messages = result.agentMessages();
        assertTrue(messages.containsAll(List.of("DEBUG mode = " + INSPECTION_ONLY, "WARN " + INSPECTION_ONLY,
                "DEBUG \tcan_tag_objects=1", "DEBUG \tcan_suspend=1", "DEBUG \tcan_generate_breakpoint_events=0",
                "DEBUG \tcan_access_local_variables=0", "DEBUG \tcan_generate_single_step_events=0")), messages.toString());
        assertEquals(attach, result.stderr.contains("Kelvane JVMTI: already loaded in this VM; attach refused, nothing changed"));
    }

    @Test
    void withoutTheAgentNativesThatNeedItRaiseAClearError() throws Exception {
        Result result = ChildJvm.main(MAIN, "plain").withoutAgent().run().assertClean();
        List<String> lines = result.stdoutLines();
        assertTrue(lines.get(0).matches(BANNER), lines.get(0));
        assertEquals("version=" + JvmtiApi.API_VERSION + " active=false", lines.get(1));
        String noAgent = "IllegalStateException: No JVMTI environment: the library was not loaded as a JVMTI agent (-agentpath)";
        assertEquals(List.of(noAgent), lines.subList(2, lines.size()).stream().distinct().toList());
        assertEquals(9, lines.size());
    }

    /** Two dumps asked for with jcmd at level 0: the agent as loaded, then with hooks, events and breakpoints. */
    @Test
    void dataDumpIsWholeAndShowsTheAgentsState() throws Exception {
        ChildJvm child = ChildJvm.main(MAIN, "dump").withProbeAgent().property("KV_JVMTI_LOG_LEVEL", "0");
        if (ThreadKind.VIRTUAL) {
            child.property("kv.test.thread.kind", "virtual");
        }
        Result result;
        try (ChildJvm.Running running = child.start()) {
            running.awaitStdout("READY", 60);
            running.jcmd("JVMTI.data_dump");
            running.awaitStderr(lines -> dumps(lines).size() == 1, 60);
            running.send("busy");
            running.awaitStdout("BUSY", 60);
            running.jcmd("JVMTI.data_dump");
            running.awaitStderr(lines -> dumps(lines).size() == 2, 60);
            running.closeStdin();
            result = running.await(60).assertClean();
        }
        List<List<String>> dumps = dumps(result.stderrLines());
        for (List<String> dump : dumps) {
            assertEquals(List.of("Capabilities", "Hooks", "Counters", "Thread Events"),
                    dump.subList(1, dump.size()).stream().filter(l -> !l.isEmpty() && !l.startsWith("\t")).toList());
        }
        List<String> loaded = dumps.get(0);
        assertTrue(loaded.containsAll(List.of("\tcan_tag_objects=1", "\tcan_generate_breakpoint_events=0",
                "\tBreakpointHook=Unset", "\tBreakpoints=0")), "only the basic set is held while inactive: " + loaded);
        assertEquals(List.of(""), after(loaded, "Thread Events"));

        List<String> busy = dumps.get(1);
        assertTrue(busy.contains("\tcan_generate_breakpoint_events=1"), busy.toString());
        assertEquals(List.of("\tClassPrepareHook=Unset", "\tFileLoadHook=Unset", "\tThreadHook=Set", "\tBreakpointHook=Set",
                "\tExceptionHook=Unset", "\tFieldHook=Set", ""), after(busy, "Hooks").subList(0, 7));
        assertEquals(List.of("\tBreakpoints=2", "\tFieldAccess=1", "\tFieldWatch=2"), after(busy, "Counters").subList(0, 3));
        String[] ids = result.stdoutLines().stream().filter(l -> l.startsWith("worker=")).findFirst().orElseThrow().split("[ =]");
        List<String> threads = after(busy, "Thread Events");
        assertEquals("\tVM-wide \"FIELD_ACCESS\" 8192", threads.get(0), "switched for every thread comes first");
        assertEquals(Set.of("\tThread id=" + ids[3] + " name=\"main\" \"BREAKPOINT\" 4096",
                "\tThread id=" + ids[1] + " name=\"dump-worker\" \"SINGLE_STEP,BREAKPOINT\" 5120 (\"BREAKPOINT\" 4096)", ""),
                Set.copyOf(threads.subList(1, threads.size())));
    }

    /** The dumps in the error output that are complete: from a banner after the first to the blank line after the threads. */
    private static List<List<String>> dumps(List<String> lines) {
        List<List<String>> dumps = new ArrayList<>();
        for (int start = 1; start < lines.size(); start++) {
            if (!lines.get(start).matches(BANNER)) {
                continue;
            }
            int threads = lines.subList(start, lines.size()).indexOf("Thread Events");
            int end = threads < 0 ? -1 : lines.subList(start + threads, lines.size()).indexOf("");
            if (end >= 0) {
                dumps.add(lines.subList(start, start + threads + end + 1));
            }
        }
        return dumps;
    }

    /** The lines of the dump after the heading. */
    private static List<String> after(List<String> dump, String heading) {
        return dump.subList(dump.indexOf(heading) + 1, dump.size());
    }
}
