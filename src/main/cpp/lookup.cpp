#include "lookup.h"

#include "exception.h"
#include "log.h"
#include "native.h"
#include "resources.h"

#include <map>
#include <mutex>
#include <shared_mutex>

namespace {
// Lookups come from every event thread, registrations rarely from the managed side: a
// reader-writer lock lets lookups run side by side and never see a map being rebuilt. Both live
// as long as the process and are never destroyed, so that a callback still running on another
// thread while the process exits cannot meet a destroyed map.
std::shared_mutex& registry_lock() {
    static auto* lock = new std::shared_mutex();
    return *lock;
}

std::map<std::string, jclass>& osgi_class_map() {
    static auto* map = new std::map<std::string, jclass>();
    return *map;
}
}  // namespace

void register_osgi_class(const std::string& name, jclass clazz) {
    std::unique_lock<std::shared_mutex> guard(registry_lock());
    osgi_class_map()[name] = clazz;
}

jclass get_osgi_class(const std::string& name) {
    std::shared_lock<std::shared_mutex> guard(registry_lock());
    const auto& map = osgi_class_map();
    auto found = map.find(name);
    return found != map.end() ? found->second : nullptr;
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
    jclass global = static_cast<jclass>(env->NewGlobalRef(clazz));
    if (global == nullptr) return;
    LOG_DEBUG("registered %s", chars.get());
    register_osgi_class(chars.get(), global);
}
