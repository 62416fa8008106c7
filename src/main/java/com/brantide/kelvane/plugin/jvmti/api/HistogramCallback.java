package com.brantide.kelvane.plugin.jvmti.api;

/** The heap histogram: parallel arrays, one element per loaded class. */
public interface HistogramCallback {
    void instance(String[] classNames, long[] counts, long[] sizes);
}
