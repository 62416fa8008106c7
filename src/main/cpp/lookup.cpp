#include "lookup.h"

#include "exception.h"
#include "global.h"
#include "loaded_classes.h"
#include "native.h"
#include "object_methods.h"
#include "resources.h"

#include <string>

namespace {
using SourceAttribute = jvmtiError (jvmtiEnv::*)(jclass, char**);

std::string read_source_attribute(JNIEnv* env, jclass clazz, SourceAttribute call) {
    JvmtiBuffer<char> text;
    jvmtiError error = (g_jvmti->*call)(clazz, text.out());
    if (error == JVMTI_ERROR_ABSENT_INFORMATION) return "";
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return "";
    }
    return text.get();
}

jstring source_attribute_native(JNIEnv* env, jclass clazz, SourceAttribute call) {
    std::string text = read_source_attribute(env, clazz, call);
    if (env->ExceptionCheck()) return nullptr;
    return env->NewStringUTF(text.c_str());
}

}  // namespace

jmethodID find_method_by_key(jclass clazz, const char* key) {
    jint count = 0;
    JvmtiBuffer<jmethodID> methods;
    if (g_jvmti->GetClassMethods(clazz, &count, methods.out()) != JVMTI_ERROR_NONE) return nullptr;
    for (jint i = 0; i < count; i++) {
        JvmtiBuffer<char> name;
        JvmtiBuffer<char> signature;
        jmethodID method = methods[static_cast<size_t>(i)];
        if (g_jvmti->GetMethodName(method, name.out(), signature.out(), nullptr) != JVMTI_ERROR_NONE) continue;
        if (std::string(name.get()) + signature.get() == key) return method;
    }
    return nullptr;
}

void line_no_for_method(JNIEnv* env, jmethodID method, jobject callback) {
    jint count = 0;
    JvmtiBuffer<jvmtiLineNumberEntry> table;
    jvmtiError error = g_jvmti->GetLineNumberTable(method, &count, table.out());
    if (error == JVMTI_ERROR_NATIVE_METHOD || error == JVMTI_ERROR_ABSENT_INFORMATION) return;
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    jmethodID lineNumber = find_callback_method(env, callback, "lineNumber", "(JI)V");
    if (lineNumber == nullptr) return;
    for (jint i = 0; i < count && !env->ExceptionCheck(); i++) {
        const jvmtiLineNumberEntry& entry = table[static_cast<size_t>(i)];
        env->CallVoidMethod(callback, lineNumber, entry.start_location, entry.line_number);
    }
}

KV_NATIVE(jstring, getSourceFileName)(JNIEnv* env, jobject, jclass clazz) {
    if (!require_agent(env)) return nullptr;
    return source_attribute_native(env, clazz, &jvmtiEnv::GetSourceFileName);
}

KV_NATIVE(jstring, getSourceDebugExtension)(JNIEnv* env, jobject, jclass clazz) {
    if (!require_agent(env)) return nullptr;
    return source_attribute_native(env, clazz, &jvmtiEnv::GetSourceDebugExtension);
}

KV_NATIVE(void, getLineNumbersV2)(JNIEnv* env, jobject, jclass clazz, jstring key, jobject callback) {
    if (!require_agent(env)) return;
    StringUtfChars chars(env, key);
    if (chars.get() == nullptr) return;
    jmethodID method = find_method_by_key(clazz, chars.get());
    if (method != nullptr) line_no_for_method(env, method, callback);
}

KV_NATIVE(void, listClasses)(JNIEnv* env, jobject, jobject callback) {
    if (!require_agent(env)) return;
    if (callback == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "callback is null");
        return;
    }
    jmethodID classFound = find_callback_method(env, callback, "classFound", "(Ljava/lang/Class;)V");
    if (classFound == nullptr) return;
    LoadedClasses classes(env);
    jvmtiError error = classes.read();
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    // A callback that throws ends the listing; the exception goes back to the caller.
    for (jint i = 0; i < classes.count() && !env->ExceptionCheck(); i++) {
        jint status = 0;
        if (g_jvmti->GetClassStatus(classes[i], &status) != JVMTI_ERROR_NONE) continue;
        if ((status & JVMTI_CLASS_STATUS_PREPARED) != 0) env->CallVoidMethod(callback, classFound, classes[i]);
    }
}
