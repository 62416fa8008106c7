package com.brantide.kelvane.plugin.jvmti;

/** JVMTI event numbers, for switching events per thread. */
public final class JvmtiEvent {
    public static final int VM_INIT = 50;
    public static final int VM_DEATH = 51;
    public static final int THREAD_START = 52;
    public static final int THREAD_END = 53;
    public static final int CLASS_FILE_LOAD_HOOK = 54;
    public static final int CLASS_LOAD = 55;
    public static final int CLASS_PREPARE = 56;
    public static final int VM_START = 57;
    public static final int EXCEPTION = 58;
    public static final int EXCEPTION_CATCH = 59;
    public static final int SINGLE_STEP = 60;
    public static final int FRAME_POP = 61;
    public static final int BREAKPOINT = 62;
    public static final int FIELD_ACCESS = 63;
    public static final int FIELD_MODIFICATION = 64;
    public static final int METHOD_ENTRY = 65;
    public static final int METHOD_EXIT = 66;
    public static final int NATIVE_METHOD_BIND = 67;
    public static final int COMPILED_METHOD_LOAD = 68;
    public static final int COMPILED_METHOD_UNLOAD = 69;
    public static final int DYNAMIC_CODE_GENERATED = 70;
    public static final int DATA_DUMP_REQUEST = 71;
    public static final int MONITOR_WAIT = 73;
    public static final int MONITOR_WAITED = 74;
    public static final int MONITOR_CONTENDED_ENTER = 75;
    public static final int MONITOR_CONTENDED_ENTERED = 76;
    public static final int RESOURCE_EXHAUSTED = 80;
    public static final int GARBAGE_COLLECTION_START = 81;
    public static final int GARBAGE_COLLECTION_FINISH = 82;
    public static final int OBJECT_FREE = 83;
    public static final int VM_OBJECT_ALLOC = 84;

    private JvmtiEvent() {
    }
}
