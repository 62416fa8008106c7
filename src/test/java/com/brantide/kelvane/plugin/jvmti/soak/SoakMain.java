package com.brantide.kelvane.plugin.jvmti.soak;

import static java.nio.charset.StandardCharsets.UTF_8;

import com.brantide.kelvane.plugin.jvmti.soak.webapp.SoakControl;
import java.io.IOException;
import java.io.InputStream;
import java.net.URI;
import java.net.URLConnection;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import org.apache.catalina.Context;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.scan.StandardJarScanner;

/**
 * The soak: the agent inside a real application server under load. Runs an embedded Tomcat on
 * 127.0.0.1 in this JVM (which tools/soak.sh starts with the agent, plainly and under -Xcheck:jni,
 * and whose error output it checks) and deploys a web application built here: a page with a loop
 * and a few locals, compiled by the server's JSP compiler on its first request, and SoakControl,
 * which debugs that page with the managed layer of its own WEB-INF/lib, on the shared Workload. Then drives local load through four phases: no breakpoint; the breakpoint's events
 * switched on per request thread; switched on VM-wide; switched off again. Each phase checks the
 * heap and asks for a data dump halfway; the web application keeps the phase's accounts, and the
 * driver checks every answer of the page. Prints each phase's figures and exits with 1 when
 * anything went wrong.
 *
 * <p>Settings, as system properties (the build writes the paths into the java argument file
 * soak.args): kv.soak.api-jar, kv.soak.work (a directory for the run); kv.soak.requests per phase
 * (10000) and kv.soak.seconds, the most a phase may take (120).
 */
public final class SoakMain {
    private final int requests = Integer.getInteger("kv.soak.requests", 10000);
    private final long phaseNanos = TimeUnit.SECONDS.toNanos(Long.getLong("kv.soak.seconds", 120));
    private final Queue<String> problems = new ConcurrentLinkedQueue<>();
    private int port;

    public static void main(String[] args) throws Exception {
        System.exit(new SoakMain().run() ? 0 : 1);
    }

    private boolean run() throws Exception {
        Path dir = Files.createTempDirectory(Files.createDirectories(Path.of(System.getProperty("kv.soak.work"))), "run-");
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(dir.resolve("tomcat").toString());
        tomcat.setPort(0);
        tomcat.getConnector().setProperty("address", "127.0.0.1");
        Context context = tomcat.addWebapp("", buildWebapp(dir.resolve("webapp")).toString());
        // Nothing on the class path carries tag libraries or initializers for the web application.
        ((StandardJarScanner) context.getJarScanner()).setScanClassPath(false);
        tomcat.start();
        port = tomcat.getConnector().getLocalPort();
        try {
            get("/loop.jsp?tag=first&n=1"); // the page is compiled now, and can be found
            for (SoakControl.Mode mode : SoakControl.Mode.values()) {
                get("/control?op=mode&mode=" + mode);
                load();
                String verdict = get("/control?op=verdict");
                System.out.println("soak   " + mode + " " + verdict.replace('\n', ' '));
                if (!verdict.endsWith("\nOK")) {
                    problems.add(mode + ": " + verdict);
                }
            }
        } catch (IOException | RuntimeException e) {
            problems.add("driving the server: " + e);
        } finally {
            tomcat.stop();
            tomcat.destroy();
        }
        System.out.println("soak   result: " + (problems.isEmpty() ? "passed" : "FAILED: " + problems.stream().limit(20).toList()));
        return problems.isEmpty();
    }

    private static Path buildWebapp(Path webapp) throws IOException {
        Files.createDirectories(webapp.resolve("WEB-INF/lib"));
        Files.writeString(webapp.resolve("loop.jsp"), SoakControl.PAGE);
        Files.copy(Path.of(System.getProperty("kv.soak.api-jar")), webapp.resolve("WEB-INF/lib/kvjvmti-api.jar"));
        // This jar too: the web application's own class loader looks in its WEB-INF/lib first, so
        // that its classes use the managed layer beside them; their annotations map them.
        Files.copy(Path.of(System.getProperty("java.class.path").split(":")[0]), webapp.resolve("WEB-INF/lib/tests.jar"));
        return webapp;
    }

    /** Requests from three clients until the phase's are answered or its time is up. */
    private void load() throws InterruptedException {
        long deadline = System.nanoTime() + phaseNanos;
        ExecutorService clients = Executors.newFixedThreadPool(3);
        for (int n = 0; n < requests; n++) {
            int request = n;
            clients.execute(() -> request(request, deadline));
        }
        clients.shutdown();
        clients.awaitTermination(1, TimeUnit.DAYS);
    }

    /** A request of the page, the halfway one after a heap check; the page must answer the sum of its loop. */
    private void request(int n, long deadline) {
        int count = 1 + n % 5;
        try {
            if (System.nanoTime() > deadline) {
                return;
            }
            if (n == requests / 2) {
                get("/control?op=heap");
            }
            String answer = get("/loop.jsp?tag=r" + n + "&n=" + count).trim();
            if (!answer.equals("r" + n + "=" + count * (count + 1))) {
                problems.add("wrong answer " + answer + " to tag=r" + n + " n=" + count);
            }
        } catch (IOException e) {
            problems.add(e.toString());
        }
    }

    /**
     * The body of a GET to the server on the loopback address; an error status raises (the server
     * logs its cause), and so does a request that hangs: a stuck hit must fail the phase.
     */
    private String get(String pathAndQuery) throws IOException {
        URLConnection connection = URI.create("http://127.0.0.1:" + port + pathAndQuery).toURL().openConnection();
        connection.setReadTimeout(120_000);
        try (InputStream body = connection.getInputStream()) {
            return new String(body.readAllBytes(), UTF_8);
        }
    }
}
