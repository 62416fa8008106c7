// Reading method signatures (pure: no VM involved).
#pragma once

#include <jni.h>

#include <string>
#include <vector>

// The JVM type signature of argument n (from 0) of a method signature such as
// ([IJLjava/lang/String;)V: [I, J, Ljava/lang/String;; empty when there is no such argument.
std::string get_arg_sig(const char* signature, jint n);

// An argument of a method as its frame holds it: the local slot and the type.
struct ArgumentSlot {
    jint slot;
    std::string type;
};

// The arguments of a method signature with the slots they occupy, the first at first_slot (1 when
// slot 0 holds the receiver). Longs and doubles take two slots, so later arguments move up.
std::vector<ArgumentSlot> argument_slots(const char* signature, jint first_slot);
