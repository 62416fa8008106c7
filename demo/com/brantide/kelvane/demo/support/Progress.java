package com.brantide.kelvane.demo.support;

/**
 * Shows that a long step is working: a spinner on a terminal, nothing at all on a pipe, so that a
 * captured transcript stays clean.
 */
public final class Progress implements AutoCloseable {
    private static final char[] FRAMES = {'|', '/', '-', '\\'};
    private final Thread spinner;

    /** Work that may fail. */
    public interface Work<E extends Exception> {
        void run() throws E;
    }

    /** Runs the work with the spinner going. */
    public static <E extends Exception> void during(String what, Work<E> work) throws E {
        try (Progress progress = new Progress(what)) {
            progress.getClass();
            work.run();
        }
    }

    private Progress(String what) {
        if (System.console() == null) {
            spinner = null;
            return;
        }
        spinner = new Thread(() -> {
            int frame = 0;
            while (!Thread.currentThread().isInterrupted()) {
                System.out.print("\r  " + FRAMES[frame++ % FRAMES.length] + " " + what + "...");
                System.out.flush();
                try {
                    Thread.sleep(120);
                } catch (InterruptedException e) {
                    return;
                }
            }
        }, "demo-progress");
        spinner.setDaemon(true);
        spinner.start();
    }

    @Override
    public void close() {
        if (spinner == null) {
            return;
        }
        spinner.interrupt();
        try {
            spinner.join();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        System.out.print("\r" + " ".repeat(60) + "\r");
        System.out.flush();
    }
}
