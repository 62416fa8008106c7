// Feeds arbitrary line-number tables to the two searches of a table, the plain one (find_line) and
// the prepared index (LineIndex), which must agree everywhere. Tables come from class files, in any
// order and with any values a compiler wrote: both must read only the entries they were given and
// answer -1 when no entry starts at or before the location.
//
// Input: eight bytes of location, then twelve bytes per entry (eight of start, four of line). Each
// entry's start and the location before it are searched too, where equal starts and exact matches
// decide the answer.
#include "line_table.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
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
    const jint count = static_cast<jint>((size - sizeof(jlocation)) / entry_bytes);
    // Exactly as many entries as the count says, so that ASan sees any read past the table.
    std::unique_ptr<jvmtiLineNumberEntry[]> table(new jvmtiLineNumberEntry[static_cast<size_t>(count)]);
    std::unique_ptr<jint[]> lines(new jint[static_cast<size_t>(count)]);
    for (jint k = 0; k < count; k++) {
        const uint8_t* entry = data + sizeof(jlocation) + static_cast<size_t>(k) * entry_bytes;
        memcpy(&table[k].start_location, entry, sizeof(jlocation));
        memcpy(&table[k].line_number, entry + sizeof(jlocation), sizeof(jint));
        lines[k] = table[k].line_number;
        locations.push_back(table[k].start_location);
        if (table[k].start_location != LLONG_MIN) locations.push_back(table[k].start_location - 1);
    }
    LineIndex index(table.get(), count, lines.get(), -1);
    require(index.complete());
    for (jlocation location : locations) {
        jint line = find_line(table.get(), count, location);
        require(index.line_at(location) == line);
        bool any_at_or_before = false;
        for (jint k = 0; k < count; k++) any_at_or_before = any_at_or_before || table[k].start_location <= location;
        require(any_at_or_before || line == -1);
    }
    return 0;
}
