package com.brantide.kelvane.demo.support;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import java.util.concurrent.Callable;

/**
 * Runs a piece of the application on a thread of its own with the given events switched on for
 * it, as a debugger's managed side would do for the threads it watches, and waits for it.
 */
public final class AppThread {
    private AppThread() {
    }

    public static <T> T run(JvmtiApi api, String name, int[] events, Callable<T> code) throws Exception {
        Object[] result = new Object[1];
        Exception[] failure = new Exception[1];
        Thread thread = new Thread(() -> {
            for (int event : events) {
                api.setEventNotificationMode(Thread.currentThread(), event, true);
            }
            try {
                result[0] = code.call();
            } catch (Exception e) {
                failure[0] = e;
            } finally {
                for (int event : events) {
                    api.setEventNotificationMode(Thread.currentThread(), event, false);
                }
            }
        }, name);
        thread.start();
        thread.join();
        if (failure[0] != null) {
            throw failure[0];
        }
        @SuppressWarnings("unchecked")
        T typed = (T) result[0];
        return typed;
    }
}
