package com.brantide.kelvane.plugin.jvmti.api;

/** One prepared loaded class. */
public interface ClassCallback {
    void classFound(Class<?> clazz);
}
