// Searching a method's line-number table (pure: no VM involved).
#pragma once

#include "nothrow_array.h"

#include <jvmti.h>

// The line of a bytecode location: the first entry that starts exactly there, else the entry with
// the greatest start below it (the earlier one among equal starts), else -1. The table is taken in
// the order given; nothing assumes it sorted.
jint find_line(const jvmtiLineNumberEntry* table, jint count, jlocation location);

// True when the text ends with the suffix; an empty suffix ends every text.
bool has_suffix(const char* text, const char* suffix);

// A method's line table prepared for many look-ups: each entry carries the line to report for it
// (a template line, say), and line_at gives for any location what find_line would give for the
// table, as that line, in logarithmic time.
class LineIndex {
public:
    // mapped[i] is the line reported for table[i]; not_found the one for a location no entry covers.
    LineIndex(const jvmtiLineNumberEntry* table, jint count, const jint* mapped, jint not_found);
    jint line_at(jlocation location) const;
    // False when memory ran out while it was built: line_at must not be trusted then.
    bool complete() const { return m_complete; }

private:
    struct Entry {
        jlocation start;
        jint order;
        jint line;
    };
    NothrowArray<Entry> m_entries;  // by start, then table order
    bool m_complete;
    jint m_not_found;
};
