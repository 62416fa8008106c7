package com.brantide.kelvane.plugin.jvmti;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * A node of the tree of paths from GC roots to the instances of a class. The root stands for the
 * class and all its instances; the children of an entry are the places that hold its objects.
 */
public final class GCPathEntry {
    private final int kind;
    private final int index;
    private final Class<?> clazz;
    private final String fieldName;
    private final int count;
    private final long size;
    private final List<GCPathEntry> children = new ArrayList<>();

    public GCPathEntry(int kind, int index, Class<?> clazz, String fieldName, int count, long size) {
        this.kind = kind;
        this.index = index;
        this.clazz = clazz;
        this.fieldName = fieldName;
        this.count = count;
        this.size = size;
    }

    public void addChild(GCPathEntry child) {
        children.add(child);
    }

    /** The JVMTI heap reference kind of the link; 0 for the tree's root. */
    public int getKind() {
        return kind;
    }

    public int getIndex() {
        return index;
    }

    /** The class of the holding objects; null for a GC root. */
    public Class<?> getClazz() {
        return clazz;
    }

    /** The field's name for field and static-field links, else null. */
    public String getFieldName() {
        return fieldName;
    }

    public int getCount() {
        return count;
    }

    public long getSize() {
        return size;
    }

    public List<GCPathEntry> getChildren() {
        return Collections.unmodifiableList(children);
    }

    /** The name of a JVMTI heap reference kind. */
    public static String kindName(int kind) {
        switch (kind) {
            case 0: return "ROOT";
            case 1: return "CLASS";
            case 2: return "FIELD";
            case 3: return "ARRAY_ELEMENT";
            case 4: return "CLASS_LOADER";
            case 5: return "SIGNERS";
            case 6: return "PROTECTION_DOMAIN";
            case 7: return "INTERFACE";
            case 8: return "STATIC_FIELD";
            case 9: return "CONSTANT_POOL";
            case 10: return "SUPERCLASS";
            case 21: return "JNI_GLOBAL";
            case 22: return "SYSTEM_CLASS";
            case 23: return "MONITOR";
            case 24: return "STACK_LOCAL";
            case 25: return "JNI_LOCAL";
            case 26: return "THREAD";
            case 27: return "OTHER";
            default: return "UNKNOWN(" + kind + ")";
        }
    }

    @Override
    public String toString() {
        return kindName(kind) + "[" + index + "] " + (clazz == null ? "-" : clazz.getName())
                + (fieldName == null ? "" : "." + fieldName) + " count=" + count + " size=" + size;
    }
}
