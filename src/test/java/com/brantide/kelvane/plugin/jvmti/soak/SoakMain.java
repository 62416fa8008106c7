package com.brantide.kelvane.plugin.jvmti.soak;

import com.brantide.kelvane.plugin.jvmti.soak.webapp.SoakControl;
import java.io.IOException;
import java.io.InputStream;
import java.net.HttpURLConnection;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.apache.catalina.Context;
import org.apache.catalina.connector.Connector;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.scan.StandardJarScanner;

/**
 * The soak: the agent inside a real application server under load. Runs an embedded Tomcat on
 * 127.0.0.1 in this JVM (which tools/soak.sh starts with the agent, plainly and under -Xcheck:jni,
 * and whose error output it checks) and deploys a web application built here: a page with a loop
 * and a few locals, compiled by the server's JSP compiler on its first request, and SoakControl,
 * which debugs that page with the managed layer of its own WEB-INF/lib (JspDebugger). Then drives
 * local load through four phases: no breakpoint; the breakpoint's events switched on per request
 * thread; switched on VM-wide; switched off again. Each phase takes a heap histogram and a GC-root
 * tree halfway. Prints the figures and exits with 1 when any of them is off.
 *
 * <p>Settings, as system properties (the build writes the paths into the java argument file
 * soak.args): kv.soak.api-jar, kv.soak.work (a directory for the run); kv.soak.requests per phase
 * (10000) and kv.soak.seconds, the most a phase may take (120).
 */
public final class SoakMain {
    private static final String WEBAPP_PACKAGE = SoakMain.class.getPackageName() + ".webapp";
    private static final List<String> PHASES = List.of("NONE", "PER_THREAD", "VM_WIDE", "OFF");
    private static final List<String> SWITCHED_ON = List.of("PER_THREAD", "VM_WIDE");
    private static final int CLIENTS = 3;
    private static final Pattern FIGURE = Pattern.compile("(\\w+)=(-?\\d+)");
    private static final String WEB_XML = """
            <web-app xmlns="http://xmlns.jcp.org/xml/ns/javaee" version="4.0" metadata-complete="true">
              <servlet><servlet-name>control</servlet-name><servlet-class>%1$s.SoakControl</servlet-class></servlet>
              <servlet-mapping><servlet-name>control</servlet-name><url-pattern>/control</url-pattern></servlet-mapping>
              <filter><filter-name>page</filter-name><filter-class>%1$s.SoakControl$RequestFilter</filter-class></filter>
              <filter-mapping><filter-name>page</filter-name><url-pattern>/loop.jsp</url-pattern></filter-mapping>
            </web-app>
            """.formatted(WEBAPP_PACKAGE);

    /** The load of one phase and what the server counted in it. */
    private static final class Phase {
        final String mode;
        final List<Long> latencies = Collections.synchronizedList(new ArrayList<>());
        final List<String> wrongAnswers = Collections.synchronizedList(new ArrayList<>());
        volatile Map<String, Long> heap = Map.of();
        Map<String, Long> figures = Map.of();
        String notes = "";

        Phase(String mode) {
            this.mode = mode;
        }

        String millis(double quantile) {
            List<Long> sorted = new ArrayList<>(latencies);
            Collections.sort(sorted);
            return sorted.isEmpty() ? "-" : String.format("%.2f", sorted.get((int) (quantile * (sorted.size() - 1))) / 1e6);
        }
    }

    private final int requests = Integer.getInteger("kv.soak.requests", 10000);
    private final long phaseNanos = TimeUnit.SECONDS.toNanos(Long.getLong("kv.soak.seconds", 120));
    private final List<Phase> phases = new ArrayList<>();
    private final List<String> problems = Collections.synchronizedList(new ArrayList<>());
    private String armed = "not armed";
    private int port;

    public static void main(String[] args) throws Exception {
        System.exit(new SoakMain().run() ? 0 : 1);
    }

    private boolean run() throws Exception {
        Path dir = Files.createTempDirectory(Files.createDirectories(Path.of(System.getProperty("kv.soak.work"))), "run-");
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(dir.resolve("tomcat").toString());
        Connector connector = new Connector();
        connector.setPort(0);
        connector.setProperty("address", "127.0.0.1");
        tomcat.setConnector(connector);
        Context context = tomcat.addWebapp("", buildWebapp(dir.resolve("webapp")).toString());
        // Nothing on the class path carries tag libraries or initializers for the web application.
        ((StandardJarScanner) context.getJarScanner()).setScanClassPath(false);
        tomcat.start();
        port = connector.getLocalPort();
        long start = System.nanoTime();
        try {
            drive();
        } catch (IOException | RuntimeException e) {
            problems.add("driving the server: " + e);
        } finally {
            tomcat.stop();
            tomcat.destroy();
        }
        report((System.nanoTime() - start) / 1e9);
        System.out.println("soak   result: " + (problems.isEmpty() ? "passed" : "FAILED: " + String.join("; ", problems)));
        return problems.isEmpty();
    }

    private static Path buildWebapp(Path webapp) throws IOException {
        Files.createDirectories(webapp.resolve("WEB-INF/lib"));
        Files.writeString(webapp.resolve("loop.jsp"), SoakControl.PAGE);
        Files.writeString(webapp.resolve("WEB-INF/web.xml"), WEB_XML);
        Files.copy(Path.of(System.getProperty("kv.soak.api-jar")), webapp.resolve("WEB-INF/lib/kvjvmti-api.jar"));
        // Into WEB-INF/classes, so that the web application's class loader, not the server's, loads
        // its classes and the managed layer they use.
        String prefix = WEBAPP_PACKAGE.replace('.', '/') + "/";
        try (JarFile jar = new JarFile(System.getProperty("java.class.path").split(":")[0])) {
            for (JarEntry entry : Collections.list(jar.entries())) {
                if (entry.getName().startsWith(prefix) && entry.getName().endsWith(".class")) {
                    Path target = webapp.resolve("WEB-INF/classes/" + entry.getName());
                    Files.createDirectories(target.getParent());
                    try (InputStream in = jar.getInputStream(entry)) {
                        Files.copy(in, target);
                    }
                }
            }
        }
        return webapp;
    }

    // ---- the load

    private void drive() throws IOException, InterruptedException {
        get("/loop.jsp?tag=first&n=1"); // the page is compiled now, and can be found
        armed = control("arm");
        load("warm-up", requests / 4);
        for (String mode : PHASES) {
            control("mode&mode=" + mode);
            Phase phase = load(mode, requests);
            String[] answer = control("figures").split("\n", 2);
            phase.figures = figures(answer[0]);
            phase.notes = answer.length > 1 ? answer[1] : "";
            phases.add(phase);
        }
    }

    /** Requests from CLIENTS threads until `count` are answered or the phase's time is up. */
    private Phase load(String mode, int count) throws InterruptedException {
        Phase phase = new Phase(mode);
        AtomicInteger next = new AtomicInteger();
        long deadline = System.nanoTime() + phaseNanos;
        List<Thread> clients = new ArrayList<>();
        for (int c = 0; c < CLIENTS; c++) {
            clients.add(new Thread(() -> {
                for (int n = next.getAndIncrement(); n < count && System.nanoTime() < deadline; n = next.getAndIncrement()) {
                    if (n == count / 2) {
                        takeHeap(phase);
                    }
                    request(phase, mode + "-" + n, 1 + n % 5);
                }
            }, "soak-client-" + c));
        }
        clients.forEach(Thread::start);
        for (Thread client : clients) {
            client.join();
        }
        return phase;
    }

    private void request(Phase phase, String tag, int n) {
        long start = System.nanoTime();
        String answer;
        try {
            answer = get("/loop.jsp?tag=" + tag + "&n=" + n).trim();
            phase.latencies.add(System.nanoTime() - start);
        } catch (IOException e) {
            answer = e.toString();
        }
        if (!answer.equals(tag + "=" + n * (n + 1))) {
            phase.wrongAnswers.add(answer + " to tag=" + tag + " n=" + n);
        }
    }

    private void takeHeap(Phase phase) {
        try {
            phase.heap = figures(control("heap"));
        } catch (IOException e) {
            problems.add(phase.mode + ": heap walks failed: " + e);
        }
    }

    private String control(String op) throws IOException {
        return get("/control?op=" + op).trim();
    }

    /** The body of a GET to the server on the loopback address; anything but 200 raises. */
    private String get(String pathAndQuery) throws IOException {
        HttpURLConnection connection = (HttpURLConnection) new URL("http", "127.0.0.1", port, pathAndQuery).openConnection();
        connection.setConnectTimeout(30_000);
        connection.setReadTimeout(120_000);
        int status = connection.getResponseCode();
        try (InputStream in = status < 400 ? connection.getInputStream() : connection.getErrorStream()) {
            String body = in == null ? "" : new String(in.readAllBytes(), StandardCharsets.UTF_8);
            if (status != 200) {
                throw new IOException("HTTP " + status + " for " + pathAndQuery + ": " + body.trim());
            }
            return body;
        }
    }

    // ---- the figures

    private static Map<String, Long> figures(String text) {
        Map<String, Long> figures = new HashMap<>();
        Matcher figure = FIGURE.matcher(text);
        while (figure.find()) {
            figures.put(figure.group(1), Long.parseLong(figure.group(2)));
        }
        return figures;
    }

    /** Prints the figures block of the run and adds what is off to the problems. */
    private void report(double seconds) {
        System.out.printf("soak   %s; %.0f s of load%n", armed, seconds);
        System.out.println("soak   phase       requests  wrong   hits  latency ms median / p99  histogram/GC roots of kept");
        Map<String, Long> totals = new HashMap<>();
        for (Phase phase : phases) {
            long hits = phase.figures.getOrDefault("hits", -1L);
            System.out.printf("soak   %-10s %9d %6d %6d  %10s / %-10s  %s/%s of %s%n", phase.mode, phase.latencies.size(),
                    phase.wrongAnswers.size(), hits, phase.millis(0.5), phase.millis(0.99), phase.heap.get("histogram"),
                    phase.heap.get("gcRoots"), phase.heap.get("kept"));
            expect(hits == (SWITCHED_ON.contains(phase.mode) ? phase.latencies.size() : 0) && !phase.latencies.isEmpty(),
                    phase.mode + ": " + hits + " hits for " + phase.latencies.size() + " requests");
            expect(phase.wrongAnswers.isEmpty(), phase.mode + ": wrong answers " + phase.wrongAnswers);
            Long kept = phase.heap.get("kept");
            expect(kept != null && kept.equals(phase.heap.get("histogram")) && kept.equals(phase.heap.get("gcRoots")),
                    phase.mode + ": the heap walks did not count the kept objects exactly");
            // The server's notes: wrong locals, stops at unexpected lines, failed switches, hook errors.
            expect(phase.notes.isBlank(), phase.mode + ": " + phase.notes.trim().replace("\n", "; "));
            phase.figures.forEach((name, value) -> totals.merge(name, value, Long::sum));
        }
        System.out.printf("soak   wrong locals %s of %s hits; JSP stops %s of %s at the expected page lines; stray hits %s%n",
                totals.get("wrongLocals"), totals.get("hits"), totals.get("stopsAsExpected"), totals.get("stopsWanted"),
                totals.get("strays"));
        long wanted = totals.getOrDefault("stopsWanted", 0L);
        expect(phases.size() == PHASES.size() && wanted > 0 && totals.get("stopsAsExpected") == wanted,
                "phases missing or steps stopped wrong");
    }

    private void expect(boolean holds, String problem) {
        if (!holds) {
            problems.add(problem);
        }
    }
}
