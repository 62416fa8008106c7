package com.brantide.kelvane.plugin.jvmti.soak.webapp;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.ClassCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Queue;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.atomic.AtomicLongArray;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The debugger the web application runs on its own page: a breakpoint on the page line marked
 * "@hit", found through the compiled page's source map and line table. At every hit the page's
 * locals are checked against what the request sent; every STEP_EVERY-th hit is stepped over STEPS
 * times and each stop checked against the page line it should be at. How breakpoint events are
 * switched is the phase's Mode; the figures and notes (what went wrong) are those of one phase.
 */
final class JspDebugger implements BreakpointHook {
    /** NONE: no breakpoint set; OFF: set, its events switched off. */
    enum Mode { NONE, PER_THREAD, VM_WIDE, OFF }

    /** The figures of a phase, under the names the driver reads. */
    private enum Figure { hits, wrongLocals, stepOvers, stopsWanted, stopsAsExpected, strays }

    private static final String PAGE_CLASS = "org.apache.jsp.loop_jsp";
    private static final String SERVICE =
            "_jspService(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V";
    private static final Pattern MARKER = Pattern.compile("// @(\\w+)");
    /** An entry of a source map's line section: page line[#file][,repeat]:Java line[,increment]. */
    private static final Pattern SMAP_ENTRY =
            Pattern.compile("^(\\d+)(?:#\\d+)?(?:,(\\d+))?:(\\d+)(?:,(\\d+))?$", Pattern.MULTILINE);
    private static final int STEPS = 4;
    private static final int STEP_EVERY = 8;

    /** What one request sent; the page lines of its stops once its hit steps. */
    private static final class Request {
        final String tag;
        final int count;
        final boolean switchedOn;
        List<Integer> stops;

        Request(String tag, int count, boolean switchedOn) {
            this.tag = tag;
            this.count = count;
            this.switchedOn = switchedOn;
        }
    }

    private final JvmtiApi api;
    private final Class<?> page;
    private final TreeMap<Long, Integer> javaLineAt = new TreeMap<>();
    private final Map<Integer, Integer> pageLineOf = new HashMap<>();
    private final Map<String, Integer> markers = new HashMap<>();
    private final BreakpointLocation breakpoint;
    private final ThreadLocal<Request> current = new ThreadLocal<>();
    private volatile Mode mode = Mode.NONE;
    private volatile AtomicLongArray figures = new AtomicLongArray(Figure.values().length);
    private volatile Queue<String> notes = new ConcurrentLinkedQueue<>();

    /** Finds the compiled page (a first request loaded it) and the breakpoint's place in it. */
    JspDebugger(JvmtiApi api) {
        this.api = api;
        page = loadedPage(api);
        readSourceMap(api.getSourceDebugExtension(page));
        api.getLineNumbersV2(page, SERVICE, (LineNumberCallback) (location, line) -> javaLineAt.put(location, line));
        readMarkers();
        breakpoint = new BreakpointLocation(page, SERVICE, firstBytecodeOf(markers.get("hit")));
        api.registerBreakpointHook(this);
    }

    private static Class<?> loadedPage(JvmtiApi api) {
        Class<?>[] found = {null};
        api.listClasses((ClassCallback) clazz -> {
            if (clazz.getName().equals(PAGE_CLASS)) {
                found[0] = clazz;
            }
        });
        if (found[0] == null) {
            throw new IllegalStateException(PAGE_CLASS + " is not loaded");
        }
        return found[0];
    }

    /**
     * The page line of each Java line the source map covers, read here rather than by the agent so
     * that its stepping is checked against a second opinion. The page includes no other file, so
     * every entry is the page's.
     */
    private void readSourceMap(String smap) {
        Matcher entry = SMAP_ENTRY.matcher(smap.substring(smap.indexOf("\n*L\n")));
        while (entry.find()) {
            int from = Integer.parseInt(entry.group(1));
            int repeat = entry.group(2) == null ? 1 : Integer.parseInt(entry.group(2));
            int javaStart = Integer.parseInt(entry.group(3));
            int increment = entry.group(4) == null ? 1 : Integer.parseInt(entry.group(4));
            // Each page line became `increment` Java lines; with increment 0 they all share the
            // first Java line, which then belongs to the first of them.
            for (int k = 0; k < repeat; k++) {
                for (int j = 0; j < Math.max(1, increment); j++) {
                    pageLineOf.putIfAbsent(javaStart + k * increment + j, from + k);
                }
            }
        }
    }

    private void readMarkers() {
        String[] lines = SoakControl.PAGE.split("\n");
        for (int i = 0; i < lines.length; i++) {
            Matcher marker = MARKER.matcher(lines[i]);
            if (marker.find()) {
                markers.put(marker.group(1), i + 1);
            }
        }
    }

    private long firstBytecodeOf(Integer pageLine) {
        return javaLineAt.entrySet().stream().filter(entry -> pageLine.equals(pageLineOf.get(entry.getValue())))
                .mapToLong(Map.Entry::getKey).min()
                .orElseThrow(() -> new IllegalStateException("no code for page line " + pageLine));
    }

    String where() {
        return "page line " + markers.get("hit") + " -> Java line " + javaLineAt.get(breakpoint.getLocation())
                + ", bytecode " + breakpoint.getLocation();
    }

    /** Starts a phase: sets or clears the breakpoint and switches its events VM-wide as the mode asks. */
    synchronized void switchTo(Mode next) {
        if (mode == Mode.VM_WIDE) {
            switchEvents(null, false);
        }
        if (mode == Mode.NONE && next != Mode.NONE) {
            api.setBreakpoint(breakpoint);
        } else if (mode != Mode.NONE && next == Mode.NONE) {
            api.clearBreakpoint(breakpoint);
        }
        if (next == Mode.VM_WIDE) {
            switchEvents(null, true);
        }
        mode = next;
        figures = new AtomicLongArray(Figure.values().length);
        notes = new ConcurrentLinkedQueue<>();
    }

    /** The figures of the phase on the first line, then what went wrong in it (the first few). */
    String figures() {
        StringBuilder text = new StringBuilder();
        for (Figure figure : Figure.values()) {
            text.append(figure).append('=').append(figures.get(figure.ordinal())).append(' ');
        }
        return text.toString().trim() + "\n" + String.join("\n", notes);
    }

    // ---- around each request of the page (the web application's filter calls these)

    void begin(String tag, int count) {
        Request request = new Request(tag, count, mode == Mode.PER_THREAD);
        current.set(request);
        if (request.switchedOn) {
            switchEvents(Thread.currentThread(), true);
        }
    }

    void end() {
        if (current.get().switchedOn) {
            switchEvents(Thread.currentThread(), false);
        }
        current.remove();
    }

    private void switchEvents(Thread thread, boolean on) {
        if (!api.setEventNotificationMode(thread, JvmtiEvent.BREAKPOINT, on)) {
            note("breakpoint events not switched " + (on ? "on" : "off") + " for " + thread);
        }
    }

    // ---- the hook

    @Override
    public int breakpointHit(BreakpointLocation location, ThreadContext context) {
        Request request = current.get();
        try {
            if (request == null) {
                count(Figure.strays);
                note("a stop outside the requests of the page, on " + Thread.currentThread().getName());
                return StepType.CONTINUE;
            }
            return request.stops == null ? hit(request, context) : stepStop(request, location);
        } catch (RuntimeException e) {
            note("hook: " + e);
            return StepType.CONTINUE;
        }
    }

    private int hit(Request request, ThreadContext context) {
        long hits = count(Figure.hits);
        checkLocals(request, context);
        if (hits % STEP_EVERY != 0) {
            return StepType.CONTINUE;
        }
        count(Figure.stepOvers);
        figures.addAndGet(Figure.stopsWanted.ordinal(), STEPS);
        request.stops = new ArrayList<>();
        return StepType.STEP_OVER;
    }

    private void checkLocals(Request request, ThreadContext context) {
        Map<String, Object> locals = new HashMap<>();
        api.listVariables(context.getThread(), context.getFrameCount(), 1,
                (VariableCallback) (name, value, signature) -> {
                    locals.put(name, value);
                    return true;
                });
        if (!request.tag.equals(locals.get("tag")) || !Integer.valueOf(request.count).equals(locals.get("count"))) {
            count(Figure.wrongLocals);
            note("locals tag=" + locals.get("tag") + " count=" + locals.get("count") + " at tag=" + request.tag + " n="
                    + request.count);
        }
    }

    private int stepStop(Request request, BreakpointLocation location) {
        request.stops.add(pageLineAt(location));
        if (request.stops.size() < STEPS) {
            return StepType.STEP_OVER;
        }
        List<Integer> expected = expectedStops(request.count);
        for (int i = 0; i < STEPS; i++) {
            if (expected.get(i).equals(request.stops.get(i))) {
                count(Figure.stopsAsExpected);
            }
        }
        if (!expected.equals(request.stops)) {
            note("step-overs stopped at page lines " + request.stops + ", expected " + expected);
        }
        return StepType.CONTINUE;
    }

    /** The page line of a stop; -1 outside the page's service method or its source map. */
    private int pageLineAt(BreakpointLocation location) {
        Map.Entry<Long, Integer> line = javaLineAt.floorEntry(location.getLocation());
        boolean inPage = location.getMemberClass() == page && SERVICE.equals(location.getMemberSignature());
        return inPage && line != null ? pageLineOf.getOrDefault(line.getValue(), -1) : -1;
    }

    /** From the hit on: the loop's head, then body and head again for each turn, then the line after. */
    private List<Integer> expectedStops(int count) {
        List<Integer> lines = new ArrayList<>(List.of(markers.get("loop")));
        for (int i = 0; i < count; i++) {
            lines.addAll(List.of(markers.get("body"), markers.get("loop")));
        }
        lines.add(markers.get("after"));
        return lines.subList(0, STEPS);
    }

    private long count(Figure figure) {
        return figures.incrementAndGet(figure.ordinal());
    }

    private void note(String failure) {
        Queue<String> phase = notes;
        if (phase.size() < 10) {
            phase.add(failure);
        }
    }
}
