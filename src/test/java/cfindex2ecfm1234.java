import java.util.function.IntSupplier;

/** Shaped like a class compiled from a CFML template: default package, hidden plumbing methods. */
public final class cfindex2ecfm1234 {
    private cfindex2ecfm1234() {
    }

    public static int runPage(IntSupplier probe) {
        return _factor0(probe);
    }

    static int _factor0(IntSupplier probe) {
        return _call0(probe);
    }

    static int _call0(IntSupplier probe) {
        return org.x.page_cfm$cf.render(probe);
    }
}
