package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.fixtures.HeapTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ActiveApi;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.lang.ref.Reference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.regex.Pattern;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.RegisterExtension;

/**
 * Class histograms and GC-root searches on one heap of known content, and walks cut short by a time
 * limit, a failing callback, a memory ceiling or tag clearing that fails. The probe agent counts the
 * tags a walk leaves behind.
 */
class HeapProbeTest {
    private static final long COUNTED = 1234;
    private static final String COUNTED_NAME = HeapTarget.Counted.class.getName();
    private static final String NODE = HeapTarget.Node.class.descriptorString();
    private static final Pattern JCMD_LINE = Pattern.compile("^\\s*\\d+:\\s+(\\d+)\\s+(\\d+)\\s+(\\S+)");
    private static final JvmtiApi API = new JvmtiApi();

    @RegisterExtension
    final ActiveApi agent = new ActiveApi();

    @BeforeAll
    static void fillTheHeap() {
        new HeapTarget.Never().hashCode();
        // Garbage first, which a histogram must not count once a collection has run.
        Stream.generate(HeapTarget.Counted::new).limit(COUNTED).forEach(Object::hashCode);
        Stream.generate(HeapTarget.Counted::new).limit(COUNTED).forEach(HeapTarget.KEPT::add);
        IntStream.range(0, 300_000).forEach(i -> HeapTarget.KEPT.add(new int[1]));
        HeapTarget.buildList(1000);
        HeapTarget.KEPT.add(new Object[] {new HeapTarget.InArray(), "x", new HeapTarget.InArray()});
        HeapTarget.KEPT.add(new HeapTarget.TwoFields());
        HeapTarget.KEPT.addAll(List.of(new HeapTarget.HeldThroughSuperclass(),
                new HeapTarget.HeldThroughSuperinterface(), new HeapTarget.HeldThroughBoth()));
        HeapTarget.HeldByAnInterface.HELD.hashCode();
        API.forceGC();
    }

    /** name -> [count, size] */
    private static Map<String, List<Long>> histogram() {
        Map<String, List<Long>> byName = new HashMap<>();
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            for (int i = 0; i < names.length; i++) {
                byName.put(names[i], List.of(counts[i], sizes[i]));
            }
        }, 0);
        return byName;
    }

    /** [count, size] of the class in the VM's own histogram. */
    private static List<Long> jcmdHistogram(String className) throws Exception {
        return ChildJvm.jcmd(ProcessHandle.current().pid(), "GC.class_histogram", "-all").lines()
                .map(JCMD_LINE::matcher).filter(m -> m.find() && m.group(3).equals(className))
                .map(m -> List.of(Long.parseLong(m.group(1)), Long.parseLong(m.group(2)))).findFirst().orElseThrow();
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

    /** Every path ends at a GC root (no class, no children) or at the depth limit, and counts add up at every node. */
    private static void assertEndsAtRoots(GCPathEntry entry, int levelsLeft) {
        if (entry.getChildren().isEmpty()) {
            assertTrue(entry.getClazz() == null || levelsLeft == 0, "leaf " + describe(entry));
        } else {
            assertEquals(entry.getCount(), entry.getChildren().stream().mapToInt(GCPathEntry::getCount).sum());
            entry.getChildren().forEach(child -> assertEndsAtRoots(child, levelsLeft - 1));
        }
    }

    @Test
    void histogramsAgreeWithTheVmsOwnAndTheFileReplacesWhateverIsAtItsPath() throws Exception {
        Path link = ChildJvm.workDirectory().resolve("histogram-link.csv");
        Path linked = ChildJvm.workDirectory().resolve("linked-from-histogram.txt");
        Files.deleteIfExists(link);
        Files.writeString(linked, "not the histogram's\n");
        Files.createSymbolicLink(link, linked);
        // The callback waits for the same walk on another thread: no lock may be held across it.
        Map<String, List<Long>> ours = new HashMap<>();
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> ours.putAll(CompletableFuture
                .supplyAsync(() -> histogram()).orTimeout(30, TimeUnit.SECONDS).join()), 0);
        API.heapHistogramToFile(link.toString(), 0);
        List<Long> counted = jcmdHistogram(COUNTED_NAME);
        assertEquals(COUNTED, counted.get(0));
        assertEquals(counted, ours.get(COUNTED_NAME), "count and size");
        assertEquals(List.of(0L, 0L), ours.get(HeapTarget.Never.class.getName()), "loaded, no instances");
        assertTrue(ours.get("[I").get(0) >= 300_000, "arrays by their descriptor");
        List<String> file = Files.readAllLines(link);
        assertTrue(file.containsAll(List.of(COUNTED_NAME + "," + COUNTED + "," + counted.get(1),
                HeapTarget.Never.class.getName() + ",0,0")), String.join("\n", file));
        assertFalse(Files.isSymbolicLink(link), "the link is replaced");
        assertEquals("not the histogram's\n", Files.readString(linked), "what it pointed to is untouched");
        try (Stream<Path> files = Files.list(link.getParent())) {
            assertEquals(List.of(), files.map(Path::toString).filter(name -> name.endsWith(".tmp")).toList());
        }
    }

    @Test
    void gcRootTreesMergeArrayElementsCollapseListsAndKeepFieldsApart() {
        GCPathEntry root = search(NODE, 100);
        assertEquals(List.of(HeapTarget.Node.class, 1000), List.of(root.getClazz(), root.getCount()));
        assertTrue(root.getSize() >= 1000 * 12L);
        // Link kinds: 2 field, 3 array element, 8 static field.
        assertEquals(List.of("Holder/8/head/1", "Node/2/next/999"), children(root));
        GCPathEntry link = root.getChildren().stream().filter(e -> e.getCount() == 999).findFirst().orElseThrow();
        assertEquals(List.of("Holder/8/head/999"), children(link));
        assertEndsAtRoots(root, 100);
        int[] inner = new int[1];
        API.gcRoots((GCRootsCallback) entry -> inner[0] = CompletableFuture.supplyAsync(() -> search(NODE, 2).getCount())
                .orTimeout(30, TimeUnit.SECONDS).join(), NODE, 0, 2);
        assertEquals(1000, inner[0], "the callback waited for the same search on another thread");

        GCPathEntry inArray = search(HeapTarget.InArray.class.descriptorString(), 1);
        assertEquals(List.of("Object[]/3/null/2"), children(inArray));
        assertEquals(0, inArray.getChildren().get(0).getIndex(), "the index of the first element");
        assertTrue(inArray.getChildren().get(0).getChildren().isEmpty(), "maxDepth 1 builds one level");
        assertEquals(List.of("TwoFields/2/first/1", "TwoFields/2/second/1"),
                children(search(HeapTarget.InFields.class.descriptorString(), 3)));

        // The field holding the instance, whatever the constants declared by the holder's interfaces,
        // inherited through superclasses and superinterfaces: the VM numbers those fields first.
        assertEquals(List.of("HeldByAnInterface/8/HELD/1", "HeldThroughBoth/2/held/1", "HeldThroughBoth/8/kept/1",
                "HeldThroughSuperclass/2/held/1", "HeldThroughSuperinterface/2/held/1"),
                children(search(HeapTarget.Named.class.descriptorString(), 1)));

        GCPathEntry none = search(HeapTarget.Never.class.descriptorString(), 5);
        assertEquals(Arrays.asList(null, 0, List.of()), Arrays.asList(none.getClazz(), none.getCount(), none.getChildren()));
        List<GCPathEntry> delivered = new ArrayList<>();
        API.gcRoots((GCRootsCallback) delivered::add, "Lno/such/Clazz;", 0, 5);
        assertEquals(List.of(), delivered, "a class that is not loaded: no callback, no exception");
    }

    @Test
    void walksCutShortOrFailingToClearTheirTagsLeaveNoTagBehind() throws Exception {
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
        assertThrows(TimeoutException.class, () -> API.gcRoots((GCRootsCallback) tree::add, NODE, 1, 5));
        assertEquals(1, tree.size(), "the partial tree came first");
        assertEquals("callback failure", assertThrows(IllegalStateException.class, () -> API.gcRoots(
                (GCRootsCallback) r -> { throw new IllegalStateException("callback failure"); }, NODE, 0, 2)).getMessage());
        assertEquals(0, AgentProbe.tagsLeft());

        ChildJvm.Result result = ChildJvm.main(CeilingMain.class.getName()).withProbeAgent()
                .property("kv.jvmti.heap.walk.max.mb", "2").run().assertClean();
        assertEquals(List.of("Heap walk stopped: it needs more than 2 MB of native memory (kv.jvmti.heap.walk.max.mb)",
                "counted 200000, tags left 0"), result.stdoutLines());

        // Tags that could not be cleared are cleared before the next walk, or it refuses.
        tree.clear();
        try {
            AgentProbe.failTagClearing(2, 0);
            JVMTIException failed = assertThrows(JVMTIException.class,
                    () -> API.gcRoots((GCRootsCallback) tree::add, NODE, 0, 2));
            assertEquals(List.of("JVMTI_ERROR_INTERNAL", 1), List.of(failed.getMessage(), tree.size()));
            assertTrue(AgentProbe.tagsLeft() > 1000, "the nodes are still tagged");
            assertEquals("Tags of an earlier heap walk could not be cleared (JVMTI_ERROR_INTERNAL): heap walks are "
                    + "refused until they are", assertThrows(IllegalStateException.class, () -> histogram()).getMessage());
            AgentProbe.failTagClearing(0, 1);
            assertEquals(COUNTED, histogram().get(COUNTED_NAME).get(0), "cleared first, then counted");
            assertEquals(1, AgentProbe.tagsLeft(), "the class tag that could not be cleared");
        } finally {
            AgentProbe.failTagClearing(0, 0);
        }
        assertEquals(1000, search(NODE, 2).getCount());
        assertEquals(0, AgentProbe.tagsLeft());
    }

    /** Keeps 200,000 objects reachable, searches them past a 2 MB walk ceiling, then counts them. */
    public static final class CeilingMain {
        public static void main(String[] args) {
            API.registerClasses();
            API.setActive(true);
            List<HeapTarget.Counted> kept = Stream.generate(HeapTarget.Counted::new).limit(200_000).toList();
            try {
                API.gcRoots((GCRootsCallback) root -> System.out.println("delivered"),
                        HeapTarget.Counted.class.descriptorString(), 0, 3);
            } catch (IllegalStateException e) {
                System.out.println(e.getMessage());
            }
            System.out.println("counted " + histogram().get(COUNTED_NAME).get(0) + ", tags left " + AgentProbe.tagsLeft());
            Reference.reachabilityFence(kept);
        }
    }
}
