// Feeds arbitrary line-number tables to the two searches of a table, the plain one (find_line) and
// the prepared index (LineIndex), which must agree everywhere. Tables come from class files, in any
// order and with any values a compiler wrote: both must read only the entries they were given, and
// no entry at or before the location means -1.
//
// Input: eight bytes of location, then twelve bytes per entry (eight of start, four of line). Each
// entry's start and the location after it are searched too, where exact matches and equal starts
// decide the answer.
#include "line_table.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {
void require(bool condition) {
    if (!condition) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < sizeof(jlocation)) return 0;
    std::vector<jlocation> locations(1);
    memcpy(&locations[0], data, sizeof(jlocation));
    const size_t entry_bytes = sizeof(jlocation) + sizeof(jint);
    // Exactly as many entries as the input holds, so that ASan sees any read past the table.
    std::vector<jvmtiLineNumberEntry> table((size - sizeof(jlocation)) / entry_bytes);
    std::vector<jint> lines;
    for (size_t k = 0; k < table.size(); k++) {
        const uint8_t* entry = data + sizeof(jlocation) + k * entry_bytes;
        memcpy(&table[k].start_location, entry, sizeof(jlocation));
        memcpy(&table[k].line_number, entry + sizeof(jlocation), sizeof(jint));
        lines.push_back(table[k].line_number);
        const jlocation start = table[k].start_location;
        locations.push_back(start);
        if (start < std::numeric_limits<jlocation>::max()) locations.push_back(start + 1);
    }
    const jint count = static_cast<jint>(table.size());
    LineIndex index(table.data(), count, lines.data(), -1);
    require(index.complete());
    // The earliest start: the locations after the first are the entries' starts and the ones after.
    const jlocation earliest = table.empty() ? 0 : *std::min_element(locations.begin() + 1, locations.end());
    for (jlocation location : locations) {
        jint line = find_line(table.data(), count, location);
        require(index.line_at(location) == line);
        if (table.empty() || location < earliest) require(line == -1);
    }
    return 0;
}
