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
 * <p>"switching": the thread switches the frame-pop events of another thread without pause (which
 * always goes to the VM, with the thread's record held); it is resumed with CONTINUE. "stepping":
 * the thread steps without pause (its hook always answers STEP_OVER); it is resumed with STEP_OVER
 * and STEP_IN in turn. Arguments: the mode and the number of rounds. Prints "DONE" at the end.
 */
public final class SuspendRaceMain {
    private static volatile boolean running = true;

    private SuspendRaceMain() {
    }

    public static void main(String[] args) throws Exception {
        boolean switching = args[0].equals("switching");
        int rounds = Integer.parseInt(args[1]);
        JvmtiApi api = Workload.activated().api;
        api.registerBreakpointHook((BreakpointHook) (location, context) -> running ? StepType.STEP_OVER : StepType.CONTINUE);
        // The other thread is this one, which suspends and resumes the target meanwhile.
        Thread other = Thread.currentThread();
        Thread target = new Thread(switching ? () -> {
            for (boolean on = true; running; on = !on) {
                api.setEventNotificationMode(other, JvmtiEvent.FRAME_POP, on);
            }
        } : SuspendRaceMain::spin, "race-target");
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
            api.resumeThread(target, switching ? StepType.CONTINUE : i % 2 == 0 ? StepType.STEP_OVER : StepType.STEP_IN);
        }
        running = false;
        target.join();
        System.out.println("DONE");
        System.exit(0);
    }

    private static void spin() {
        for (long sum = 0; running; ) {
            sum += StormTarget.inner((int) sum);
        }
    }
}
