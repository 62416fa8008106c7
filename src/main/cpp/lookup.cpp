#include "lookup.h"

#include "exception.h"
#include "global.h"
#include "heap.h"
#include "hooks.h"
#include "line_table.h"
#include "log.h"
#include "native.h"
#include "resources.h"
#include "smap.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

namespace {
// Lookups come from every event thread, registrations rarely from the managed side: a
// reader-writer lock lets lookups run side by side and never see a map being rebuilt. Neither
// side makes a JNI call under it (a thread can be suspended in any call into the VM, and a lock it
// held then would stop every registration until it is resumed): a lookup only copies a counted
// holder, and a replaced holder is released after the lock is left. Both live as long as the
// process and are never destroyed, so that a callback still running on another thread while the
// process exits cannot meet a destroyed map.
std::shared_mutex& registry_lock() {
    static auto* lock = new std::shared_mutex();
    return *lock;
}

std::map<std::string, ReferenceCountedJObject>& osgi_class_map() {
    static auto* map = new std::map<std::string, ReferenceCountedJObject>();
    return *map;
}

// Counts registrations, so that what was looked up in the registry is known to be current.
std::atomic<unsigned long> g_registry_generation{0};

// What one thread keeps of one registered constructor.
struct CachedConstructor {
    unsigned long generation;
    jweak clazz;
    jmethodID constructor;
};
constexpr int CONSTRUCTOR_SLOTS = 4;
thread_local CachedConstructor t_constructors[CONSTRUCTOR_SLOTS] = {};
std::atomic<int> g_constructor_slots{0};

void forget_constructor(JNIEnv* env, CachedConstructor& cached) {
    if (cached.clazz != nullptr) env->DeleteWeakGlobalRef(cached.clazz);
    cached = CachedConstructor{};
}
}  // namespace

bool register_osgi_class(JNIEnv* env, const std::string& name, jclass clazz) {
    ReferenceCountedJObject incoming(env, clazz);
    if (!incoming.isSet()) return false;
    ReferenceCountedJObject replaced;
    {
        std::unique_lock<std::shared_mutex> guard(registry_lock());
        ReferenceCountedJObject& slot = osgi_class_map()[name];
        replaced = slot;
        slot = incoming;
        g_registry_generation.fetch_add(1, std::memory_order_release);
    }
    return true;
}

ReferenceCountedJObject get_osgi_class(const std::string& name) {
    std::shared_lock<std::shared_mutex> guard(registry_lock());
    const auto& map = osgi_class_map();
    auto found = map.find(name);
    return found != map.end() ? found->second : ReferenceCountedJObject();
}

unsigned long registry_generation() { return g_registry_generation.load(std::memory_order_acquire); }

RegisteredConstructor::RegisteredConstructor(const char* class_name, const char* signature)
    : m_class_name(class_name), m_signature(signature), m_slot(g_constructor_slots.fetch_add(1)) {}

bool RegisteredConstructor::get_or_log(JNIEnv* env, LocalRef<jclass>* clazz, jmethodID* constructor) {
    switch (get(env, clazz, constructor)) {
        case NO_CLASS:
            LOG_ERROR("OSGI class '%s' is null", m_class_name);
            return false;
        case NO_CONSTRUCTOR:
            LOG_ERROR("OSGI class '%s' constructor not found", m_class_name);
            return false;
        case FOUND:
            break;
    }
    return true;
}

RegisteredConstructor::Status RegisteredConstructor::get(JNIEnv* env, LocalRef<jclass>* clazz,
                                                         jmethodID* constructor) {
    unsigned long generation = registry_generation();
    CachedConstructor* cached = m_slot < CONSTRUCTOR_SLOTS ? &t_constructors[m_slot] : nullptr;
    if (cached != nullptr && cached->clazz != nullptr && cached->generation == generation) {
        clazz->reset(static_cast<jclass>(env->NewLocalRef(cached->clazz)));
        *constructor = cached->constructor;
        if (*clazz) return FOUND;
    }
    ReferenceCountedJObject registered = get_osgi_class(m_class_name);
    if (!registered.isSet()) return NO_CLASS;
    auto registered_class = static_cast<jclass>(registered.get());
    jmethodID method = env->GetMethodID(registered_class, "<init>", m_signature);
    if (method == nullptr) {
        env->ExceptionClear();
        return NO_CONSTRUCTOR;
    }
    if (cached != nullptr) {
        forget_constructor(env, *cached);
        *cached = CachedConstructor{generation, env->NewWeakGlobalRef(registered_class), method};
    }
    clazz->reset(static_cast<jclass>(env->NewLocalRef(registered_class)));
    *constructor = method;
    return *clazz ? FOUND : NO_CLASS;
}

void RegisteredConstructor::forget_thread_cache(JNIEnv* env) {
    for (CachedConstructor& cached : t_constructors) forget_constructor(env, cached);
}

KV_NATIVE(void, registerOsgiClass)(JNIEnv* env, jobject /*self*/, jstring name, jclass clazz) {
    if (name == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "name is null");
        return;
    }
    if (clazz == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "clazz is null");
        return;
    }
    StringUtfChars chars(env, name);
    if (chars.get() == nullptr) return;  // out of memory: the VM's error stays pending
    LOG_DEBUG("registered %s", chars.get());
    if (!register_osgi_class(env, chars.get(), clazz)) {
        throw_exception(env, ILLEGAL_STATE, "Cannot register the class: out of memory");
    }
}

// ---- class, method and line lookup

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

std::string get_class_name(JNIEnv* env, jclass clazz) {
    jmethodID getName = find_method(env, clazz, "getName", "()Ljava/lang/String;");
    if (getName == nullptr) return "";
    LocalRef<jstring> name(env, static_cast<jstring>(env->CallObjectMethod(clazz, getName)));
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        return "";
    }
    StringUtfChars chars(env, name.get());
    return chars.get() != nullptr ? chars.get() : "";
}

std::string get_source_filename(JNIEnv* env, jclass clazz) {
    return read_source_attribute(env, clazz, &jvmtiEnv::GetSourceFileName);
}

std::string get_source_debug_extension(JNIEnv* env, jclass clazz) {
    return read_source_attribute(env, clazz, &jvmtiEnv::GetSourceDebugExtension);
}

jint line_no_for_method(jmethodID method, jlocation location) {
    jint count = 0;
    JvmtiBuffer<jvmtiLineNumberEntry> table;
    if (g_jvmti->GetLineNumberTable(method, &count, table.out()) != JVMTI_ERROR_NONE) return -1;
    return find_line(table.get(), count, location);
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

jint map_line_number(JNIEnv* env, jmethodID method, jint line) {
    LocalRef<jclass> declaring(env);
    if (g_jvmti->GetMethodDeclaringClass(method, declaring.out()) != JVMTI_ERROR_NONE) return line;
    JvmtiBuffer<char> smap;
    if (g_jvmti->GetSourceDebugExtension(declaring.get(), smap.out()) != JVMTI_ERROR_NONE) return line;
    return get_jsp_line_from_smap(smap.get(), line);
}

namespace {
std::atomic<unsigned long> g_class_generation{0};

struct MethodLines {
    jmethodID method = nullptr;
    unsigned long generation = 0;
    std::unique_ptr<LineIndex> index;
};

// Enough for a step that goes through a few dozen methods to read each line table once.
constexpr int METHOD_LINES_KEPT = 32;
thread_local MethodLines t_method_lines[METHOD_LINES_KEPT];
thread_local int t_next_method_lines = 0;
thread_local const MethodLines* t_last_lines = nullptr;

// The source maps read last, by their text: the methods of one class share one, read once.
struct ParsedMap {
    NothrowArray<char> text;
    std::unique_ptr<SourceMap> map;
};
constexpr int SOURCE_MAPS_KEPT = 8;
thread_local ParsedMap t_source_maps[SOURCE_MAPS_KEPT];
thread_local int t_next_source_map = 0;

// The parsed map of an SMAP text (none: every line maps to itself), or null when memory ran out.
const SourceMap* source_map_of(const char* smap) {
    static const SourceMap none(nullptr);
    if (smap == nullptr) return &none;
    size_t length = std::strlen(smap) + 1;
    for (const ParsedMap& kept : t_source_maps) {
        if (kept.map && kept.text.size() == length && std::memcmp(kept.text.data(), smap, length) == 0) {
            return kept.map.get();
        }
    }
    ParsedMap& slot = t_source_maps[t_next_source_map];
    t_next_source_map = (t_next_source_map + 1) % SOURCE_MAPS_KEPT;
    slot.map.reset(new (std::nothrow) SourceMap(smap));
    if (!slot.map || !slot.map->complete() || !slot.text.resize_zeroed(length)) {
        slot.map.reset();
        return nullptr;
    }
    std::memcpy(slot.text.data(), smap, length);
    return slot.map.get();
}

std::unique_ptr<LineIndex> index_lines(JNIEnv* env, jmethodID method) {
    jint count = 0;
    JvmtiBuffer<jvmtiLineNumberEntry> table;
    if (g_jvmti->GetLineNumberTable(method, &count, table.out()) != JVMTI_ERROR_NONE) count = 0;
    JvmtiBuffer<char> smap;
    LocalRef<jclass> declaring(env);
    if (g_jvmti->GetMethodDeclaringClass(method, declaring.out()) == JVMTI_ERROR_NONE) {
        g_jvmti->GetSourceDebugExtension(declaring.get(), smap.out());
    }
    const SourceMap* source_map = source_map_of(smap.get());
    NothrowArray<jint> mapped;
    if (source_map == nullptr || !mapped.resize_zeroed(static_cast<size_t>(count))) return nullptr;
    for (jint i = 0; i < count; i++) mapped[static_cast<size_t>(i)] = source_map->map(table[static_cast<size_t>(i)].line_number);
    std::unique_ptr<LineIndex> index(new (std::nothrow) LineIndex(table.get(), count, mapped.data(), source_map->map(-1)));
    if (index && !index->complete()) index.reset();
    return index;
}
}  // namespace

jint source_line(JNIEnv* env, jmethodID method, jlocation location) {
    unsigned long generation = g_class_generation.load(std::memory_order_acquire);
    const MethodLines* last = t_last_lines;
    if (last != nullptr && last->method == method && last->generation == generation && last->index) {
        return last->index->line_at(location);
    }
    for (const MethodLines& kept : t_method_lines) {
        if (kept.method == method && kept.generation == generation && kept.index) {
            t_last_lines = &kept;
            return kept.index->line_at(location);
        }
    }
    std::unique_ptr<LineIndex> index = index_lines(env, method);
    if (!index) return map_line_number(env, method, line_no_for_method(method, location));
    jint line = index->line_at(location);
    MethodLines& slot = t_method_lines[t_next_method_lines];
    t_next_method_lines = (t_next_method_lines + 1) % METHOD_LINES_KEPT;
    slot.method = method;
    slot.generation = generation;
    slot.index = std::move(index);
    t_last_lines = &slot;
    return line;
}

void forget_source_lines() { g_class_generation.fetch_add(1, std::memory_order_acq_rel); }

unsigned long class_generation() { return g_class_generation.load(std::memory_order_acquire); }

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
