package com.brantide.kelvane.bench.debug;

import java.util.ArrayList;
import java.util.List;

/**
 * The steps of one kind in a run, each call of {@link Target#stepOverSubject} stopping at a
 * breakpoint and answered with the kind's script of steps, the last one timed from the debugger's
 * answer to the stop it ends at. The first call is a warm-up; a timed step that ends anywhere but
 * where it should spoils the run.
 *
 * <p>The kinds: {@code over} the call line from a breakpoint at its start; {@code out} of the
 * callee, spin, after a step in from there, so that no breakpoint stands in the callee; and
 * {@link #OUT_FROM_BREAKPOINT}, out of spin from a breakpoint at its first bytecode, which keeps
 * the whole of spin interpreted while it stands, whatever the debugger.
 */
final class StepTimes {
    static final String OUT_FROM_BREAKPOINT = "out-from-breakpoint";

    private final List<String> script;
    private final List<Double> millis = new ArrayList<>();
    private final List<String> wrong = new ArrayList<>();
    private int stops;
    private long commanded;

    StepTimes(String kind) {
        switch (kind) {
            case "over": script = List.of("over"); break;
            case "out": script = List.of("in", "out"); break;
            case OUT_FROM_BREAKPOINT: script = List.of("out"); break;
            default: throw new IllegalArgumentException("no such kind of step: " + kind);
        }
    }

    /** Whether the kind's breakpoint stands at spin's first bytecode rather than on the call line. */
    static boolean startsInCallee(String kind) {
        return kind.equals(OUT_FROM_BREAKPOINT);
    }

    /**
     * Where a timed step ends: a step over on the subject's next line, a step out of the callee back
     * on the call line, after the call.
     */
    static boolean endsStep(String kind, long at, long call, long next) {
        return kind.equals("over") ? at == next : at > call && at < next;
    }

    /**
     * The step ("over", "in" or "out") to answer the call's next stop with; null at the stop that
     * ends the timed step, which {@link #stopped} then judges.
     */
    String answer() {
        int stop = stops;
        stops = (stops + 1) % (script.size() + 1);
        return stop < script.size() ? script.get(stop) : null;
    }

    /** The debugger has answered with a step: the timed one is the last answered. */
    void commanded() {
        commanded = System.nanoTime();
    }

    /** The timed step stopped at {@code now}: where it should end, or elsewhere. */
    void stopped(long now, boolean right, Object where) {
        if (right) {
            millis.add((now - commanded) / 1e6);
        } else {
            wrong.add(String.valueOf(where));
        }
    }

    /** Whether every call of the run has ended its timed step: the warm-up and the timed repeats. */
    boolean complete() {
        return millis.size() + wrong.size() == Target.REPEATS + 1;
    }

    /** The best timed step, in ms; refuses a run with a wrong stop or a missing one. */
    double best() {
        if (!wrong.isEmpty() || millis.size() != Target.REPEATS + 1) {
            throw new IllegalStateException("steps stopped at " + millis.size() + " right places, and at " + wrong);
        }
        return Target.best(millis.stream().skip(1).mapToDouble(Double::doubleValue).toArray());
    }
}
