package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.fixtures.HeapTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeoutException;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** Class histograms against the VM's own, with time limits and concurrent callers. */
class HeapHistogramTest {
    private static final int COUNTED = 1234;
    private static final Pattern JCMD_LINE = Pattern.compile("^\\s*\\d+:\\s+(\\d+)\\s+(\\d+)\\s+(\\S+)");
    private static final JvmtiApi API = new JvmtiApi();
    private static final List<Object> PADDING = new ArrayList<>();

    @BeforeAll
    static void fillTheHeap() {
        API.registerClasses();
        assertTrue(API.setActive(true));
        new HeapTarget.Never().hashCode();
        for (int i = 0; i < COUNTED; i++) {
            HeapTarget.KEPT.add(new HeapTarget.Counted(i));
        }
        for (int i = 0; i < 300_000; i++) {
            PADDING.add(new int[1]);
        }
        HeapTarget.KEPT.clear();
        for (int i = 0; i < COUNTED; i++) {
            HeapTarget.KEPT.add(new HeapTarget.Counted(i));
        }
        API.forceGC();
    }

    /** name -> {count, size} */
    private static Map<String, long[]> histogram(long limit) {
        Map<String, long[]> byName = new HashMap<>();
        API.heapHistogram((HistogramCallback) (names, counts, sizes) -> {
            assertEquals(names.length, counts.length);
            assertEquals(names.length, sizes.length);
            for (int i = 0; i < names.length; i++) {
                byName.put(names[i], new long[] {counts[i], sizes[i]});
            }
        }, limit);
        return byName;
    }

    private static Map<String, long[]> fromFile(Path file) throws Exception {
        List<String> lines = Files.readAllLines(file);
        assertEquals("CLASS_NAME,COUNT,SIZE", lines.get(0));
        Map<String, long[]> byName = new HashMap<>();
        for (String line : lines.subList(1, lines.size())) {
            if (line.equals("#TIMEOUT")) {
                byName.put(line, new long[0]);
                continue;
            }
            String[] fields = line.split(",");
            byName.put(fields[0], new long[] {Long.parseLong(fields[1]), Long.parseLong(fields[2])});
        }
        return byName;
    }

    private static Map<String, long[]> jcmdHistogram() throws Exception {
        // Into a file, not a pipe: newer VMs (JDK 25 here) stream the histogram to jcmd while they
        // hold this VM at a safepoint, so a pipe that this VM must drain would never empty.
        Path output = ChildJvm.workDirectory().resolve("jcmd-histogram.txt");
        Process jcmd = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(),
                Long.toString(ProcessHandle.current().pid()), "GC.class_histogram", "-all")
                .redirectOutput(output.toFile()).start();
        assertEquals(0, jcmd.waitFor());
        Map<String, long[]> byName = new HashMap<>();
        for (String line : Files.readAllLines(output)) {
            Matcher matcher = JCMD_LINE.matcher(line);
            if (matcher.find()) {
                byName.put(matcher.group(3), new long[] {Long.parseLong(matcher.group(1)), Long.parseLong(matcher.group(2))});
            }
        }
        return byName;
    }

    @Test
    void countsAndSizesAgreeWithTheVmsOwnHistogram() throws Exception {
        Path file = ChildJvm.workDirectory().resolve("histogram.csv");
        Files.writeString(file, "left over from an earlier run\n".repeat(100));
        Map<String, long[]> ours = histogram(0);
        API.heapHistogramToFile(file.toString(), -1);
        Map<String, long[]> written = fromFile(file);
        Map<String, long[]> vm = jcmdHistogram();
        String counted = HeapTarget.Counted.class.getName();
        assertEquals(COUNTED, ours.get(counted)[0]);
        for (Map<String, long[]> histogram : List.of(ours, written)) {
            assertEquals(List.of(vm.get(counted)[0], vm.get(counted)[1]),
                    List.of(histogram.get(counted)[0], histogram.get(counted)[1]));
            assertEquals(List.of(0L, 0L), List.of(histogram.get(HeapTarget.Never.class.getName())[0],
                    histogram.get(HeapTarget.Never.class.getName())[1]), "loaded, no instances");
            assertTrue(histogram.get("[I")[0] >= 300_000);
            assertTrue(!histogram.containsKey("#TIMEOUT"));
        }
    }

    @Test
    void aTimeLimitDeliversAPartialHistogramThenRaisesAndLeavesNoTagBehind() throws Exception {
        Map<String, long[]> partial = new HashMap<>();
        TimeoutException timeout = assertThrows(TimeoutException.class, () -> API.heapHistogram(
                (HistogramCallback) (names, counts, sizes) -> partial.put("delivered", counts), 1));
        assertEquals("Timeout occurred", timeout.getMessage());
        assertNotNull(partial.get("delivered"), "the partial histogram came first");
        long seen = 0;
        for (long count : partial.get("delivered")) {
            seen += count;
        }
        assertTrue(seen > 0 && seen <= 100_000, "stopped at the first check: " + seen);

        Path file = ChildJvm.workDirectory().resolve("timeout.csv");
        assertThrows(TimeoutException.class, () -> API.heapHistogramToFile(file.toString(), 1));
        List<String> lines = Files.readAllLines(file);
        assertEquals("#TIMEOUT", lines.get(lines.size() - 1));

        assertEquals(COUNTED, histogram(0).get(HeapTarget.Counted.class.getName())[0], "full counts again");
    }

    @Test
    void twoHistogramsAtOnceBothSucceedAndAgree() throws Exception {
        List<Map<String, long[]>> results = new ArrayList<>();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < 2; i++) {
            Thread thread = new Thread(() -> {
                Map<String, long[]> result = histogram(0);
                synchronized (results) {
                    results.add(result);
                }
            });
            threads.add(thread);
            thread.start();
        }
        for (Thread thread : threads) {
            thread.join(60_000);
        }
        assertEquals(2, results.size());
        String counted = HeapTarget.Counted.class.getName();
        assertEquals(results.get(0).get(counted)[0], results.get(1).get(counted)[0]);
        assertEquals(COUNTED, results.get(0).get(counted)[0]);
    }

    @Test
    void badArgumentsAreRefused() {
        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> API.heapHistogram(null, 0)).getMessage());
        assertEquals("filename is null",
                assertThrows(IllegalArgumentException.class, () -> API.heapHistogramToFile(null, 0)).getMessage());
        IllegalStateException unwritable = assertThrows(IllegalStateException.class,
                () -> API.heapHistogramToFile("/nonexistent-dir/histogram.csv", 0));
        assertTrue(unwritable.getMessage().contains("No such file or directory"), unwritable.getMessage());
        assertThrows(NoSuchMethodError.class, () -> API.heapHistogram(new Object(), 0));
    }
}
