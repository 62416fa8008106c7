// The registry of managed classes by name, and class, method and line lookup.
#pragma once

#include "reference.h"
#include "resources.h"

#include <jni.h>
#include <jvmti.h>

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

// The first method declared by the class whose name followed by its JVM signature equals the key,
// such as main([Ljava/lang/String;)V; null when there is none or the class cannot be read.
jmethodID find_method_by_key(jclass clazz, const char* key);

// The class's name as Class.getName gives it (java.lang.String, [I); empty when it cannot be had.
std::string get_class_name(JNIEnv* env, jclass clazz);

// The class's source file and source debug extension; empty when absent. Any other failure is
// raised as a managed JVMTI exception (and the result is empty).
std::string get_source_filename(JNIEnv* env, jclass clazz);
std::string get_source_debug_extension(JNIEnv* env, jclass clazz);

// The source line of a bytecode location, or -1.
jint line_no_for_method(jmethodID method, jlocation location);

// Reports every line-number entry of the method to the callback's "lineNumber" (JI)V.
void line_no_for_method(JNIEnv* env, jmethodID method, jobject callback);

// The source line of a bytecode location as a step judges it: the line of the location mapped
// through the class's SMAP, that is map_line_number(env, method, line_no_for_method(method,
// location)). The calling thread keeps the last methods' tables ready, so that a thread stepping
// through a method reads its line table and SMAP once.
jint source_line(JNIEnv* env, jmethodID method, jlocation location);

// Classes are being redefined: tables kept ready may be stale.
void forget_source_lines();
// Changes with every redefinition: what was read of a method before is stale.
unsigned long class_generation();

// The template line for a Java line of the method, through its class's SMAP; the Java line
// unchanged when the class has none.
jint map_line_number(JNIEnv* env, jmethodID method, jint line);
