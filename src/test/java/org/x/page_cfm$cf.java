package org.x;

import java.util.function.IntSupplier;

/** Shaped like a compiled CFML component in a package: only the "$cf" suffix marks it. */
public final class page_cfm$cf {
    private page_cfm$cf() {
    }

    public static int render(IntSupplier probe) {
        return probe.getAsInt();
    }
}
