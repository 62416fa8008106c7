#include "smap.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
using LineEntry = SourceMap::Entry;

// Reads a decimal number as formatted input does (leading blanks skipped, a sign accepted),
// clamped to the 32-bit range. False when there are no digits.
bool read_number(const char*& cursor, long long* value) {
    char* end = nullptr;
    errno = 0;
    long parsed = strtol(cursor, &end, 10);
    if (end == cursor) return false;
    cursor = end;
    if (parsed > INT_MAX) parsed = INT_MAX;
    if (parsed < INT_MIN) parsed = INT_MIN;
    *value = parsed;
    return true;
}

// A separator must follow the number before it immediately; anything else ends the entry.
bool parse_entry(const char* text, LineEntry* entry) {
    const char* cursor = text;
    if (!read_number(cursor, &entry->input_start)) return false;
    long long ignored_file_id = 0;
    if (*cursor == '#') {
        cursor++;
        if (!read_number(cursor, &ignored_file_id)) return true;
    }
    if (*cursor == ',') {
        cursor++;
        if (!read_number(cursor, &entry->repeat)) return true;
    }
    if (*cursor == ':') {
        cursor++;
        if (!read_number(cursor, &entry->output_start)) return true;
        if (*cursor == ',') {
            cursor++;
            read_number(cursor, &entry->increment);
        }
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
void apply_marker(const std::string& text, bool* in_line_section) {
    switch (text[1]) {
        case 'L': *in_line_section = true; break;
        case 'E':
        case 'F':
        case 'S':
        case 'V': *in_line_section = false; break;
        default: break;
    }
}

}  // namespace

namespace {
// Calls `each` for every line-section entry of the text in order, until it answers false.
template <typename Each>
void for_each_entry(const char* smap, Each each) {
    if (smap == nullptr || strncmp(smap, "SMAP", 4) != 0) return;
    const std::string text(smap);
    bool in_line_section = false;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string current = text.substr(start, end - start);
        start = end + 1;
        if (current.size() >= 2 && current[0] == '*') {
            apply_marker(current, &in_line_section);
            continue;
        }
        if (!in_line_section) continue;
        LineEntry entry;
        if (parse_entry(current.c_str(), &entry) && !each(entry)) return;
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
        m_entries.push_back(entry);
        return true;
    });
}

jint SourceMap::map(jint line) const {
    for (const Entry& entry : m_entries) {
        long long template_line = 0;
        if (covers(entry, line, &template_line)) return static_cast<jint>(template_line);
    }
    return line;
}
