package com.brantide.kelvane.demo;

import com.brantide.kelvane.plugin.jvmti.api.JvmtiApi;

/**
 * A first look at the agent from the managed side: it is loaded, tells its versions and
 * settings, and is switched on and off.
 */
public final class Demo {
    private Demo() {
    }

    public static void main(String[] args) {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        System.out.println("Library:         " + api.getLibraryVersionString());
        System.out.println("API version:     " + api.getApiVersion());
        System.out.println("Fast stepping:   " + api.isFastSteppingEnabled());
        System.out.println("Exception events: " + api.isExceptionsEnabled());
        System.out.println("Active at start: " + api.isActive());
        System.out.println("Switched on:     " + api.setActive(true));
        System.out.println("Active now:      " + api.isActive());
        System.out.println("Switched off:    " + !api.setActive(false));
        System.out.println("Active at end:   " + api.isActive());
    }
}
