// Agent entry and exit, capabilities and the callback table.
#pragma once

#include <jvmti.h>

#include <string>
#include <vector>

// Acquires the debugging capability set; true when held. Dumps the capabilities at DEBUG.
bool add_upd_capabilities();
// Logs, at DEBUG, every capability field and whether the environment holds it.
void dump_capabilities();
// Installs the event callbacks; part of start-up, called once.
void register_callbacks();
// Switches ClassPrepare and ClassFileLoadHook for the VM to what the hooks and the mode need now.
void update_class_events();

// The callbacks record for the given configuration, and the names of the callbacks it holds in
// the order that start-up logs them.
jvmtiEventCallbacks build_callbacks(bool exceptions_enabled, bool stepping_enabled);
std::vector<std::string> installed_callback_names(const jvmtiEventCallbacks& callbacks);
