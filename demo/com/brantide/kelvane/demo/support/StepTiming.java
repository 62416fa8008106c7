package com.brantide.kelvane.demo.support;

import com.brantide.kelvane.demo.shop.Shop;
import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * Times a step over a heavy call in a JVM of its own: the agent chooses when it loads how a step
 * waits for a call to return, by a frame-pop request, under which the VM interprets the callee,
 * or, with -Dkv.jvmti.enable.compiled.stepping=true, by a breakpoint of its own where the caller
 * goes on, so that the callee runs compiled.
 */
public final class StepTiming {
    public static final int DAYS = 10_000_000;
    private static final int STEPS = 3;
    /** Where the results go, so that the compiler cannot drop the calls. */
    private static long sink;

    /** One JVM's figures, in ms: the best step over the call, and the best call with no step. */
    public record Times(long stepped, long alone) {
    }

    private StepTiming() {
    }

    /** Times the step in a child JVM that has this one's agent and class path, in the mode given. */
    public static Times inChildJvm(boolean compiled) throws Exception {
        List<String> command = new ArrayList<>(List.of(Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                agentOption(), "-Dkv.jvmti.enable.compiled.stepping=" + compiled));
        command.addAll(List.of("-cp", System.getProperty("java.class.path"), StepTiming.class.getName()));
        Process child = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(child.getInputStream().readAllBytes());
        if (!child.waitFor(60, TimeUnit.SECONDS) || child.exitValue() != 0) {
            throw new IllegalStateException("the timing JVM failed: " + command + "\n" + output);
        }
        String[] times = output.lines().filter(line -> line.startsWith("timed ")).findFirst()
                .orElseThrow(() -> new IllegalStateException("no times from the timing JVM:\n" + output)).split(" ");
        return new Times(Long.parseLong(times[1]), Long.parseLong(times[2]));
    }

    /** This JVM's -agentpath option, so that the child loads the same agent. */
    static String agentOption() {
        return ProcessHandle.current().info().arguments().stream().flatMap(Arrays::stream)
                .filter(argument -> argument.startsWith("-agentpath:")).findFirst()
                .orElseThrow(() -> new IllegalStateException("no -agentpath among this JVM's arguments"));
    }

    /** The line stepped over calls the heavy method; the step ends on the next one. */
    static long plan(Shop shop) {
        long demand = shop.forecast(DAYS);
        return demand / DAYS;
    }

    /** The child: the call alone, run until compiled as in a running application, then the step over it. */
    public static void main(String[] args) throws Exception {
        Shop shop = new Shop();
        long alone = Long.MAX_VALUE;
        for (int i = 0; i < 10; i++) {
            long start = System.nanoTime();
            sink += plan(shop);
            alone = Math.min(alone, System.nanoTime() - start);
        }
        System.out.println("timed " + Math.round(stepOver(shop) / 1e6) + " " + Math.round(alone / 1e6));
    }

    /** The best of a few steps over plan's call line, from the hook's answer to the next stop, in ns. */
    private static long stepOver(Shop shop) throws Exception {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        api.setActive(true);
        long[] answered = {0};
        long[] best = {Long.MAX_VALUE};
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            long now = System.nanoTime();
            if (location.getLocation() == 0) {
                answered[0] = System.nanoTime();
                return StepType.STEP_OVER;
            }
            best[0] = Math.min(best[0], now - answered[0]);
            return StepType.CONTINUE;
        });
        api.setBreakpoint(BreakpointLocation.forMethod(StepTiming.class.getDeclaredMethod("plan", Shop.class), 0));
        AppThread.run(api, "shop-thread", new int[] {JvmtiEvent.BREAKPOINT}, () -> {
            for (int i = 0; i < STEPS; i++) {
                sink += plan(shop);
            }
            return null;
        });
        return best[0];
    }
}
