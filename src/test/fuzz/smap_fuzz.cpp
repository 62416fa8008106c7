// Feeds arbitrary text to the SMAP line mapper, whatever a class's source debug extension holds:
// it must never crash, overflow or loop, and the map prepared once (SourceMap) must answer as the
// text read for each line does. The first four bytes, when there are that many, pick the Java
// line; a few fixed lines around the interesting edges are mapped too.
#include "smap.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    jint chosen = 0;
    if (size >= sizeof(chosen)) memcpy(&chosen, data, sizeof(chosen));
    // The same text behind an SMAP header too, so inputs that lost theirs still reach the parser.
    for (const std::string& text : {raw, "SMAP\n*L\n" + raw}) {
        const SourceMap prepared(text.c_str());
        for (jint line : {chosen, 0, 1, 61, -1, INT_MAX, INT_MIN}) {
            jint mapped = get_jsp_line_from_smap(text.c_str(), line);
            if (prepared.complete() && prepared.map(line) != mapped) __builtin_trap();
        }
    }
    return 0;
}
