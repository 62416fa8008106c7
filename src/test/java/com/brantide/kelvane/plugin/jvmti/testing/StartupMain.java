package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadCallback;
import java.util.List;

/**
 * A child JVM's program: prints the agent's settings on standard output, then switches it as the
 * arguments say ("on", "off"), switches events the managed side may not switch ("refused": a
 * thread started before the agent, one that has ended, a stepping event), or, started without the
 * agent, loads the library as a plain one and calls natives that need the agent ("plain").
 */
public final class StartupMain {
    private StartupMain() {
    }

    public static void main(String[] args) {
        if (args.length > 0 && args[0].equals("plain")) {
            callWithoutTheAgent();
            return;
        }
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println("fastStepping=" + api.isFastSteppingEnabled());
        System.out.println("exceptions=" + api.isExceptionsEnabled());
        System.out.println("active=" + api.isActive());
        for (String arg : args) {
            if (arg.equals("refused")) {
                refusedSwitches(api);
                continue;
            }
            System.err.println("-- setActive(" + arg.equals("on") + ")");
            System.out.println("setActive(" + arg.equals("on") + ")=" + api.setActive(arg.equals("on")));
        }
    }

    private static void refusedSwitches(JvmtiApi api) {
        Thread early = Thread.getAllStackTraces().keySet().stream()
                .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
        Thread ended = new Thread(() -> { }, "ended");
        ended.start();
        try {
            ended.join();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
        System.out.println("early=" + api.setEventNotificationMode(early, 62, true));
        System.out.println("ended=" + api.setEventNotificationMode(ended, 62, true));
        System.out.println("stepping=" + api.setEventNotificationMode(Thread.currentThread(), 60, true));
    }

    private static void callWithoutTheAgent() {
        System.load(System.getProperty("kv.test.library"));
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println(api.getLibraryVersionString());
        System.out.println("version=" + api.getApiVersion() + " active=" + api.isActive());
        Thread self = Thread.currentThread();
        List<Runnable> calls = List.of(() -> api.setActive(true), () -> api.getStackDepth(self),
                () -> api.listThreads((ThreadCallback) thread -> { }), () -> api.suspendThread(new Thread(), null),
                () -> api.setEventNotificationMode(self, 62, true), () -> api.heapHistogram(null, 0),
                () -> api.getSourceFileName(String.class));
        for (Runnable call : calls) {
            try {
                call.run();
                System.out.println("no exception");
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
        }
    }
}
