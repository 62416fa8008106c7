package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.fixtures.HeapTarget;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The trees of references that keep instances alive. */
class GcRootsTest {
    private static final JvmtiApi API = new JvmtiApi();
    private static final int FIELD = 2;
    private static final int ARRAY_ELEMENT = 3;
    private static final int STATIC_FIELD = 8;

    @BeforeAll
    static void buildHeap() {
        API.registerClasses();
        assertTrue(API.setActive(true));
        HeapTarget.buildList(1000);
        HeapTarget.KEPT.add(new Object[] {new HeapTarget.InArray(), "x", new HeapTarget.InArray()});
        HeapTarget.KEPT.add(new HeapTarget.TwoFields());
        new HeapTarget.Unreachable().hashCode();
        API.forceGC();
    }

    private static GCPathEntry search(Class<?> clazz, int maxDepth) {
        return search(clazz.descriptorString(), maxDepth);
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
        return entry.getChildren().stream().map(GcRootsTest::describe).sorted().toList();
    }

    /** Every path ends at a GC root: a node without a class and without children. */
    private static void assertEndsAtRoots(GCPathEntry entry, int depth) {
        if (entry.getChildren().isEmpty()) {
            assertNull(entry.getClazz(), "leaf " + describe(entry) + " at depth " + depth);
            return;
        }
        int below = 0;
        for (GCPathEntry child : entry.getChildren()) {
            below += child.getCount();
            assertEndsAtRoots(child, depth + 1);
        }
        assertEquals(entry.getCount(), below, "counts add up under " + describe(entry));
    }

    @Test
    void aLinkedListCollapsesIntoItsLinkFieldAndTheStaticHolder() {
        GCPathEntry root = search(HeapTarget.Node.class, 100);
        assertEquals(HeapTarget.Node.class, root.getClazz());
        assertEquals(1000, root.getCount());
        assertTrue(root.getSize() >= 1000 * 12L);
        assertEquals(List.of("Holder/" + STATIC_FIELD + "/head/1", "Node/" + FIELD + "/next/999"), children(root));
        GCPathEntry link = root.getChildren().stream().filter(e -> e.getCount() == 999).findFirst().orElseThrow();
        assertEquals(List.of("Holder/" + STATIC_FIELD + "/head/999"), children(link));
        assertEndsAtRoots(root, 0);
    }

    @Test
    void arrayElementsMergeAndFieldsStayApart() {
        GCPathEntry inArray = search(HeapTarget.InArray.class, 1);
        assertEquals(List.of("Object[]/" + ARRAY_ELEMENT + "/null/2"), children(inArray));
        assertEquals(0, inArray.getChildren().get(0).getIndex(), "the index of the first element");
        assertTrue(inArray.getChildren().get(0).getChildren().isEmpty(), "maxDepth 1 builds one level");

        GCPathEntry inFields = search(HeapTarget.InFields.class, 3);
        assertEquals(List.of("TwoFields/" + FIELD + "/first/1", "TwoFields/" + FIELD + "/second/1"),
                children(inFields));
    }

    @Test
    void noReachableInstanceAndPrefixesAndUnknownClasses() {
        GCPathEntry none = search(HeapTarget.Unreachable.class, 5);
        assertNull(none.getClazz());
        assertEquals(0, none.getCount());
        assertTrue(none.getChildren().isEmpty());

        String full = HeapTarget.Node.class.descriptorString();
        GCPathEntry prefix = search(full.substring(0, full.length() - 1), 5);
        assertTrue(prefix.getClazz() == null || prefix.getClazz().descriptorString().startsWith(full.substring(0,
                full.length() - 1)), "the first loaded class that starts with the text");

        List<GCPathEntry> delivered = new ArrayList<>();
        API.gcRoots((GCRootsCallback) delivered::add, "Lno/such/Clazz;", 0, 5);
        assertTrue(delivered.isEmpty(), "a class that is not loaded: no callback, no exception");
    }

    @Test
    void badArgumentsAndNoTagLeftBehind() {
        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> API.gcRoots(null, "LX;", 0, 1)).getMessage());
        assertEquals("maxDepth is negative", assertThrows(IllegalArgumentException.class,
                () -> API.gcRoots((GCRootsCallback) r -> { }, "LX;", 0, 0)).getMessage());
        assertThrows(IllegalArgumentException.class, () -> API.gcRoots((GCRootsCallback) r -> { }, null, 0, 1));
        GCPathEntry before = search(HeapTarget.Node.class, 2);
        List<GCPathEntry> throwing = new ArrayList<>();
        assertThrows(IllegalStateException.class, () -> API.gcRoots((GCRootsCallback) r -> {
            throwing.add(r);
            throw new IllegalStateException("callback failure");
        }, HeapTarget.Node.class.descriptorString(), 0, 2));
        assertEquals(1, throwing.size());
        long[] counted = new long[1];
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            for (int i = 0; i < names.length; i++) {
                if (HeapTarget.Node.class.getName().equals(names[i])) {
                    counted[0] = counts[i];
                }
            }
        }, 0);
        assertEquals(1000, counted[0], "a histogram after the searches counts every node: no tag left behind");
        assertEquals(before.getCount(), search(HeapTarget.Node.class, 2).getCount());
    }
}
