// The host benchmark's floor: an agent that handles nothing and holds only what its option names,
// so that the cost of each thing the library holds from load on can be told apart from the rest.
// -agentpath:libkv_bench_host_floor.so=FEATURE[,FEATURE...] with FEATURE one of
//
//   env                a JVMTI environment and nothing more (also what an empty option means)
//   basic              the capabilities the library holds from load on whatever its mode:
//                      can_tag_objects, can_get_source_file_name, can_get_line_numbers,
//                      can_get_source_debug_extension
//   class-file-hook    ClassFileLoadHook events switched on for the VM, with a callback that
//                      leaves every class as it is
//   class-prepare      ClassPrepare events switched on for the VM, with a callback that does nothing
//   exceptions         can_generate_exception_events, and Exception and ExceptionCatch events
//                      switched on for the VM, with callbacks that do nothing
//   exception-capability  can_generate_exception_events alone, no event switched on: what the
//                      capability costs while no exception is asked for
//   can_...            one capability by its JVMTI name, among those inspection may want (see
//                      SINGLE_CAPABILITIES)
//
// The library switches its load-time events on for the VM as a whole, so the floor does too.
#include <jni.h>
#include <jvmti.h>

#include <string>

namespace {
jvmtiEnv* g_jvmti = nullptr;
jvmtiCapabilities g_capabilities{};
jvmtiEventCallbacks g_callbacks{};

struct SingleCapability {
    const char* name;
    void (*set)(jvmtiCapabilities* capabilities);
};

// The capabilities an inspection-only agent may hold, one at a time.
const SingleCapability SINGLE_CAPABILITIES[] = {
    {"can_suspend", [](jvmtiCapabilities* c) { c->can_suspend = 1; }},
    {"can_get_owned_monitor_info", [](jvmtiCapabilities* c) { c->can_get_owned_monitor_info = 1; }},
    {"can_get_owned_monitor_stack_depth_info", [](jvmtiCapabilities* c) { c->can_get_owned_monitor_stack_depth_info = 1; }},
    {"can_get_current_contended_monitor", [](jvmtiCapabilities* c) { c->can_get_current_contended_monitor = 1; }},
    {"can_get_monitor_info", [](jvmtiCapabilities* c) { c->can_get_monitor_info = 1; }},
    {"can_get_line_numbers", [](jvmtiCapabilities* c) { c->can_get_line_numbers = 1; }},
    {"can_get_source_file_name", [](jvmtiCapabilities* c) { c->can_get_source_file_name = 1; }},
    {"can_get_source_debug_extension", [](jvmtiCapabilities* c) { c->can_get_source_debug_extension = 1; }},
    {"can_tag_objects", [](jvmtiCapabilities* c) { c->can_tag_objects = 1; }},
};

void add_basic_capabilities() {
    g_capabilities.can_tag_objects = 1;
    g_capabilities.can_get_source_file_name = 1;
    g_capabilities.can_get_line_numbers = 1;
    g_capabilities.can_get_source_debug_extension = 1;
}

// Every class is left as it is: no new bytes.
void JNICALL class_file_loaded(jvmtiEnv*, JNIEnv*, jclass, jobject, const char*, jobject, jint, const unsigned char*,
                               jint*, unsigned char**) {}

void JNICALL class_prepared(jvmtiEnv*, JNIEnv*, jthread, jclass) {}

void JNICALL exception_thrown(jvmtiEnv*, JNIEnv*, jthread, jmethodID, jlocation, jobject, jmethodID, jlocation) {}

void JNICALL exception_caught(jvmtiEnv*, JNIEnv*, jthread, jmethodID, jlocation, jobject) {}

bool add_single_capability(const std::string& name) {
    for (const SingleCapability& single : SINGLE_CAPABILITIES) {
        if (name == single.name) {
            single.set(&g_capabilities);
            return true;
        }
    }
    return false;
}

// Records what one feature needs; false for a name the floor does not know.
bool add_feature(const std::string& feature) {
    if (feature == "env" || feature.empty()) return true;
    if (feature == "basic") {
        add_basic_capabilities();
    } else if (feature == "class-file-hook") {
        g_callbacks.ClassFileLoadHook = class_file_loaded;
    } else if (feature == "class-prepare") {
        g_callbacks.ClassPrepare = class_prepared;
    } else if (feature == "exceptions") {
        g_capabilities.can_generate_exception_events = 1;
        g_callbacks.Exception = exception_thrown;
        g_callbacks.ExceptionCatch = exception_caught;
    } else if (feature == "exception-capability") {
        g_capabilities.can_generate_exception_events = 1;
    } else {
        return add_single_capability(feature);
    }
    return true;
}

bool read_features(const char* options) {
    std::string rest = options == nullptr ? "" : options;
    for (size_t comma; (comma = rest.find(',')) != std::string::npos; rest.erase(0, comma + 1)) {
        if (!add_feature(rest.substr(0, comma))) return false;
    }
    return add_feature(rest);
}

bool enable_for_the_vm(bool wanted, jvmtiEvent event) {
    return !wanted || g_jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr) == JVMTI_ERROR_NONE;
}

bool settle() {
    if (g_jvmti->AddCapabilities(&g_capabilities) != JVMTI_ERROR_NONE) return false;
    if (g_jvmti->SetEventCallbacks(&g_callbacks, sizeof g_callbacks) != JVMTI_ERROR_NONE) return false;
    return enable_for_the_vm(g_callbacks.ClassFileLoadHook != nullptr, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK) &&
           enable_for_the_vm(g_callbacks.ClassPrepare != nullptr, JVMTI_EVENT_CLASS_PREPARE) &&
           enable_for_the_vm(g_callbacks.Exception != nullptr, JVMTI_EVENT_EXCEPTION) &&
           enable_for_the_vm(g_callbacks.ExceptionCatch != nullptr, JVMTI_EVENT_EXCEPTION_CATCH);
}
}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
    if (!read_features(options)) return JNI_ERR;
    if (vm->GetEnv(reinterpret_cast<void**>(&g_jvmti), JVMTI_VERSION_1_2) != JNI_OK) return JNI_ERR;
    return settle() ? JNI_OK : JNI_ERR;
}
