package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;

/**
 * A child JVM's program: prints the agent's settings on standard output, then switches it as the
 * arguments say ("on", "off"), or switches events of a thread started before the agent ("early").
 */
public final class StartupMain {
    private StartupMain() {
    }

    public static void main(String[] args) {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println("fastStepping=" + api.isFastSteppingEnabled());
        System.out.println("exceptions=" + api.isExceptionsEnabled());
        System.out.println("active=" + api.isActive());
        for (String arg : args) {
            if (arg.equals("early")) {
                Thread early = Thread.getAllStackTraces().keySet().stream()
                        .filter(t -> t.getName().equals("Reference Handler")).findFirst().orElseThrow();
                System.out.println("early=" + api.setEventNotificationMode(early, 62, true));
                continue;
            }
            System.err.println("-- setActive(" + arg.equals("on") + ")");
            System.out.println("setActive(" + arg.equals("on") + ")=" + api.setActive(arg.equals("on")));
        }
    }
}
