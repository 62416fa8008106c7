// The JDK methods whose frames may hold a virtual thread that is still being constructed.
//
// The heap walk of JDK 22 and later reads each virtual thread's continuation when it follows the
// thread, and a thread whose constructor has not yet stored the continuation crashes the VM there.
// Until the constructor returns, only these frames (and objects they alone hold) lead to such a
// thread, so a walk that follows nothing from them never meets one. What it leaves out is the
// construction in progress, which no GC-root path needs: the caller's frame holds the same objects.
#pragma once

#include <jvmti.h>

#include <cstddef>

class ConstructionFrames {
public:
    // Adds the methods of a loaded class that build virtual threads, if it is such a class.
    void add_class(jclass klass, const char* signature);
    // Safe in heap callbacks: reads only what add_class filled in.
    bool contains(jmethodID method) const;

private:
    void add_method(jmethodID method);

    // The JDK's virtual-thread builders have a few dozen such methods at most.
    static constexpr size_t CAPACITY = 64;
    jmethodID m_methods[CAPACITY] = {};
    size_t m_count = 0;
};
