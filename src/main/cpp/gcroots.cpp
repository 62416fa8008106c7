#include "gcroots.h"

#include "arena.h"
#include "exception.h"
#include "global.h"
#include "heap.h"
#include "heap_memory.h"
#include "lock.h"
#include "log.h"
#include "lookup.h"
#include "native.h"
#include "resources.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace {
// A loaded class, for the length of one search.
struct ClassInfo {
    jclass klass = nullptr;
    std::string signature;
    bool fields_read = false;
    jint field_count = 0;
    jfieldID* field_ids = nullptr;  // VM memory, given back at the end
    ClassInfo* super_info = nullptr;
    std::vector<ClassInfo*> interfaces;
};

// An object the search has tagged: how the walk first reached it. Five words; one per reachable
// object, so they come from an arena.
struct ObjectInfo {
    uint32_t kind;
    jint index;
    jint depth;
    jlong size;
    ObjectInfo* parent;
    ClassInfo* info;
};

struct SearchContext {
    ObjectInfo* class_record = nullptr;   // java.lang.Class
    ObjectInfo* search_record = nullptr;  // the class searched for
    std::vector<ObjectInfo*> instances;
    IterationLimit* limit = nullptr;
    Arena<ObjectInfo>* arena = nullptr;
};

ObjectInfo* record_of(jlong tag) { return reinterpret_cast<ObjectInfo*>(tag); }

bool is_root(jvmtiHeapReferenceKind kind) {
    return kind >= JVMTI_HEAP_REFERENCE_JNI_GLOBAL && kind <= JVMTI_HEAP_REFERENCE_OTHER;
}

jint root_index(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info) {
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL) return static_cast<jint>(info->stack_local.thread_id);
    if (kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL) return static_cast<jint>(info->jni_local.thread_id);
    return -1;
}

jint link_index(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info) {
    switch (kind) {
        case JVMTI_HEAP_REFERENCE_FIELD:
        case JVMTI_HEAP_REFERENCE_STATIC_FIELD: return info->field.index;
        case JVMTI_HEAP_REFERENCE_CONSTANT_POOL: return info->constant_pool.index;
        case JVMTI_HEAP_REFERENCE_ARRAY_ELEMENT: return info->array.index;
        default: return -1;
    }
}

void as_root(ObjectInfo* record, jvmtiHeapReferenceKind kind, jint index, jlong size) {
    record->kind = kind;
    record->index = index;
    record->depth = 0;
    record->size = size;
    record->parent = nullptr;
}

// The first reference to an object wins, except that a root always does.
void reach(SearchContext* context, jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
           ObjectInfo* own, ObjectInfo* cls, ObjectInfo* from, jlong size, jlong* tag_ptr) {
    jint index = link_index(kind, info);
    if (own != nullptr) {
        if (from == nullptr || own->parent != nullptr || is_root(static_cast<jvmtiHeapReferenceKind>(own->kind)) ||
            own->kind != 0) {
            return;
        }
        own->kind = kind;
        own->index = index;
        own->size = size;
        own->parent = from;
        own->depth = from->depth + 1;
        return;
    }
    if (cls == nullptr || from == nullptr) return;
    ObjectInfo* record = context->arena->allocate();
    if (record == nullptr) return;
    *record = ObjectInfo{static_cast<uint32_t>(kind), index, from->depth + 1, size, from, cls->info};
    *tag_ptr = reinterpret_cast<jlong>(record);
    if (cls == context->search_record) context->instances.push_back(record);
}
}  // namespace

// Runs for every reference the VM follows: no JNI, nothing looked up; records come from the arena.
jint JNICALL heapReferenceCallbackDump(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
                                       jlong class_tag, jlong, jlong size, jlong* tag_ptr,
                                       jlong* referrer_tag_ptr, jint, void* user_data) {
    auto* context = static_cast<SearchContext*>(user_data);
    if (context->limit != nullptr && limit_reached(context->limit, "heapReferenceCallback")) return JVMTI_VISIT_ABORT;
    ObjectInfo* own = record_of(*tag_ptr);
    ObjectInfo* cls = record_of(class_tag);
    ObjectInfo* from = referrer_tag_ptr != nullptr ? record_of(*referrer_tag_ptr) : nullptr;
    if (own != nullptr && cls == context->class_record) cls = own;
    if (own != nullptr && own == from) return JVMTI_VISIT_OBJECTS;
    if (!is_root(kind)) {
        reach(context, kind, info, own, cls, from, size, tag_ptr);
        return JVMTI_VISIT_OBJECTS;
    }
    jint index = root_index(kind, info);
    if (own != nullptr) {
        as_root(own, kind, index, size);
    } else if (cls != nullptr) {
        ObjectInfo* record = context->arena->allocate();
        if (record == nullptr) return JVMTI_VISIT_OBJECTS;
        *record = ObjectInfo{static_cast<uint32_t>(kind), index, 0, size, nullptr, cls->info};
        *tag_ptr = reinterpret_cast<jlong>(record);
    }
    return JVMTI_VISIT_OBJECTS;
}

namespace {
// ---- the merged tree

struct Path;

// Equal links under one node are one node: same holder class and kind, and for fields the same
// field; array elements, stack locals and the like merge whatever their index.
struct PathKey {
    ClassInfo* info;
    uint32_t kind;
    jint index;
    bool operator<(const PathKey& other) const {
        return std::tie(info, kind, index) < std::tie(other.info, other.kind, other.index);
    }
};

struct Path {
    ClassInfo* info;
    uint32_t kind;
    jint index;
    uint32_t count;
    jlong size;
    std::map<PathKey, Path*> children;
};

struct Tree {
    Path* root = nullptr;
    int reduced = 0;
    int total = 0;
    jint height = 0;  // levels below the root
};

Path* add_link(Tree& tree, Path* parent, ClassInfo* info, uint32_t kind, jint index, jlong size) {
    tree.total++;
    bool by_field = kind == JVMTI_HEAP_REFERENCE_FIELD || kind == JVMTI_HEAP_REFERENCE_STATIC_FIELD;
    PathKey key{info, kind, by_field ? index : 0};
    auto found = parent->children.find(key);
    if (found != parent->children.end()) {
        found->second->count++;
        found->second->size += size;
        return found->second;
    }
    auto* node = new (std::nothrow) Path{info, kind, index, 1, size, {}};
    if (node == nullptr) return nullptr;
    parent->children.emplace(key, node);
    tree.reduced++;
    return node;
}

bool same_link(const ObjectInfo* a, const ObjectInfo* b) {
    return a->info == b->info && a->kind == b->kind && a->index == b->index;
}

// The last record of the run of equal links that `start` belongs to: a linked list's nodes, each
// first reached through the same field of the one before. The records passed are pointed at that
// last one (the walk is over: parents now serve the merging alone), so that the next instance
// held along the same run crosses it in one step. Without that, instances spread along a chain of
// n links cost n*n/2 steps, more than the walk itself.
ObjectInfo* run_end(ObjectInfo* start) {
    ObjectInfo* last = start;
    while (last->parent != nullptr && same_link(last, last->parent)) last = last->parent;
    for (ObjectInfo* record = start; record != last;) {
        ObjectInfo* next = record->parent;
        record->parent = last;
        record = next;
    }
    return last;
}

// Merges one instance's chain of first references, from the instance up to its root. False when
// the compaction deadline has passed.
bool merge_instance(Tree& tree, ObjectInfo* instance, std::optional<double> deadline, jlong* steps) {
    if (tree.root->count == 0) tree.root->info = instance->info;
    tree.root->count++;
    tree.root->size += instance->size;
    Path* current = tree.root;
    ObjectInfo* child = instance;
    jint level = 0;
    for (ObjectInfo* holder = instance->parent; holder != nullptr; child = holder, holder = holder->parent) {
        if (deadline && ++*steps % CHECK_EVERY == 0 && *deadline < get_time()) {
            LOG_DEBUG("TIMEOUT in compact");
            return false;
        }
        if (same_link(child, holder)) {
            holder = run_end(holder);
            continue;
        }
        current = add_link(tree, current, holder->info, child->kind, child->index, instance->size);
        if (current == nullptr) return true;
        level++;
    }
    if (add_link(tree, current, nullptr, child->kind, child->index, instance->size) != nullptr) level++;
    tree.height = std::max(tree.height, level);
    return true;
}

void free_tree(Path* root) {
    std::vector<Path*> pending{root};
    while (!pending.empty()) {
        Path* node = pending.back();
        pending.pop_back();
        for (auto& child : node->children) pending.push_back(child.second);
        delete node;
    }
}

// One search: the classes with their records, the walk, the tree, and the clean-up that clears
// every tag and frees every record on every path.
class Search {
public:
    explicit Search(JNIEnv* env) : m_env(env), m_classes(env) {}
    ~Search();

    jvmtiError read_classes() { return m_classes.read(); }
    void tag_classes(const char* wanted);
    bool has_targets() const;
    jvmtiError walk(jlong limit_millis);
    void compact(jlong limit_millis);
    jobject build_entries(jint max_depth);
    bool timed_out() const { return m_limit && m_limit->timed_out; }
    void log_timeout() const;
    jvmtiError clean_up();

private:
    void recover_classes();
    void init_classinfo(ClassInfo* info);
    jint fields_above(const ClassInfo* info) const;
    jstring field_name(ClassInfo* holder, jint index);
    jobject new_entry(jclass entry_class, jmethodID constructor, const Path* node, bool named);

    JNIEnv* m_env;
    LoadedClasses m_classes;
    std::vector<ClassInfo> m_infos;
    Arena<ObjectInfo> m_arena;
    SearchContext m_context;
    std::optional<IterationLimit> m_limit;
    Tree m_tree;
    double m_walk_end = 0;
    bool m_cleaned = false;
};

Search::~Search() {
    if (!m_cleaned) clean_up();
    if (m_tree.root != nullptr) free_tree(m_tree.root);
    for (ClassInfo& info : m_infos) {
        if (info.field_ids != nullptr) g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(info.field_ids));
    }
}

void Search::tag_classes(const char* wanted) {
    size_t wanted_length = std::strlen(wanted);
    m_infos.resize(static_cast<size_t>(m_classes.count()));
    for (jint k = 0; k < m_classes.count(); k++) {
        ClassInfo& info = m_infos[static_cast<size_t>(k)];
        info.klass = m_classes[k];
        JvmtiBuffer<char> signature;
        if (g_jvmti->GetClassSignature(info.klass, signature.out(), nullptr) == JVMTI_ERROR_NONE) {
            info.signature = signature.get();
        }
        ObjectInfo* record = m_arena.allocate();
        if (record == nullptr) continue;
        *record = ObjectInfo{0, 0, 0, 0, nullptr, &info};
        g_jvmti->SetTag(info.klass, reinterpret_cast<jlong>(record));
        if (m_context.class_record == nullptr && info.signature.rfind("Ljava/lang/Class;", 0) == 0) {
            m_context.class_record = record;
        }
        if (m_context.search_record == nullptr && info.signature.compare(0, wanted_length, wanted) == 0) {
            m_context.search_record = record;
        }
    }
}

bool Search::has_targets() const {
    if (m_context.search_record == nullptr) LOG_ERROR("Cannot find search class");
    if (m_context.class_record == nullptr) LOG_ERROR("Cannot found java.lang.Class");
    return m_context.search_record != nullptr && m_context.class_record != nullptr;
}

jvmtiError Search::walk(jlong limit_millis) {
    double start = get_time();
    if (limit_millis > 0) {
        m_limit = IterationLimit{start + static_cast<double>(limit_millis) / 1000.0, 0, JNI_FALSE};
        LOG_DEBUG("Timeout Ts=%lf, now=%lf timeout=%ldms", m_limit->deadline, start, static_cast<long>(limit_millis));
    }
    m_context.limit = m_limit ? &*m_limit : nullptr;
    m_context.arena = &m_arena;
    // The walk reports this thread's local references as roots. Held across it, the references to
    // every loaded class would make each class (and all it holds) look rooted right here, hiding
    // the class loader paths that really keep them alive; they are found again by their tags.
    for (ClassInfo& info : m_infos) info.klass = nullptr;
    m_classes.release();
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_reference_callback = heapReferenceCallbackDump;
    jvmtiError error = g_jvmti->FollowReferences(0, nullptr, nullptr, &callbacks, &m_context);
    m_walk_end = get_time();
    recover_classes();
    return error;
}

void Search::recover_classes() {
    if (m_classes.read() != JVMTI_ERROR_NONE) return;
    for (jint k = 0; k < m_classes.count(); k++) {
        jlong tag = 0;
        if (g_jvmti->GetTag(m_classes[k], &tag) == JVMTI_ERROR_NONE && tag != 0) record_of(tag)->info->klass = m_classes[k];
    }
}

// Without a time limit every instance is merged; with one, merging stops at the same limit
// counted from the end of the walk.
void Search::compact(jlong limit_millis) {
    m_tree.root = new (std::nothrow) Path{nullptr, 0, 0, 0, 0, {}};
    if (m_tree.root == nullptr) return;
    std::optional<double> deadline;
    if (limit_millis > 0) deadline = m_walk_end + static_cast<double>(limit_millis) / 1000.0;
    jlong steps = 0;
    for (ObjectInfo* instance : m_context.instances) {
        if (!merge_instance(m_tree, instance, deadline, &steps)) break;
    }
    LOG_DEBUG("Nodes reduced=%d total=%d", m_tree.reduced, m_tree.total);
}

void Search::init_classinfo(ClassInfo* info) {
    if (info->fields_read || info->klass == nullptr) return;
    if (g_jvmti->GetClassFields(info->klass, &info->field_count, &info->field_ids) != JVMTI_ERROR_NONE) {
        LOG_ERROR("Failed to get fields for %s", info->signature.c_str());
        info->field_count = 0;
        info->field_ids = nullptr;
        return;
    }
    info->fields_read = true;
    LocalRef<jclass> super(m_env, m_env->GetSuperclass(info->klass));
    jlong tag = 0;
    if (super && g_jvmti->GetTag(super.get(), &tag) == JVMTI_ERROR_NONE && tag != 0) {
        info->super_info = record_of(tag)->info;
        init_classinfo(info->super_info);
    }
    jint count = 0;
    JvmtiBuffer<jclass> interfaces;
    if (g_jvmti->GetImplementedInterfaces(info->klass, &count, interfaces.out()) != JVMTI_ERROR_NONE) return;
    for (jint k = 0; k < count; k++) {
        LocalRef<jclass> interface(m_env, interfaces[static_cast<size_t>(k)]);
        if (g_jvmti->GetTag(interface.get(), &tag) != JVMTI_ERROR_NONE || tag == 0) continue;
        init_classinfo(record_of(tag)->info);
        info->interfaces.push_back(record_of(tag)->info);
    }
}

jint Search::fields_above(const ClassInfo* info) const {
    jint count = 0;
    for (; info != nullptr; info = info->super_info) count += info->field_count;
    return count;
}

// The name of the field a JVMTI field index denotes in the holder's class: the index counts the
// fields of the directly implemented interfaces first, then those of the superclasses, then the
// class's own.
jstring Search::field_name(ClassInfo* holder, jint index) {
    init_classinfo(holder);
    for (ClassInfo* info = holder; info != nullptr; info = info->super_info) {
        jint in_interfaces = 0;
        for (const ClassInfo* interface : info->interfaces) in_interfaces += interface->field_count;
        jint relative = index - in_interfaces;
        jint above = fields_above(info->super_info);
        if (above > relative) continue;
        jint number = relative - above;
        if (number >= info->field_count || info->field_ids == nullptr) return nullptr;
        JvmtiBuffer<char> name;
        if (g_jvmti->GetFieldName(info->klass, info->field_ids[number], name.out(), nullptr, nullptr) !=
            JVMTI_ERROR_NONE) {
            return nullptr;
        }
        return m_env->NewStringUTF(name.get());
    }
    return nullptr;
}

jobject Search::new_entry(jclass entry_class, jmethodID constructor, const Path* node, bool named) {
    bool by_field = node->kind == JVMTI_HEAP_REFERENCE_FIELD || node->kind == JVMTI_HEAP_REFERENCE_STATIC_FIELD;
    LocalRef<jstring> name(m_env, named && by_field && node->info != nullptr ? field_name(node->info, node->index)
                                                                            : nullptr);
    if (m_env->ExceptionCheck()) return nullptr;
    return m_env->NewObject(entry_class, constructor, static_cast<jint>(node->kind), node->index,
                            node->info != nullptr ? node->info->klass : nullptr, name.get(),
                            static_cast<jint>(node->count), node->size);
}

// Turns the merged tree into managed entries, depth first with an explicit stack (a chain can be
// as deep as the heap). Only the entries of the nodes on the stack are held, so local references
// stay bounded by the depth. A managed exception ends the building; the tree is freed anyway.
jobject Search::build_entries(jint max_depth) {
    jclass entry_class = get_osgi_class("GCPathEntry");
    if (entry_class == nullptr) {
        LOG_ERROR("Cannot find osgi class 'GCPathEntry'");
        return nullptr;
    }
    jmethodID constructor = m_env->GetMethodID(entry_class, "<init>", "(IILjava/lang/Class;Ljava/lang/String;IJ)V");
    if (constructor == nullptr) {
        m_env->ExceptionClear();
        LOG_ERROR("Cannot find constructor of GCPathEntry");
        return nullptr;
    }
    jmethodID add_child = m_env->GetMethodID(entry_class, "addChild", "(Lcom/brantide/kelvane/plugin/jvmti/GCPathEntry;)V");
    if (add_child == nullptr) {
        m_env->ExceptionClear();
        LOG_ERROR("Cannot find addChild of GCPathEntry");
        return nullptr;
    }
    ensure_local_capacity(m_env, std::min(max_depth, m_tree.height) + 1);
    jobject root = new_entry(entry_class, constructor, m_tree.root, false);
    if (root == nullptr) return nullptr;
    struct Level {
        const Path* node;
        std::map<PathKey, Path*>::const_iterator cursor;
        jobject entry;
    };
    std::vector<Level> stack{Level{m_tree.root, m_tree.root->children.begin(), root}};
    while (!stack.empty() && !m_env->ExceptionCheck()) {
        Level& top = stack.back();
        if (top.cursor == top.node->children.end()) {
            if (stack.size() > 1 && top.entry != nullptr) m_env->DeleteLocalRef(top.entry);
            stack.pop_back();
            continue;
        }
        const Path* child = (top.cursor++)->second;
        jobject entry = nullptr;
        if (static_cast<jint>(stack.size()) <= max_depth) {
            entry = new_entry(entry_class, constructor, child, true);
            if (entry == nullptr) break;
            m_env->CallVoidMethod(top.entry, add_child, entry);
        }
        // Below the depth limit there is nothing more to build: skip the subtree.
        if (entry == nullptr) continue;
        stack.push_back(Level{child, child->children.begin(), entry});
    }
    for (size_t k = 1; k < stack.size(); k++) {
        if (stack[k].entry != nullptr) m_env->DeleteLocalRef(stack[k].entry);
    }
    return root;
}

void Search::log_timeout() const {
    if (timed_out()) log_walk_timeout(*m_limit, m_walk_end);
}

jvmtiError Search::clean_up() {
    m_cleaned = true;
    for (jint k = 0; k < m_classes.count(); k++) {
        jlong tag = 0;
        if (g_jvmti->GetTag(m_classes[k], &tag) == JVMTI_ERROR_NONE && tag != 0) g_jvmti->SetTag(m_classes[k], 0);
    }
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_iteration_callback = heapIterationCallbackFreeTag;
    return g_jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, nullptr);
}
}  // namespace

KV_NATIVE(void, gcRoots)(JNIEnv* env, jobject, jobject callback, jstring signature, jlong limit, jint maxDepth) {
    if (callback == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "callback is null");
        return;
    }
    if (maxDepth <= 0) {
        throw_exception(env, ILLEGAL_ARGUMENT, "maxDepth is negative");
        return;
    }
    if (signature == nullptr) {
        throw_exception(env, ILLEGAL_ARGUMENT, "signature is null");
        return;
    }
    LocalRef<jclass> callback_class(env, env->GetObjectClass(callback));
    if (!callback_class) {
        LOG_ERROR("Cannot get the class of the callback object");
        return;
    }
    jmethodID deliver = env->GetMethodID(callback_class.get(), "gcRoots", "(Lcom/brantide/kelvane/plugin/jvmti/GCPathEntry;)V");
    if (deliver == nullptr) {
        LOG_ERROR("Cannot find gcRoots method on the callback object");
        return;
    }
    JavaLockGuard guard(TAG_LOCK);
    StringUtfChars wanted(env, signature);
    if (wanted.get() == nullptr) return;
    Search search(env);
    jvmtiError error = search.read_classes();
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    search.tag_classes(wanted.get());
    if (!search.has_targets()) return;
    error = search.walk(limit);
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    search.compact(limit);
    {
        LocalRef<jobject> root(env, search.build_entries(maxDepth));
        if (!env->ExceptionCheck()) env->CallVoidMethod(callback, deliver, root.get());
    }
    if (search.timed_out()) {
        search.log_timeout();
        if (!env->ExceptionCheck()) throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
    }
    error = search.clean_up();
    if (error != JVMTI_ERROR_NONE && !env->ExceptionCheck()) throw_jvmti_exception(env, error);
}
