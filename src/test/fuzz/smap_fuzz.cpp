// Feeds arbitrary text to the SMAP line mapper: it must never crash, overflow or loop, whatever a
// class's source debug extension holds. The first four bytes, when there are that many, pick the
// Java line; the whole input is also mapped for a few fixed lines around the interesting edges.
#include "smap.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    jint chosen = 0;
    if (size >= sizeof(chosen)) memcpy(&chosen, data, sizeof(chosen));
    for (jint line : {chosen, 0, 1, 61, -1, INT_MAX, INT_MIN}) {
        get_jsp_line_from_smap(text.c_str(), line);
        // The same text behind an SMAP header, so inputs that lost theirs still reach the parser.
        get_jsp_line_from_smap(("SMAP\n*L\n" + text).c_str(), line);
    }
    return 0;
}
