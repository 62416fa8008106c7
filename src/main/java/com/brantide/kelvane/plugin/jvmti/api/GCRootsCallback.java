package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.GCPathEntry;

/** The root of the tree of paths from GC roots to a class's instances. */
public interface GCRootsCallback {
    void gcRoots(GCPathEntry root);
}
