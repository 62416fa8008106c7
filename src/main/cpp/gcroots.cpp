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
#include <optional>

namespace {
// A loaded class, for the length of one search.
struct ClassInfo {
    jclass klass;
    bool fields_read;
    bool interfaces_counted;
    jboolean is_interface;
    jint field_count;
    jfieldID* field_ids;    // VM memory, given back at the end
    jint interface_fields;  // declared by every interface the class implements, in any way
    unsigned visit;         // the last count of interface fields that visited it
    ClassInfo* super_info;
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
    BudgetArray<ObjectInfo*>* instances = nullptr;
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

// The first reference to an object wins, except that a root always does. False when the search
// has no memory left for the object.
bool reach(SearchContext* context, jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
           ObjectInfo* own, ObjectInfo* cls, ObjectInfo* from, jlong size, jlong* tag_ptr) {
    jint index = link_index(kind, info);
    if (own != nullptr) {
        if (from == nullptr || own->parent != nullptr || is_root(static_cast<jvmtiHeapReferenceKind>(own->kind)) ||
            own->kind != 0) {
            return true;
        }
        own->kind = kind;
        own->index = index;
        own->size = size;
        own->parent = from;
        own->depth = from->depth + 1;
        return true;
    }
    if (cls == nullptr || from == nullptr) return true;
    ObjectInfo* record = context->arena->allocate();
    if (record == nullptr) return false;
    *record = ObjectInfo{static_cast<uint32_t>(kind), index, from->depth + 1, size, from, cls->info};
    *tag_ptr = reinterpret_cast<jlong>(record);
    return cls != context->search_record || context->instances->push_back(record);
}
}  // namespace

// Runs for every reference the VM follows: no JNI, nothing looked up; records come from the arena.
// A search that runs out of memory (or reaches its ceiling) stops here.
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
        return reach(context, kind, info, own, cls, from, size, tag_ptr) ? JVMTI_VISIT_OBJECTS : JVMTI_VISIT_ABORT;
    }
    jint index = root_index(kind, info);
    if (own != nullptr) {
        as_root(own, kind, index, size);
    } else if (cls != nullptr) {
        ObjectInfo* record = context->arena->allocate();
        if (record == nullptr) return JVMTI_VISIT_ABORT;
        *record = ObjectInfo{static_cast<uint32_t>(kind), index, 0, size, nullptr, cls->info};
        *tag_ptr = reinterpret_cast<jlong>(record);
    }
    return JVMTI_VISIT_OBJECTS;
}

namespace {
// ---- the merged tree

bool by_field(uint32_t kind) { return kind == JVMTI_HEAP_REFERENCE_FIELD || kind == JVMTI_HEAP_REFERENCE_STATIC_FIELD; }

// Equal links under one node are one node: same holder class and kind, and for fields the same
// field; array elements, stack locals and the like merge whatever their index.
struct LinkKey {
    const void* parent;
    const ClassInfo* info;
    uint32_t kind;
    jint index;

    LinkKey(const void* parent_node, const ClassInfo* holder, uint32_t link_kind, jint link_index)
        : parent(parent_node), info(holder), kind(link_kind), index(by_field(link_kind) ? link_index : 0) {}
    size_t hash() const {
        return mix_hash(reinterpret_cast<uintptr_t>(parent), reinterpret_cast<uintptr_t>(info),
                        static_cast<uint64_t>(kind) << 32 ^ static_cast<uint32_t>(index));
    }
};

struct Path {
    Path* parent;
    Path* first_child;
    Path* next_sibling;
    ClassInfo* info;
    uint32_t kind;
    jint index;
    uint32_t count;
    jlong size;
    // Found through the class records, so before the tags are cleared: the class that declares
    // the field of a field link, and the field.
    ClassInfo* field_class;
    jfieldID field;
    jobject entry;  // while the managed entries are built

    LinkKey key() const { return LinkKey(parent, info, kind, index); }
    size_t hash() const { return key().hash(); }
    bool matches(const LinkKey& other) const {
        LinkKey own = key();
        return own.parent == other.parent && own.info == other.info && own.kind == other.kind &&
               own.index == other.index;
    }
};

// The tree's nodes come from an arena, found again through one index of (parent, link) for the
// whole tree; each node's children are linked from it. Nothing here can end the process when
// memory runs out: a null node says so.
class Tree {
public:
    explicit Tree(WalkBudget& budget) : m_nodes(budget, 0), m_index(budget) {}

    bool plant() {
        root = m_nodes.allocate();
        if (root != nullptr) *root = Path{nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 0, nullptr, nullptr, nullptr};
        return root != nullptr;
    }

    Path* add_link(Path* parent, ClassInfo* info, uint32_t kind, jint index, jlong size) {
        total++;
        LinkKey key(parent, info, kind, index);
        size_t hash = key.hash();
        Path* found = m_index.find(key, hash);
        if (found != nullptr) {
            found->count++;
            found->size += size;
            return found;
        }
        Path* node = m_nodes.allocate();
        if (node == nullptr) return nullptr;
        *node = Path{parent, nullptr, parent->first_child, info, kind, index, 1, size, nullptr, nullptr, nullptr};
        if (!m_index.add(node)) return nullptr;
        parent->first_child = node;
        reduced++;
        return node;
    }

    Path* root = nullptr;
    int reduced = 0;
    int total = 0;
    jint height = 0;  // levels below the root

private:
    Arena<Path> m_nodes;
    NodeIndex<Path> m_index;
};

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
// the compaction deadline has passed or the tree cannot grow.
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
        current = tree.add_link(current, holder->info, child->kind, child->index, instance->size);
        if (current == nullptr) return false;
        level++;
    }
    if (tree.add_link(current, nullptr, child->kind, child->index, instance->size) == nullptr) return false;
    tree.height = std::max(tree.height, level + 1);
    return true;
}

// Visits the nodes below the root down to max_depth, depth first, through the nodes' own links:
// no stack, however deep the tree. `enter(node)` on the way down (false ends the visit: every node
// entered and not yet left is then left), `leave(node)` once its subtree is done.
template <typename Enter, typename Leave>
bool visit_tree(Path* root, jint max_depth, Enter enter, Leave leave) {
    Path* node = max_depth > 0 ? root->first_child : nullptr;
    jint depth = 1;
    while (node != nullptr && node != root) {
        if (!enter(node)) {
            for (; node != root; node = node->parent) leave(node);
            return false;
        }
        if (depth < max_depth && node->first_child != nullptr) {
            node = node->first_child;
            depth++;
            continue;
        }
        for (; node != root; node = node->parent, depth--) {
            leave(node);
            if (node->next_sibling != nullptr) {
                node = node->next_sibling;
                break;
            }
        }
    }
    return true;
}

// One search: the classes with their records, the walk, the tree, and the clean-up that clears
// every tag on every path. Everything up to the clean-up runs under TAG_LOCK; the managed entries
// are built afterwards from native results alone.
class Search {
public:
    Search(JNIEnv* env, jint max_depth)
        : m_env(env), m_max_depth(max_depth), m_classes(env), m_budget(walk_ceiling_bytes()),
          m_arena(m_budget, TAG_ENTRY_BYTES), m_instances(m_budget), m_tree(m_budget) {}
    ~Search();
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    WalkFailure run(const char* wanted, jlong limit_millis) {
        JavaLockGuard guard(TAG_LOCK);
        return run_locked(wanted, limit_millis);
    }
    bool found_targets() const { return m_targets; }
    jobject build_entries();
    bool timed_out() const { return m_limit && m_limit->timed_out; }
    void log_timeout() const;
    jvmtiError clean_up_error() const { return m_clean_up_error; }

private:
    WalkFailure run_locked(const char* wanted, jlong limit_millis);
    WalkFailure search(const char* wanted, jlong limit_millis);
    bool tag_classes(const char* wanted);
    bool has_targets() const;
    jvmtiError walk(jlong limit_millis);
    void recover_classes();
    bool compact(jlong limit_millis);
    void clean_up();
    void init_classinfo(ClassInfo* info);
    ClassInfo* info_of(jclass klass) const;
    jint count_interface_fields(ClassInfo* info);
    void add_interface_fields(ClassInfo* info, unsigned visit, jint* count);
    jint fields_above(const ClassInfo* info) const;
    void resolve_field(Path* node);
    jstring field_name(const Path* node);
    jobject new_entry(jclass entry_class, jmethodID constructor, const Path* node);

    JNIEnv* m_env;
    jint m_max_depth;
    LoadedClasses m_classes;
    // Declared before everything that allocates from it.
    WalkBudget m_budget;
    ClassInfo* m_infos = nullptr;
    size_t m_info_count = 0;
    Arena<ObjectInfo> m_arena;
    BudgetArray<ObjectInfo*> m_instances;
    SearchContext m_context;
    std::optional<IterationLimit> m_limit;
    Tree m_tree;
    double m_walk_end = 0;
    bool m_targets = false;
    jvmtiError m_clean_up_error = JVMTI_ERROR_NONE;
    unsigned m_visits = 0;
};

Search::~Search() {
    for (size_t k = 0; k < m_info_count; k++) {
        if (m_infos[k].field_ids != nullptr) g_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_infos[k].field_ids));
    }
    if (m_infos != nullptr) m_budget.release(m_infos, m_info_count * sizeof(ClassInfo));
}

WalkFailure Search::run_locked(const char* wanted, jlong limit_millis) {
    jvmtiError error = clear_leftover_tags();
    if (error != JVMTI_ERROR_NONE) return WalkFailure{WalkFailure::TAGS_LEFT, error};
    error = m_classes.read();
    if (error != JVMTI_ERROR_NONE) return WalkFailure::jvmti(error);
    WalkFailure failure = search(wanted, limit_millis);
    clean_up();
    return failure;
}

WalkFailure Search::search(const char* wanted, jlong limit_millis) {
    if (!tag_classes(wanted)) return WalkFailure::of(m_budget);
    m_targets = has_targets();
    if (!m_targets) return WalkFailure{};
    jvmtiError error = walk(limit_millis);
    // A walk stopped for memory ends without an error of its own.
    if (m_budget.failure() != WalkBudget::NONE) return WalkFailure::of(m_budget);
    if (error != JVMTI_ERROR_NONE) return WalkFailure::jvmti(error);
    if (!compact(limit_millis)) return WalkFailure::of(m_budget);
    // Field names are found through the class records, which only the tags lead to.
    visit_tree(m_tree.root, m_max_depth, [this](Path* node) { resolve_field(node); return true; }, [](Path*) {});
    return WalkFailure{};
}

// False when memory ran out.
bool Search::tag_classes(const char* wanted) {
    size_t wanted_length = std::strlen(wanted);
    size_t count = static_cast<size_t>(m_classes.count());
    m_infos = static_cast<ClassInfo*>(m_budget.allocate(count * sizeof(ClassInfo)));
    if (m_infos == nullptr) return false;
    std::memset(static_cast<void*>(m_infos), 0, count * sizeof(ClassInfo));
    m_info_count = count;
    for (jint k = 0; k < m_classes.count(); k++) {
        ClassInfo& info = m_infos[k];
        info.klass = m_classes[k];
        ObjectInfo* record = m_arena.allocate();
        if (record == nullptr) return false;
        *record = ObjectInfo{0, 0, 0, 0, nullptr, &info};
        g_jvmti->SetTag(info.klass, reinterpret_cast<jlong>(record));
        JvmtiBuffer<char> signature;
        if (g_jvmti->GetClassSignature(info.klass, signature.out(), nullptr) != JVMTI_ERROR_NONE) continue;
        if (m_context.class_record == nullptr && std::strcmp(signature.get(), "Ljava/lang/Class;") == 0) {
            m_context.class_record = record;
        }
        if (m_context.search_record == nullptr && std::strncmp(signature.get(), wanted, wanted_length) == 0) {
            m_context.search_record = record;
        }
    }
    return true;
}

bool Search::has_targets() const {
    if (m_context.search_record == nullptr) LOG_ERROR("Cannot find search class");
    if (m_context.class_record == nullptr) LOG_ERROR("Cannot found java.lang.Class");
    return m_context.search_record != nullptr && m_context.class_record != nullptr;
}

jvmtiError Search::walk(jlong limit_millis) {
    m_limit = start_limit(limit_millis, get_time());
    m_context.limit = m_limit ? &*m_limit : nullptr;
    m_context.arena = &m_arena;
    m_context.instances = &m_instances;
    // The walk reports this thread's local references as roots. Held across it, the references to
    // every loaded class would make each class (and all it holds) look rooted right here, hiding
    // the class loader paths that really keep them alive; they are found again by their tags.
    for (size_t k = 0; k < m_info_count; k++) m_infos[k].klass = nullptr;
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
// counted from the end of the walk. False when memory ran out.
bool Search::compact(jlong limit_millis) {
    if (!m_tree.plant()) return false;
    std::optional<double> deadline;
    if (limit_millis > 0) deadline = m_walk_end + static_cast<double>(limit_millis) / 1000.0;
    jlong steps = 0;
    for (size_t k = 0; k < m_instances.size(); k++) {
        if (!merge_instance(m_tree, m_instances[k], deadline, &steps)) break;
    }
    LOG_DEBUG("Nodes reduced=%d total=%d", m_tree.reduced, m_tree.total);
    return m_budget.failure() == WalkBudget::NONE;
}

// Every tag goes, class tags included; when that fails, the records they name are kept.
void Search::clean_up() {
    m_clean_up_error = clear_every_tag();
    if (m_clean_up_error != JVMTI_ERROR_NONE) {
        keep_until_tags_cleared(m_arena.blocks());
    } else {
        m_arena.blocks().free_all();
    }
}

void Search::init_classinfo(ClassInfo* info) {
    if (info->fields_read || info->klass == nullptr) return;
    if (g_jvmti->GetClassFields(info->klass, &info->field_count, &info->field_ids) != JVMTI_ERROR_NONE) {
        JvmtiBuffer<char> signature;
        g_jvmti->GetClassSignature(info->klass, signature.out(), nullptr);
        LOG_ERROR("Failed to get fields for %s", signature ? signature.get() : "");
        info->field_count = 0;
        info->field_ids = nullptr;
        return;
    }
    info->fields_read = true;
    if (g_jvmti->IsInterface(info->klass, &info->is_interface) != JVMTI_ERROR_NONE) info->is_interface = JNI_FALSE;
    LocalRef<jclass> super(m_env, m_env->GetSuperclass(info->klass));
    info->super_info = super ? info_of(super.get()) : nullptr;
    if (info->super_info != nullptr) init_classinfo(info->super_info);
}

// The record of a class the search tagged, or null.
ClassInfo* Search::info_of(jclass klass) const {
    jlong tag = 0;
    return g_jvmti->GetTag(klass, &tag) == JVMTI_ERROR_NONE && tag != 0 ? record_of(tag)->info : nullptr;
}

// The fields of every interface the class implements: directly or through a superclass, and the
// superinterfaces of each; for an interface, those of its superinterfaces. Each interface counts
// once, however many ways lead to it.
jint Search::count_interface_fields(ClassInfo* info) {
    if (info->interfaces_counted) return info->interface_fields;
    unsigned visit = ++m_visits;
    jint count = 0;
    for (ClassInfo* level = info; level != nullptr; level = level->super_info) add_interface_fields(level, visit, &count);
    info->interface_fields = count;
    info->interfaces_counted = true;
    return count;
}

void Search::add_interface_fields(ClassInfo* info, unsigned visit, jint* count) {
    jint direct = 0;
    JvmtiBuffer<jclass> interfaces;
    if (info->klass == nullptr ||
        g_jvmti->GetImplementedInterfaces(info->klass, &direct, interfaces.out()) != JVMTI_ERROR_NONE) {
        return;
    }
    ensure_local_capacity(m_env, direct);
    for (jint k = 0; k < direct; k++) {
        LocalRef<jclass> interface(m_env, interfaces[static_cast<size_t>(k)]);
        ClassInfo* found = info_of(interface.get());
        if (found == nullptr || found->visit == visit) continue;
        found->visit = visit;
        init_classinfo(found);
        *count += found->field_count;
        add_interface_fields(found, visit, count);
    }
}

jint Search::fields_above(const ClassInfo* info) const {
    jint count = 0;
    for (; info != nullptr; info = info->super_info) count += info->field_count;
    return count;
}

// The field a JVMTI field index denotes in the holder's class: the index counts the fields of all
// the class's interfaces first, then those of its superclasses from the top down, then its own;
// an interface's own fields come after those of its superinterfaces.
void Search::resolve_field(Path* node) {
    if (!by_field(node->kind) || node->info == nullptr) return;
    init_classinfo(node->info);
    jint relative = node->index - count_interface_fields(node->info);
    if (node->info->is_interface) {
        if (relative < 0 || relative >= node->info->field_count || node->info->field_ids == nullptr) return;
        node->field_class = node->info;
        node->field = node->info->field_ids[relative];
        return;
    }
    for (ClassInfo* info = node->info; info != nullptr; info = info->super_info) {
        jint above = fields_above(info->super_info);
        if (above > relative) continue;
        jint number = relative - above;
        if (number >= info->field_count || info->field_ids == nullptr) return;
        node->field_class = info;
        node->field = info->field_ids[number];
        return;
    }
}

jstring Search::field_name(const Path* node) {
    if (node->field_class == nullptr) return nullptr;
    JvmtiBuffer<char> name;
    if (g_jvmti->GetFieldName(node->field_class->klass, node->field, name.out(), nullptr, nullptr) !=
        JVMTI_ERROR_NONE) {
        return nullptr;
    }
    return m_env->NewStringUTF(name.get());
}

jobject Search::new_entry(jclass entry_class, jmethodID constructor, const Path* node) {
    LocalRef<jstring> name(m_env, field_name(node));
    if (m_env->ExceptionCheck()) return nullptr;
    return m_env->NewObject(entry_class, constructor, static_cast<jint>(node->kind), node->index,
                            node->info != nullptr ? node->info->klass : nullptr, name.get(),
                            static_cast<jint>(node->count), node->size);
}

// Turns the merged tree into managed entries. Only the entries of the nodes on the current path
// are held, so local references stay bounded by the depth. A managed exception ends the building.
jobject Search::build_entries() {
    ReferenceCountedJObject registered = get_osgi_class("GCPathEntry");
    auto entry_class = static_cast<jclass>(registered.get());
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
    ensure_local_capacity(m_env, std::min(m_max_depth, m_tree.height) + 1);
    jobject root = new_entry(entry_class, constructor, m_tree.root);
    if (root == nullptr) return nullptr;
    m_tree.root->entry = root;
    visit_tree(
        m_tree.root, m_max_depth,
        [&](Path* node) {
            node->entry = new_entry(entry_class, constructor, node);
            if (node->entry != nullptr) m_env->CallVoidMethod(node->parent->entry, add_child, node->entry);
            return node->entry != nullptr && !m_env->ExceptionCheck();
        },
        [&](Path* node) {
            if (node->entry != nullptr) m_env->DeleteLocalRef(node->entry);
            node->entry = nullptr;
        });
    return root;
}

void Search::log_timeout() const {
    if (timed_out()) log_walk_timeout(*m_limit, m_walk_end);
}
}  // namespace

KV_NATIVE(void, gcRoots)(JNIEnv* env, jobject, jobject callback, jstring signature, jlong limit, jint maxDepth) {
    if (!require_agent(env)) return;
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
    StringUtfChars wanted(env, signature);
    if (wanted.get() == nullptr) return;
    Search search(env, maxDepth);
    WalkFailure failure = search.run(wanted.get(), limit);
    if (failure) {
        raise_walk_failure(env, failure);
        return;
    }
    if (!search.found_targets()) return;
    {
        LocalRef<jobject> root(env, search.build_entries());
        if (!env->ExceptionCheck()) env->CallVoidMethod(callback, deliver, root.get());
    }
    if (search.timed_out()) {
        search.log_timeout();
        if (!env->ExceptionCheck()) throw_exception(env, TIMEOUT_EXCEPTION, "Timeout occurred");
    }
    if (search.clean_up_error() != JVMTI_ERROR_NONE && !env->ExceptionCheck()) {
        throw_jvmti_exception(env, search.clean_up_error());
    }
}
