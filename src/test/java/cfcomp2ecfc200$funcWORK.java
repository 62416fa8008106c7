/** Shaped like a function of a compiled CFML component. */
public final class cfcomp2ecfc200$funcWORK {
    private cfcomp2ecfc200$funcWORK() {
    }

    public static int work(int v) {
        int doubled = v * 2; // @work-first
        return doubled + 1; // @work-return
    }
}
