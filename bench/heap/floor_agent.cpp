// The floors of the heap benchmark: the least JVMTI work a class histogram and a GC-root search can
// be done with. Loaded as a second agent next to the library, in the same VM and on the same heap,
// it gives the library's figures something to be held against. Its natives belong to FloorWalks.
#include <jni.h>
#include <jvmti.h>

#include <cstdlib>
#include <vector>

namespace {
jvmtiEnv* g_jvmti = nullptr;

struct ClassCounter {
    jlong count;
    jlong size;
};

// As large as the library's per-object record of a GC-root search, so that the memory compares.
struct Record {
    jlong size;
    jlong words[4];
};
static_assert(sizeof(Record) == 40, "a GC-root record is five words");

// Records handed out from large blocks and freed all at once.
class RecordArena {
public:
    ~RecordArena() {
        for (Record* block : m_blocks) std::free(block);
    }
    Record* allocate() {
        if (m_blocks.empty() || m_used == PER_BLOCK) {
            auto* block = static_cast<Record*>(std::malloc(sizeof(Record) * PER_BLOCK));
            if (block == nullptr) return nullptr;
            m_blocks.push_back(block);
            m_used = 0;
        }
        return m_blocks.back() + m_used++;
    }
    jlong allocated() const {
        return m_blocks.empty() ? 0 : static_cast<jlong>((m_blocks.size() - 1) * PER_BLOCK + m_used);
    }

private:
    static constexpr size_t PER_BLOCK = 1 << 16;
    size_t m_used = 0;
    std::vector<Record*> m_blocks;
};

// The loaded classes, their local references given back with the list.
class Classes {
public:
    explicit Classes(JNIEnv* env) : m_env(env) {
        if (g_jvmti->GetLoadedClasses(&m_count, &m_classes) != JVMTI_ERROR_NONE) m_count = 0;
        if (m_env->EnsureLocalCapacity(m_count + 16) != JNI_OK) m_env->ExceptionClear();
    }
    ~Classes() {
        for (jint k = 0; k < m_count; k++) m_env->DeleteLocalRef(m_classes[k]);
        if (m_classes != nullptr) g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_classes));
    }
    Classes(const Classes&) = delete;
    Classes& operator=(const Classes&) = delete;

    jint count() const { return m_count; }
    jclass operator[](jint k) const { return m_classes[k]; }

private:
    JNIEnv* m_env;
    jint m_count = 0;
    jclass* m_classes = nullptr;
};

jint JNICALL count_object(jlong class_tag, jlong size, jlong*, jint, void*) {
    if (class_tag != 0) {
        auto* counter = reinterpret_cast<ClassCounter*>(class_tag);
        counter->count++;
        counter->size += size;
    }
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL give_record(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo*, jlong, jlong, jlong size,
                         jlong* tag_ptr, jlong*, jint, void* user_data) {
    if (*tag_ptr != 0) return JVMTI_VISIT_OBJECTS;
    Record* record = static_cast<RecordArena*>(user_data)->allocate();
    if (record == nullptr) return JVMTI_VISIT_ABORT;
    *record = Record{size, {0, 0, 0, 0}};
    *tag_ptr = reinterpret_cast<jlong>(record);
    return JVMTI_VISIT_OBJECTS;
}

// The least a walk that tags what it reaches can do: a tag from a plain counter, nothing kept.
jint JNICALL count_tag(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo*, jlong, jlong, jlong, jlong* tag_ptr,
                       jlong*, jint, void* user_data) {
    if (*tag_ptr == 0) *tag_ptr = ++*static_cast<jlong*>(user_data);
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL clear_tag(jlong, jlong, jlong* tag_ptr, jint, void*) {
    *tag_ptr = 0;
    return JVMTI_VISIT_OBJECTS;
}

// Follows every reference from the roots with `callback`, then clears every tag, as the library
// must too; false when a walk failed.
bool follow_then_clear(jvmtiHeapReferenceCallback callback, void* user_data) {
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_reference_callback = callback;
    jvmtiError error = g_jvmti->FollowReferences(0, nullptr, nullptr, &callbacks, user_data);
    jvmtiHeapCallbacks clearing{};
    clearing.heap_iteration_callback = clear_tag;
    jvmtiError cleared = g_jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &clearing, nullptr);
    return error == JVMTI_ERROR_NONE && cleared == JVMTI_ERROR_NONE;
}
}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
    if (vm->GetEnv(reinterpret_cast<void**>(&g_jvmti), JVMTI_VERSION_1_2) != JNI_OK) return JNI_ERR;
    jvmtiCapabilities caps{};
    caps.can_tag_objects = 1;
    return g_jvmti->AddCapabilities(&caps) == JVMTI_ERROR_NONE ? JNI_OK : JNI_ERR;
}

// Tags every class with a counter, counts the heap class by class, clears the tags. Returns the
// number of objects counted, or -1 when the walk failed.
extern "C" JNIEXPORT jlong JNICALL Java_com_brantide_kelvane_bench_heap_FloorWalks_histogram(JNIEnv* env, jclass) {
    Classes classes(env);
    std::vector<ClassCounter> counters(static_cast<size_t>(classes.count()), ClassCounter{0, 0});
    for (jint k = 0; k < classes.count(); k++) {
        g_jvmti->SetTag(classes[k], reinterpret_cast<jlong>(&counters[static_cast<size_t>(k)]));
    }
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_iteration_callback = count_object;
    jvmtiError error = g_jvmti->IterateThroughHeap(0, nullptr, &callbacks, nullptr);
    jlong total = 0;
    for (jint k = 0; k < classes.count(); k++) {
        g_jvmti->SetTag(classes[k], 0);
        total += counters[static_cast<size_t>(k)].count;
    }
    return error == JVMTI_ERROR_NONE ? total : -1;
}

// Follows every reference from the roots, giving each newly reached object a record, then clears
// every tag. Returns the number of objects reached, or -1 when a walk failed.
extern "C" JNIEXPORT jlong JNICALL Java_com_brantide_kelvane_bench_heap_FloorWalks_reach(JNIEnv*, jclass) {
    RecordArena arena;
    return follow_then_clear(give_record, &arena) ? arena.allocated() : -1;
}

// Follows every reference from the roots, tagging each newly reached object with the next count,
// then clears every tag. Returns the number of objects tagged, or -1 when a walk failed.
extern "C" JNIEXPORT jlong JNICALL Java_com_brantide_kelvane_bench_heap_FloorWalks_counterTags(JNIEnv*, jclass) {
    jlong counter = 0;
    return follow_then_clear(count_tag, &counter) ? counter : -1;
}
