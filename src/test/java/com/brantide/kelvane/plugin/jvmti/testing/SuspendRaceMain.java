package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.util.Random;

/**
 * A child JVM's program: one thread is suspended and resumed again and again while it is busy in
 * the agent's own native code. Suspension holds a thread only when it next enters the VM, so the
 * agent may be anywhere in its code at that moment.
 *
 * <p>"switching": the thread switches the events of another thread without pause; it is resumed
 * with CONTINUE. "stepping": the thread steps without pause (its hook always answers STEP_OVER); it
 * is resumed with STEP_OVER and STEP_IN in turn. Arguments: the mode and the number of rounds.
 * Prints "DONE" after the last round.
 */
public final class SuspendRaceMain {
    private static volatile boolean running = true;

    private SuspendRaceMain() {
    }

    public static void main(String[] args) throws Exception {
        String mode = args[0];
        int rounds = Integer.parseInt(args[1]);
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        if (!api.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        Thread target;
        if (mode.equals("switching")) {
            Thread other = new Thread(() -> {
                while (running) {
                    Thread.onSpinWait();
                }
            }, "race-other");
            other.start();
            target = new Thread(() -> {
                // Frame-pop events: switching them always goes to the VM, with the record held.
                for (boolean on = true; running; on = !on) {
                    api.setEventNotificationMode(other, JvmtiEvent.FRAME_POP, on);
                }
            }, "race-switcher");
        } else {
            api.registerBreakpointHook((BreakpointHook) (location, context) ->
                    running ? StepType.STEP_OVER : StepType.CONTINUE);
            target = new Thread(() -> {
                long sum = 0;
                while (running) {
                    sum += StormTarget.inner((int) sum);
                }
            }, "race-stepper");
        }
        target.start();
        Thread.sleep(100);
        Random random = new Random(7);
        for (int i = 0; i < rounds; i++) {
            // A varying pause, so that the suspensions land all over the thread's round.
            long until = System.nanoTime() + random.nextInt(100_000);
            while (System.nanoTime() < until) {
                Thread.onSpinWait();
            }
            api.suspendThread(target, null);
            int command = mode.equals("switching") ? StepType.CONTINUE : i % 2 == 0 ? StepType.STEP_OVER : StepType.STEP_IN;
            api.resumeThread(target, command);
        }
        running = false;
        target.join();
        System.out.println("DONE");
        System.exit(0);
    }
}
