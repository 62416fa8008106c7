package com.brantide.kelvane.plugin.jvmti.soak;

import com.brantide.kelvane.plugin.jvmti.soak.webapp.SoakControl;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.LogLine;
import java.io.File;
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

/**
 * The soak: the agent inside a real application server under load. Starts an embedded Tomcat
 * (SoakServer) in a JVM with the agent loaded and deploys a web application built here: a page
 * with a loop and a few locals, compiled by the server's JSP compiler on its first request, and
 * SoakControl, which debugs that page with the managed layer of its own WEB-INF/lib (JspDebugger).
 * Then drives local load through four phases: no breakpoint; the breakpoint's events switched on
 * per request thread; switched on VM-wide; switched off again. Each phase takes a heap histogram
 * and a GC-root tree halfway. Runs all of it plainly and again under -Xcheck:jni, prints the
 * figures of each run and exits with 1 when any figure is off.
 *
 * <p>Settings, as system properties (the build writes the paths into the java argument file
 * soak.args): kv.soak.agent, kv.soak.api-jar, kv.soak.server-classpath (Tomcat's jars),
 * kv.soak.work (a directory for each run); kv.soak.jdk, the JDK home the server runs on (default:
 * the driver's); kv.soak.requests per phase (10000) and kv.soak.seconds, the most a phase may take
 * (120). The driver's class path is the tests jar alone: the web application's classes come from it.
 */
public final class SoakMain {
    private static final String WEBAPP_PACKAGE = SoakMain.class.getPackageName() + ".webapp";
    private static final List<String> PHASES = List.of("NONE", "PER_THREAD", "VM_WIDE", "OFF");
    private static final List<String> SWITCHED_ON = List.of("PER_THREAD", "VM_WIDE");
    private static final int CLIENTS = 3;
    private static final long START_SECONDS = 120;
    private static final long STOP_SECONDS = 60;
    private static final Pattern STARTED = Pattern.compile("^PORT (\\d+) JAVA (\\S+)$", Pattern.MULTILINE);
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

        long figure(String name) {
            return figures.getOrDefault(name, -1L);
        }

        String millis(double quantile) {
            List<Long> sorted = new ArrayList<>(latencies);
            Collections.sort(sorted);
            int index = Math.max(0, (int) Math.ceil(quantile * sorted.size()) - 1);
            return sorted.isEmpty() ? "-" : String.format("%.2f", sorted.get(index) / 1e6);
        }
    }

    private final boolean checkJni;
    private final Path jdk = Path.of(System.getProperty("kv.soak.jdk", System.getProperty("java.home")));
    private final int requests = Integer.getInteger("kv.soak.requests", 10000);
    private final long phaseNanos = TimeUnit.SECONDS.toNanos(Long.getLong("kv.soak.seconds", 120));
    private final List<Phase> phases = new ArrayList<>();
    private final List<String> problems = Collections.synchronizedList(new ArrayList<>());
    private String armed = "not armed";
    private String javaVersion = "?";
    private int port;

    private SoakMain(boolean checkJni) {
        this.checkJni = checkJni;
    }

    public static void main(String[] args) throws Exception {
        boolean passed = true;
        for (boolean checkJni : new boolean[] {false, true}) {
            passed &= new SoakMain(checkJni).run();
        }
        System.exit(passed ? 0 : 1);
    }

    private boolean run() throws Exception {
        long start = System.nanoTime();
        Path work = Files.createDirectories(Path.of(property("kv.soak.work")));
        Path dir = Files.createTempDirectory(work, checkJni ? "checkjni-" : "plain-");
        Process server = startServer(buildWebapp(dir.resolve("webapp")), dir);
        String exit;
        try {
            awaitStart(dir.resolve("server.out"), server);
            drive();
        } catch (IOException | RuntimeException e) {
            problems.add("driving the server: " + e);
        } finally {
            exit = stop(server, dir.resolve("server.out"));
        }
        report(exit, readLog(dir.resolve("server.err")), (System.nanoTime() - start) / 1e9);
        System.out.println("soak   result: " + (problems.isEmpty() ? "passed" : "FAILED: " + String.join("; ", problems)
                + " (server output in " + dir + ")"));
        return problems.isEmpty();
    }

    // ---- the web application and the server

    private static Path buildWebapp(Path webapp) throws IOException {
        Files.createDirectories(webapp.resolve("WEB-INF/lib"));
        Files.writeString(webapp.resolve("loop.jsp"), SoakControl.PAGE);
        Files.writeString(webapp.resolve("WEB-INF/web.xml"), WEB_XML);
        Files.copy(Path.of(property("kv.soak.api-jar")), webapp.resolve("WEB-INF/lib/kvjvmti-api.jar"));
        // Into WEB-INF/classes, so that the web application's class loader, not the server's, loads
        // its classes and the managed layer they use.
        String prefix = WEBAPP_PACKAGE.replace('.', '/') + "/";
        try (JarFile jar = new JarFile(System.getProperty("java.class.path"))) {
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

    private Process startServer(Path webapp, Path dir) throws IOException {
        List<String> command = new ArrayList<>(List.of(jdk.resolve("bin/java").toString()));
        if (checkJni) {
            command.add("-Xcheck:jni");
        }
        // The first three are what Tomcat's own start script gives Java 9 and later, for its leak
        // detection at undeployment.
        command.addAll(List.of("--add-opens=java.base/java.lang=ALL-UNNAMED", "--add-opens=java.base/java.io=ALL-UNNAMED",
                "--add-opens=java.rmi/sun.rmi.transport=ALL-UNNAMED", "-agentpath:" + property("kv.soak.agent"), "-Xmx512m",
                "-cp", System.getProperty("java.class.path") + File.pathSeparator + property("kv.soak.server-classpath"),
                SoakMain.class.getPackageName() + ".SoakServer", webapp.toString(), dir.resolve("tomcat").toString()));
        // Run in the run's directory, where the VM would also write its crash report.
        return new ProcessBuilder(command).directory(dir.toFile()).redirectOutput(dir.resolve("server.out").toFile())
                .redirectError(dir.resolve("server.err").toFile()).start();
    }

    private void awaitStart(Path out, Process server) throws IOException, InterruptedException {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(START_SECONDS);
        while (System.nanoTime() < deadline && server.isAlive()) {
            Matcher started = STARTED.matcher(Files.readString(out));
            if (started.find()) {
                port = Integer.parseInt(started.group(1));
                javaVersion = started.group(2);
                return;
            }
            Thread.sleep(100);
        }
        throw new IOException(server.isAlive() ? "the server did not listen within " + START_SECONDS + " s"
                : "the server ended before it listened");
    }

    /** Closes the server's standard input and waits for its end; says how it ended. */
    private String stop(Process server, Path out) throws IOException, InterruptedException {
        long start = System.nanoTime();
        server.getOutputStream().close();
        if (!server.waitFor(STOP_SECONDS, TimeUnit.SECONDS)) {
            server.destroyForcibly().waitFor();
            problems.add("the server did not end within " + STOP_SECONDS + " s of being told to stop");
            return "none: killed";
        }
        boolean clean = Files.readString(out).contains("STOPPED");
        if (server.exitValue() != 0 || !clean) {
            problems.add("exit status " + server.exitValue() + (clean ? "" : ", Tomcat did not stop"));
        }
        return String.format("%d %s in %.1f s", server.exitValue(), clean ? "after a clean stop" : "without a clean stop",
                (System.nanoTime() - start) / 1e9);
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

    /** The agent's ERROR and WARN lines and the JNI warnings in the server's standard error. */
    private static List<String> readLog(Path err) throws IOException {
        List<String> found = new ArrayList<>();
        for (String line : Files.readAllLines(err, StandardCharsets.ISO_8859_1)) {
            LogLine agent = LogLine.parse(line);
            if (agent != null && (agent.level.equals("ERROR") || agent.level.equals("WARN"))
                    || ChildJvm.JNI_WARNING.matcher(line).find()) {
                found.add(line);
            }
        }
        return found;
    }

    /** Prints the figures block of the run and adds what is off to the problems. */
    private void report(String exit, List<String> log, double seconds) {
        System.out.printf("soak JDK %s%s: %s%n", javaVersion, checkJni ? " -Xcheck:jni" : " plain", armed);
        System.out.println("soak   phase       requests  wrong   hits  latency ms median / p99  histogram/GC roots of kept");
        Map<String, Long> totals = new HashMap<>();
        for (Phase phase : phases) {
            System.out.printf("soak   %-10s %9d %6d %6d  %10s / %-10s  %s/%s of %s%n", phase.mode, phase.latencies.size(),
                    phase.wrongAnswers.size(), phase.figure("hits"), phase.millis(0.5), phase.millis(0.99),
                    phase.heap.get("histogram"), phase.heap.get("gcRoots"), phase.heap.get("kept"));
            check(phase);
            phase.figures.forEach((name, value) -> totals.merge(name, value, Long::sum));
        }
        reportTotals(totals);
        long jni = log.stream().filter(line -> ChildJvm.JNI_WARNING.matcher(line).find()).count();
        System.out.printf("soak   agent ERROR/WARN lines %d, JNI warnings %d; exit status %s; %.0f s in all%n",
                log.size() - jni, jni, exit, seconds);
        log.stream().limit(5).forEach(line -> System.out.println("soak     " + line));
        if (!log.isEmpty()) {
            problems.add("agent ERROR/WARN lines or JNI warnings");
        }
    }

    private void reportTotals(Map<String, Long> totals) {
        System.out.printf("soak   wrong locals %s of %s hits; JSP stops %s of %s at the expected page lines"
                + " (%s step-overs); stray hits %s%n", totals.get("wrongLocals"), totals.get("hits"),
                totals.get("stopsAsExpected"), totals.get("stopsWanted"), totals.get("stepOvers"), totals.get("strays"));
        // Wrong locals and stops show in the phases' notes too; here what notes cannot show.
        if (phases.size() < PHASES.size() || totals.get("stepOvers") == 0
                || !totals.get("stopsAsExpected").equals(totals.get("stopsWanted"))) {
            problems.add("phases missing, no step-overs, or step-overs that did not stop " + totals.get("stopsWanted")
                    + " times at the expected lines");
        }
    }

    private void check(Phase phase) {
        long answered = phase.latencies.size();
        if (answered == 0 || phase.figure("hits") != (SWITCHED_ON.contains(phase.mode) ? answered : 0)) {
            problems.add(phase.mode + ": " + phase.figure("hits") + " hits for " + answered + " requests");
        }
        if (!phase.wrongAnswers.isEmpty()) {
            problems.add(phase.mode + ": " + phase.wrongAnswers.size() + " wrong answers, first " + phase.wrongAnswers.get(0));
        }
        Long kept = phase.heap.get("kept");
        if (kept == null || !kept.equals(phase.heap.get("histogram")) || !kept.equals(phase.heap.get("gcRoots"))) {
            problems.add(phase.mode + ": the heap walks did not count the kept objects exactly");
        }
        // The server's notes: wrong locals, stops at unexpected lines, failed switches, hook errors.
        if (!phase.notes.isBlank()) {
            problems.add(phase.mode + ": " + phase.notes.trim().replace("\n", "; "));
        }
    }

    private static String property(String name) {
        String value = System.getProperty(name);
        if (value == null || value.isEmpty()) {
            throw new IllegalStateException("system property " + name + " is not set; run tools/soak.sh");
        }
        return value;
    }
}
