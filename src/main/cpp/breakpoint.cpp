#include "breakpoint.h"

std::atomic<unsigned int> s_breakpoint_counter{0};
std::atomic<unsigned int> s_field_access_counter{0};
std::atomic<unsigned int> s_field_modification_counter{0};
