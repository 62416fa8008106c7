#include "config.h"

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
