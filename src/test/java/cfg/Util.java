package cfg;

/** Starts like a CFML class signature but carries none of its marks: Java. */
public final class Util {
    private Util() {
    }

    public static int same(int x) {
        return x;
    }
}
