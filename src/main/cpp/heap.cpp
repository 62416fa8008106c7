#include "heap.h"

#include "exception.h"
#include "global.h"
#include "hooks.h"
#include "lock.h"
#include "log.h"
#include "lookup.h"
#include "native.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <vector>

namespace {
struct ClassCounter {
    jlong count;
    jlong size;
};

// One histogram: the classes tagged with their counters, the walk, and the clean-up that gives
// every tag back whatever happened.
class Histogram {
public:
    explicit Histogram(JNIEnv* env) : m_classes(env) {}

    jvmtiError read_classes() { return m_classes.read(); }
    jint class_count() const { return m_classes.count(); }

    // Tags every class with its own counter and walks the heap. Runs under TAG_LOCK.
    jvmtiError tag_and_walk(jlong limit_millis) {
        m_counters.assign(static_cast<size_t>(m_classes.count()), ClassCounter{0, 0});
        for (jint k = 0; k < m_classes.count(); k++) {
            g_jvmti->SetTag(m_classes[k], reinterpret_cast<jlong>(&m_counters[static_cast<size_t>(k)]));
        }
        m_start = get_time();
        if (limit_millis > 0) {
            m_limit = IterationLimit{m_start + static_cast<double>(limit_millis) / 1000.0, 0, JNI_FALSE};
            LOG_DEBUG("Timeout Ts=%lf, now=%lf timeout=%ldms", m_limit->deadline, m_start, static_cast<long>(limit_millis));
        }
        jvmtiHeapCallbacks callbacks{};
        callbacks.heap_iteration_callback = heapIterationCallback;
        return g_jvmti->IterateThroughHeap(0, nullptr, &callbacks, m_limit ? &*m_limit : nullptr);
    }

    // Clears every class's tag and hands what its counter holds to `each` (class index, class,
    // counter); classes whose tag cannot be read are left out.
    template <typename Each>
    void clear_tags(Each each) {
        for (jint k = 0; k < m_classes.count(); k++) {
            jlong tag = 0;
            if (g_jvmti->GetTag(m_classes[k], &tag) != JVMTI_ERROR_NONE) continue;
            jvmtiError error = g_jvmti->SetTag(m_classes[k], 0);
            if (error != JVMTI_ERROR_NONE) {
                LOG_WARN("Failed to clear the tag of a class %s %d", get_error_message(error).c_str(), error);
            }
            ClassCounter none{0, 0};
            const ClassCounter* counter = tag != 0 ? reinterpret_cast<const ClassCounter*>(tag) : &none;
            each(k, m_classes[k], *counter);
        }
    }

    bool timed_out() const { return m_limit && m_limit->timed_out; }

    void log_timeout() const {
        if (timed_out()) log_walk_timeout(*m_limit, m_start);
    }

    double start() const { return m_start; }

private:
    LoadedClasses m_classes;
    std::vector<ClassCounter> m_counters;
    std::optional<IterationLimit> m_limit;
    double m_start = 0;
};

// The three result arrays of heapHistogram, filled class by class as the tags are cleared.
struct HistogramArrays {
    LocalRef<jobjectArray> names;
    std::vector<jlong> counts;
    std::vector<jlong> sizes;
};

void deliver(JNIEnv* env, jobject callback, jmethodID instance, HistogramArrays& arrays) {
    jsize n = static_cast<jsize>(arrays.counts.size());
    LocalRef<jlongArray> counts(env, env->NewLongArray(n));
    if (!counts) return;
    LocalRef<jlongArray> sizes(env, env->NewLongArray(n));
    if (!sizes) return;
    env->SetLongArrayRegion(counts.get(), 0, n, arrays.counts.data());
    env->SetLongArrayRegion(sizes.get(), 0, n, arrays.sizes.data());
    env->CallVoidMethod(callback, instance, arrays.names.get(), counts.get(), sizes.get());
}

void collect(JNIEnv* env, Histogram& histogram, HistogramArrays& arrays) {
    histogram.clear_tags([&](jint k, jclass clazz, const ClassCounter& counter) {
        arrays.counts[static_cast<size_t>(k)] = counter.count;
        arrays.sizes[static_cast<size_t>(k)] = counter.size;
        if (!arrays.names || env->ExceptionCheck()) return;
        LocalRef<jstring> name(env, env->NewStringUTF(get_class_name(env, clazz).c_str()));
        if (name) env->SetObjectArrayElement(arrays.names.get(), k, name.get());
    });
}

void write_lines(FILE* file, JNIEnv* env, Histogram& histogram) {
    histogram.clear_tags([&](jint, jclass clazz, const ClassCounter& counter) {
        fprintf(file, "%s,%ld,%ld\n", get_class_name(env, clazz).c_str(), static_cast<long>(counter.count),
                static_cast<long>(counter.size));
    });
}

// Closes the file however the native ends.
struct FileCloser {
    FILE* file;
    ~FileCloser() {
        if (file != nullptr) fclose(file);
    }
};
}  // namespace

bool limit_reached(IterationLimit* limit, const char* where) {
    if (limit->timed_out) return true;
    if (++limit->calls % CHECK_EVERY != 0) return false;
    if (limit->deadline >= get_time()) return false;
    LOG_DEBUG("TIMEOUT in %s", where);
    limit->timed_out = JNI_TRUE;
    return true;
}

void log_walk_timeout(const IterationLimit& limit, double start) {
    double now = get_time();
    LOG_DEBUG("Calls=%ld now=%lf start=%lf timeout ts=%lf duration=%lf", static_cast<long>(limit.calls), now, start,
              limit.deadline, now - start);
}

LoadedClasses::~LoadedClasses() { release(); }

void LoadedClasses::release() {
    for (jint k = 0; m_classes && k < m_count; k++) m_env->DeleteLocalRef(m_classes[static_cast<size_t>(k)]);
    m_classes.reset();
    m_count = 0;
}

jvmtiError LoadedClasses::read() {
    jvmtiError error = g_jvmti->GetLoadedClasses(&m_count, m_classes.out());
    if (error != JVMTI_ERROR_NONE) {
        m_count = 0;
        return error;
    }
    // The VM has just handed over one local reference per class.
    ensure_local_capacity(m_env, m_count);
    return error;
}

// Runs for every object while the VM holds the heap still: no JNI, no allocation, no lookup.
jint JNICALL heapIterationCallback(jlong class_tag, jlong size, jlong*, jint, void* user_data) {
    auto* limit = static_cast<IterationLimit*>(user_data);
    if (limit != nullptr && limit_reached(limit, "heapIteration")) return JVMTI_VISIT_ABORT;
    if (class_tag != 0) {
        auto* counter = reinterpret_cast<ClassCounter*>(class_tag);
        counter->count++;
        counter->size += size;
    }
    return JVMTI_VISIT_OBJECTS;
}

KV_NATIVE(void, heapHistogram)(JNIEnv* env, jobject, jobject callback, jlong limit) {
    if (!require_agent(env)) return;
    if (callback == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "callback is null");
        return;
    }
    jmethodID instance = find_callback_method(env, callback, "instance", "([Ljava/lang/String;[J[J)V");
    if (instance == nullptr) return;
    Histogram histogram(env);
    jvmtiError error = histogram.read_classes();
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    JavaLockGuard guard(TAG_LOCK);
    error = histogram.tag_and_walk(limit);
    if (error != JVMTI_ERROR_NONE) {
        histogram.clear_tags([](jint, jclass, const ClassCounter&) {});
        throw_jvmti_exception(env, error);
        return;
    }
    LOG_DEBUG("Duration=%lf", get_time() - histogram.start());
    histogram.log_timeout();
    LOG_DEBUG("Count=%d", histogram.class_count());
    jsize n = histogram.class_count();
    LocalRef<jclass> string_class(env, env->FindClass("java/lang/String"));
    HistogramArrays arrays{LocalRef<jobjectArray>(env, string_class ? env->NewObjectArray(n, string_class.get(), nullptr)
                                                                    : nullptr),
                           std::vector<jlong>(static_cast<size_t>(n)), std::vector<jlong>(static_cast<size_t>(n))};
    collect(env, histogram, arrays);
    if (env->ExceptionCheck()) return;
    deliver(env, callback, instance, arrays);
    if (histogram.timed_out() && !env->ExceptionCheck()) throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
}

KV_NATIVE(void, heapHistogramToFile)(JNIEnv* env, jobject, jstring fileName, jlong limit) {
    if (!require_agent(env)) return;
    if (fileName == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "filename is null");
        return;
    }
    StringUtfChars name(env, fileName);
    if (name.get() == nullptr) return;
    FileCloser file{fopen(name.get(), "w")};
    if (file.file == nullptr) {
        throw_errno(env, errno);
        return;
    }
    JavaLockGuard guard(TAG_LOCK);
    fprintf(file.file, "CLASS_NAME,COUNT,SIZE\n");
    Histogram histogram(env);
    jvmtiError error = histogram.read_classes();
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    error = histogram.tag_and_walk(limit);
    write_lines(file.file, env, histogram);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
    } else if (histogram.timed_out()) {
        fprintf(file.file, "#TIMEOUT\n");
        histogram.log_timeout();
        throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
    }
}

KV_NATIVE(void, forceGC)(JNIEnv* env, jobject) {
    if (!require_agent(env)) return;
    jvmtiError error = g_jvmti->ForceGarbageCollection();
    if (error != JVMTI_ERROR_NONE) throw_jvmti_exception(env, error);
}
