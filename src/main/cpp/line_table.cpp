#include "line_table.h"

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
