package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm.Result;
import com.brantide.kelvane.plugin.jvmti.testing.StartupMain;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.List;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Start-up and the data dump, read from the output of child JVMs (StartupMain). */
class StartupTest {
    private static final String BANNER =
            "^Kelvane JVMTI Revision: (\\S+) Build: \\d+\\.[0-9a-f]{40}\\.\\1 Date: [A-Z][a-z]{2} \\d{2} \\d{4} \\d{2}:\\d{2}:\\d{2}$";
    private static final String MAIN = StartupMain.class.getName();
    private static final String UNREGISTERED = "ERROR OSGI class 'JVMTIException' not configured";
    private static final String INSPECTION_ONLY =
            "inspection only (kv.jvmti.inspection.only or attached to a running VM): no debugging capability";

    /** At the debug level every line after the banner is a levelled one, from load to unload. */
    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
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
        assertEquals(List.of("unregistered=IllegalStateException: JVMTI Exception class not found",
                "fastStepping=" + fastStepping + " exceptions=" + exceptions + " active=false",
                "locals=JVMTICapabilityException: JVMTI_ERROR_MUST_POSSESS_CAPABILITY"), result.stdoutLines());
        List<String> lines = result.stderrLines();
        assertTrue(lines.get(0).matches(BANNER), lines.get(0));
        assertTrue(lines.stream().skip(1).allMatch(line -> ChildJvm.LOG_LINE.matcher(line).matches()), result.stderr());
        assertTrue(lines.get(lines.size() - 1).contains(":Agent_OnUnload() "), result.stderr());
        List<String> messages = result.agentMessages();
        assertEquals(List.of(UNREGISTERED), messages.stream().filter(m -> !m.startsWith("DEBUG")).toList());
        assertEquals(List.of("DEBUG agentargs = (null)", "DEBUG mode = debugging"), messages.subList(0, 2));
        // The debugging set is acquired at load, while the VM still offers it.
        assertTrue(messages.containsAll(List.of("DEBUG \tcan_generate_breakpoint_events=1",
                "DEBUG \tcan_generate_exception_events=" + (catches ? 1 : 0))), messages.toString());
        assertEquals(catches, messages.contains("DEBUG \tExceptionCatch registered"));
    }

    @ParameterizedTest
    @CsvSource({"at load by its property", "attached with jcmd"})
    void inspectionOnlyInspectsAndRefusesToDebug(String how) throws Exception {
        boolean attach = how.startsWith("attached");
        ChildJvm child = ChildJvm.main(MAIN, attach ? new String[] {"inspect", "attach"} : new String[] {"inspect"})
                .property("KV_JVMTI_LOG_LEVEL", "4");
        Result result = (attach ? child.withoutAgent() : child.property("kv.jvmti.inspection.only", "true")).run().assertClean();
        String refused = "JVMTICapabilityException: JVMTI_ERROR_MUST_POSSESS_CAPABILITY";
        assertEquals(List.of("heap {} OK suspendedDepth>0=true source=StartupMain.java",
                "breakpoint=" + refused, "locals=" + refused, "switch=false"), result.stdoutLines());
        List<String> messages = result.agentMessages();
        assertTrue(messages.containsAll(List.of("DEBUG mode = " + INSPECTION_ONLY, "WARN " + INSPECTION_ONLY,
                "DEBUG \tcan_tag_objects=1", "DEBUG \tcan_suspend=1", "DEBUG \tcan_generate_breakpoint_events=0",
                "DEBUG \tcan_access_local_variables=0", "DEBUG \tcan_generate_single_step_events=0")), messages.toString());
        assertEquals(attach, result.stderr().contains("Kelvane JVMTI: already loaded in this VM; attach refused, nothing changed"));
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

    /** A dump asked for with jcmd at the default level, with hooks, events, breakpoints and watches set. */
    @Test
    void dataDumpShowsTheAgentsState() throws Exception {
        ChildJvm child = ChildJvm.main(MAIN, "dump").withProbeAgent();
        Result result = (ThreadKind.VIRTUAL ? child.property("kv.test.thread.kind", "virtual") : child).run().assertClean();
        List<String> lines = result.stderrLines();
        assertTrue(lines.get(0).matches(BANNER), result.stderr());
        assertEquals(List.of(UNREGISTERED), result.agentMessages(), "the default level shows errors, no debug line");
        List<String> dump = lines.subList(lines.indexOf("Capabilities"), lines.size());
        assertTrue(dump.containsAll(List.of("\tcan_generate_breakpoint_events=1", "\tThreadHook=Set", "\tBreakpointHook=Set",
                "\tExceptionHook=Unset", "\tFieldHook=Set", "\tBreakpoints=2", "\tFieldAccess=1", "\tFieldWatch=2")), result.stderr());
        List<String> threads = dump.subList(dump.indexOf("Thread Events") + 1, dump.size());
        assertEquals("\tVM-wide \"FIELD_ACCESS\" 8192", threads.get(0), "switched for every thread comes first");
        String[] ids = result.stdout().trim().split("[ =]");
        assertEquals(Set.of("\tThread id=" + ids[3] + " name=\"main\" \"BREAKPOINT\" 4096",
                "\tThread id=" + ids[1] + " name=\"dump-worker\" \"SINGLE_STEP,BREAKPOINT\" 5120 (\"BREAKPOINT\" 4096)"),
                Set.copyOf(threads.subList(1, threads.indexOf(""))));
    }
}
