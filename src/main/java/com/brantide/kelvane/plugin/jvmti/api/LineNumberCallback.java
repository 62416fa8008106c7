package com.brantide.kelvane.plugin.jvmti.api;

/** One entry of a method's line-number table. */
public interface LineNumberCallback {
    void lineNumber(long location, int line);
}
