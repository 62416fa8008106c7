package com.brantide.kelvane.plugin.jvmti.soak.webapp;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.testing.Workload;
import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import javax.servlet.Filter;
import javax.servlet.FilterChain;
import javax.servlet.ServletException;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;

/**
 * The web application's control servlet, which the soak's driver talks to: op=arm switches the
 * agent on through the managed layer of the web application's own WEB-INF/lib and finds the page
 * (requested once before); op=mode&amp;mode=... starts a phase; op=verdict gives the phase's
 * figures on one line, then "OK" or "FAILED" with what went wrong; op=heap takes a histogram and a GC-root tree, each
 * of which must count the KEPT objects exactly, and a data dump. Stopping the web application
 * clears everything and switches the agent off.
 */
public final class SoakControl extends HttpServlet {
    /** The page under the debugger (the driver deploys it), and the page lines the debugger knows. */
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
    static final int HIT_LINE = 5;
    static final int LOOP_LINE = 6;
    static final int BODY_LINE = 7;
    static final int AFTER_LINE = 9;
    private static final long serialVersionUID = 1L;
    private static final List<Kept> KEPT = new ArrayList<>();
    private static volatile JspDebugger debugger;

    /** Objects that only the heap walks look for. */
    public static final class Kept {
    }

    static {
        for (int i = 0; i < 321; i++) {
            KEPT.add(new Kept());
        }
    }

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response) throws IOException {
        String answer;
        try {
            answer = answer(request.getParameter("op"), request.getParameter("mode"));
        } catch (RuntimeException e) {
            response.setStatus(HttpServletResponse.SC_INTERNAL_SERVER_ERROR);
            answer = e.toString();
        }
        response.setContentType("text/plain; charset=UTF-8");
        response.getWriter().print(answer);
    }

    private static String answer(String op, String mode) {
        switch (op) {
            case "arm":
                arm();
                return "armed";
            case "mode":
                debugger.switchTo(JspDebugger.Mode.valueOf(mode));
                return mode;
            case "heap":
                debugger.work.checkHeap(Kept.class, KEPT.size(), 60_000);
                debugger.work.requestDump();
                return "";
            default:
                return debugger.verdict();
        }
    }

    private static synchronized void arm() {
        if (JvmtiApi.class.getClassLoader() != SoakControl.class.getClassLoader()) {
            throw new IllegalStateException("the managed layer is not the web application's own");
        }
        debugger = new JspDebugger(Workload.activated().api);
    }

    @Override
    public void destroy() {
        JspDebugger armed = debugger;
        debugger = null;
        if (armed != null) {
            armed.switchTo(JspDebugger.Mode.NONE);
            armed.work.clearHooks();
            armed.api.setActive(false);
        }
    }

    /** Around each request of the page: tells the debugger what the request sent. */
    public static final class RequestFilter implements Filter {
        @Override
        public void doFilter(ServletRequest request, ServletResponse response, FilterChain chain)
                throws IOException, ServletException {
            JspDebugger armed = debugger;
            if (armed != null) {
                armed.begin(request.getParameter("tag"), Integer.parseInt(request.getParameter("n")));
            }
            try {
                chain.doFilter(request, response);
            } finally {
                if (armed != null) {
                    armed.end();
                }
            }
        }
    }
}
