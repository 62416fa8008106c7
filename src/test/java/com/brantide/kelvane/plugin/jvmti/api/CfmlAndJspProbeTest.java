package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.sun.jdi.Bootstrap;
import com.sun.jdi.Location;
import com.sun.jdi.VirtualMachine;
import java.io.BufferedReader;
import java.io.File;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.function.IntSupplier;
import org.junit.jupiter.api.Test;

/**
 * Code compiled from other languages, through the probe agent: the SMAP reader against the JDK's
 * own debugger on a servlet that the JSP compiler really generated, and CFML depth and parent on
 * classes shaped like compiled CFML (page, hidden chunk, Java, component).
 */
class CfmlAndJspProbeTest {
    private static final String PAGE_CLASS = "org.apache.jsp.page_jsp";
    private static final String JSP_CLASSPATH = System.getProperty("kv.test.jsp-classpath");

    /** Loads the class named by the argument in the debuggee, says so, and waits to be ended. */
    public static final class LoadPage {
        public static void main(String[] args) throws Exception {
            System.setErr(System.out); // a failure shows in the line the test reads
            Class.forName(args[0]);
            System.out.println("loaded");
            System.in.read();
        }
    }

    @Test
    void agentMapsEveryJavaLineTheDebuggerMapsToTheSameJspLine() throws Exception {
        VirtualMachine vm = launch(System.getProperty("kv.test.classpath") + File.pathSeparator + compilePage()
                + File.pathSeparator + JSP_CLASSPATH);
        try {
            vm.resume();
            assertEquals("loaded", new BufferedReader(new InputStreamReader(vm.process().getInputStream())).readLine());
            var page = vm.classesByName(PAGE_CLASS).get(0);
            String smap = page.sourceDebugExtension();
            // JDI puts a location into the JSP stratum only where the SMAP covers its Java line, so the
            // listed locations give, line by line, the mapping a debugger shows. (It leaves out a location
            // that repeats the JSP line of the one before, but the page compiler gives each JSP line
            // Java lines of its own, so that only drops further locations of a line already listed.)
            // Lines it leaves uncovered, and entries of increment 0 that it skips, follow the rules of
            // the SMAP unit tests.
            Map<Integer, Integer> covered = new HashMap<>();
            for (Location location : page.allLineLocations("JSP", null)) {
                covered.put(location.lineNumber("Java"), location.lineNumber("JSP"));
            }
            covered.forEach((javaLine, jspLine) -> assertEquals(jspLine, AgentProbe.smapLine(smap, javaLine),
                    "Java line " + javaLine + ", SMAP:\n" + smap));
            long remapped = covered.entrySet().stream().filter(e -> !e.getKey().equals(e.getValue())).count();
            assertTrue(remapped > 10, covered.size() + " lines, " + remapped + " remapped");
        } finally {
            vm.process().destroyForcibly().waitFor(30, TimeUnit.SECONDS);
        }
    }

    /** The page compiled by the JSP compiler in a JVM of its own, the SMAP in its class: their directory. */
    private static Path compilePage() throws Exception {
        Path out = Files.createTempDirectory(ChildJvm.workDirectory(), "jsp-smap");
        Process jspc = new ProcessBuilder(System.getProperty("kv.test.java"), "-cp", JSP_CLASSPATH,
                "org.apache.jasper.JspC", "-uriroot", System.getProperty("kv.test.jsp-dir"), "-d", out.toString(),
                "-compile", "-smap", "-die", "-source", "17", "-target", "17", "page.jsp").redirectErrorStream(true).start();
        String output = new String(jspc.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(jspc.waitFor(120, TimeUnit.SECONDS) && jspc.exitValue() == 0, "JspC failed:\n" + output);
        return out;
    }

    /** A debuggee, suspended, that will load the page. */
    private static VirtualMachine launch(String classpath) throws Exception {
        var connector = Bootstrap.virtualMachineManager().defaultConnector();
        var arguments = connector.defaultArguments();
        arguments.get("home").setValue(Path.of(System.getProperty("kv.test.java")).getParent().getParent().toString());
        arguments.get("options").setValue("-cp \"" + classpath + "\"");
        arguments.get("main").setValue(LoadPage.class.getName() + " " + PAGE_CLASS);
        return connector.launch(arguments);
    }

    @Test
    void depthLeavesHiddenFramesOutAndTheParentIsTheCfmlCaller() throws Exception {
        int[] seen = new int[6];
        IntSupplier probe = () -> {
            seen[0] = AgentProbe.frameCount();
            seen[1] = AgentProbe.cfDepth();
            seen[2] = indexOf("work");
            seen[3] = AgentProbe.cfParent(seen[0] - seen[2]);
            seen[4] = AgentProbe.cfParent(seen[0]);
            seen[5] = indexOf("_factor0");
            return 0;
        };
        Class.forName("cfcomp2ecfc200$funcWORK").getField("probe").set(null, probe);
        Class.forName("cfstep2ecfm100").getMethod("runPage", int.class).invoke(null, 1);
        assertEquals(seen[0] - 1, seen[1], "_factor0 is not counted");
        assertEquals(seen[5], seen[3],
                "the component's CFML caller is the first CFML frame below it, across Java, hidden or not");
        assertEquals(seen[2], seen[4], "from the Java native on top (a Java lambda below it), the first CFML frame");
        assertEquals(-1, AgentProbe.cfParent(AgentProbe.frameCount() + 1));
    }

    /**
     * The index, counted as the agent counts from a native called where this is called, of the
     * nearest frame running the named method. Hidden frames (the lambda's own class) count too.
     */
    private static int indexOf(String method) {
        List<String> names = StackWalker.getInstance(Set.of(StackWalker.Option.SHOW_HIDDEN_FRAMES,
                StackWalker.Option.SHOW_REFLECT_FRAMES)).walk(s -> s.map(StackWalker.StackFrame::getMethodName).toList());
        return names.indexOf(method);
    }
}
