package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.GCPathEntry;
import com.brantide.kelvane.plugin.jvmti.JVMTICapabilityException;
import com.brantide.kelvane.plugin.jvmti.JVMTIException;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import java.lang.reflect.Field;

/**
 * The managed half of the agent. Its natives live in the agent library, which the JVM must be
 * started with ({@code -agentpath:.../libkvjvmti.so}); the JVM resolves them there, so nothing is
 * loaded here.
 *
 * <p>Hooks and callbacks are typed {@code Object}: the agent looks their methods up by name and
 * descriptor, so any object with the right method serves. The interfaces of this package name
 * those methods. Failed calls raise {@link JVMTIException} (or {@link JVMTICapabilityException}
 * while the agent is inactive), {@link IllegalArgumentException} for bad arguments and
 * {@link IllegalStateException} when the agent cannot raise either.
 */
public class JvmtiApi {
    /** The version of the interface between this class and the library. */
    public static final int API_VERSION = 5;

    /** Registers the classes the agent constructs; call once before switching the agent on. */
    public void registerClasses() {
        registerOsgiClass("ThreadContext", ThreadContext.class);
        registerOsgiClass("BreakpointLocation", BreakpointLocation.class);
        registerOsgiClass("GCPathEntry", GCPathEntry.class);
        registerOsgiClass("JVMTIException", JVMTIException.class);
        registerOsgiClass("JVMTICapabilityException", JVMTICapabilityException.class);
    }

    // ---- control and hooks

    public native boolean isActive();

    /** Switches the agent on (acquiring the debugging capabilities) or off; returns the new state. */
    public native boolean setActive(boolean active);

    public native int getApiVersion();

    public native String getLibraryVersionString();

    /** Sets the longest duration of a step in seconds; returns the previous value. */
    public native int setMaxStepDuration(int seconds);

    public native boolean isFastSteppingEnabled();

    public native boolean isExceptionsEnabled();

    /** A {@link ClassPrepareHook}; null clears it. */
    public native void registerClassPrepareHook(Object hook);

    /** A {@link BreakpointHook}; null clears it. */
    public native void registerBreakpointHook(Object hook);

    /** An {@link ExceptionHook}; null clears it. */
    public native void registerExceptionHook(Object hook);

    /** A {@link ThreadHook}; null clears it. */
    public native void registerThreadHook(Object hook);

    /** A {@link FieldHook}; null clears it. */
    public native void registerFieldHook(Object hook);

    /** A {@link SteppingAbortedHook}; null clears it. */
    public native void registerSteppingAbortedHook(Object hook);

    /** A {@link FileLoadHook}; null clears it. */
    public native void registerFileLoadHook(Object hook);

    // ---- class registry

    /** Hands the agent a class it constructs, under the name it looks it up by. */
    public native void registerOsgiClass(String name, Class<?> clazz);

    // ---- event switching

    /** Switches a JVMTI event ({@link com.brantide.kelvane.plugin.jvmti.JvmtiEvent}) for one thread. */
    public native boolean setEventNotificationMode(Thread thread, int event, boolean enable);

    // ---- breakpoints and watches

    /** A {@link BreakpointLocation}. */
    public native void setBreakpoint(Object location);

    /** A {@link BreakpointLocation}. */
    public native void clearBreakpoint(Object location);

    public native void setFieldAccessWatch(Class<?> clazz, Field field);

    public native void clearFieldAccessWatch(Class<?> clazz, Field field);

    public native void setFieldModificationWatch(Class<?> clazz, Field field);

    public native void clearFieldModificationWatch(Class<?> clazz, Field field);

    // ---- suspension

    /** Suspends another thread and reports where it stands to a {@link SuspendCallback}. */
    public native void suspendThread(Thread thread, Object callback);

    /** Applies a step command (2 to 8) to a suspended thread and resumes it. */
    public native void resumeThread(Thread thread, int stepType);

    // ---- variables

    /** Reports the live locals of {@code depth} frames from height {@code stackFrame} to a {@link VariableCallback}. */
    public native void listVariables(Thread thread, int stackFrame, int depth, Object callback);

    public native void setVariable(Thread thread, int stackFrameDepth, String variableName, Object value);

    // ---- stacks, threads, monitors

    /** A {@link FrameCallback}. */
    public native void listStack(Thread thread, int stackFrame, Object callback);

    public native int getStackDepth(Thread thread);

    /** A {@link ThreadCallback}. */
    public native void listThreads(Object callback);

    /** A {@link MonitorCallback}. */
    public native void listOwnedMonitors(Thread thread, int stackFrame, Object callback);

    /** A {@link MonitorCallback}. */
    public native void listContendedMonitor(Thread thread, Object callback);

    // ---- classes and sources

    public native String getSourceFileName(Class<?> clazz);

    public native String getSourceDebugExtension(Class<?> clazz);

    /** A {@link LineNumberCallback}; the method key is the name followed by the JVM descriptor. */
    public native void getLineNumbersV2(Class<?> clazz, String methodKey, Object callback);

    /** A {@link ClassCallback}. */
    public native void listClasses(Object callback);

    // ---- heap

    /** A {@link HistogramCallback}; a limit of 0 or less means none. */
    public native void heapHistogram(Object callback, long timeLimitMillis);

    public native void heapHistogramToFile(String fileName, long timeLimitMillis);

    public native void forceGC();

    /** A {@link GCRootsCallback}. */
    public native void gcRoots(Object callback, String classSignature, long timeLimitMillis, int maxDepth);
}
