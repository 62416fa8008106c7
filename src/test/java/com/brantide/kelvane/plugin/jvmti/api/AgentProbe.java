package com.brantide.kelvane.plugin.jvmti.api;

/** Natives of the probe variant of the agent, which reach internal helpers for the tests. */
final class AgentProbe {
    private AgentProbe() {
    }

    static native Object boxLong(long value);

    static native Object boxInt(int value);

    static native Object boxByte(byte value);

    static native Object boxShort(short value);

    static native Object boxChar(char value);

    static native Object boxBoolean(boolean value);

    static native Object boxFloat(float value);

    static native Object boxDouble(double value);

    static native int unBoxToInt(Object value);

    static native long unBoxToLong(Object value);

    static native float unBoxToFloat(Object value);

    static native double unBoxToDouble(Object value);

    static native void throwJvmtiException(int error);

    static native void throwErrno(int errnum);

    static native int throwException(String className, String message);

    static native int callBreakpointHookHashCode();

    static native int breakpointHookCopies();
}
