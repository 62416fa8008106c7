package com.brantide.kelvane.bench.host;

import java.util.ArrayList;
import java.util.List;

/**
 * An agent set-up the host runs under: its key (for -Dkv.bench.configs), its name in the tables,
 * the JVM options that load it, and whether the host switches the library on.
 */
record Configuration(String key, String name, List<String> jvmOptions, boolean switchedOn) {
    static final String NO_AGENT = "none";
    static final String CONTROL = "control";
    static final String INSPECTION = "inspection";
    static final String FLOOR_ENV = "env";
    static final String INSPECTION_PROPERTY = "-Dkv.jvmti.inspection.only=true";

    /** The capabilities an inspection-only agent may hold, each measured alone under the floor agent. */
    static final List<String> SINGLE_CAPABILITIES = List.of("can_suspend", "can_get_owned_monitor_info",
            "can_get_owned_monitor_stack_depth_info", "can_get_current_contended_monitor", "can_get_monitor_info",
            "can_get_line_numbers", "can_get_source_file_name", "can_get_source_debug_extension", "can_tag_objects");

    /**
     * The baselines, measured in every run: no agent, and no agent again, whose ratio to the first
     * shows how far the machine's noise alone moves a ratio.
     */
    static List<Configuration> baselines() {
        return List.of(new Configuration(NO_AGENT, "no agent", List.of(), false),
                new Configuration(CONTROL, "no agent again (control)", List.of(), false));
    }

    /** What the goal and the comparison with the VM's own debugger are about. */
    static List<Configuration> standard(String library) {
        String agent = "-agentpath:" + library;
        return List.of(
                new Configuration("loaded", "library loaded", List.of(agent), false),
                new Configuration("on", "library switched on", List.of(agent), true),
                new Configuration(INSPECTION, "inspection only, on", List.of(agent, INSPECTION_PROPERTY), true),
                new Configuration("jdwp", "JDWP, no debugger",
                        List.of("-agentlib:jdwp=transport=dt_socket,server=y,suspend=n,address=localhost:0"), false));
    }

    /**
     * The floor agent holding one thing at a time: what the library holds from load on (its basic
     * set, ClassFileLoadHook and ClassPrepare events), the exception capability alone and with its
     * events on, and each capability inspection may want, each alone.
     */
    static List<Configuration> diagnostics(String floorAgent) {
        List<Configuration> floors = new ArrayList<>();
        floors.add(floor(floorAgent, FLOOR_ENV, "floor: JVMTI env only", "env"));
        floors.add(floor(floorAgent, "basic", "floor: basic set", "basic"));
        floors.add(floor(floorAgent, "class-file-hook", "floor: basic + ClassFileLoadHook", "basic,class-file-hook"));
        floors.add(floor(floorAgent, "class-prepare", "floor: basic + ClassPrepare", "basic,class-prepare"));
        floors.add(floor(floorAgent, "exception-capability", "floor: basic + exception capability",
                "basic,exception-capability"));
        floors.add(floor(floorAgent, "exceptions", "floor: basic + exception events", "basic,exceptions"));
        for (String capability : SINGLE_CAPABILITIES) {
            floors.add(floor(floorAgent, capability, "floor: " + capability, capability));
        }
        return floors;
    }

    private static Configuration floor(String floorAgent, String key, String name, String features) {
        return new Configuration(key, name, List.of("-agentpath:" + floorAgent + "=" + features), false);
    }

    boolean isFloor() {
        return name.startsWith("floor");
    }
}
