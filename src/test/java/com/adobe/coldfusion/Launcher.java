package com.adobe.coldfusion;

import com.brantide.kelvane.plugin.jvmti.testing.StartupMain;

/** A main class whose name makes the agent take the VM for a ColdFusion server. */
public final class Launcher {
    public static void main(String[] args) throws Exception {
        StartupMain.main(args);
    }
}
