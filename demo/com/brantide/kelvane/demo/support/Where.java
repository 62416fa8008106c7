package com.brantide.kelvane.demo.support;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;
import com.brantide.kelvane.plugin.jvmti.api.LineNumberCallback;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/** Names code locations the way a person reads them: Class.method (File.java:line). */
public final class Where {
    private final JvmtiApi api;
    private final Map<String, List<long[]>> tables = new HashMap<>();

    public Where(JvmtiApi api) {
        this.api = api;
    }

    public String of(BreakpointLocation location) {
        if (location == null) {
            return "(unknown)";
        }
        Class<?> clazz = location.getMemberClass();
        String method = location.getMethodName();
        String file = api.getSourceFileName(clazz);
        int line = line(location);
        String place = location.getLocation() < 0 ? "Native Method"
                : (file.isEmpty() ? "Unknown Source" : file) + (line > 0 ? ":" + line : "");
        return clazz.getSimpleName() + "." + method + " (" + place + ")";
    }

    /** The Java line of a location, or -1. */
    public int line(BreakpointLocation location) {
        List<long[]> table = table(location.getMemberClass(), location.getMemberSignature());
        long best = -1;
        int line = -1;
        for (long[] entry : table) {
            if (entry[0] <= location.getLocation() && entry[0] > best) {
                best = entry[0];
                line = (int) entry[1];
            }
        }
        return line;
    }

    /** The first line of a method's code. */
    public int firstLine(Class<?> clazz, String memberSignature) {
        return (int) table(clazz, memberSignature).stream().mapToLong(e -> e[1]).min().orElse(-1);
    }

    private List<long[]> table(Class<?> clazz, String key) {
        return tables.computeIfAbsent(clazz.getName() + "#" + key + "@" + System.identityHashCode(clazz), k -> {
            List<long[]> entries = new ArrayList<>();
            api.getLineNumbersV2(clazz, key, (LineNumberCallback) (location, line) -> entries.add(new long[] {location, line}));
            return entries;
        });
    }
}
