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

JNIEnv* current_env() {
    JNIEnv* env = nullptr;
    if (g_vm == nullptr || g_vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) return nullptr;
    return env;
}

JavaLock* PAUSE_LOCK = nullptr;
JavaLock* TAG_LOCK = nullptr;
