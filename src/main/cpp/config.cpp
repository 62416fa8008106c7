#include "config.h"

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

int parse_log_level(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }

bool is_coldfusion(bool coldfusion_home_set, const char* java_command) {
    if (coldfusion_home_set) return true;
    static const char PREFIX[] = "com.adobe.coldfusion.";
    return java_command != nullptr && strncmp(java_command, PREFIX, sizeof PREFIX - 1) == 0;
}

bool parse_switch(const char* value, bool coldfusion) {
    if (value == nullptr) return !coldfusion;
    return strcmp(value, "true") == 0;
}

namespace {
// The leading decimal digits of the text as a number; false without digits or on overflow.
bool read_digits(const char* text, uint64_t* value, const char** end) {
    uint64_t number = 0;
    const char* at = text;
    for (; isdigit(static_cast<unsigned char>(*at)); at++) {
        uint64_t digit = static_cast<uint64_t>(*at - '0');
        if (number > (UINT64_MAX - digit) / 10) return false;
        number = number * 10 + digit;
    }
    *value = number;
    *end = at;
    return at != text;
}
}  // namespace

long parse_walk_max_mb(const char* value) {
    uint64_t megabytes = 0;
    const char* end = nullptr;
    if (value == nullptr || !read_digits(value, &megabytes, &end) || *end != '\0') return 0;
    // The ceiling is kept in bytes.
    if (megabytes > (SIZE_MAX >> 20) || megabytes > static_cast<uint64_t>(LONG_MAX)) return 0;
    return static_cast<long>(megabytes);
}

uint64_t parse_cgroup_memory_limit(const char* text) {
    uint64_t limit = 0;
    const char* end = nullptr;
    if (text == nullptr || !read_digits(text, &limit, &end)) return 0;
    return *end == '\0' || *end == '\n' ? limit : 0;
}

long default_walk_max_mb(uint64_t physical_bytes, uint64_t cgroup_limit_bytes) {
    constexpr uint64_t LEAST_MB = 64;
    uint64_t usable = physical_bytes;
    if (cgroup_limit_bytes != 0 && (usable == 0 || cgroup_limit_bytes < usable)) usable = cgroup_limit_bytes;
    uint64_t quarter_mb = usable / 4 >> 20;
    return static_cast<long>(quarter_mb > LEAST_MB ? quarter_mb : LEAST_MB);
}
