// Reading the agent's configuration from system property values (pure: no VM involved).
#pragma once

#include <cstdint>

// Leading decimal digits (with sign), as strtol reads them; text without digits gives 0.
int parse_log_level(const char* text);

// The VM runs ColdFusion when "coldfusion.home" is set, or else when the command starts with
// "com.adobe.coldfusion." (the final dot included). A null command is not ColdFusion.
bool is_coldfusion(bool coldfusion_home_set, const char* java_command);

// A switch property: only exactly "true" enables; absent, it is on except under ColdFusion.
bool parse_switch(const char* value, bool coldfusion);

// kv.jvmti.heap.walk.max.mb: a positive whole number of megabytes in decimal digits alone; 0 for
// anything else (absent, empty, signed, fractional, with spaces or units, or too large), which
// leaves the default in force.
long parse_walk_max_mb(const char* value);

// The limit in a control group's memory file (v2 memory.max, v1 memory.limit_in_bytes) in bytes;
// 0 when there is none ("max") or the text is not a number.
uint64_t parse_cgroup_memory_limit(const char* text);

// A quarter of the physical memory, or of the control group's limit when that is lower (0: no
// limit), in megabytes and at least 64.
long default_walk_max_mb(uint64_t physical_bytes, uint64_t cgroup_limit_bytes);
