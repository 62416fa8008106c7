package com.brantide.kelvane.plugin.jvmti.api;

/** One local variable: name, value (boxed for primitives) and JVM type signature. */
public interface VariableCallback {
    /** Returns false to stop the listing. */
    boolean variable(String name, Object value, String signature);
}
