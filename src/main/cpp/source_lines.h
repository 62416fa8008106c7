// The source lines that steps judge by, with each thread's last line tables and SMAPs kept ready.
#pragma once

#include <jni.h>
#include <jvmti.h>

// The source line of a bytecode location as a step judges it: the line of the location mapped
// through the class's SMAP; -1 for a place without a line. The calling thread keeps the last
// methods' tables ready, so that a thread stepping through a method reads its line table and SMAP
// once.
jint source_line(JNIEnv* env, jmethodID method, jlocation location);

// Classes are being redefined: tables kept ready may be stale.
void forget_source_lines();
// Changes with every redefinition: what was read of a method before is stale.
unsigned long class_generation();
