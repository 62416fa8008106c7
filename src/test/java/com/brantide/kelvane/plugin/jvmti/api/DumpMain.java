package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ThreadKind;
import java.util.concurrent.CountDownLatch;

/**
 * A child JVM's program for the data dump: sets up the state named by its argument, prints READY
 * and waits until its standard input closes. "busy" needs the probe agent.
 */
public final class DumpMain {
    private DumpMain() {
    }

    public static void main(String[] args) throws Exception {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        CountDownLatch release = new CountDownLatch(1);
        CountDownLatch running = new CountDownLatch(1);
        Thread worker = ThreadKind.unstarted("dump-worker", () -> {
            running.countDown();
            try {
                release.await();
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        });
        worker.start();
        running.await();
        new Target(1); // prepared, so that its members can carry breakpoints and watches
        if (args.length > 0 && args[0].equals("busy")) {
            api.setActive(true);
            api.registerThreadHook(new Object());
            api.registerBreakpointHook(new Object());
            api.registerFieldHook(new Object());
            api.registerSteppingAbortedHook(new Object());
            require(api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true));
            require(api.setEventNotificationMode(worker, JvmtiEvent.BREAKPOINT, true));
            require(AgentProbe.setEvent(true, JvmtiEvent.SINGLE_STEP, worker, false));
            require(api.setEventNotificationMode(null, JvmtiEvent.FIELD_ACCESS, true));
            api.setBreakpoint(BreakpointLocation.forMethod(Target.class.getMethod("twice", int.class), 0));
            api.setBreakpoint(BreakpointLocation.forMethod(Target.class.getMethod("sum", long.class, long.class), 0));
            api.setFieldAccessWatch(Target.class, Target.class.getField("value"));
            api.setFieldModificationWatch(Target.class, Target.class.getField("value"));
            api.setFieldModificationWatch(Target.class, Target.class.getField("created"));
            System.out.println("worker=" + worker.getId() + " main=" + Thread.currentThread().getId());
        }
        System.out.println("READY");
        System.in.readAllBytes();
        release.countDown();
        worker.join();
    }

    private static void require(boolean switched) {
        if (!switched) {
            throw new IllegalStateException("event not switched");
        }
    }
}
