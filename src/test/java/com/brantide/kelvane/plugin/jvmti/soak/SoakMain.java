package com.brantide.kelvane.plugin.jvmti.soak;

import com.brantide.kelvane.plugin.jvmti.soak.webapp.SoakControl;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.io.IOException;
import java.io.InputStream;
import java.net.HttpURLConnection;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import org.apache.catalina.Context;
import org.apache.catalina.connector.Connector;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.scan.StandardJarScanner;

/**
 * The soak: the agent inside a real application server under load. Runs an embedded Tomcat on
 * 127.0.0.1 in this JVM (which tools/soak.sh starts with the agent, plainly and under -Xcheck:jni,
 * and whose error output it checks) and deploys a web application built here: a page with a loop
 * and a few locals, compiled by the server's JSP compiler on its first request, and SoakControl,
 * which debugs that page with the managed layer of its own WEB-INF/lib (JspDebugger, on the shared
 * Workload). Then drives local load through four phases: no breakpoint; the breakpoint's events
 * switched on per request thread; switched on VM-wide; switched off again. Each phase checks the
 * heap and asks for a data dump halfway. Prints the figures and exits with 1 when any is off.
 *
 * <p>Settings, as system properties (the build writes the paths into the java argument file
 * soak.args): kv.soak.api-jar, kv.soak.work (a directory for the run); kv.soak.requests per phase
 * (10000) and kv.soak.seconds, the most a phase may take (120).
 */
public final class SoakMain {
    private static final String WEBAPP_PACKAGE = SoakMain.class.getPackageName() + ".webapp";
    /** The classes the web application's own class loader must load, with the managed layer they use. */
    private static final List<String> WEBAPP_CLASSES =
            List.of(WEBAPP_PACKAGE.replace('.', '/') + "/", Workload.class.getName().replace('.', '/'));
    private static final List<String> PHASES = List.of("NONE", "PER_THREAD", "VM_WIDE", "OFF");
    private static final String WEB_XML = """
            <web-app xmlns="http://xmlns.jcp.org/xml/ns/javaee" version="4.0" metadata-complete="true">
              <servlet><servlet-name>control</servlet-name><servlet-class>%1$s.SoakControl</servlet-class></servlet>
              <servlet-mapping><servlet-name>control</servlet-name><url-pattern>/control</url-pattern></servlet-mapping>
              <filter><filter-name>page</filter-name><filter-class>%1$s.SoakControl$RequestFilter</filter-class></filter>
              <filter-mapping><filter-name>page</filter-name><url-pattern>/loop.jsp</url-pattern></filter-mapping>
            </web-app>
            """.formatted(WEBAPP_PACKAGE);

    private final int requests = Integer.getInteger("kv.soak.requests", 10000);
    private final long phaseNanos = TimeUnit.SECONDS.toNanos(Long.getLong("kv.soak.seconds", 120));
    private final List<String> problems = new ArrayList<>();
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
            get("/loop.jsp?tag=first&n=1"); // the page is compiled now, and can be found
            System.out.println("soak   " + control("arm"));
            load(requests / 4);
            System.out.println("soak   phase       requests   hits  latency ms median / p99   the server's figures");
            for (String mode : PHASES) {
                phase(mode);
            }
        } catch (IOException | RuntimeException e) {
            expect(false, "driving the server: " + e);
        } finally {
            tomcat.stop();
            tomcat.destroy();
        }
        System.out.printf("soak   %.0f s of load; result: %s%n", (System.nanoTime() - start) / 1e9,
                problems.isEmpty() ? "passed" : "FAILED: " + String.join("; ", problems));
        return problems.isEmpty();
    }

    private static Path buildWebapp(Path webapp) throws IOException {
        Files.createDirectories(webapp.resolve("WEB-INF/lib"));
        Files.writeString(webapp.resolve("loop.jsp"), SoakControl.PAGE);
        Files.writeString(webapp.resolve("WEB-INF/web.xml"), WEB_XML);
        Files.copy(Path.of(System.getProperty("kv.soak.api-jar")), webapp.resolve("WEB-INF/lib/kvjvmti-api.jar"));
        try (JarFile jar = new JarFile(System.getProperty("java.class.path").split(":")[0])) {
            for (JarEntry entry : Collections.list(jar.entries())) {
                if (WEBAPP_CLASSES.stream().anyMatch(entry.getName()::startsWith) && entry.getName().endsWith(".class")) {
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

    /** A phase's load, then its figures: a hit per request while switched on, none otherwise, nothing gone wrong. */
    private void phase(String mode) throws IOException, InterruptedException {
        control("mode&mode=" + mode);
        List<Long> latencies = load(requests);
        String[] answer = control("figures").split("\n", 2);
        Map<String, Long> figures = Workload.figures(answer[0]);
        long hits = figures.getOrDefault("hits", 0L);
        System.out.printf("soak   %-10s %9d %6d  %10s / %-10s  %s%n", mode, latencies.size(), hits, millis(latencies, 0.5),
                millis(latencies, 0.99), answer[0]);
        boolean switchedOn = mode.equals("PER_THREAD") || mode.equals("VM_WIDE");
        expect(!latencies.isEmpty() && hits == (switchedOn ? latencies.size() : 0),
                mode + ": " + hits + " hits for " + latencies.size() + " requests");
        expect(figures.getOrDefault("stepped", 0L).equals(figures.getOrDefault("steppedAsExpected", 0L)),
                mode + ": not every stepped hit stopped where it should");
        expect(answer.length < 2 || answer[1].isBlank(), mode + ": " + (answer.length < 2 ? "" : answer[1].replace("\n", "; ")));
    }

    /** Requests from three clients until `count` are answered or the phase's time is up; a heap check halfway. */
    private List<Long> load(int count) throws InterruptedException {
        List<Long> latencies = Collections.synchronizedList(new ArrayList<>());
        AtomicInteger next = new AtomicInteger();
        long deadline = System.nanoTime() + phaseNanos;
        List<Thread> clients = new ArrayList<>();
        for (int c = 0; c < 3; c++) {
            clients.add(new Thread(() -> {
                for (int n = next.getAndIncrement(); n < count && System.nanoTime() < deadline; n = next.getAndIncrement()) {
                    request(latencies, n == count / 2 ? "/control?op=heap" : null, "r" + n, 1 + n % 5);
                }
            }, "soak-client-" + c));
        }
        clients.forEach(Thread::start);
        for (Thread client : clients) {
            client.join();
        }
        return latencies;
    }

    /** A request of the page, after the other request given; the page must answer the sum of its loop. */
    private void request(List<Long> latencies, String before, String tag, int n) {
        try {
            if (before != null) {
                get(before);
            }
            long start = System.nanoTime();
            String answer = get("/loop.jsp?tag=" + tag + "&n=" + n).trim();
            latencies.add(System.nanoTime() - start);
            expect(answer.equals(tag + "=" + n * (n + 1)), "wrong answer " + answer + " to tag=" + tag + " n=" + n);
        } catch (IOException e) {
            expect(false, e.toString());
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

    private static String millis(List<Long> latencies, double quantile) {
        List<Long> sorted = new ArrayList<>(latencies);
        Collections.sort(sorted);
        return sorted.isEmpty() ? "-" : String.format("%.2f", sorted.get((int) (quantile * (sorted.size() - 1))) / 1e6);
    }

    /** Keeps the first twenty problems: past those, more say nothing new. */
    private void expect(boolean holds, String problem) {
        synchronized (problems) {
            if (!holds && problems.size() < 20) {
                problems.add(problem);
            }
        }
    }
}
