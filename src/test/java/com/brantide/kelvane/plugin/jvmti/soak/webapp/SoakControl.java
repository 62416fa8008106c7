package com.brantide.kelvane.plugin.jvmti.soak.webapp;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.ClassCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import com.brantide.kelvane.plugin.jvmti.testing.StormTarget;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.io.IOException;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.servlet.Filter;
import javax.servlet.FilterChain;
import javax.servlet.ServletException;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import javax.servlet.annotation.WebFilter;
import javax.servlet.annotation.WebServlet;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;

/**
 * The web application's debugger of its own page, driven by the soak through this servlet:
 * op=mode&amp;mode=... starts a phase (the first one switches the agent on through the managed layer
 * of the web application's own WEB-INF/lib and finds the page, requested once before); op=heap takes
 * a histogram and a GC-root tree, each of which must count the objects kept in StormTarget exactly, and a data dump;
 * op=verdict gives the phase's figures on one line, then "OK" or "FAILED" with what went wrong.
 *
 * <p>The breakpoint stands on the page's HIT line, found through the compiled page's source map and
 * line table. At every hit the page's locals are checked against what the request sent (the filter
 * around each request tells); every STEP_EVERY-th hit is stepped over and each stop checked against
 * the page line it should be at. Each phase counts into a workload of its own, with hooks for every
 * other event registered anew. Stopping the web application clears everything and switches the
 * agent off. A web application has one servlet instance: the debugger's state is static.
 */
@WebServlet("/control")
public final class SoakControl extends HttpServlet {
    /** The page under the debugger (the driver deploys it). */
    public static final String PAGE = """
            <%@ page contentType="text/plain; charset=UTF-8" session="false" %>
            <%
                int count = Integer.parseInt(request.getParameter("n"));
                String tag = request.getParameter("tag");
                long sum = 0;
                for (int i = 1; i <= count; i++) {
                    sum += 2 * i;
                }
                String reply = tag + "=" + sum;
            %><%= reply %>
            """;
    private static final int HIT_LINE = 5;
    private static final int LOOP_LINE = 6;
    private static final int BODY_LINE = 7;
    private static final int AFTER_LINE = 9;
    private static final String PAGE_CLASS = "org.apache.jsp.loop_jsp";
    private static final String SERVICE =
            "_jspService(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V";
    /** The start of an entry of a source map's line section: page line[,repeat]:Java line. */
    private static final Pattern SMAP_ENTRY = Pattern.compile("^(\\d+)(?:,(\\d+))?:(\\d+)", Pattern.MULTILINE);
    private static final int STEP_EVERY = 8;
    private static final long serialVersionUID = 1L;

    /** The phases, in the driver's order. NONE: no breakpoint set; OFF: set, its events switched off. */
    public enum Mode { NONE, PER_THREAD, VM_WIDE, OFF }

    /** What one request sent; the page lines of its stops once its hit steps. */
    private record Request(String tag, int count, List<Integer> stops) {
    }

    private static final ThreadLocal<Request> CURRENT = new ThreadLocal<>();
    private static final TreeMap<Long, Integer> JAVA_LINE_AT = new TreeMap<>();
    private static final Map<Integer, Integer> PAGE_LINE_OF = new HashMap<>();
    private static volatile JvmtiApi api;
    private static Class<?> page;
    private static BreakpointLocation breakpoint;
    private static volatile Mode mode = Mode.NONE;
    private static volatile Workload work;

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response) throws IOException {
        String answer = switch (request.getParameter("op")) {
            case "mode" -> switchTo(Mode.valueOf(request.getParameter("mode")));
            case "heap" -> {
                work.checkHeap(StormTarget.Marker.class, StormTarget.KEPT.size(), 60_000);
                work.requestDump();
                yield "";
            }
            default -> verdict();
        };
        response.setContentType("text/plain; charset=UTF-8");
        response.getWriter().print(answer);
    }

    /** Starts a phase: sets the breakpoint after the first one and switches its events VM-wide as the phase asks. */
    private static synchronized String switchTo(Mode next) {
        if (api == null) {
            arm();
        }
        work = new Workload(api);
        work.registerHooks((BreakpointHook) SoakControl::breakpointHit);
        if (mode == Mode.NONE && next != Mode.NONE) {
            api.setBreakpoint(breakpoint);
        }
        work.switchBreakpoints(null, next == Mode.VM_WIDE);
        mode = next;
        return next.name();
    }

    /** Switches the agent on and finds the compiled page (a first request loaded it) and the breakpoint's place in it. */
    private static void arm() {
        if (JvmtiApi.class.getClassLoader() != SoakControl.class.getClassLoader()) {
            throw new IllegalStateException("the managed layer is not the web application's own");
        }
        api = Workload.activated().api;
        StormTarget.keep(321);
        api.listClasses((ClassCallback) clazz -> page = clazz.getName().equals(PAGE_CLASS) ? clazz : page);
        readSourceMap(api.getSourceDebugExtension(page));
        api.getLineNumbersV2(page, SERVICE, (LineNumberCallback) (location, line) -> JAVA_LINE_AT.put(location, line));
        long hit = JAVA_LINE_AT.entrySet().stream().filter(e -> Integer.valueOf(HIT_LINE).equals(PAGE_LINE_OF.get(e.getValue())))
                .mapToLong(Map.Entry::getKey).min().orElseThrow(() -> new IllegalStateException("no code for the hit line"));
        breakpoint = new BreakpointLocation(page, SERVICE, hit);
    }

    /**
     * The page line of each Java line the source map covers, read here rather than by the agent so
     * that its stepping is checked against a second opinion. The page includes no other file, so
     * every entry is the page's. The compiler writes the page's code line for line; only template
     * text takes more Java lines per page line, and those are no places to stop at.
     */
    private static void readSourceMap(String smap) {
        Matcher entry = SMAP_ENTRY.matcher(smap.substring(smap.indexOf("\n*L\n")));
        while (entry.find()) {
            int repeat = entry.group(2) == null ? 1 : Integer.parseInt(entry.group(2));
            for (int k = 0; k < repeat; k++) {
                PAGE_LINE_OF.put(Integer.parseInt(entry.group(3)) + k, Integer.parseInt(entry.group(1)) + k);
            }
        }
    }

    /**
     * The phase's verdict: a hit for every request of the page while its events are switched on,
     * none otherwise, and every stepped hit stopped where it should, the last step included.
     */
    private static String verdict() {
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

    @Override
    public void destroy() {
        if (api != null) {
            Workload.setHooks(api, null);
            work.switchBreakpoints(null, false);
            if (mode != Mode.NONE) {
                api.clearBreakpoint(breakpoint);
            }
            api.setActive(false);
        }
    }

    private static int breakpointHit(BreakpointLocation location, ThreadContext context) {
        Request request = CURRENT.get();
        if (request == null) {
            work.fail("a stop outside the requests of the page, on " + Thread.currentThread().getName());
            return StepType.CONTINUE;
        }
        boolean atBreakpoint = location.getMemberClass() == page && location.getLocation() == breakpoint.getLocation();
        return atBreakpoint ? hit(request, context) : stepStop(request, location);
    }

    private static int hit(Request request, ThreadContext context) {
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
    private static int stepStop(Request request, BreakpointLocation location) {
        Map.Entry<Long, Integer> line = JAVA_LINE_AT.floorEntry(location.getLocation());
        boolean inPage = location.getMemberClass() == page && SERVICE.equals(location.getMemberSignature());
        request.stops.add(inPage && line != null ? PAGE_LINE_OF.getOrDefault(line.getValue(), -1) : -1);
        List<Integer> expected = List.of(LOOP_LINE, BODY_LINE, LOOP_LINE, request.count > 1 ? BODY_LINE : AFTER_LINE);
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

    /**
     * Around each request of the page: tells the debugger what the request sent and, in the phase
     * that asks for it, switches breakpoint events on for the request's thread. The phase does not
     * change while requests run: the driver starts the next one after the last answer.
     */
    @WebFilter("/loop.jsp")
    public static final class RequestFilter implements Filter {
        @Override
        public void doFilter(ServletRequest request, ServletResponse response, FilterChain chain)
                throws IOException, ServletException {
            boolean perThread = mode == Mode.PER_THREAD;
            if (api != null) {
                work.count("requests");
                CURRENT.set(new Request(request.getParameter("tag"), Integer.parseInt(request.getParameter("n")), new ArrayList<>()));
                if (perThread) {
                    work.switchBreakpoints(Thread.currentThread(), true);
                }
            }
            try {
                chain.doFilter(request, response);
            } finally {
                if (perThread) {
                    work.switchBreakpoints(Thread.currentThread(), false);
                }
                CURRENT.remove();
            }
        }
    }
}
