/** Plain Java between two CFML frames, as a CFML runtime's own library code would be. */
public final class RuntimeBridge {
    private RuntimeBridge() {
    }

    public static int viaJava(int v) {
        int w = v + 1;
        return cfcomp2ecfc200$funcWORK.work(w);
    }
}
