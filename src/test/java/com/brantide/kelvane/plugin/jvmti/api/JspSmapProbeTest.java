package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.sun.jdi.Bootstrap;
import com.sun.jdi.Location;
import com.sun.jdi.ReferenceType;
import com.sun.jdi.VMDisconnectedException;
import com.sun.jdi.VirtualMachine;
import com.sun.jdi.connect.Connector;
import com.sun.jdi.connect.LaunchingConnector;
import com.sun.jdi.event.ClassPrepareEvent;
import com.sun.jdi.event.Event;
import com.sun.jdi.event.EventSet;
import com.sun.jdi.event.VMDisconnectEvent;
import com.sun.jdi.request.ClassPrepareRequest;
import com.sun.jdi.request.EventRequest;
import java.io.File;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeMap;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;

/**
 * The agent's SMAP reader against the JDK's own debugger, on a servlet that the JSP compiler really
 * generated: for every line of its line tables the agent must name the JSP line that JDI names.
 */
class JspSmapProbeTest {
    private static final String PAGE_CLASS = "org.apache.jsp.page_jsp";

    /** Loads (and so prepares) the class named by the argument in the debuggee. */
    public static final class LoadPage {
        public static void main(String[] args) throws Exception {
            Class.forName(args[0]);
        }
    }

    @Test
    void agentMapsEveryJavaLineToTheJspLineTheDebuggerReports() throws Exception {
        Path classes = compilePage();
        String jspClasspath = required("kv.test.jsp-classpath");

        String smap;
        List<URL> urls = new ArrayList<>(List.of(classes.toUri().toURL()));
        for (String jar : jspClasspath.split(File.pathSeparator)) {
            urls.add(Path.of(jar).toUri().toURL());
        }
        ClassLoader platform = ClassLoader.getPlatformClassLoader();
        try (URLClassLoader loader = new URLClassLoader(urls.toArray(new URL[0]), platform)) {
            JvmtiApi api = new JvmtiApi();
            api.registerClasses();
            smap = api.getSourceDebugExtension(Class.forName(PAGE_CLASS, false, loader));
        }
        assertTrue(smap.startsWith("SMAP\n"), "no SMAP in the compiled page:\n" + smap);

        VirtualMachine vm = launch(String.join(File.pathSeparator, required("kv.test.classpath"), classes.toString(),
                jspClasspath));
        try {
            ReferenceType page = awaitPrepared(vm);
            assertEquals(smap, page.sourceDebugExtension(), "the agent and JDI read different attributes");

            // JDI puts a location into the JSP stratum only when the SMAP covers its Java line, so the
            // listed locations give, line by line, the mapping a debugger shows. (It leaves out a location
            // that repeats the JSP line of the one before, but the page compiler gives each JSP line
            // Java lines of its own, so that only drops further locations of a line already listed.)
            Map<Integer, Integer> covered = new TreeMap<>();
            for (Location location : page.allLineLocations("JSP", null)) {
                covered.put(location.lineNumber("Java"), location.lineNumber("JSP"));
            }
            Map<Integer, Integer> zeroIncrement = zeroIncrementStarts(smap);
            Set<Integer> javaLines = new TreeSet<>();
            for (Location location : page.allLineLocations("Java", null)) {
                javaLines.add(location.lineNumber("Java"));
            }
            List<String> mismatches = new ArrayList<>();
            for (int javaLine : javaLines) {
                int expected = covered.getOrDefault(javaLine, zeroIncrement.getOrDefault(javaLine, javaLine));
                int agentLine = AgentProbe.smapLine(smap, javaLine);
                if (agentLine != expected) {
                    mismatches.add("Java " + javaLine + ": expected " + expected
                            + (covered.containsKey(javaLine) ? " (JDI)" : " (not covered for JDI)")
                            + ", agent " + agentLine);
                }
            }
            long remapped = covered.entrySet().stream().filter(e -> !e.getKey().equals(e.getValue())).count();
            System.out.println(javaLines.size() + " Java lines compared: " + covered.size() + " covered for JDI ("
                    + remapped + " to another line number), " + zeroIncrement.size() + " zero-increment starts");
            assertEquals(List.of(), mismatches, "SMAP:\n" + smap);
            assertTrue(javaLines.size() > 10 && covered.size() > 10 && remapped > 10,
                    javaLines.size() + " Java lines, " + covered.size() + " covered, " + remapped + " remapped");
        } finally {
            try {
                vm.exit(0);
            } catch (VMDisconnectedException e) {
                // already gone: the failure that brought us here is what matters
            }
            vm.process().destroyForcibly().waitFor(30, TimeUnit.SECONDS);
        }
    }

    /**
     * The Java lines that entries with an output line increment of 0 start at, with their template
     * line. Such an entry maps no Java line for JDI, while the agent deliberately gives its first
     * template line for its output start line (the statement that writes the template text), unless
     * an earlier entry covers that line.
     */
    private static Map<Integer, Integer> zeroIncrementStarts(String smap) {
        Map<Integer, Integer> starts = new HashMap<>();
        String lineSection = smap.substring(smap.indexOf("\n*L\n") + 4, smap.indexOf("\n*E"));
        Matcher entry = Pattern.compile("(?m)^(\\d+)(?:#\\d+)?(?:,\\d+)?:(\\d+),0$").matcher(lineSection);
        while (entry.find()) {
            starts.putIfAbsent(Integer.parseInt(entry.group(2)), Integer.parseInt(entry.group(1)));
        }
        return starts;
    }

    /** Compiles the page with the JSP compiler in a JVM of its own; the SMAP goes into the class. */
    private static Path compilePage() throws Exception {
        Path out = Files.createTempDirectory(ChildJvm.workDirectory(), "jsp-smap");
        Process jspc = new ProcessBuilder(required("kv.test.java"), "-cp", required("kv.test.jsp-classpath"),
                "org.apache.jasper.JspC", "-uriroot", required("kv.test.jsp-dir"), "-d", out.toString(),
                "-compile", "-smap", "-die", "-source", "17", "-target", "17", "page.jsp")
                .redirectErrorStream(true).start();
        String output = new String(jspc.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(jspc.waitFor(120, TimeUnit.SECONDS) && jspc.exitValue() == 0, "JspC failed:\n" + output);
        return out;
    }

    /** Starts a debuggee, suspended, that will load the page. */
    private static VirtualMachine launch(String classpath) throws Exception {
        LaunchingConnector connector = Bootstrap.virtualMachineManager().defaultConnector();
        Map<String, Connector.Argument> arguments = connector.defaultArguments();
        arguments.get("home").setValue(Path.of(required("kv.test.java")).getParent().getParent().toString());
        arguments.get("options").setValue("-cp \"" + classpath + "\"");
        arguments.get("main").setValue(LoadPage.class.getName() + " " + PAGE_CLASS);
        return connector.launch(arguments);
    }

    /** Lets the debuggee run until the page is prepared; it stays suspended there. */
    private static ReferenceType awaitPrepared(VirtualMachine vm) throws Exception {
        ClassPrepareRequest request = vm.eventRequestManager().createClassPrepareRequest();
        request.addClassFilter(PAGE_CLASS);
        request.setSuspendPolicy(EventRequest.SUSPEND_ALL);
        request.enable();
        vm.resume();
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        while (System.nanoTime() < deadline) {
            EventSet events = vm.eventQueue().remove(1000);
            if (events == null) {
                continue;
            }
            for (Event event : events) {
                if (event instanceof ClassPrepareEvent) {
                    return ((ClassPrepareEvent) event).referenceType();
                }
                if (event instanceof VMDisconnectEvent) {
                    fail("debuggee ended before loading the page:\n"
                            + new String(vm.process().getErrorStream().readAllBytes(), StandardCharsets.UTF_8));
                }
            }
            events.resume();
        }
        return fail("the page was not loaded within 60 s");
    }

    private static String required(String property) {
        String value = System.getProperty(property);
        if (value == null || value.isEmpty()) {
            fail("system property " + property + " is not set; run the tests through ctest");
        }
        return value;
    }
}
