package com.brantide.kelvane.plugin.jvmti.testing;

import java.lang.reflect.Method;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.function.Supplier;
import org.junit.jupiter.api.Assumptions;

/**
 * The kind of thread the code under test runs on: a platform thread, or with
 * -Dkv.test.thread.kind=virtual a virtual one, so that the same scenarios cover both. The tests are
 * built for JDK 17, so virtual threads are made through reflection; where the VM has none, a test
 * that needs one is skipped, not passed.
 */
public final class ThreadKind {
    public static final boolean VIRTUAL = "virtual".equals(System.getProperty("kv.test.thread.kind"));

    private ThreadKind() {
    }

    /** A new, unstarted thread of the kind under test. */
    public static Thread unstarted(String name, Runnable body) {
        return unstarted(name, 0, body);
    }

    /** The same with a stack size for a platform thread (a virtual thread's stack grows as needed). */
    public static Thread unstarted(String name, long stackSize, Runnable body) {
        if (!VIRTUAL) {
            return new Thread(null, body, name, stackSize);
        }
        if (Runtime.version().feature() < 21) {
            // Skipped, not passed; only here, since child JVMs run without JUnit.
            Assumptions.assumeTrue(false, "virtual threads need JDK 21");
        }
        try {
            Thread thread = maker(body).get();
            thread.setName(name);
            return thread;
        } catch (ReflectiveOperationException e) {
            throw new IllegalStateException("no virtual thread", e);
        }
    }

    /** Makes unnamed, unstarted threads of the kind under test, as fast as the JDK's builder does. */
    public static Supplier<Thread> maker(Runnable body) throws ReflectiveOperationException {
        if (!VIRTUAL) {
            return () -> new Thread(body);
        }
        // Through the public builder interface: its implementation is not exported.
        Object builder = Thread.class.getMethod("ofVirtual").invoke(null);
        Method unstarted = Class.forName("java.lang.Thread$Builder").getMethod("unstarted", Runnable.class);
        return () -> {
            try {
                return (Thread) unstarted.invoke(builder, body);
            } catch (ReflectiveOperationException e) {
                throw new IllegalStateException("no virtual thread", e);
            }
        };
    }

    /** A thread of the kind under test that has run the body to its end. */
    public static Thread ranToEnd(String name, Runnable body) throws InterruptedException {
        Thread thread = unstarted(name, body);
        thread.start();
        thread.join();
        return thread;
    }

    /**
     * Starts a daemon thread of the kind under test that runs the job, and returns it once the job
     * has counted the latch down and the thread waits or blocks.
     */
    public static Thread inPlace(String name, long stackSize, Consumer<CountDownLatch> job) throws InterruptedException {
        CountDownLatch entered = new CountDownLatch(1);
        Thread thread = unstarted(name, stackSize, () -> job.accept(entered));
        thread.setDaemon(true);
        thread.start();
        if (!entered.await(30, TimeUnit.SECONDS)) {
            throw new IllegalStateException(name + " never got in place");
        }
        while (thread.getState() != Thread.State.WAITING && thread.getState() != Thread.State.BLOCKED) {
            Thread.onSpinWait();
        }
        return thread;
    }
}
