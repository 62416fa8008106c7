// The registry of managed classes by name, and (later) class, method and line lookup.
#pragma once

#include <jni.h>

#include <string>

// Stores a global class reference under a name, replacing what was there. A replaced reference
// is kept alive: a lookup on another thread may still be using it.
void register_osgi_class(const std::string& name, jclass clazz);

// The class registered under exactly this name (case-sensitive), or null.
jclass get_osgi_class(const std::string& name);
