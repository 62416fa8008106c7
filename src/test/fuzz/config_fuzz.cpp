// Feeds arbitrary system property values to the configuration readers: the log level, the
// switches, the ColdFusion test, the heap walk ceiling and the control group's memory limit read
// text that anyone starting the JVM (or the machine's owner) can set.
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
    // A walk ceiling comes from decimal digits alone.
    long ceiling = parse_walk_max_mb(value);
    require(ceiling >= 0 && (ceiling == 0 || std::strspn(value, "0123456789") == std::strlen(value)));
    parse_cgroup_memory_limit(value);
    return 0;
}
