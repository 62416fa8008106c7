// Field watches, set and cleared through the natives.
#pragma once

#include <atomic>

// What the VM currently holds, as set and cleared through the natives; read by the dump.
extern std::atomic<unsigned int> s_field_access_counter;
extern std::atomic<unsigned int> s_field_modification_counter;
