/**
 * Shaped like a page compiled from a CFML template: its code lives in a hidden "_factor" chunk that
 * the page method calls, and it reaches a CFML component through a Java frame. The "// @name"
 * markers name lines for the stepping tests.
 */
public final class cfstep2ecfm100 {
    private cfstep2ecfm100() {
    }

    public static int runPage(int x) {
        return _factor0(x); // @runPage-call
    }

    static int _factor0(int x) {
        int a = x + 1; // @_factor0-a
        int b = RuntimeBridge.viaJava(a); // @_factor0-call
        int c = b * 2; // @_factor0-after
        return c; // @_factor0-return
    }
}
