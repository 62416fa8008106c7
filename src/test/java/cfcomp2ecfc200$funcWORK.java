import java.util.function.IntSupplier;

/** Shaped like a function of a compiled CFML component. */
public final class cfcomp2ecfc200$funcWORK {
    /** Called on the way out when set: the frame probes look at the stack from there. */
    public static IntSupplier probe;

    private cfcomp2ecfc200$funcWORK() {
    }

    public static int work(int v) {
        int doubled = v * 2; // @work-first
        return probe == null ? doubled + 1 : probe.getAsInt(); // @work-return
    }
}
