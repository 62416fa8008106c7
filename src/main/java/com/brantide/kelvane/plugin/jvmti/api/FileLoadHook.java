package com.brantide.kelvane.plugin.jvmti.api;

/** A class is being redefined or retransformed. */
public interface FileLoadHook {
    void redefinedClass(Class<?> clazz);
}
