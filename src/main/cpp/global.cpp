#include "global.h"

JavaVM* g_vm = nullptr;
jvmtiEnv* g_jvmti = nullptr;
jint g_jvmti_version = 0;
std::atomic<bool> g_active{false};
std::atomic<bool> g_vm_alive{false};
bool g_stepping_enabled = true;
bool g_compiled_stepping = false;
bool g_virtual_threads = false;
bool g_inspection_only = false;
bool g_exceptions_enabled = true;
std::atomic<jint> MAX_STEP{DEFAULT_MAX_STEP};
long g_heap_walk_max_mb = 64;

JavaLock* PAUSE_LOCK = nullptr;
JavaLock* TAG_LOCK = nullptr;

ReferenceCountedJObject g_classPrepareHook;
ReferenceCountedJObject g_breakpointHook;
ReferenceCountedJObject g_exceptionHook;
ReferenceCountedJObject g_threadHook;
ReferenceCountedJObject g_fieldHook;
ReferenceCountedJObject g_stepHook;
ReferenceCountedJObject g_fileLoadHook;
