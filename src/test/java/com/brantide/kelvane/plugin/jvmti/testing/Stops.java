package com.brantide.kelvane.plugin.jvmti.testing;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import com.brantide.kelvane.plugin.jvmti.api.SteppingAbortedHook;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.FutureTask;
import java.util.stream.IntStream;

/**
 * The breakpoint hook of the stepping tests: on the thread under test it records where each stop
 * is ("method:line", the line of the stopped frame) and answers with the next command of a
 * script, CONTINUE once the script is used up; a step given up at the time limit is recorded as
 * "aborted". Other threads are answered CONTINUE. Lines are named by "// @method-name" markers in
 * the sources.
 */
public class Stops implements BreakpointHook, SteppingAbortedHook {
    private static final StackWalker WALKER = StackWalker.getInstance(StackWalker.Option.RETAIN_CLASS_REFERENCE);

    private final ConcurrentLinkedQueue<Integer> script = new ConcurrentLinkedQueue<>();
    private final List<String> stops = new CopyOnWriteArrayList<>();
    private volatile Thread subject;

    public Stops answer(int... commands) {
        Arrays.stream(commands).forEach(script::add);
        return this;
    }

    /** Records the stops of a thread that the test runs itself. */
    public Stops watching(Thread thread) {
        subject = thread;
        return this;
    }

    @Override
    public int breakpointHit(BreakpointLocation location, ThreadContext context) {
        if (Thread.currentThread() != subject) {
            return StepType.CONTINUE;
        }
        var frame = WALKER.walk(s -> s.dropWhile(f -> Stops.class.isAssignableFrom(f.getDeclaringClass()))
                .findFirst()).orElseThrow();
        stops.add(frame.getMethodName() + ":" + frame.getLineNumber());
        return script.isEmpty() ? StepType.CONTINUE : script.poll();
    }

    @Override
    public void steppingAborted(Thread thread) {
        if (thread == subject) {
            stops.add("aborted");
        }
    }

    public List<String> stops() {
        return List.copyOf(stops);
    }

    /** One hook for two threads under test, each answered and recorded by its own Stops. */
    public static BreakpointHook either(Stops first, Stops second) {
        return (location, context) -> (Thread.currentThread() == first.subject ? first : second).breakpointHit(location, context);
    }

    /**
     * Runs the code on a new thread that switches breakpoint events on for itself, or not at all
     * (then they must be on for the whole VM), and waits for it. The thread is of the kind under
     * test, and is waited for to its end, so that whatever the agent does at a thread's end is
     * recorded too.
     */
    public <T> T run(JvmtiApi api, Callable<T> code, boolean switchBreakpoints) throws Exception {
        FutureTask<T> task = new FutureTask<>(() -> {
            if (switchBreakpoints && !api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true)) {
                throw new IllegalStateException("breakpoints not switched on");
            }
            return code.call();
        });
        subject = ThreadKind.unstarted("stepping-subject", task);
        subject.start();
        subject.join(60_000);
        if (subject.isAlive()) {
            throw new IllegalStateException("the thread under test is stuck; stops so far " + stops);
        }
        return task.get();
    }

    /** "method:line" for each marker, in order. */
    public static List<String> at(Class<?> clazz, String... markers) {
        return Arrays.stream(markers).map(marker -> method(marker) + ":" + line(clazz, marker)).toList();
    }

    /** A breakpoint location at the first bytecode of a marked line. */
    public static BreakpointLocation breakpointAt(JvmtiApi api, Class<?> clazz, String marker) {
        int line = line(clazz, marker);
        for (var method : clazz.getDeclaredMethods()) {
            long[] start = {Long.MAX_VALUE};
            if (method.getName().equals(method(marker))) {
                api.getLineNumbersV2(clazz, BreakpointLocation.signatureOf(method), (LineNumberCallback) (location, number) ->
                        start[0] = number == line ? Math.min(start[0], location) : start[0]);
            }
            if (start[0] != Long.MAX_VALUE) {
                return BreakpointLocation.forMethod(method, start[0]);
            }
        }
        throw new IllegalArgumentException("no code at marker " + marker);
    }

    /** The method a marker names: the part before its first '-'. */
    public static String method(String marker) {
        return marker.substring(0, marker.indexOf('-'));
    }

    /** The line of the marker in the class's source (its "// @marker" ends the line). */
    public static int line(Class<?> clazz, String marker) {
        try {
            String file = clazz.getName().replace('.', '/') + ".java";
            List<String> source = Files.readAllLines(Path.of(System.getProperty("kv.test.sources"), file));
            return 1 + IntStream.range(0, source.size()).filter(i -> source.get(i).stripTrailing().endsWith("// @" + marker))
                    .findFirst().orElseThrow(() -> new IllegalArgumentException("no marker " + marker + " in " + clazz.getName()));
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }
}
