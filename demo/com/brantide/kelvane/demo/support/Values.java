package com.brantide.kelvane.demo.support;

import java.lang.reflect.Array;
import java.util.Collection;
import java.util.Map;

/** Short, stable renderings of values for the transcript. */
public final class Values {
    private Values() {
    }

    public static String show(Object value) {
        if (value == null) {
            return "null";
        }
        if (value instanceof String text) {
            return "\"" + text + "\"";
        }
        if (value instanceof Character c) {
            return "'" + c + "'";
        }
        if (value instanceof Number || value instanceof Boolean) {
            return value.toString();
        }
        if (value instanceof java.util.List<?> list) {
            return "List(" + list.size() + ")";
        }
        if (value instanceof Collection<?> collection) {
            return value.getClass().getSimpleName() + "(" + collection.size() + ")";
        }
        if (value instanceof Map<?, ?> map) {
            return value.getClass().getSimpleName() + "(" + map.size() + ")";
        }
        if (value.getClass().isArray()) {
            return value.getClass().getComponentType().getSimpleName() + "[" + Array.getLength(value) + "]";
        }
        if (value instanceof Record) {
            return value.toString();
        }
        return value.getClass().getSimpleName();
    }

    public static String size(long bytes) {
        if (bytes < 1024) {
            return bytes + " B";
        }
        if (bytes < 1024 * 1024) {
            return String.format("%.1f KB", bytes / 1024.0);
        }
        return String.format("%.1f MB", bytes / (1024.0 * 1024.0));
    }
}
