package com.brantide.kelvane.plugin.jvmti.testing;

import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** One levelled line of the agent's log, taken apart: level, time, source place, function, message. */
public final class LogLine {
    private static final Pattern FORMAT = Pattern.compile(
            "^(ERROR|WARN |DEBUG|FINE ) Kelvane JVMTI: \\d+\\.\\d{6} (src/main/cpp/[a-z_]+\\.cpp):\\d+:([A-Za-z_~][A-Za-z0-9_]*)\\(\\) (.*)$");

    public final String level;
    public final String file;
    public final String function;
    public final String message;

    private LogLine(Matcher m) {
        level = m.group(1).trim();
        file = m.group(2);
        function = m.group(3);
        message = m.group(4);
    }

    /** The parsed line, or null when the text is not a levelled agent line. */
    public static LogLine parse(String text) {
        Matcher m = FORMAT.matcher(text);
        return m.matches() ? new LogLine(m) : null;
    }
}
