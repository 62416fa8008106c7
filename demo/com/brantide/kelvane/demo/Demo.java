package com.brantide.kelvane.demo;

import com.brantide.kelvane.demo.shop.Item;
import com.brantide.kelvane.demo.shop.Order;
import com.brantide.kelvane.demo.shop.OrderCache;
import com.brantide.kelvane.demo.shop.Shop;
import com.brantide.kelvane.demo.support.AppThread;
import com.brantide.kelvane.demo.support.Progress;
import com.brantide.kelvane.demo.support.Values;
import com.brantide.kelvane.demo.support.Where;
import com.brantide.kelvane.demo.view.CheckoutView;
import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JvmtiEvent;
import com.brantide.kelvane.plugin.jvmti.StepType;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import com.brantide.kelvane.plugin.jvmti.api.BreakpointHook;
import com.brantide.kelvane.plugin.jvmti.api.ExceptionHook;
import com.brantide.kelvane.plugin.jvmti.api.FieldHook;
import com.brantide.kelvane.plugin.jvmti.api.FrameCallback;
import com.brantide.kelvane.plugin.jvmti.api.GCRootsCallback;
import com.brantide.kelvane.plugin.jvmti.api.HistogramCallback;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import com.brantide.kelvane.plugin.jvmti.api.SuspendCallback;
import com.brantide.kelvane.plugin.jvmti.api.ThreadCallback;
import com.brantide.kelvane.plugin.jvmti.api.VariableCallback;
import com.brantide.kelvane.demo.support.Smap;
import com.brantide.kelvane.demo.support.SourceDebugExtension;
import com.brantide.kelvane.demo.support.StepTiming;
import com.brantide.kelvane.demo.support.VirtualThreads;
import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Optional;
import java.util.Map;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.TimeoutException;

/**
 * A shop that debugs and inspects itself: this driver uses only the managed layer of the agent,
 * as a debugger's managed side would, and prints what it sees.
 */
public final class Demo {
    private static final int LEAKED_ORDERS = 2000;

    private final JvmtiApi api = new JvmtiApi();
    private final Where where = new Where(api);
    private final Shop shop = new Shop();
    private final Path outputDirectory;

    private Demo(Path outputDirectory) {
        this.outputDirectory = outputDirectory;
    }

    public static void main(String[] args) throws Exception {
        Path out = Path.of(args.length > 0 ? args[0] : System.getProperty("java.io.tmpdir"));
        new Demo(out).run();
    }

    private void run() throws Exception {
        api.registerClasses();
        heading("The agent");
        System.out.println("  library        " + api.getLibraryVersionString());
        System.out.println("  API version    " + api.getApiVersion());
        System.out.println("  fast stepping  " + api.isFastSteppingEnabled());
        System.out.println("  exceptions     " + api.isExceptionsEnabled());
        System.out.println("  switched on    " + api.setActive(true));
        stepThroughThePriceCalculation();
        watchTheStockAndTheRefusal();
        stepThroughTheTemplate();
        timeAStepOver();
        debugAVirtualThread();
        histogram();
        leakPaths();
        suspendAWorker();
        heading("Done");
        System.out.println("  switched off   " + !api.setActive(false));
    }

    private static void heading(String title) {
        System.out.println();
        System.out.println("== " + title);
    }

    private static Method method(Class<?> clazz, String name) {
        for (Method method : clazz.getDeclaredMethods()) {
            if (method.getName().equals(name)) {
                return method;
            }
        }
        throw new IllegalArgumentException(name);
    }

    /** The first bytecode of a Java line of a method. */
    private long locationOfLine(Method method, int line) {
        long[] start = {-1};
        api.getLineNumbersV2(method.getDeclaringClass(), BreakpointLocation.signatureOf(method),
                (LineNumberCallback) (location, number) -> {
                    if (number == line && (start[0] < 0 || location < start[0])) {
                        start[0] = location;
                    }
                });
        return start[0];
    }

    /** The locals of the stopped frame, by name, rendered. */
    private Map<String, String> locals(ThreadContext context) {
        Map<String, String> locals = new LinkedHashMap<>();
        api.listVariables(context.getThread(), context.getFrameCount(), 1,
                (VariableCallback) (name, value, signature) -> {
                    if (!name.equals("this")) {
                        locals.put(name, Values.show(value));
                    }
                    return true;
                });
        return locals;
    }

    // ---- 1. breakpoint and steps

    /** Answers each stop with the next command of a script and prints the stop with what changed. */
    private final class ScriptedSession implements BreakpointHook {
        private final Deque<Integer> script;
        private String arrivedBy = "breakpoint";
        private final Map<String, Map<String, String>> lastLocals = new java.util.HashMap<>();

        ScriptedSession(Integer... commands) {
            script = new ArrayDeque<>(List.of(commands));
        }

        @Override
        public int breakpointHit(BreakpointLocation location, ThreadContext context) {
            Map<String, String> locals = locals(context);
            StringBuilder shown = new StringBuilder();
            Map<String, String> before = lastLocals.get(location.getMemberSignature());
            boolean sameFrame = before != null;
            locals.forEach((name, value) -> {
                if (!sameFrame || !value.equals(before.get(name))) {
                    shown.append(shown.length() == 0 ? "" : ", ").append(name).append('=').append(value);
                }
            });
            System.out.printf("  %-10s %-52s %s%n", arrivedBy, where.of(location),
                    shown.length() == 0 ? "" : (sameFrame ? "changed: " : "locals: ") + shown);
            lastLocals.put(location.getMemberSignature(), locals);
            int next = script.isEmpty() ? StepType.CONTINUE : script.poll();
            arrivedBy = StepType.name(next);
            return next;
        }
    }

    private void stepThroughThePriceCalculation() throws Exception {
        heading("Breakpoint and steps: PriceCalculator.total");
        Method total = method(com.brantide.kelvane.demo.shop.PriceCalculator.class, "total");
        int firstLine = where.firstLine(total.getDeclaringClass(), BreakpointLocation.signatureOf(total));
        BreakpointLocation breakpoint = BreakpointLocation.forMethod(total, locationOfLine(total, firstLine));
        System.out.println("  breakpoint at " + where.of(breakpoint)
                + "; the hook answers STEP_OVER, STEP_OVER, STEP_IN, STEP_OUT, CONTINUE");
        api.setBreakpoint(breakpoint);
        api.registerBreakpointHook(new ScriptedSession(StepType.STEP_OVER, StepType.STEP_OVER, StepType.STEP_IN,
                StepType.STEP_OUT, StepType.CONTINUE));
        List<Item> items = List.of(new Item("lamp", 1999, 2), new Item("bulb", 250, 4));
        int quoted = AppThread.run(api, "shop-thread", new int[] {JvmtiEvent.BREAKPOINT}, () -> shop.quote(items, 10));
        api.clearBreakpoint(breakpoint);
        api.registerBreakpointHook(null);
        System.out.println("  quote: " + quoted + " cents; expected 4998 (4998 less 10%, plus 499 shipping):"
                + " applyDiscount takes the discount off twice");
    }

    // ---- 2. field watch and exception

    private void watchTheStockAndTheRefusal() throws Exception {
        heading("Field watch and exception: Inventory.stock");
        Field stock = com.brantide.kelvane.demo.shop.Inventory.class.getDeclaredField("stock");
        stock.setAccessible(true);
        api.setFieldModificationWatch(stock.getDeclaringClass(), stock);
        api.registerFieldHook(new FieldHook() {
            @Override
            public int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field) {
                return StepType.CONTINUE;
            }

            @Override
            public int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass,
                    Object object, Field field, Object value) {
                Object old;
                try {
                    old = stock.get(object);
                } catch (IllegalAccessException e) {
                    old = "?";
                }
                System.out.printf("  %s.%s: %s -> %s at %s%n", fieldClass.getSimpleName(), field.getName(), old,
                        value, where.of(location));
                return StepType.CONTINUE;
            }

            @Override
            public int fieldModifiedComplete(BreakpointLocation location, ThreadContext context) {
                return StepType.CONTINUE;
            }
        });
        api.registerExceptionHook(new ExceptionHook() {
            @Override
            public int exceptionThrown(BreakpointLocation location, ThreadContext context, Throwable exception,
                    BreakpointLocation catchLocation) {
                if (location != null && location.getMemberClass().getPackageName().endsWith(".shop")) {
                    System.out.printf("  %s \"%s\"%n    thrown at %s%n    caught at %s%n",
                            exception.getClass().getSimpleName(), exception.getMessage(), where.of(location),
                            catchLocation == null ? "(nowhere: the thread dies)" : where.of(catchLocation));
                }
                return StepType.CONTINUE;
            }

            @Override
            public int exceptionCatch(BreakpointLocation location, ThreadContext context, Throwable exception) {
                return StepType.CONTINUE;
            }
        });
        int[] events = {JvmtiEvent.FIELD_MODIFICATION, JvmtiEvent.EXCEPTION};
        List<String> results = AppThread.run(api, "shop-thread", events, () -> List.of(
                shop.placeOrder("ann", List.of(new Item("lamp", 1999, 3))),
                shop.placeOrder("bob", List.of(new Item("lamp", 1999, 4)))));
        api.clearFieldModificationWatch(stock.getDeclaringClass(), stock);
        api.registerFieldHook(null);
        api.registerExceptionHook(null);
        results.forEach(result -> System.out.println("  shop says: " + result));
    }

    // ---- 3. a template

    private void stepThroughTheTemplate() throws Exception {
        heading("Stepping through a template: checkout.tpl");
        Method plainRender = method(CheckoutView.class, "render");
        int firstLine = where.firstLine(CheckoutView.class, BreakpointLocation.signatureOf(plainRender));
        String smapText = Smap.build("CheckoutView.java", "checkout.tpl", firstLine,
                CheckoutView.JAVA_LINES_PER_TEMPLATE_LINE);
        Class<?> view = SourceDebugExtension.attach(CheckoutView.class, smapText);
        Smap smap = Smap.parse(api.getSourceDebugExtension(view));
        System.out.println("  CheckoutView carries a source map: " + CheckoutView.JAVA_LINES_PER_TEMPLATE_LINE.length
                + " template lines from " + (firstLine) + ".." + (firstLine
                + java.util.Arrays.stream(CheckoutView.JAVA_LINES_PER_TEMPLATE_LINE).sum() - 1) + " of its Java source");
        Method render = method(view, "render");
        BreakpointLocation breakpoint = BreakpointLocation.forMethod(render, 0);
        api.setBreakpoint(breakpoint);
        String[] arrivedBy = {"breakpoint"};
        Deque<Integer> script = new ArrayDeque<>(List.of(StepType.STEP_OVER, StepType.STEP_OVER, StepType.STEP_OVER));
        api.registerBreakpointHook((BreakpointHook) (location, context) -> {
            int javaLine = where.line(location);
            int line = smap.templateLine(javaLine);
            System.out.printf("  %-10s %s:%d  %-62s (Java line %d)%n", arrivedBy[0], smap.file(), line,
                    CheckoutView.TEMPLATE[line - 1], javaLine);
            int next = script.isEmpty() ? StepType.CONTINUE : script.poll();
            arrivedBy[0] = StepType.name(next);
            return next;
        });
        Order order = new Order(7, "ann", List.of(new Item("lamp", 1999, 3)));
        String html = AppThread.run(api, "shop-thread", new int[] {JvmtiEvent.BREAKPOINT},
                () -> (String) render.invoke(null, order, 5997));
        api.clearBreakpoint(breakpoint);
        api.registerBreakpointHook(null);
        System.out.println("  rendered " + html.lines().count() + " lines of HTML");
    }

    // ---- 4. the cost of a step over a heavy call

    private void timeAStepOver() throws Exception {
        heading("Step over a heavy call: the agent's two modes, a child JVM each");
        StepTiming.Times[] modes = new StepTiming.Times[2];
        Progress.during("timing", () -> {
            modes[0] = StepTiming.inChildJvm(false);
            modes[1] = StepTiming.inChildJvm(true);
        });
        System.out.printf("  step over a 10^7-iteration call: frame pop %d ms, compiled %d ms, no debugger %d ms%n",
                modes[0].stepped(), modes[1].stepped(), Math.min(modes[0].alone(), modes[1].alone()));
    }

    private void debugAVirtualThread() throws Exception {
        heading("A breakpoint and a step in a virtual thread (a child JVM with virtual threads)");
        Optional<List<String>> report = VirtualThreads.inChildJvm();
        if (report.isEmpty()) {
            System.out.println("  no JDK 21 or later here: no virtual threads to show");
            return;
        }
        report.get().forEach(System.out::println);
    }

    // ---- 5. heap

    private void histogram() throws Exception {
        heading("Heap histogram: the 15 largest classes");
        for (int i = 0; i < LEAKED_ORDERS; i++) {
            shop.record("customer-" + i, List.of(new Item("item-" + i, 100 + i, 1)));
        }
        System.out.println("  the shop has recorded " + OrderCache.size() + " orders");
        List<Object[]> rows = new ArrayList<>();
        Progress.during("counting the heap", () -> {
            api.forceGC();
            api.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
                for (int i = 0; i < names.length; i++) {
                    rows.add(new Object[] {names[i], counts[i], sizes[i]});
                }
            }, 30_000);
        });
        rows.sort((a, b) -> Long.compare((long) b[2], (long) a[2]));
        System.out.printf("  %4s  %-58s %10s %12s%n", "rank", "class", "instances", "size");
        for (int i = 0; i < 15 && i < rows.size(); i++) {
            Object[] row = rows.get(i);
            System.out.printf("  %4d  %-58s %10d %12s%n", i + 1, row[0], row[1], Values.size((long) row[2]));
        }
        rows.stream().filter(row -> Order.class.getName().equals(row[0])).findFirst().ifPresent(row -> System.out
                .printf("  ...   %-58s %10d %12s%n", row[0], row[1], Values.size((long) row[2])));
        Path csv = outputDirectory.resolve("kvjvmti-histogram.csv");
        Progress.during("writing " + csv.getFileName(), () -> api.heapHistogramToFile(csv.toString(), 30_000));
        System.out.println("  the whole histogram, one class a line: " + csv);
    }

    private void leakPaths() throws TimeoutException {
        heading("Why are the orders still alive? GC root paths of Order");
        GCPathEntry[] root = new GCPathEntry[1];
        Progress.during("following references",
                () -> api.gcRoots((GCRootsCallback) entry -> root[0] = entry, Order.class.descriptorString(), 30_000, 8));
        if (root[0] == null) {
            System.out.println("  no tree");
            return;
        }
        printTree(root[0], "", true, true);
    }

    private static void printTree(GCPathEntry entry, String indent, boolean last, boolean top) {
        String name = entry.getClazz() == null ? "GC root: " + GCPathEntry.kindName(entry.getKind())
                : entry.getClazz().getSimpleName() + (entry.getFieldName() == null ? "" : "." + entry.getFieldName())
                        + (top ? "" : " (" + GCPathEntry.kindName(entry.getKind()) + ")");
        System.out.printf("  %s%s%s  x%d  %s%n", indent, top ? "" : (last ? "`- " : "|- "), name, entry.getCount(),
                Values.size(entry.getSize()));
        List<GCPathEntry> children = entry.getChildren();
        for (int i = 0; i < children.size(); i++) {
            printTree(children.get(i), top ? "" : indent + (last ? "   " : "|  "), i == children.size() - 1, false);
        }
    }

    // ---- 6. a suspended worker

    private void suspendAWorker() throws Exception {
        heading("A suspended worker: its stack, then the threads");
        BlockingQueue<Order> queue = new ArrayBlockingQueue<>(10);
        Thread worker = new Thread(() -> {
            try {
                while (queue.take().id() >= 0) {
                    Thread.onSpinWait();
                }
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }, "order-worker");
        worker.start();
        while (worker.getState() != Thread.State.WAITING) {
            Thread.sleep(5);
        }
        api.suspendThread(worker, (SuspendCallback) (location, context) -> System.out.println(
                "  suspended " + context.getThread().getName() + " at " + where.of(location) + ", "
                        + context.getFrameCount() + " frames"));
        List<String> frames = new ArrayList<>();
        api.listStack(worker, api.getStackDepth(worker), (FrameCallback) location -> frames.add(where.of(location)));
        frames.forEach(frame -> System.out.println("    " + frame));
        List<String> threads = new ArrayList<>();
        api.listThreads((ThreadCallback) thread -> threads.add(thread.getName()));
        threads.removeIf(name -> !name.equals("main") && !name.startsWith("order-") && !name.startsWith("shop-"));
        threads.sort(null);
        System.out.println("  threads the agent watches (application threads): " + String.join(", ", threads));
        api.resumeThread(worker, StepType.CONTINUE);
        queue.put(new Order(-1, "stop", List.of()));
        worker.join();
        System.out.println("  resumed; the worker took its next order and finished");
    }
}
