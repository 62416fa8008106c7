package com.adobe.coldfusionlike;

import com.brantide.kelvane.plugin.jvmti.testing.StartupMain;

/** A main class whose name only resembles a ColdFusion one: the agent must not be fooled. */
public final class Launcher {
    public static void main(String[] args) throws Exception {
        StartupMain.main(args);
    }
}
