// The paths from the garbage-collection roots to the instances of a class, merged into one tree.
#pragma once

#include <jvmti.h>

jint JNICALL heapReferenceCallbackDump(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
                                       jlong class_tag, jlong referrer_class_tag, jlong size, jlong* tag_ptr,
                                       jlong* referrer_tag_ptr, jint length, void* user_data);
