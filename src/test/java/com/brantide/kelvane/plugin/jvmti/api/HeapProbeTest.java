package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.fixtures.HeapTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.lang.ref.Reference;
import java.lang.reflect.Field;
import java.lang.reflect.Modifier;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.function.Supplier;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * Class histograms and GC-root searches on one heap of known content: against the VM's own
 * histogram, with time limits, concurrent and re-entrant callers, a memory ceiling and tag
 * clearing that fails. The probe agent counts the tags a walk leaves behind.
 */
class HeapProbeTest {
    private static final long COUNTED = 1234;
    private static final String COUNTED_NAME = HeapTarget.Counted.class.getName();
    private static final String NODE = HeapTarget.Node.class.descriptorString();
    private static final Pattern JCMD_LINE = Pattern.compile("^\\s*\\d+:\\s+(\\d+)\\s+(\\d+)\\s+(\\S+)");
    private static final JvmtiApi API = new JvmtiApi();
    private static final List<Object> PADDING = new ArrayList<>();
    private static final List<Object> HOLDERS = List.of(new HeapTarget.HeldThroughSuperclass(),
            new HeapTarget.HeldThroughSuperinterface(), new HeapTarget.HeldThroughBoth());

    @BeforeAll
    static void fillTheHeap() {
        API.registerClasses();
        assertTrue(API.setActive(true));
        new HeapTarget.Never().hashCode();
        new HeapTarget.Unreachable().hashCode();
        // Garbage first, which the histogram must not count once the collection has run.
        for (int round = 0; round < 2; round++) {
            HeapTarget.KEPT.clear();
            for (int i = 0; i < COUNTED; i++) {
                HeapTarget.KEPT.add(new HeapTarget.Counted(i));
            }
            for (int i = 0; i < 150_000; i++) {
                PADDING.add(new int[1]);
            }
        }
        HeapTarget.buildList(1000);
        HeapTarget.KEPT.add(new Object[] {new HeapTarget.InArray(), "x", new HeapTarget.InArray()});
        HeapTarget.KEPT.add(new HeapTarget.TwoFields());
        HeapTarget.KEPT.addAll(HOLDERS);
        HeapTarget.HeldByAnInterface.HELD.hashCode();
        API.forceGC();
    }

    /** name -> [count, size] */
    private static Map<String, List<Long>> histogram(long limit) {
        Map<String, List<Long>> byName = new HashMap<>();
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            for (int i = 0; i < names.length; i++) {
                byName.put(names[i], List.of(counts[i], sizes[i]));
            }
        }, limit);
        return byName;
    }

    private static Map<String, List<Long>> fromFile(Path file) throws Exception {
        List<String> lines = Files.readAllLines(file);
        assertEquals("CLASS_NAME,COUNT,SIZE", lines.get(0));
        return lines.stream().skip(1).map(line -> line.split(",")).collect(Collectors.toMap(f -> f[0],
                f -> f.length < 3 ? List.of() : List.of(Long.parseLong(f[1]), Long.parseLong(f[2])), (a, b) -> b));
    }

    private static Map<String, List<Long>> jcmdHistogram() throws Exception {
        // Into a file, not a pipe: newer VMs (JDK 25 here) stream the histogram to jcmd while they
        // hold this VM at a safepoint, so a pipe that this VM must drain would never empty.
        Path output = ChildJvm.workDirectory().resolve("jcmd-histogram.txt");
        assertEquals(0, new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(),
                Long.toString(ProcessHandle.current().pid()), "GC.class_histogram", "-all")
                .redirectOutput(output.toFile()).start().waitFor());
        return Files.readAllLines(output).stream().map(JCMD_LINE::matcher).filter(Matcher::find).collect(Collectors
                .toMap(m -> m.group(3), m -> List.of(Long.parseLong(m.group(1)), Long.parseLong(m.group(2))), (a, b) -> b));
    }

    private static GCPathEntry search(String signature, int maxDepth) {
        List<GCPathEntry> delivered = new ArrayList<>();
        API.gcRoots((GCRootsCallback) delivered::add, signature, 0, maxDepth);
        assertEquals(1, delivered.size());
        return delivered.get(0);
    }

    private static String describe(GCPathEntry entry) {
        return (entry.getClazz() == null ? "root" : entry.getClazz().getSimpleName()) + "/" + entry.getKind() + "/"
                + entry.getFieldName() + "/" + entry.getCount();
    }

    private static List<String> children(GCPathEntry entry) {
        return entry.getChildren().stream().map(HeapProbeTest::describe).sorted().toList();
    }

    /** Every path ends at a GC root (no class, no children), and counts add up at every node. */
    private static void assertEndsAtRoots(GCPathEntry entry) {
        if (entry.getChildren().isEmpty()) {
            assertNull(entry.getClazz(), "leaf " + describe(entry));
        } else {
            assertEquals(entry.getCount(), entry.getChildren().stream().mapToInt(GCPathEntry::getCount).sum());
            entry.getChildren().forEach(HeapProbeTest::assertEndsAtRoots);
        }
    }

    /** The walk, run on another thread and waited for: it cannot end while this thread holds a lock it needs. */
    private static long onAnotherThread(Supplier<Long> walk) {
        try {
            return CompletableFuture.supplyAsync(walk).get(30, TimeUnit.SECONDS);
        } catch (Exception e) {
            throw new AssertionError("the inner walk waits for the outer one", e);
        }
    }

    @Test
    void histogramsAgreeWithTheVmsOwnAndTheFileReplacesWhateverIsAtItsPath() throws Exception {
        Path directory = ChildJvm.workDirectory();
        Path file = directory.resolve("histogram.csv");
        Files.writeString(file, "left over from an earlier run\n".repeat(100));
        Path link = directory.resolve("histogram-link.csv");
        Path linked = directory.resolve("linked-from-histogram.txt");
        Files.deleteIfExists(link);
        Files.writeString(linked, "not the histogram's\n");
        Files.createSymbolicLink(link, linked);
        Map<String, List<Long>> ours = histogram(0);
        API.heapHistogramToFile(file.toString(), -1);
        API.heapHistogramToFile(link.toString(), 0);
        Map<String, List<Long>> vm = jcmdHistogram();
        assertEquals(COUNTED, ours.get(COUNTED_NAME).get(0));
        for (Map<String, List<Long>> histogram : List.of(ours, fromFile(file), fromFile(link))) {
            assertEquals(vm.get(COUNTED_NAME), histogram.get(COUNTED_NAME));
            assertEquals(List.of(0L, 0L), histogram.get(HeapTarget.Never.class.getName()), "loaded, no instances");
            assertTrue(histogram.get("[I").get(0) >= 300_000);
            assertFalse(histogram.containsKey("#TIMEOUT"));
        }
        assertFalse(Files.isSymbolicLink(link), "the link is replaced");
        assertEquals("not the histogram's\n", Files.readString(linked), "what it pointed to is untouched");
        try (Stream<Path> files = Files.list(directory)) {
            assertEquals(List.of(), files.map(p -> p.getFileName().toString())
                    .filter(name -> name.startsWith("histogram") && name.endsWith(".tmp")).toList());
        }
    }

    @Test
    void timeLimitsDeliverPartialResultsThenRaiseAndLeaveNoTagBehind() throws Exception {
        List<long[]> partial = new ArrayList<>();
        assertEquals("Timeout occurred", assertThrows(TimeoutException.class, () -> API.heapHistogram(
                (HistogramCallback) (names, counts, sizes) -> partial.add(counts), 1)).getMessage());
        long seen = partial.stream().flatMapToLong(Arrays::stream).sum();
        assertTrue(seen > 0 && seen <= 100_000, "delivered first, stopped at the first check: " + seen);

        Path file = ChildJvm.workDirectory().resolve("timeout.csv");
        assertThrows(TimeoutException.class, () -> API.heapHistogramToFile(file.toString(), 1));
        List<String> lines = Files.readAllLines(file);
        assertEquals("#TIMEOUT", lines.get(lines.size() - 1));

        List<GCPathEntry> tree = new ArrayList<>();
        assertEquals("Timeout occurred", assertThrows(TimeoutException.class,
                () -> API.gcRoots((GCRootsCallback) tree::add, NODE, 1, 5)).getMessage());
        assertEquals(1, tree.size(), "the partial tree came first");

        assertEquals(0, AgentProbe.tagsLeft());
        assertEquals(COUNTED, histogram(0).get(COUNTED_NAME).get(0), "full counts again");
    }

    @Test
    void concurrentAndReentrantWalksNeitherBlockNorDisagree() throws Exception {
        List<Map<String, List<Long>>> results = Collections.synchronizedList(new ArrayList<>());
        List<Thread> threads = Stream.generate(() -> new Thread(() -> results.add(histogram(0)))).limit(2).toList();
        threads.forEach(Thread::start);
        for (Thread thread : threads) {
            thread.join(60_000);
        }
        assertEquals(List.of(COUNTED, COUNTED), results.stream().map(r -> r.get(COUNTED_NAME).get(0)).toList());

        // Each callback waits for the same walk on another thread: no lock may be held across it.
        long[] inner = new long[2];
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> inner[0] = onAnotherThread(
                () -> histogram(0).get(COUNTED_NAME).get(0)), 0);
        API.gcRoots((GCRootsCallback) root -> inner[1] = onAnotherThread(() -> (long) search(NODE, 2).getCount()),
                NODE, 0, 2);
        assertEquals(List.of(COUNTED, 1000L), List.of(inner[0], inner[1]));
    }

    @Test
    void aLinkedListCollapsesArrayElementsMergeAndFieldsStayApart() {
        GCPathEntry root = search(NODE, 100);
        assertEquals(List.of(HeapTarget.Node.class, 1000), List.of(root.getClazz(), root.getCount()));
        assertTrue(root.getSize() >= 1000 * 12L);
        // Link kinds: 2 field, 3 array element, 8 static field.
        assertEquals(List.of("Holder/8/head/1", "Node/2/next/999"), children(root));
        GCPathEntry link = root.getChildren().stream().filter(e -> e.getCount() == 999).findFirst().orElseThrow();
        assertEquals(List.of("Holder/8/head/999"), children(link));
        assertEndsAtRoots(root);

        GCPathEntry inArray = search(HeapTarget.InArray.class.descriptorString(), 1);
        assertEquals(List.of("Object[]/3/null/2"), children(inArray));
        assertEquals(0, inArray.getChildren().get(0).getIndex(), "the index of the first element");
        assertTrue(inArray.getChildren().get(0).getChildren().isEmpty(), "maxDepth 1 builds one level");

        assertEquals(List.of("TwoFields/2/first/1", "TwoFields/2/second/1"),
                children(search(HeapTarget.InFields.class.descriptorString(), 3)));

        // Each holder names the field that reflection finds holding the instance, whatever the
        // constants its interfaces declare through superclasses and superinterfaces.
        List<String> holders = new ArrayList<>();
        for (Object holder : HOLDERS) {
            holders.add(holder.getClass().getSimpleName() + "/2/" + namedField(holder.getClass(), false) + "/1");
        }
        for (Class<?> holder : List.of(HeapTarget.HeldThroughBoth.class, HeapTarget.HeldByAnInterface.class)) {
            holders.add(holder.getSimpleName() + "/8/" + namedField(holder, true) + "/1");
        }
        Collections.sort(holders);
        assertEquals(holders, children(search(HeapTarget.Named.class.descriptorString(), 1)));

        // Primitive arrays lead nowhere and go unrecorded, unless they are what is searched for.
        GCPathEntry ints = search("[I", 1);
        assertTrue(ints.getCount() >= 2 * 150_000, describe(ints));
        assertTrue(ints.getChildren().stream().anyMatch(e -> e.getClazz() == Object[].class && e.getCount() >= 2 * 150_000),
                children(ints).toString());
    }

    /** The field of the class that holds a Named. */
    private static String namedField(Class<?> clazz, boolean isStatic) {
        return Arrays.stream(clazz.getDeclaredFields()).filter(f -> f.getType() == HeapTarget.Named.class)
                .filter(f -> Modifier.isStatic(f.getModifiers()) == isStatic).map(Field::getName).findFirst().orElseThrow();
    }

    @Test
    void noReachableInstanceUnknownClassesAndBadArgumentsLeaveNoTagBehind() {
        GCPathEntry none = search(HeapTarget.Unreachable.class.descriptorString(), 5);
        assertEquals(List.of(0, List.of()), List.of(none.getCount(), none.getChildren()));
        assertNull(none.getClazz());
        List<GCPathEntry> delivered = new ArrayList<>();
        API.gcRoots((GCRootsCallback) delivered::add, "Lno/such/Clazz;", 0, 5);
        assertTrue(delivered.isEmpty(), "a class that is not loaded: no callback, no exception");

        assertEquals(List.of("callback is null", "maxDepth is negative", "signature is null", "callback is null",
                "filename is null", "Native error 'No such file or directory' 2", "callback failure"), List.of(
                assertThrows(IllegalArgumentException.class, () -> API.gcRoots(null, "LX;", 0, 1)).getMessage(),
                assertThrows(IllegalArgumentException.class,
                        () -> API.gcRoots((GCRootsCallback) r -> { }, "LX;", 0, 0)).getMessage(),
                assertThrows(IllegalArgumentException.class,
                        () -> API.gcRoots((GCRootsCallback) r -> { }, null, 0, 1)).getMessage(),
                assertThrows(IllegalArgumentException.class, () -> API.heapHistogram(null, 0)).getMessage(),
                assertThrows(IllegalArgumentException.class, () -> API.heapHistogramToFile(null, 0)).getMessage(),
                assertThrows(IllegalStateException.class,
                        () -> API.heapHistogramToFile("/nonexistent-dir/histogram.csv", 0)).getMessage(),
                assertThrows(IllegalStateException.class, () -> API.gcRoots((GCRootsCallback) r -> {
                    throw new IllegalStateException("callback failure");
                }, NODE, 0, 2)).getMessage()));
        assertThrows(NoSuchMethodError.class, () -> API.heapHistogram(new Object(), 0));
        assertEquals(0, AgentProbe.tagsLeft());
        assertEquals(1000, search(NODE, 2).getCount());
    }

    @Test
    void tagsThatCouldNotBeClearedAreClearedBeforeTheNextWalkOrItRefuses() {
        List<GCPathEntry> delivered = new ArrayList<>();
        try {
            AgentProbe.failTagClearing(2, 0);
            JVMTIException failed = assertThrows(JVMTIException.class,
                    () -> API.gcRoots((GCRootsCallback) delivered::add, NODE, 0, 2));
            assertEquals(List.of("JVMTI_ERROR_INTERNAL", 1), List.of(failed.getMessage(), delivered.size()));
            assertTrue(AgentProbe.tagsLeft() > 1000, "the nodes are still tagged");
            assertEquals("Tags of an earlier heap walk could not be cleared (JVMTI_ERROR_INTERNAL): heap walks are "
                    + "refused until they are", assertThrows(IllegalStateException.class, () -> histogram(0)).getMessage());
            AgentProbe.failTagClearing(0, 1);
            assertEquals(COUNTED, histogram(0).get(COUNTED_NAME).get(0), "cleared first, then counted");
            assertEquals(1, AgentProbe.tagsLeft(), "the class tag that could not be cleared");
        } finally {
            AgentProbe.failTagClearing(0, 0);
        }
        assertEquals(1000, search(NODE, 2).getCount());
        assertEquals(0, AgentProbe.tagsLeft());
    }

    @Test
    void aWalkPastItsMemoryCeilingStopsAndLeavesTheHeapCountable() throws Exception {
        ChildJvm.Result result = ChildJvm.main(CeilingMain.class).withProbeAgent()
                .property("kv.jvmti.heap.walk.max.mb", "2").run().assertClean();
        assertEquals(List.of("Heap walk stopped: it needs more than 2 MB of native memory (kv.jvmti.heap.walk.max.mb)",
                "counted 200000, tags left 0"), result.stdoutLines());
    }

    /** Keeps 200,000 objects reachable, searches them past a 2 MB walk ceiling, then counts them. */
    public static final class CeilingMain {
        public static void main(String[] args) {
            API.registerClasses();
            API.setActive(true);
            List<HeapTarget.Counted> kept = Stream.iterate(0L, i -> i + 1).limit(200_000).map(HeapTarget.Counted::new)
                    .toList();
            try {
                API.gcRoots((GCRootsCallback) root -> System.out.println("delivered"), HeapTarget.Counted.class.descriptorString(), 0, 3);
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
            System.out.println("counted " + histogram(0).get(COUNTED_NAME).get(0) + ", tags left " + AgentProbe.tagsLeft());
            Reference.reachabilityFence(kept);
        }
    }
}
