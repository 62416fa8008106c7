// Events switched for the whole VM while something needs them (class events, virtual-thread
// events), each changed in the VM only when its wanted state changes.
#pragma once

#include <jvmti.h>

#include <initializer_list>

struct VmEventWish {
    jint event;
    const char* name;
    bool wanted;
};

// Brings each event to its wanted state. The lock behind it is timed: its holder may be a thread
// suspended in the VM call; this update is then skipped, and the next one puts a lagging switch
// right.
void switch_vm_events(std::initializer_list<VmEventWish> wishes);
