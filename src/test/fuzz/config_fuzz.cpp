// Feeds arbitrary system property values to the configuration readers: the log level, the
// switches and the ColdFusion test read text that anyone starting the JVM can set.
#include "config.h"

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
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* value = text.c_str();
    parse_log_level(value);
    bool home = size > 0 && (data[0] & 1) != 0;
    bool coldfusion = is_coldfusion(home, value);
    require(!home || coldfusion);
    require(!is_coldfusion(false, nullptr));
    // Only the exact word switches on, whatever the environment.
    bool exact = std::strcmp(value, "true") == 0;
    require(parse_switch(value, true) == exact && parse_switch(value, false) == exact);
    return 0;
}
