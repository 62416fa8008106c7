package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm.Result;
import com.brantide.kelvane.plugin.jvmti.testing.LogLine;
import com.brantide.kelvane.plugin.jvmti.testing.StartupMain;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Start-up behaviour, read from the error output of child JVMs. */
class StartupTest {
    private static final String BANNER =
            "^Kelvane JVMTI Revision: (\\S+) Build: \\d+\\.[0-9a-f]{40}\\.\\1 Date: [A-Z][a-z]{2} \\d{2} \\d{4} \\d{2}:\\d{2}:\\d{2}$";

    @Test
    void debugLevelLogsStartUpInOrder() throws Exception {
        Result result = ChildJvm.main(StartupMain.class).logLevel(4).agentOptions("hello").run().assertClean();
        List<String> lines = result.stderrLines();
        assertTrue(lines.get(0).matches(BANNER));
        List<LogLine> startup = new ArrayList<>();
        for (String line : lines.subList(1, lines.size())) {
            LogLine parsed = LogLine.parse(line);
            assertNotNull(parsed, "every line after the banner is a levelled agent line: " + line);
            if (parsed.function.equals("Agent_OnUnload")) {
                break;
            }
            startup.add(parsed);
        }
        List<String> messages = startup.stream().map(l -> l.message).collect(Collectors.toList());
        assertEquals(List.of("agentargs = hello", "mode = debugging", "Capabilities", "\tcan_tag_objects=1"),
                messages.subList(0, 4));
        assertEquals("\tcan_generate_resource_exhaustion_threads_events=0", messages.get(43));
        // A VM with virtual threads shows their capability after the record's named fields.
        boolean virtual = Runtime.version().feature() >= 21;
        assertEquals(virtual, messages.get(44).equals("\tcan_support_virtual_threads=1"));
        int callbacks = messages.indexOf("Event Callbacks");
        int events = messages.indexOf("Default Global Events");
        assertTrue(callbacks == (virtual ? 45 : 44) && events > callbacks, messages.toString());
        assertTrue(messages.subList(callbacks + 1, events).stream().allMatch(m -> m.matches("\t[A-Za-z]+ registered")));
        // The class events wait for a listener: every class load pays for them.
        assertEquals(List.of("\tThreadStart - events enabled", "\tThreadEnd - events enabled",
                "\tDataDumpRequest - events enabled"), messages.subList(events + 1, events + 4));
        assertTrue(startup.subList(0, events + 4).stream().allMatch(l -> l.level.equals("DEBUG") && l.file.equals("src/main/cpp/kvjvmti.cpp")));
        assertTrue(result.stderr.contains("Agent_OnUnload() ThreadStart - events disabled"));
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
        "no properties                         | com.brantide.kelvane.plugin.jvmti.testing.StartupMain |                                        | true  | true",
        "coldfusion.home set                   | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=/opt/cf                | false | false",
        "ColdFusion main class                 | com.adobe.coldfusion.Launcher                         |                                        | false | false",
        "look-alike main class                 | com.adobe.coldfusionlike.Launcher                     |                                        | true  | true",
        "switches win over ColdFusion          | com.adobe.coldfusion.Launcher                         | kv.jvmti.enable.exceptions=true        | false | true",
        "fast stepping on under ColdFusion     | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=x,kv.jvmti.enable.fast.stepping=true | true | false",
        "only exact true enables (capitals)    | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | kv.jvmti.enable.exceptions=TRUE        | true  | false",
        "only exact true enables (one)         | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | kv.jvmti.enable.fast.stepping=1        | false | true",
        "compiled stepping hears catches       | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | kv.jvmti.enable.exceptions=false,kv.jvmti.enable.compiled.stepping=true | true | false",
        "compiled stepping needs fast stepping | com.brantide.kelvane.plugin.jvmti.testing.StartupMain | coldfusion.home=x,kv.jvmti.enable.compiled.stepping=true | false | false",
    })
    void propertiesDecideTheSwitches(String name, String main, String properties, boolean fastStepping,
            boolean exceptions) throws Exception {
        ChildJvm child = ChildJvm.main(main).logLevel(4);
        if (properties != null) {
            for (String property : properties.split(",")) {
                String[] pair = property.split("=", 2);
                child.property(pair[0], pair[1]);
            }
        }
        Result result = child.run().assertClean();
        assertTrue(result.stdout.contains("fastStepping=" + fastStepping), result.stdout);
        assertTrue(result.stdout.contains("exceptions=" + exceptions), result.stdout);
        List<String> messages = result.agentMessages();
        // The start-up capability dump shows what the switches asked of the VM.
        assertTrue(messages.contains("DEBUG \tcan_generate_frame_pop_events=" + (fastStepping ? 1 : 0)));
        // A compiled step hears through catches of exceptions that skip the place it waits at.
        boolean catches = exceptions || fastStepping && properties != null && properties.contains("compiled.stepping=true");
        assertTrue(messages.contains("DEBUG \tcan_generate_exception_events=" + (catches ? 1 : 0)));
        assertEquals(catches, messages.contains("DEBUG \tExceptionCatch registered"));
        assertTrue(messages.contains("DEBUG \tcan_pop_frame=0") && messages.contains("DEBUG \tcan_get_owned_monitor_info=0"));
    }

    @ParameterizedTest
    @CsvSource({"abc", "0", "-3"})
    void levelWithoutPositiveDigitsSilencesEveryLevelledLine(String level) throws Exception {
        Result result = ChildJvm.main(StartupMain.class, "on", "off").property("KV_JVMTI_LOG_LEVEL", level).run()
                .assertClean();
        assertTrue(result.stderrLines().get(0).matches(BANNER));
        assertEquals(List.of(), result.agentMessages());
    }

    @Test
    void levelsFilterByThresholdAfterTheBanner() throws Exception {
        Result fine = ChildJvm.main(StartupMain.class, "on").logLevel(5).run().assertClean();
        assertTrue(fine.agentMessages().contains("DEBUG agentargs = (null)"));
        Result byDefault = ChildJvm.main(StartupMain.class, "on").run().assertClean();
        assertTrue(byDefault.stderrLines().get(0).matches(BANNER), byDefault.stderrLines().get(0));
        assertEquals(List.of(), byDefault.agentMessages(), "the default level writes no DEBUG lines");
        assertTrue(byDefault.stdout.contains("active=false"));
    }

    @ParameterizedTest
    @CsvSource({"at load by its property", "attached with jcmd"})
    void inspectionOnlyInspectsAndRefusesToDebug(String how) throws Exception {
        boolean attach = how.startsWith("attached");
        ChildJvm child = ChildJvm.main(StartupMain.class, "inspect", attach ? "attached" : "loaded").logLevel(4);
        Result result;
        try (ChildJvm.Running running = (attach ? child.withoutAgent() : child.property("kv.jvmti.inspection.only", "true"))
                .start()) {
            if (attach) {
                running.awaitStdout("READY", 60);
                String agent = System.getProperty("kv.test.agent");
                running.jcmd("JVMTI.agent_load", agent);
                running.jcmd("JVMTI.agent_load", agent);  // refused: the agent is there already
                running.closeStdin();
            }
            result = running.await(60);
        }
        assertEquals(List.of("active=true", "histogram=3 gcRoots=3 suspendedDepth>0=true source=StartupMain.java",
                "breakpoint=JVMTICapabilityException locals=JVMTICapabilityException switch=false"),
                result.stdoutLines().subList(attach ? 1 : 0, result.stdoutLines().size()));
        List<String> messages = result.agentMessages();
        String mode = "inspection only (kv.jvmti.inspection.only or attached to a running VM): no debugging capability";
        assertTrue(messages.containsAll(List.of("DEBUG mode = " + mode, "DEBUG \t" + mode, "WARN " + mode,
                "DEBUG \tcan_tag_objects=1", "DEBUG \tcan_suspend=1", "DEBUG \tcan_generate_breakpoint_events=0",
                "DEBUG \tcan_access_local_variables=0", "DEBUG \tcan_generate_single_step_events=0")), messages.toString());
        assertEquals(attach, result.stderr.contains("Kelvane JVMTI: already loaded in this VM; attach refused, nothing changed"));
    }

    @Test
    void setActiveAcquiresTheDebuggingSetEachTime() throws Exception {
        Result result = ChildJvm.main(StartupMain.class, "on", "off", "on").logLevel(4).run().assertClean();
        assertTrue(result.stdout.contains("setActive(true)=true"));
        assertTrue(result.stdout.contains("setActive(false)=false"));
        // One dump at load, then one per setActive(true), none for setActive(false).
        long dumps = result.agentMessages().stream().filter(m -> m.equals("DEBUG \tcan_suspend=1")).count();
        assertEquals(3, dumps);
        String afterOff = result.stderr.substring(result.stderr.indexOf("-- setActive(false)"));
        String beforeSecondOn = afterOff.substring(0, afterOff.indexOf("-- setActive(true)"));
        assertFalse(beforeSecondOn.contains("Capabilities"));
    }

    @Test
    void refusedSwitchesSayWhy() throws Exception {
        Result result = ChildJvm.main(StartupMain.class, "on", "refused").logLevel(4).run().assertClean();
        assertTrue(result.stdoutLines().containsAll(List.of("early=false", "ended=false", "stepping=false")), result.stdout);
        List<String> messages = result.agentMessages();
        assertTrue(messages.contains("DEBUG data is null for thread(Reference Handler)"), "no record: never seen starting");
        assertTrue(messages.contains("ERROR Failed to set event(62) for thread(ended) = JVMTI_ERROR_THREAD_NOT_ALIVE(15)"));
        assertTrue(messages.contains("ERROR Event SINGLE_STEP(60) drives stepping and is switched by the agent alone"));
        // The main thread's id is 1 up to JDK 18 and larger since (thread ids changed in JDK 19).
        assertTrue(messages.stream().anyMatch(m -> m.matches("DEBUG ThreadStart thread\\(\\d+,main\\)")),
                "the main thread has a record");
    }

    @Test
    void withoutTheAgentNativesThatNeedItRaiseAClearError() throws Exception {
        Result result = ChildJvm.main(StartupMain.class, "plain").withoutAgent().run().assertClean();
        String noAgent = "No JVMTI environment: the library was not loaded as a JVMTI agent (-agentpath)";
        List<String> lines = result.stdoutLines();
        assertTrue(lines.get(0).matches(BANNER), lines.get(0));
        assertEquals("version=" + JvmtiApi.API_VERSION + " active=false", lines.get(1));
        assertEquals(List.of(noAgent, noAgent, noAgent, noAgent, noAgent, noAgent, noAgent), lines.subList(2, lines.size()));
    }
}
