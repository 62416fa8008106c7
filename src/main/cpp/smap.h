// Mapping a line of generated Java source to the template line it came from, through the JSR-45
// source map (SMAP) that template compilers put into the class's source debug extension.
#pragma once

#include <jni.h>

// The template line for a Java line, or the Java line unchanged when the text is not an SMAP or no
// line-section entry covers it. Every line section is searched, whatever its stratum; the first
// entry that covers the line wins. Any text is safe: truncated, binary, huge numbers, no newline.
jint get_jsp_line_from_smap(const char* smap, jint line);
