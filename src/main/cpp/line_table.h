// Searching a method's line-number table (pure: no VM involved).
#pragma once

#include <jvmti.h>

// The line of a bytecode location: the first entry that starts exactly there, else the entry with
// the greatest start below it (the earlier one among equal starts), else -1. The table is taken in
// the order given; nothing assumes it sorted.
jint find_line(const jvmtiLineNumberEntry* table, jint count, jlocation location);

// True when the text ends with the suffix; an empty suffix ends every text.
bool has_suffix(const char* text, const char* suffix);
