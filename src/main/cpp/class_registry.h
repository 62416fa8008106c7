// The registry of managed classes by name, which the agent constructs and raises, and their
// constructors kept ready per thread.
#pragma once

#include "reference.h"
#include "resources.h"

#include <jni.h>

#include <string>

// Stores the class under a name, replacing what was there. The class it replaces is let go as
// soon as no lookup still holds it, so that registering again does not pin the old class loader.
// False when no memory was left for the new reference.
bool register_osgi_class(JNIEnv* env, const std::string& name, jclass clazz);

// The class registered under exactly this name (case-sensitive), held for as long as the caller
// keeps the copy; empty when none is.
ReferenceCountedJObject get_osgi_class(const std::string& name);

// Changes with every registration: what was built from registered classes before is stale.
unsigned long registry_generation();

// A constructor of a registered class, looked up again only after a registration, so that the
// objects built for every event cost no registry or method lookup. Each thread keeps its own
// weak reference to the class: nothing kept here pins a class loader that was registered once.
class RegisteredConstructor {
public:
    enum Status { FOUND, NO_CLASS, NO_CONSTRUCTOR };

    RegisteredConstructor(const char* class_name, const char* signature);

    // On FOUND, a local reference to the registered class and its constructor.
    Status get(JNIEnv* env, LocalRef<jclass>* clazz, jmethodID* constructor);
    // The same, with one ERROR line naming what is missing: "OSGI class '<name>' is null" or
    // "OSGI class '<name>' constructor not found".
    bool get_or_log(JNIEnv* env, LocalRef<jclass>* clazz, jmethodID* constructor);

    // Lets go of what the calling thread keeps for every constructor; at thread end.
    static void forget_thread_cache(JNIEnv* env);

private:
    const char* m_class_name;
    const char* m_signature;
    int m_slot;  // of the per-thread cache
};
