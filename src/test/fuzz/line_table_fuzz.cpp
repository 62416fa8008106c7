// Feeds arbitrary line-number tables and locations to the table search, and arbitrary text and
// suffixes to the suffix test. Tables come from class files, in any order and with any values a
// compiler wrote: the search must read only the entries it was given and answer with a line of
// the table, or -1 exactly when no entry starts at or before the location.
//
// Input for the table: eight bytes of location, then twelve bytes per entry (eight of start, four
// of line). The same bytes, split at the first NUL, are the text and the suffix.
#include "line_table.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {
void require(bool condition) {
    if (!condition) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= sizeof(jlocation)) {
        jlocation location = 0;
        memcpy(&location, data, sizeof location);
        const size_t entry_bytes = sizeof(jlocation) + sizeof(jint);
        const jint count = static_cast<jint>((size - sizeof location) / entry_bytes);
        // Exactly as many entries as the count says, so that ASan sees any read past the table.
        std::unique_ptr<jvmtiLineNumberEntry[]> table(new jvmtiLineNumberEntry[static_cast<size_t>(count)]);
        bool any_at_or_before = false;
        for (jint k = 0; k < count; k++) {
            const uint8_t* entry = data + sizeof location + static_cast<size_t>(k) * entry_bytes;
            memcpy(&table[static_cast<size_t>(k)].start_location, entry, sizeof(jlocation));
            memcpy(&table[static_cast<size_t>(k)].line_number, entry + sizeof(jlocation), sizeof(jint));
            any_at_or_before = any_at_or_before || table[static_cast<size_t>(k)].start_location <= location;
        }
        jint line = find_line(table.get(), count, location);
        bool in_table = false;
        for (jint k = 0; k < count; k++) {
            in_table = in_table || (table[static_cast<size_t>(k)].line_number == line &&
                                    table[static_cast<size_t>(k)].start_location <= location);
        }
        require(any_at_or_before ? in_table : line == -1);
    }

    const std::string all(reinterpret_cast<const char*>(data), size);
    const size_t nul = all.find('\0');
    const std::string text = all.substr(0, nul);
    const std::string suffix = nul == std::string::npos ? std::string() : std::string(all.c_str() + nul + 1);
    bool ends = suffix.size() <= text.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
    require(has_suffix(text.c_str(), suffix.c_str()) == ends);
    return 0;
}
