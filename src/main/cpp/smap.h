// Mapping a line of generated Java source to the template line it came from, through the JSR-45
// source map (SMAP) that template compilers put into the class's source debug extension.
#pragma once

#include "nothrow_array.h"

#include <jni.h>

// The template line for a Java line, or the Java line unchanged when the text is not an SMAP or no
// line-section entry covers it. Every line section is searched, whatever its stratum; the first
// entry that covers the line wins. Any text is safe: truncated, binary, huge numbers, no newline.
jint get_jsp_line_from_smap(const char* smap, jint line);

// A source map read once, for mapping many lines: the same answers as get_jsp_line_from_smap
// gives for its text.
class SourceMap {
public:
    // One line-section entry: InputStartLine[#LineFileID][,RepeatCount][:OutputStartLine[,OutputLineIncrement]]
    struct Entry {
        long long input_start = 0;
        long long repeat = 1;
        long long output_start = 0;
        long long increment = 1;
    };

    // Empty (every line maps to itself) when the text is not an SMAP.
    explicit SourceMap(const char* smap);
    jint map(jint line) const;
    bool empty() const { return m_entries.empty(); }
    // False when memory ran out before every entry was kept: map() must not be trusted then.
    bool complete() const { return m_complete; }

private:
    NothrowArray<Entry> m_entries;
    bool m_complete = true;
};
