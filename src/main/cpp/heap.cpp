#include "error_name.h"
#include "exception.h"
#include "global.h"
#include "heap_memory.h"
#include "loaded_classes.h"
#include "lock.h"
#include "log.h"
#include "native.h"
#include "object_methods.h"
#include "resources.h"
#include "walk_limit.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
struct ClassCounter {
    jlong count;
    jlong size;
};

// Runs for every object while the VM holds the heap still: no JNI, no allocation, no lookup.
jint JNICALL count_object(jlong class_tag, jlong size, jlong*, jint, void* user_data) {
    auto* limit = static_cast<IterationLimit*>(user_data);
    if (limit != nullptr && limit_reached(limit, "heapIteration")) return JVMTI_VISIT_ABORT;
    if (class_tag != 0) {
        auto* counter = reinterpret_cast<ClassCounter*>(class_tag);
        counter->count++;
        counter->size += size;
    }
    return JVMTI_VISIT_OBJECTS;
}

// One histogram. Under TAG_LOCK every class is tagged with a counter of its own, the heap walked
// and every tag cleared again; the counts are copied out of the tagged memory before, so that the
// results read once the lock is released are named by no tag.
class Histogram {
public:
    explicit Histogram(JNIEnv* env) : m_classes(env), m_budget(walk_ceiling_bytes()) {}
    ~Histogram() {
        if (m_counts != nullptr) m_budget.release(m_counts, counts_bytes());
    }
    Histogram(const Histogram&) = delete;
    Histogram& operator=(const Histogram&) = delete;

    WalkFailure count(jlong limit_millis) {
        JavaLockGuard guard(TAG_LOCK);
        return count_locked(limit_millis);
    }
    // Whether the walk ran (even if it failed or timed out): the counts are there to report.
    bool counted() const { return m_counts != nullptr; }
    jint class_count() const { return m_classes.count(); }
    jclass klass(jint k) const { return m_classes[k]; }
    const ClassCounter& counts(jint k) const { return m_counts[k]; }
    bool timed_out() const { return m_limit && m_limit->timed_out; }

    void log_walk() const {
        LOG_DEBUG("Duration=%lf", m_walk_end - m_start);
        if (timed_out()) log_walk_timeout(*m_limit, m_start);
        LOG_DEBUG("Count=%d", class_count());
    }

private:
    size_t counts_bytes() const { return static_cast<size_t>(m_classes.count()) * sizeof(ClassCounter); }
    WalkFailure count_locked(jlong limit_millis);
    jvmtiError walk(ClassCounter* counters, jlong limit_millis);
    bool clear_class_tags();

    LoadedClasses m_classes;
    WalkBudget m_budget;
    ClassCounter* m_counts = nullptr;
    std::optional<IterationLimit> m_limit;
    double m_start = 0;
    double m_walk_end = 0;
};

WalkFailure Histogram::count_locked(jlong limit_millis) {
    jvmtiError error = clear_leftover_tags();
    if (error != JVMTI_ERROR_NONE) return WalkFailure{WalkFailure::TAGS_LEFT, error};
    error = m_classes.read();
    if (error != JVMTI_ERROR_NONE) return WalkFailure::jvmti(error);
    BlockChain tagged;
    size_t classes = static_cast<size_t>(m_classes.count());
    auto* counters = static_cast<ClassCounter*>(tagged.add(m_budget, counts_bytes(), classes * TAG_ENTRY_BYTES));
    auto* counts = static_cast<ClassCounter*>(m_budget.allocate(counts_bytes()));
    if (counters == nullptr || counts == nullptr) {
        if (counts != nullptr) m_budget.release(counts, counts_bytes());
        return WalkFailure::of(m_budget);
    }
    error = walk(counters, limit_millis);
    std::memcpy(counts, counters, counts_bytes());
    m_counts = counts;
    if (!clear_class_tags()) keep_until_tags_cleared(tagged);
    return error != JVMTI_ERROR_NONE ? WalkFailure::jvmti(error) : WalkFailure{};
}

jvmtiError Histogram::walk(ClassCounter* counters, jlong limit_millis) {
    std::memset(counters, 0, counts_bytes());
    for (jint k = 0; k < m_classes.count(); k++) g_jvmti->SetTag(m_classes[k], reinterpret_cast<jlong>(&counters[k]));
    m_start = get_time();
    m_limit = start_limit(limit_millis, m_start);
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_iteration_callback = count_object;
    jvmtiError error = g_jvmti->IterateThroughHeap(0, nullptr, &callbacks, m_limit ? &*m_limit : nullptr);
    m_walk_end = get_time();
    return error;
}

// False when a tag stays: it names a counter, which must then outlive it.
bool Histogram::clear_class_tags() {
    bool cleared = true;
    for (jint k = 0; k < m_classes.count(); k++) {
        jvmtiError error = g_jvmti->SetTag(m_classes[k], 0);
        if (error != JVMTI_ERROR_NONE) {
            LOG_WARN("Failed to clear the tag of a class %s %d", get_error_message(error).c_str(), error);
            cleared = false;
        }
    }
    return cleared;
}

// Hands each class's name, as Class.getName gives it, to `each` (class index, name) until a
// managed exception is pending; a name that getName cannot give is empty.
template <typename Each>
void each_class_name(JNIEnv* env, const Histogram& histogram, Each each) {
    LocalRef<jclass> class_class(env, env->FindClass("java/lang/Class"));
    if (!class_class) return;
    jmethodID get_name = env->GetMethodID(class_class.get(), "getName", "()Ljava/lang/String;");
    for (jint k = 0; get_name != nullptr && k < histogram.class_count(); k++) {
        LocalRef<jstring> name(env, static_cast<jstring>(env->CallObjectMethod(histogram.klass(k), get_name)));
        if (env->ExceptionCheck()) {
            env->ExceptionClear();
            name.reset(env->NewStringUTF(""));
        }
        if (!name) return;
        each(k, name.get());
        if (env->ExceptionCheck()) return;
    }
}

// A long[] of one field of every class's counts; null with an exception pending when it cannot be
// made.
jlongArray counts_column(JNIEnv* env, const Histogram& histogram, jlong ClassCounter::*field) {
    jlongArray column = env->NewLongArray(histogram.class_count());
    if (column == nullptr) return nullptr;
    auto* values = static_cast<jlong*>(env->GetPrimitiveArrayCritical(column, nullptr));
    if (values == nullptr) return column;
    for (jint k = 0; k < histogram.class_count(); k++) values[k] = histogram.counts(k).*field;
    env->ReleasePrimitiveArrayCritical(column, values, 0);
    return column;
}

void deliver(JNIEnv* env, jobject callback, jmethodID instance, const Histogram& histogram) {
    LocalRef<jclass> string_class(env, env->FindClass("java/lang/String"));
    if (!string_class) return;
    LocalRef<jobjectArray> names(env, env->NewObjectArray(histogram.class_count(), string_class.get(), nullptr));
    if (!names) return;
    each_class_name(env, histogram, [&](jint k, jstring name) { env->SetObjectArrayElement(names.get(), k, name); });
    if (env->ExceptionCheck()) return;
    LocalRef<jlongArray> counts(env, counts_column(env, histogram, &ClassCounter::count));
    if (env->ExceptionCheck()) return;
    LocalRef<jlongArray> sizes(env, counts_column(env, histogram, &ClassCounter::size));
    if (env->ExceptionCheck()) return;
    env->CallVoidMethod(callback, instance, names.get(), counts.get(), sizes.get());
}

// The histogram file. It is written under a new name beside the target path, created exclusively
// so that nothing already there is followed or truncated, and then renamed over the path: a file
// or a link there is replaced, never written through, and no reader sees half a file. The
// temporary file is removed on every other way out.
class ReplacementFile {
public:
    ReplacementFile() = default;
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    // 0, or the errno of the failure.
    int create(const char* target);
    FILE* stream() const { return m_stream; }
    int publish();

private:
    int open_exclusive();

    const char* m_target = nullptr;
    char* m_temporary = nullptr;
    size_t m_capacity = 0;
    bool m_created = false;
    FILE* m_stream = nullptr;
};

ReplacementFile::~ReplacementFile() {
    if (m_stream != nullptr) fclose(m_stream);
    if (m_created) unlink(m_temporary);
    std::free(m_temporary);
}

int ReplacementFile::create(const char* target) {
    m_target = target;
    m_capacity = std::strlen(target) + 48;
    m_temporary = static_cast<char*>(std::malloc(m_capacity));
    if (m_temporary == nullptr) return ENOMEM;
    int fd = open_exclusive();
    if (fd < 0) return errno;
    m_created = true;
    m_stream = fdopen(fd, "w");
    if (m_stream != nullptr) return 0;
    int error = errno;
    close(fd);
    return error;
}

// The descriptor of a newly created "<target>.<pid>.<n>.tmp"; names that a process of the same
// id left behind are passed over.
int ReplacementFile::open_exclusive() {
    static std::atomic<unsigned> s_sequence{0};
    for (int attempt = 0; attempt < 100; attempt++) {
        snprintf(m_temporary, m_capacity, "%s.%ld.%u.tmp", m_target, static_cast<long>(getpid()), s_sequence++);
        int fd = open(m_temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

int ReplacementFile::publish() {
    int error = fflush(m_stream) != 0 || ferror(m_stream) ? (errno != 0 ? errno : EIO) : 0;
    if (fclose(m_stream) != 0 && error == 0) error = errno;
    m_stream = nullptr;
    if (error == 0 && rename(m_temporary, m_target) != 0) error = errno;
    if (error == 0) m_created = false;
    return error;
}

// The header, one line per class, and "#TIMEOUT" last when the time limit cut the walk short.
void write_lines(JNIEnv* env, FILE* file, const Histogram& histogram, bool complete) {
    fprintf(file, "CLASS_NAME,COUNT,SIZE\n");
    each_class_name(env, histogram, [&](jint k, jstring name) {
        StringUtfChars chars(env, name);
        if (chars.get() == nullptr) return;
        fprintf(file, "%s,%ld,%ld\n", chars.get(), static_cast<long>(histogram.counts(k).count),
                static_cast<long>(histogram.counts(k).size));
    });
    if (complete && histogram.timed_out()) fprintf(file, "#TIMEOUT\n");
}
}  // namespace

// Every heap native works in this order: the VM work and the native result under TAG_LOCK, every
// tag cleared and every record freed, and only then, with the lock released, managed code (class
// names, the callback, the exception raised): a callback may itself wait for another heap walk.
KV_NATIVE(void, heapHistogram)(JNIEnv* env, jobject, jobject callback, jlong limit) {
    if (!require_agent(env)) return;
    if (callback == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "callback is null");
        return;
    }
    jmethodID instance = find_callback_method(env, callback, "instance", "([Ljava/lang/String;[J[J)V");
    if (instance == nullptr) return;
    Histogram histogram(env);
    WalkFailure failure = histogram.count(limit);
    if (failure) {
        raise_walk_failure(env, failure);
        return;
    }
    histogram.log_walk();
    deliver(env, callback, instance, histogram);
    if (histogram.timed_out() && !env->ExceptionCheck()) throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
}

// The file is replaced whenever the walk ran, even when it failed or timed out.
KV_NATIVE(void, heapHistogramToFile)(JNIEnv* env, jobject, jstring fileName, jlong limit) {
    if (!require_agent(env)) return;
    if (fileName == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "filename is null");
        return;
    }
    StringUtfChars name(env, fileName);
    if (name.get() == nullptr) return;
    ReplacementFile file;
    int error = file.create(name.get());
    if (error != 0) {
        throw_errno(env, error);
        return;
    }
    Histogram histogram(env);
    WalkFailure failure = histogram.count(limit);
    if (!histogram.counted()) {
        raise_walk_failure(env, failure);
        return;
    }
    histogram.log_walk();
    write_lines(env, file.stream(), histogram, !failure);
    if (env->ExceptionCheck()) return;
    error = file.publish();
    if (error != 0) {
        throw_errno(env, error);
    } else if (failure) {
        raise_walk_failure(env, failure);
    } else if (histogram.timed_out()) {
        throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
    }
}

KV_NATIVE(void, forceGC)(JNIEnv* env, jobject) {
    if (!require_agent(env)) return;
    jvmtiError error = g_jvmti->ForceGarbageCollection();
    if (error != JVMTI_ERROR_NONE) throw_jvmti_exception(env, error);
}
