#include "breakpoint_location.h"

#include "class_registry.h"
#include "global.h"
#include "log.h"
#include "lookup.h"
#include "object_methods.h"
#include "resources.h"
#include "thread_cleanups.h"

namespace {
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

namespace {
[[maybe_unused]] const bool forgets_at_thread_end =
    on_thread_end(BreakpointLocation::forget_thread_cache, CleanupAt::OS_THREAD_END);
}  // namespace
