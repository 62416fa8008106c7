package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.BreakpointLocation;
import com.brantide.kelvane.plugin.jvmti.ThreadContext;
import java.lang.reflect.Field;

/** Field watches; each method returns a step command. The object is null for a static field. */
public interface FieldHook {
    int fieldAccess(BreakpointLocation location, ThreadContext context, Class<?> fieldClass, Object object,
            Field field);

    int fieldModified(BreakpointLocation location, ThreadContext context, Class<?> fieldClass, Object object,
            Field field, Object newValue);

    /** After a FIELD_MODIFICATION_COMPLETE command, once the modifying statement has run. */
    int fieldModifiedComplete(BreakpointLocation location, ThreadContext context);
}
