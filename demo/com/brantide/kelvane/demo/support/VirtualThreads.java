package com.brantide.kelvane.demo.support;

import com.brantide.kelvane.demo.shop.Item;
import com.brantide.kelvane.demo.shop.Shop;
import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/**
 * A breakpoint and a step in a virtual thread, in a JVM of its own: this JVM's when it has virtual
 * threads (JDK 21 and later), else the newest such JDK under /usr/lib/jvm. The demo is built for
 * JDK 17, so the virtual thread is made through the public builder interface by reflection.
 */
public final class VirtualThreads {
    private VirtualThreads() {
    }

    /** The child's report, or empty when no JDK here has virtual threads. */
    public static Optional<List<String>> inChildJvm() throws Exception {
        Optional<Path> java = javaWithVirtualThreads();
        if (java.isEmpty()) {
            return Optional.empty();
        }
        List<String> command = List.of(java.get().toString(), StepTiming.agentOption(), "-cp",
                System.getProperty("java.class.path"), VirtualThreads.class.getName());
        Process child = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(child.getInputStream().readAllBytes());
        if (!child.waitFor(60, TimeUnit.SECONDS) || child.exitValue() != 0) {
            throw new IllegalStateException("the virtual-thread JVM failed: " + command + "\n" + output);
        }
        return Optional.of(output.lines().filter(line -> line.startsWith("  ")).toList());
    }

    private static Optional<Path> javaWithVirtualThreads() throws IOException {
        if (Runtime.version().feature() >= 21) {
            return Optional.of(Path.of(System.getProperty("java.home"), "bin", "java"));
        }
        try (Stream<Path> homes = Files.list(Path.of("/usr/lib/jvm"))) {
            return homes.filter(home -> Files.isExecutable(home.resolve("bin/java")))
                    .filter(home -> feature(home) >= 21).max(Comparator.comparingInt(VirtualThreads::feature))
                    .map(home -> home.resolve("bin/java"));
        } catch (IOException e) {
            return Optional.empty();
        }
    }

    /** The JDK's feature version from its release file, or 0. */
    private static int feature(Path home) {
        try {
            return Files.readAllLines(home.resolve("release")).stream().filter(l -> l.startsWith("JAVA_VERSION="))
                    .map(l -> l.replaceAll("\\D*(\\d+).*", "$1")).mapToInt(Integer::parseInt).findFirst().orElse(0);
        } catch (IOException | NumberFormatException e) {
            return 0;
        }
    }

    /** The child: a virtual thread records an order, stopping at a breakpoint and stepping once. */
    public static void main(String[] args) throws Exception {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        api.setActive(true);
        Shop shop = new Shop();
        Where where = new Where(api);
        BreakpointLocation start = BreakpointLocation.forMethod(
                Shop.class.getMethod("record", String.class, List.class), 0);
        api.setBreakpoint(start);
        List<String> report = new ArrayList<>();
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            Thread thread = context.getThread();
            boolean first = report.isEmpty();
            report.add(String.format("  %-10s %s  on %s thread \"%s\", %d frames", first ? "breakpoint" : "STEP_OVER",
                    where.of(location), isVirtual(thread) ? "virtual" : "platform", thread.getName(),
                    context.getFrameCount()));
            return first ? StepType.STEP_OVER : StepType.CONTINUE;
        });
        Thread worker = virtual("checkout", () -> {
            api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true);
            shop.record("virtual customer", List.of(new Item("lamp", 2500, 1)));
        });
        worker.start();
        worker.join();
        api.clearBreakpoint(start);
        System.out.println("  JDK " + Runtime.version().feature());
        report.forEach(System.out::println);
    }

    private static Thread virtual(String name, Runnable body) throws ReflectiveOperationException {
        Class<?> builderType = Class.forName("java.lang.Thread$Builder");
        Object builder = builderType.getMethod("name", String.class).invoke(Thread.class.getMethod("ofVirtual").invoke(null), name);
        return (Thread) builderType.getMethod("unstarted", Runnable.class).invoke(builder, body);
    }

    private static boolean isVirtual(Thread thread) {
        try {
            return (Boolean) Thread.class.getMethod("isVirtual").invoke(thread);
        } catch (ReflectiveOperationException e) {
            return false;
        }
    }
}
