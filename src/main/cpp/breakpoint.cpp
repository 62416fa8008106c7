#include "breakpoint.h"

#include "exception.h"
#include "global.h"
#include "hooks.h"
#include "log.h"
#include "lookup.h"
#include "native.h"
#include "resources.h"

#include <mutex>
#include <set>
#include <utility>

std::atomic<unsigned int> s_breakpoint_counter{0};
std::atomic<unsigned int> s_field_access_counter{0};
std::atomic<unsigned int> s_field_modification_counter{0};

namespace {
constexpr jint ACC_STATIC = 0x0008;

jobject fail_to_java(JNIEnv* env) {
    if (env->ExceptionCheck()) env->ExceptionClear();
    return nullptr;
}

// Calls a no-argument object method; null when it cannot be called or throws.
jobject call_getter(JNIEnv* env, jobject object, const char* name, const char* signature) {
    jmethodID getter = find_method(env, object, name, signature);
    if (getter == nullptr) return nullptr;
    jobject result = env->CallObjectMethod(object, getter);
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        return nullptr;
    }
    return result;
}

bool read_location_field(JNIEnv* env, jobject object, jlocation* location) {
    LocalRef<jclass> clazz(env, env->GetObjectClass(object));
    jfieldID field = env->GetFieldID(clazz.get(), "location", "J");
    if (field == nullptr) {
        env->ExceptionClear();
        return false;
    }
    *location = env->GetLongField(object, field);
    return true;
}
}  // namespace

std::optional<BreakpointLocation> BreakpointLocation::from_java(JNIEnv* env, jobject object) {
    if (object == nullptr) return std::nullopt;
    LocalRef<jclass> member_class(
        env, static_cast<jclass>(call_getter(env, object, "getMemberClass", "()Ljava/lang/Class;")));
    LocalRef<jstring> member_signature(
        env, static_cast<jstring>(call_getter(env, object, "getMemberSignature", "()Ljava/lang/String;")));
    if (!member_class || !member_signature) return std::nullopt;
    StringUtfChars key(env, member_signature.get());
    if (key.get() == nullptr) {
        env->ExceptionClear();
        return std::nullopt;
    }
    jmethodID method = find_method_by_key(member_class.get(), key.get());
    jlocation location = 0;
    if (method == nullptr || !read_location_field(env, object, &location)) return std::nullopt;
    return BreakpointLocation(method, location);
}

namespace {
// The last places this thread handed to a hook. A breakpoint in a loop stops at the same place
// over and over; reflecting its method and building the location again each time would cost
// more than the rest of the hit. Held weakly, so that no class is kept from unloading.
struct CachedLocation {
    jmethodID method;
    jlocation location;
    unsigned long generation;
    jweak object;
};
constexpr int LOCATION_CACHE_SIZE = 8;
thread_local CachedLocation t_locations[LOCATION_CACHE_SIZE] = {};
thread_local int t_next_location = 0;

void remember_location(JNIEnv* env, const CachedLocation& entry) {
    CachedLocation& slot = t_locations[t_next_location];
    t_next_location = (t_next_location + 1) % LOCATION_CACHE_SIZE;
    if (slot.object != nullptr) env->DeleteWeakGlobalRef(slot.object);
    slot = entry;
}
}  // namespace

jobject BreakpointLocation::to_java(JNIEnv* env) const {
    unsigned long generation = registry_generation();
    for (const CachedLocation& cached : t_locations) {
        if (cached.object == nullptr || cached.method != m_method || cached.location != m_location ||
            cached.generation != generation) {
            continue;
        }
        jobject alive = env->NewLocalRef(cached.object);
        if (alive != nullptr) return alive;
    }
    jobject made = make_java(env);
    if (made == nullptr) return nullptr;
    jweak weak = env->NewWeakGlobalRef(made);
    if (weak != nullptr) remember_location(env, CachedLocation{m_method, m_location, generation, weak});
    return made;
}

void BreakpointLocation::forget_thread_cache(JNIEnv* env) {
    for (CachedLocation& cached : t_locations) {
        if (cached.object != nullptr) env->DeleteWeakGlobalRef(cached.object);
        cached = CachedLocation{};
    }
}

jobject BreakpointLocation::make_java(JNIEnv* env) const {
    LocalRef<jclass> declaring(env);
    jvmtiError error = g_jvmti->GetMethodDeclaringClass(m_method, declaring.out());
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("GetMethodDeclaringClass failed %d", error);
        return fail_to_java(env);
    }
    jint modifiers = 0;
    error = g_jvmti->GetMethodModifiers(m_method, &modifiers);
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("GetMethodModifiers failed %d", error);
        return fail_to_java(env);
    }
    LocalRef<jobject> member(env, env->ToReflectedMethod(declaring.get(), m_method, (modifiers & ACC_STATIC) != 0));
    if (!member) {
        LOG_ERROR("ToReflectedMethod failed %d", 0);
        return fail_to_java(env);
    }
    static RegisteredConstructor location_constructor("BreakpointLocation", "(Ljava/lang/reflect/Member;J)V");
    LocalRef<jclass> clazz(env);
    jmethodID constructor = nullptr;
    if (!location_constructor.get_or_log(env, &clazz, &constructor)) return fail_to_java(env);
    jobject location = env->NewObject(clazz.get(), constructor, member.get(), m_location);
    return location != nullptr ? location : fail_to_java(env);
}

// ---- natives

namespace {
// The places that hold breakpoints, so that a step stopping on one can tell. Changed by the
// natives, read only when a step stops: never on the path of every single step.
struct BreakpointPlaces {
    std::mutex lock;
    std::set<std::pair<jmethodID, jlocation>> places;
};

BreakpointPlaces& breakpoint_places() {
    static auto* instance = new BreakpointPlaces();
    return *instance;
}

void record_place(const BreakpointLocation& location, bool set) {
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    auto place = std::make_pair(location.method(), location.location());
    if (set) {
        breakpoint_places().places.insert(place);
    } else {
        breakpoint_places().places.erase(place);
    }
}

using BreakpointCall = jvmtiError (jvmtiEnv::*)(jmethodID, jlocation);
using WatchCall = jvmtiError (jvmtiEnv::*)(jclass, jfieldID);

void change_breakpoint(JNIEnv* env, jobject object, BreakpointCall call, int delta) {
    if (!require_agent(env)) return;
    std::optional<BreakpointLocation> location = BreakpointLocation::from_java(env, object);
    if (!location) {
        throw_exception(env, ILLEGAL_ARGUMENT, "Invalid BreakpointLocation");
        return;
    }
    if (delta > 0) {
        LOG_DEBUG("SetBreakpoint(%p,%d)", static_cast<void*>(location->method()), static_cast<int>(location->location()));
    } else {
        LOG_DEBUG("ClearBreakpoint(%p,%d)", static_cast<void*>(location->method()), static_cast<int>(location->location()));
    }
    jvmtiError error = (g_jvmti->*call)(location->method(), location->location());
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    record_place(*location, delta > 0);
    if (delta > 0) {
        s_breakpoint_counter++;
    } else {
        s_breakpoint_counter--;
    }
}

void change_watch(JNIEnv* env, jclass clazz, jobject field, WatchCall call, std::atomic<unsigned int>& counter,
                  int delta) {
    if (!require_agent(env)) return;
    jfieldID id = field != nullptr ? env->FromReflectedField(field) : nullptr;
    if (id == nullptr) {
        if (env->ExceptionCheck()) env->ExceptionClear();
        throw_exception(env, ILLEGAL_ARGUMENT, "Invalid Field");
        return;
    }
    jvmtiError error = (g_jvmti->*call)(clazz, id);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    if (delta > 0) {
        counter++;
    } else {
        counter--;
    }
}
}  // namespace

bool has_breakpoint(jmethodID method, jlocation location) {
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    return breakpoint_places().places.count(std::make_pair(method, location)) != 0;
}

KV_NATIVE(void, setBreakpoint)(JNIEnv* env, jobject, jobject location) {
    change_breakpoint(env, location, &jvmtiEnv::SetBreakpoint, 1);
}

KV_NATIVE(void, clearBreakpoint)(JNIEnv* env, jobject, jobject location) {
    change_breakpoint(env, location, &jvmtiEnv::ClearBreakpoint, -1);
}

KV_NATIVE(void, setFieldAccessWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::SetFieldAccessWatch, s_field_access_counter, 1);
}

KV_NATIVE(void, clearFieldAccessWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::ClearFieldAccessWatch, s_field_access_counter, -1);
}

KV_NATIVE(void, setFieldModificationWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::SetFieldModificationWatch, s_field_modification_counter, 1);
}

KV_NATIVE(void, clearFieldModificationWatch)(JNIEnv* env, jobject, jclass clazz, jobject field) {
    change_watch(env, clazz, field, &jvmtiEnv::ClearFieldModificationWatch, s_field_modification_counter, -1);
}
