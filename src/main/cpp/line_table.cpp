#include "line_table.h"

#include <algorithm>
#include <cstring>

jint find_line(const jvmtiLineNumberEntry* table, jint count, jlocation location) {
    const jvmtiLineNumberEntry* best = nullptr;
    for (jint i = 0; i < count; i++) {
        const jvmtiLineNumberEntry& entry = table[i];
        if (entry.start_location == location) return entry.line_number;
        if (entry.start_location < location && (best == nullptr || best->start_location < entry.start_location)) {
            best = &entry;
        }
    }
    return best != nullptr ? best->line_number : -1;
}

bool has_suffix(const char* text, const char* suffix) {
    size_t text_length = strlen(text);
    size_t suffix_length = strlen(suffix);
    return suffix_length <= text_length && memcmp(text + text_length - suffix_length, suffix, suffix_length) == 0;
}

LineIndex::LineIndex(const jvmtiLineNumberEntry* table, jint count, const jint* mapped, jint not_found)
    : m_complete(m_entries.reserve(static_cast<size_t>(count > 0 ? count : 0))), m_not_found(not_found) {
    if (!m_complete) return;
    for (jint i = 0; i < count; i++) m_entries.push_back(Entry{table[i].start_location, i, mapped[i]});
    std::sort(m_entries.begin(), m_entries.end(), [](const Entry& a, const Entry& b) {
        return a.start != b.start ? a.start < b.start : a.order < b.order;
    });
}

jint LineIndex::line_at(jlocation location) const {
    auto starting_at = [this](jlocation start) {
        return std::lower_bound(m_entries.begin(), m_entries.end(), start,
                                [](const Entry& entry, jlocation value) { return entry.start < value; });
    };
    auto found = starting_at(location);
    // An exact start wins; the first in table order among several.
    if (found != m_entries.end() && found->start == location) return found->line;
    if (found == m_entries.begin()) return m_not_found;
    // Else the greatest start below, again the first in table order among equal starts.
    return starting_at((found - 1)->start)->line;
}
