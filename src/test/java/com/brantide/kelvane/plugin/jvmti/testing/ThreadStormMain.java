package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.ThreadHook;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentLinkedDeque;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * A child JVM's program: for the given number of seconds, short-lived threads start and end while
 * another thread switches their events on and off and data dumps are requested again and again.
 * Prints its figures and "OK" when every start and end reached the thread hook.
 */
public final class ThreadStormMain {
    private static final int[] EVENTS = {JvmtiEvent.BREAKPOINT, JvmtiEvent.FIELD_ACCESS, JvmtiEvent.EXCEPTION};

    private ThreadStormMain() {
    }

    public static void main(String[] args) throws Exception {
        long seconds = Long.parseLong(args[0]);
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        if (!api.setActive(true)) {
            throw new IllegalStateException("agent not active");
        }
        Set<Thread> started = ConcurrentHashMap.newKeySet();
        Set<Thread> ended = ConcurrentHashMap.newKeySet();
        api.registerThreadHook(new ThreadHook() {
            @Override
            public void threadStart(Thread thread) {
                started.add(thread);
            }

            @Override
            public void threadEnd(Thread thread) {
                ended.add(thread);
            }
        });

        AtomicBoolean stop = new AtomicBoolean();
        ConcurrentLinkedDeque<Thread> live = new ConcurrentLinkedDeque<>();
        Set<Thread> created = ConcurrentHashMap.newKeySet();
        AtomicLong switches = new AtomicLong();
        AtomicLong dumps = new AtomicLong();
        List<Thread> drivers = new ArrayList<>();
        for (int i = 0; i < 2; i++) {
            drivers.add(new Thread(() -> spawn(stop, live, created), "spawner-" + i));
        }
        drivers.add(new Thread(() -> switchEvents(api, stop, live, switches), "switcher"));
        drivers.add(new Thread(() -> requestDumps(stop, dumps), "dumper"));
        drivers.forEach(Thread::start);
        Thread.sleep(seconds * 1000);
        stop.set(true);
        for (Thread driver : drivers) {
            driver.join();
        }
        for (Thread thread : created) {
            thread.join();
        }
        boolean complete = started.containsAll(created) && ended.containsAll(created);
        System.out.println("threads=" + created.size() + " switches=" + switches + " dumps=" + dumps);
        System.out.println(complete ? "OK" : "MISSED " + (created.size() - started.size()) + " starts");
        api.registerThreadHook(null);
        api.setActive(false);
    }

    private static void spawn(AtomicBoolean stop, ConcurrentLinkedDeque<Thread> live, Set<Thread> created) {
        while (!stop.get()) {
            Thread thread = ThreadKind.unstarted("storm", () -> LockSupport.parkNanos(200_000));
            created.add(thread);
            thread.start();
            live.addLast(thread);
            while (live.size() > 64) {
                live.pollFirst();
            }
        }
    }

    private static void switchEvents(JvmtiApi api, AtomicBoolean stop, ConcurrentLinkedDeque<Thread> live,
            AtomicLong switches) {
        int i = 0;
        while (!stop.get()) {
            Thread thread = live.peekLast();
            if (thread == null) {
                continue;
            }
            int event = EVENTS[i++ % EVENTS.length];
            if (api.setEventNotificationMode(thread, event, true)) {
                switches.incrementAndGet();
            }
            if (api.setEventNotificationMode(thread, event, (i & 1) == 0)) {
                switches.incrementAndGet();
            }
        }
    }

    private static void requestDumps(AtomicBoolean stop, AtomicLong dumps) {
        try {
            MBeanServer server = ManagementFactory.getPlatformMBeanServer();
            ObjectName diagnostics = new ObjectName("com.sun.management:type=DiagnosticCommand");
            while (!stop.get()) {
                server.invoke(diagnostics, "jvmtiDataDump", new Object[0], new String[0]);
                dumps.incrementAndGet();
                Thread.sleep(20);
            }
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }
}
