#include "smap.h"

#include <climits>
#include <cstring>

namespace {
using LineEntry = SourceMap::Entry;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r' || c == '\n'; }

// Reads a decimal number of the line as formatted input does (leading blanks skipped, a sign
// accepted), clamped to the 32-bit range. False, with the cursor unmoved, when there are no digits.
bool read_number(const char*& cursor, const char* end, long long* value) {
    const char* at = cursor;
    while (at < end && is_blank(*at)) at++;
    bool negative = at < end && *at == '-';
    if (at < end && (*at == '-' || *at == '+')) at++;
    if (at == end || *at < '0' || *at > '9') return false;
    long long magnitude = 0;
    for (; at < end && *at >= '0' && *at <= '9'; at++) {
        if (magnitude <= INT_MAX) magnitude = magnitude * 10 + (*at - '0');
    }
    long long parsed = negative ? -magnitude : magnitude;
    *value = parsed > INT_MAX ? INT_MAX : parsed < INT_MIN ? INT_MIN : parsed;
    cursor = at;
    return true;
}

// One line of the line section, [text, end). A separator must follow the number before it
// immediately; anything else ends the entry.
bool parse_entry(const char* text, const char* end, LineEntry* entry) {
    const char* cursor = text;
    if (!read_number(cursor, end, &entry->input_start)) return false;
    long long ignored_file_id = 0;
    auto separator = [&](char wanted) { return cursor < end && *cursor == wanted && ++cursor; };
    if (separator('#') && !read_number(cursor, end, &ignored_file_id)) return true;
    if (separator(',') && !read_number(cursor, end, &entry->repeat)) return true;
    if (separator(':')) {
        if (!read_number(cursor, end, &entry->output_start)) return true;
        if (separator(',')) read_number(cursor, end, &entry->increment);
    }
    return true;
}

// The template line the entry gives for the Java line, or false when it does not cover it.
// Computed, not walked: a repeat count of two billion costs no more than one of one.
bool covers(const LineEntry& entry, long long line, long long* template_line) {
    if (entry.repeat <= 0) return false;
    if (entry.increment <= 0) {
        if (line != entry.output_start) return false;
        *template_line = entry.input_start;
        return true;
    }
    if (line < entry.output_start) return false;
    long long repetition = (line - entry.output_start) / entry.increment;
    if (repetition >= entry.repeat) return false;
    *template_line = entry.input_start + repetition;
    return true;
}

// Section markers: "*L" opens the line section, "*E", "*F", "*S" and "*V" close it, any other
// marker leaves it as it is. A lone "*" is no marker.
void apply_marker(char marker, bool* in_line_section) {
    switch (marker) {
        case 'L': *in_line_section = true; break;
        case 'E':
        case 'F':
        case 'S':
        case 'V': *in_line_section = false; break;
        default: break;
    }
}

// Calls `each` for every line-section entry of the text in order, until it answers false. Reads
// the text in place: nothing is allocated, whatever its size.
template <typename Each>
void for_each_entry(const char* smap, Each each) {
    if (smap == nullptr || strncmp(smap, "SMAP", 4) != 0) return;
    bool in_line_section = false;
    for (const char* line = smap;;) {
        const char* end = strchr(line, '\n');
        if (end == nullptr) end = line + strlen(line);
        if (end - line >= 2 && line[0] == '*') {
            apply_marker(line[1], &in_line_section);
        } else if (in_line_section) {
            LineEntry entry;
            if (parse_entry(line, end, &entry) && !each(entry)) return;
        }
        if (*end == '\0') return;
        line = end + 1;
    }
}
}  // namespace

jint get_jsp_line_from_smap(const char* smap, jint line) {
    jint result = line;
    for_each_entry(smap, [&](const LineEntry& entry) {
        long long template_line = 0;
        if (!covers(entry, line, &template_line)) return true;
        result = static_cast<jint>(template_line);
        return false;
    });
    return result;
}

SourceMap::SourceMap(const char* smap) {
    for_each_entry(smap, [&](const LineEntry& entry) {
        m_complete = m_entries.push_back(entry);
        return m_complete;
    });
}

jint SourceMap::map(jint line) const {
    for (const Entry& entry : m_entries) {
        long long template_line = 0;
        if (covers(entry, line, &template_line)) return static_cast<jint>(template_line);
    }
    return line;
}
