package com.brantide.kelvane.plugin.jvmti.testing;

import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** One levelled line of the agent's log, taken apart. */
public final class LogLine {
    public static final Pattern FORMAT = Pattern.compile(
            "^(ERROR|WARN |DEBUG|FINE ) Kelvane JVMTI: (\\d+\\.\\d{6}) (src/main/cpp/[a-z_]+\\.cpp):(\\d+):([A-Za-z_~][A-Za-z0-9_]*)\\(\\) (.*)$");

    public final String level;
    public final double time;
    public final String file;
    public final int line;
    public final String function;
    public final String message;

    private LogLine(Matcher m) {
        level = m.group(1).trim();
        time = Double.parseDouble(m.group(2));
        file = m.group(3);
        line = Integer.parseInt(m.group(4));
        function = m.group(5);
        message = m.group(6);
    }

    /** The parsed line, or null when the text is not a levelled agent line. */
    public static LogLine parse(String text) {
        Matcher m = FORMAT.matcher(text);
        return m.matches() ? new LogLine(m) : null;
    }
}
