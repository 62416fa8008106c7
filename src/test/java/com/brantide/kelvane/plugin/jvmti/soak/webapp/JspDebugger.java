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
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The debugger the web application runs on its own page: a breakpoint on the page's HIT line, found
 * through the compiled page's source map and line table. At every hit the page's locals are
 * checked against what the request sent; every STEP_EVERY-th hit is stepped over and each stop
 * checked against the page line it should be at. How breakpoint events are switched is the phase's
 * Mode; each phase counts into a workload of its own, with hooks for every other event registered
 * anew.
 */
final class JspDebugger implements BreakpointHook {
    /** NONE: no breakpoint set; OFF: set, its events switched off. */
    enum Mode { NONE, PER_THREAD, VM_WIDE, OFF }

    private static final String PAGE_CLASS = "org.apache.jsp.loop_jsp";
    private static final String SERVICE =
            "_jspService(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V";
    /** An entry of a source map's line section: page line[#file][,repeat]:Java line[,increment]. */
    private static final Pattern SMAP_ENTRY =
            Pattern.compile("^(\\d+)(?:#\\d+)?(?:,(\\d+))?:(\\d+)(?:,(\\d+))?$", Pattern.MULTILINE);
    private static final int STEP_EVERY = 8;

    /** What one request sent; the page lines of its stops once its hit steps. */
    private record Request(String tag, int count, List<Integer> stops) {
    }

    final JvmtiApi api;
    private final Class<?> page;
    private final TreeMap<Long, Integer> javaLineAt = new TreeMap<>();
    private final Map<Integer, Integer> pageLineOf = new HashMap<>();
    private final BreakpointLocation breakpoint;
    private final ThreadLocal<Request> current = new ThreadLocal<>();
    private volatile Mode mode = Mode.NONE;
    volatile Workload work;

    /** Finds the compiled page (a first request loaded it) and the breakpoint's place in it. */
    JspDebugger(JvmtiApi api) {
        this.api = api;
        Class<?>[] found = {null};
        api.listClasses((ClassCallback) clazz -> found[0] = clazz.getName().equals(PAGE_CLASS) ? clazz : found[0]);
        page = found[0];
        readSourceMap(api.getSourceDebugExtension(page));
        api.getLineNumbersV2(page, SERVICE, (LineNumberCallback) (location, line) -> javaLineAt.put(location, line));
        long hit = javaLineAt.entrySet().stream().filter(e -> Integer.valueOf(SoakControl.HIT_LINE).equals(pageLineOf.get(e.getValue())))
                .mapToLong(Map.Entry::getKey).min().orElseThrow(() -> new IllegalStateException("no code for the hit line"));
        breakpoint = new BreakpointLocation(page, SERVICE, hit);
        switchTo(Mode.NONE);
    }

    /**
     * The page line of each Java line the source map covers, read here rather than by the agent so
     * that its stepping is checked against a second opinion. The page includes no other file, so
     * every entry is the page's. With increment 0 the page lines share their first Java line, which
     * then belongs to the first of them.
     */
    private void readSourceMap(String smap) {
        Matcher entry = SMAP_ENTRY.matcher(smap.substring(smap.indexOf("\n*L\n")));
        while (entry.find()) {
            int from = Integer.parseInt(entry.group(1));
            int repeat = entry.group(2) == null ? 1 : Integer.parseInt(entry.group(2));
            int javaStart = Integer.parseInt(entry.group(3));
            int increment = entry.group(4) == null ? 1 : Integer.parseInt(entry.group(4));
            int step = Math.max(1, increment);
            for (int k = 0; k < repeat * step; k++) {
                pageLineOf.putIfAbsent(javaStart + k / step * increment + k % step, from + k / step);
            }
        }
    }

    /** Starts a phase: sets or clears the breakpoint and switches its events VM-wide as the mode asks. */
    synchronized void switchTo(Mode next) {
        work = new Workload(api);
        work.registerHooks(this);
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
    }

    /**
     * The phase's verdict: a hit for every request of the page while its events are switched on,
     * none otherwise, and every stepped hit stopped where it should, the last step included.
     */
    String verdict() {
        long requests = work.figure("requests");
        long hits = work.figure("hits");
        if (requests == 0 || hits != (mode == Mode.PER_THREAD || mode == Mode.VM_WIDE ? requests : 0)) {
            work.fail(hits + " hits for " + requests + " requests");
        }
        if (work.figure("stepped") != work.figure("steppedAsExpected")) {
            work.fail("not every stepped hit stopped where it should");
        }
        return work.verdict();
    }

    // ---- around each request of the page (the web application's filter calls these)

    void begin(String tag, int count) {
        work.count("requests");
        current.set(new Request(tag, count, new ArrayList<>()));
        if (mode == Mode.PER_THREAD) {
            switchEvents(Thread.currentThread(), true);
        }
    }

    /** The phase does not change while requests run: the driver starts the next one after the last answer. */
    void end() {
        if (mode == Mode.PER_THREAD) {
            switchEvents(Thread.currentThread(), false);
        }
        current.remove();
    }

    private void switchEvents(Thread thread, boolean on) {
        if (!api.setEventNotificationMode(thread, JvmtiEvent.BREAKPOINT, on)) {
            work.fail("breakpoint events not switched " + (on ? "on" : "off") + " for " + thread);
        }
    }

    // ---- the hook

    @Override
    public int breakpointHit(BreakpointLocation location, ThreadContext context) {
        Request request = current.get();
        if (request == null) {
            work.fail("a stop outside the requests of the page, on " + Thread.currentThread().getName());
            return StepType.CONTINUE;
        }
        boolean atBreakpoint = location.getMemberClass() == page && location.getLocation() == breakpoint.getLocation();
        return atBreakpoint ? hit(request, context) : stepStop(request, location);
    }

    private int hit(Request request, ThreadContext context) {
        Map<String, Object> locals = new HashMap<>();
        api.listVariables(context.getThread(), context.getFrameCount(), 1,
                (VariableCallback) (name, value, signature) -> locals.put(name, value) == null);
        if (!request.tag.equals(locals.get("tag")) || !Integer.valueOf(request.count).equals(locals.get("count"))) {
            work.fail("locals " + locals + " at tag=" + request.tag + " n=" + request.count);
        }
        if (work.count("hits") % STEP_EVERY != 0) {
            return StepType.CONTINUE;
        }
        work.count("stepped");
        return StepType.STEP_OVER;
    }

    /**
     * From the hit on, step-overs stop at the loop's head, its body, the head again, and then the
     * body once more or, after a single turn, the line after the loop.
     */
    private int stepStop(Request request, BreakpointLocation location) {
        Map.Entry<Long, Integer> line = javaLineAt.floorEntry(location.getLocation());
        boolean inPage = location.getMemberClass() == page && SERVICE.equals(location.getMemberSignature());
        request.stops.add(inPage && line != null ? pageLineOf.getOrDefault(line.getValue(), -1) : -1);
        List<Integer> expected = List.of(SoakControl.LOOP_LINE, SoakControl.BODY_LINE, SoakControl.LOOP_LINE,
                request.count > 1 ? SoakControl.BODY_LINE : SoakControl.AFTER_LINE);
        if (request.stops.size() < expected.size()) {
            return StepType.STEP_OVER;
        }
        if (expected.equals(request.stops)) {
            work.count("steppedAsExpected");
        } else {
            work.fail("step-overs stopped at page lines " + request.stops + ", expected " + expected);
        }
        return StepType.CONTINUE;
    }
}
