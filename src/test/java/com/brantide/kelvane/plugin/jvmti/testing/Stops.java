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
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Deque;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The breakpoint hook of the stepping tests: on the thread under test it records where each stop
 * is ("method:line", the line of the stopped frame) and answers with the next command of a
 * script, CONTINUE once the script is used up. Other threads are answered CONTINUE.
 */
public class Stops implements BreakpointHook, SteppingAbortedHook {
    private static final Pattern MARKER = Pattern.compile("// @(\\S+)");
    private static final StackWalker WALKER = StackWalker.getInstance(StackWalker.Option.RETAIN_CLASS_REFERENCE);

    private final Deque<Integer> script = new ArrayDeque<>();
    private final List<String> stops = Collections.synchronizedList(new ArrayList<>());
    private final AtomicInteger aborted = new AtomicInteger();
    private volatile Thread subject;

    public Stops answer(int... commands) {
        for (int command : commands) {
            script.add(command);
        }
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
        StackWalker.StackFrame frame = WALKER.walk(s -> s.dropWhile(f -> Stops.class.isAssignableFrom(f.getDeclaringClass()))
                .findFirst()).orElseThrow();
        stops.add(frame.getMethodName() + ":" + frame.getLineNumber());
        Integer next = script.poll();
        return next == null ? StepType.CONTINUE : next;
    }

    @Override
    public void steppingAborted(Thread thread) {
        if (thread == subject) {
            aborted.incrementAndGet();
        }
    }

    /** One hook for two threads under test, each answered and recorded by its own Stops. */
    public static Stops either(Stops first, Stops second) {
        return new Stops() {
            @Override
            public int breakpointHit(BreakpointLocation location, ThreadContext context) {
                return (Thread.currentThread() == first.subject ? first : second).breakpointHit(location, context);
            }
        };
    }

    /** {@link #run} for callers that cannot throw checked exceptions. */
    public <T> T runUnchecked(JvmtiApi api, Callable<T> code) {
        try {
            return run(api, code);
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }

    /** Runs the code on a new thread that has breakpoint events switched on, and waits for it. */
    public <T> T run(JvmtiApi api, Callable<T> code) throws Exception {
        return run(api, code, true);
    }

    /** The same on a thread that switches nothing itself: breakpoints must be on for the whole VM. */
    public <T> T runUnswitched(JvmtiApi api, Callable<T> code) throws Exception {
        return run(api, code, false);
    }

    private <T> T run(JvmtiApi api, Callable<T> code, boolean switchBreakpoints) throws Exception {
        Object[] result = new Object[1];
        Exception[] failure = new Exception[1];
        Thread thread = ThreadKind.unstarted("stepping-subject", () -> {
            if (switchBreakpoints && !api.setEventNotificationMode(Thread.currentThread(), JvmtiEvent.BREAKPOINT, true)) {
                failure[0] = new IllegalStateException("breakpoints not switched on");
                return;
            }
            try {
                result[0] = code.call();
            } catch (Exception e) {
                failure[0] = e;
            }
        });
        subject = thread;
        thread.start();
        thread.join(60_000);
        if (thread.isAlive()) {
            throw new IllegalStateException("the thread under test is stuck; stops so far " + stops);
        }
        if (failure[0] != null) {
            throw failure[0];
        }
        @SuppressWarnings("unchecked")
        T typed = (T) result[0];
        return typed;
    }

    public List<String> stops() {
        return List.copyOf(stops);
    }

    public int aborted() {
        return aborted.get();
    }

    // ---- source markers

    private static final Map<Class<?>, Map<String, Integer>> MARKERS = new HashMap<>();

    /** "method:line" for each marker, in order. */
    public static List<String> at(Class<?> clazz, String... markers) {
        List<String> where = new ArrayList<>();
        for (String marker : markers) {
            where.add(marker.substring(0, marker.indexOf('-')) + ":" + line(clazz, marker));
        }
        return where;
    }

    public static synchronized int line(Class<?> clazz, String marker) {
        Map<String, Integer> lines = MARKERS.computeIfAbsent(clazz, Stops::readMarkers);
        Integer line = lines.get(marker);
        if (line == null) {
            throw new IllegalArgumentException("no marker " + marker + " in " + clazz.getName());
        }
        return line;
    }

    private static Map<String, Integer> readMarkers(Class<?> clazz) {
        Path source = Path.of(System.getProperty("kv.test.sources"), clazz.getName().replace('.', '/') + ".java");
        Map<String, Integer> lines = new HashMap<>();
        try {
            List<String> text = Files.readAllLines(source);
            for (int i = 0; i < text.size(); i++) {
                Matcher matcher = MARKER.matcher(text.get(i));
                if (matcher.find()) {
                    lines.put(matcher.group(1), i + 1);
                }
            }
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
        return lines;
    }

    /** A breakpoint location at the first bytecode of a marked line. */
    public static BreakpointLocation breakpointAt(JvmtiApi api, Class<?> clazz, String marker) {
        String methodName = marker.substring(0, marker.indexOf('-'));
        int line = line(clazz, marker);
        for (Method method : clazz.getDeclaredMethods()) {
            if (!method.getName().equals(methodName)) {
                continue;
            }
            long[] start = {-1};
            String key = BreakpointLocation.signatureOf(method);
            api.getLineNumbersV2(clazz, key, (LineNumberCallback) (location, number) -> {
                if (number == line && (start[0] < 0 || location < start[0])) {
                    start[0] = location;
                }
            });
            if (start[0] >= 0) {
                return BreakpointLocation.forMethod(method, start[0]);
            }
        }
        throw new IllegalArgumentException("no code at marker " + marker);
    }
}
