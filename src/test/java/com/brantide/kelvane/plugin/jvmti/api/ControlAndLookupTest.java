package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.fixtures.Target;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** The control natives and the class registry; source files, debug extensions, line tables and the class list. */
class ControlAndLookupTest {
    private static final String NO_DEBUG_SOURCE = "package nodebug; public class Plain {"
            + " public int twice(int x) { int y = x * 2; return y; } }";

    private final JvmtiApi api = new JvmtiApi();

    @BeforeEach
    void register() {
        api.registerClasses();
        new Target(1); // the VM lists the methods of prepared classes only
    }

    @Test
    void switchesOnAndOff() {
        assertFalse(api.isActive(), "inactive after load");
        assertFalse(api.setActive(false), "switching off an inactive agent");
        assertTrue(api.setActive(true));
        assertTrue(api.isActive());
        assertTrue(api.setActive(true), "switching on again acquires the same set again");
        assertFalse(api.setActive(false));
        assertFalse(api.isActive());
        assertTrue(api.setActive(true));
        assertFalse(api.setActive(false));
    }

    @Test
    void registryRejectsNullsNamingTheFirstOne() {
        IllegalArgumentException noName =
                assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass(null, String.class));
        assertEquals("name is null", noName.getMessage());
        noName = assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass(null, null));
        assertEquals("name is null", noName.getMessage());
        IllegalArgumentException noClass =
                assertThrows(IllegalArgumentException.class, () -> api.registerOsgiClass("ThreadContext", null));
        assertEquals("clazz is null", noClass.getMessage());
        api.registerClasses();
    }

    @Test
    void sourceFilesAndDebugExtensions() throws Exception {
        assertEquals("Target.java", api.getSourceFileName(Target.class));
        assertEquals("", api.getSourceDebugExtension(Target.class), "absent: empty, not an error");
        Class<?> plain = ClassFiles.compiledWithoutDebugInformation("nodebug.Plain", NO_DEBUG_SOURCE);
        assertEquals("", api.getSourceFileName(plain));
        String smap = "SMAP\nPage.java\nJSP\n*S JSP\n*F\n+ 0 page.jsp\npage.jsp\n*L\n1,3:10\n*E\n";
        Class<?> mapped = ClassFiles.withSourceDebugExtension(Target.class, smap);
        assertEquals(smap, api.getSourceDebugExtension(mapped));
        assertEquals("Target.java", api.getSourceFileName(mapped));
        assertThrows(JVMTIException.class, () -> api.getSourceFileName(null));
    }

    @Test
    void lineNumbersAreTheClassFilesOwnTable() throws Exception {
        for (String key : List.of("twice(I)I", "sum(JJ)J", "<init>(I)V", "<clinit>()V")) {
            List<long[]> reported = new ArrayList<>();
            api.getLineNumbersV2(Target.class, key, (LineNumberCallback) (location, line) ->
                    reported.add(new long[] {location, line}));
            List<long[]> expected = ClassFiles.lineTable(Target.class, key);
            assertTrue(!expected.isEmpty());
            assertEquals(render(expected), render(reported), key);
        }
    }

    @Test
    void lineNumbersOfNothingReportNothing() throws Exception {
        List<String> calls = new ArrayList<>();
        LineNumberCallback record = (location, line) -> calls.add(location + ":" + line);
        api.getLineNumbersV2(Target.class, "twice", record);
        api.getLineNumbersV2(Target.class, "toString()Ljava/lang/String;", record); // declared by a superclass
        api.getLineNumbersV2(Target.class, "nativeMethod()I", record);
        api.getLineNumbersV2(ClassFiles.compiledWithoutDebugInformation("nodebug.Plain", NO_DEBUG_SOURCE),
                "twice(I)I", record);
        api.getLineNumbersV2(Target.class, null, record);
        api.getLineNumbersV2(null, "twice(I)I", record);
        assertEquals(List.of(), calls);
    }

    @Test
    void listClassesReportsPreparedClasses() {
        Set<Class<?>> found = new HashSet<>();
        api.listClasses((ClassCallback) found::add);
        assertTrue(found.contains(Target.class) && found.contains(String.class));
        assertTrue(!found.contains(int[].class), "array classes are never prepared");
        assertTrue(found.size() > 400, "found " + found.size());

        assertEquals("callback is null",
                assertThrows(IllegalArgumentException.class, () -> api.listClasses(null)).getMessage());
        assertThrows(NoSuchMethodError.class, () -> api.listClasses(new Object()),
                "a callback without classFound is the caller's error");
        int[] calls = {0};
        assertThrows(IllegalStateException.class, () -> api.listClasses((ClassCallback) clazz -> {
            calls[0]++;
            throw new IllegalStateException("stop");
        }));
        assertEquals(1, calls[0], "a callback that throws ends the listing");
    }

    private static String render(List<long[]> table) {
        StringBuilder text = new StringBuilder();
        table.forEach(entry -> text.append(entry[0]).append(':').append(entry[1]).append(' '));
        return text.toString();
    }
}
