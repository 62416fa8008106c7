#include "class_registry.h"

#include "log.h"
#include "reference.h"
#include "resources.h"
#include "thread_cleanups.h"

#include <atomic>
#include <map>
#include <mutex>
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

namespace {
[[maybe_unused]] const bool forgets_at_thread_end =
    on_thread_end(RegisteredConstructor::forget_thread_cache, CleanupAt::OS_THREAD_END);
}  // namespace
