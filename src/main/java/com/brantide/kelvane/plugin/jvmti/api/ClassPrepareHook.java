package com.brantide.kelvane.plugin.jvmti.api;

/** A class has been prepared. */
public interface ClassPrepareHook {
    void prepareClass(Thread thread, Class<?> clazz);
}
