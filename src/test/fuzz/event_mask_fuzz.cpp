// Feeds arbitrary event masks and event numbers to the names the data dump and the log lines
// print. Masks are built from whatever event numbers the managed side switched: the text must name
// only known events, once each, in ascending order, and "NONE" only for an empty mask.
//
// Input: eight bytes of mask, then four of event number (each zero-filled when short).
#include "event_mask.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace {
void require(bool condition) {
    if (!condition) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    jlong mask = 0;
    memcpy(&mask, data, size < sizeof mask ? size : sizeof mask);
    jint event = 0;
    if (size > sizeof mask) memcpy(&event, data + sizeof mask, size - sizeof mask < sizeof event ? size - sizeof mask : sizeof event);

    const char* name = event_to_string(event);
    require(name != nullptr && name[0] != '\0');

    std::string text = event_mask_to_string(mask);
    if (mask == 0) {
        require(text == "NONE");
        return 0;
    }
    // Walk the names back to events: each must be the next set bit's name.
    size_t start = 0;
    int position = 0;
    while (start < text.size()) {
        size_t end = text.find(',', start);
        if (end == std::string::npos) end = text.size();
        const std::string token = text.substr(start, end - start);
        while (position < EVENT_MASK_POSITIONS && (mask & event_bit(JVMTI_MIN_EVENT_TYPE_VAL + position)) == 0) {
            position++;
        }
        require(position < EVENT_MASK_POSITIONS);
        require(token == event_to_string(JVMTI_MIN_EVENT_TYPE_VAL + position));
        position++;
        start = end + 1;
    }
    return 0;
}
