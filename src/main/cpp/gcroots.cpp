#include "gcroots.h"

#include "arena.h"
#include "class_registry.h"
#include "construction_frames.h"
#include "exception.h"
#include "global.h"
#include "heap_memory.h"
#include "loaded_classes.h"
#include "lock.h"
#include "log.h"
#include "native.h"
#include "reference.h"
#include "resources.h"
#include "walk_limit.h"

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
    bool primitive_array;
    jboolean is_interface;
    jint field_count;
    jfieldID* field_ids;    // VM memory, given back at the end
    jint interface_fields;  // declared by every interface the class implements, in any way
    unsigned visit;         // the last count of interface fields that visited it
    ClassInfo* super_info;
};

// How the walk first reached an object, stored under the object's number: the search tags each
// object with its number plus one, classes first, so that a class's number is its index in the
// class records. Twelve bytes per reachable object, beside the VM's own tag-table entry of about
// 64; sizes are kept for the instances of the searched class alone, in the instance list.
struct Reached {
    static constexpr unsigned KIND_BITS = 5;  // every reference kind is below 32
    static constexpr uint32_t KIND_MASK = (uint32_t{1} << KIND_BITS) - 1;
    // More classes than this cannot be numbered here; no VM's class space holds that many.
    static constexpr uint32_t MAX_CLASSES = UINT32_MAX >> KIND_BITS;

    uint32_t parent;      // the tag of the object it was first reached from; 0 for a root
    uint32_t class_kind;  // class number << KIND_BITS | reference kind; kind 0: a class not reached
    jint index;

    uint32_t kind() const { return class_kind & KIND_MASK; }
    uint32_t class_number() const { return class_kind >> KIND_BITS; }
    void link(uint32_t from, jvmtiHeapReferenceKind how, jint link_index) {
        parent = from;
        class_kind = (class_kind & ~KIND_MASK) | static_cast<uint32_t>(how);
        index = link_index;
    }
};

struct Instance {
    uint32_t tag;
    jlong size;
};

using ReachedTable = NumberedRecords<Reached>;

struct SearchContext {
    ReachedTable* objects = nullptr;
    BudgetArray<Instance>* instances = nullptr;
    IterationLimit* limit = nullptr;
    const ClassInfo* infos = nullptr;  // by class number
    const ConstructionFrames* construction = nullptr;
    jlong classes = 0;   // class objects carry the tags 1..classes
    jlong searched = 0;  // the tag of the class searched for

    // The tag if the search set it, else 0.
    jlong known(jlong tag) const { return tag > 0 && tag <= static_cast<jlong>(objects->size()) ? tag : 0; }
};

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

// A reference to an object already tagged. A root always wins (the last one reported); any other
// reference fills in only a class object that nothing has reached yet: for every other object the
// first reference has won. Only class records are read here, so that the many references to
// objects already reached touch no memory of the search.
void reach_again(SearchContext* context, jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info, jlong own,
                 jlong from) {
    if (is_root(kind)) {
        (*context->objects)[static_cast<uint32_t>(own - 1)].link(0, kind, root_index(kind, info));
        return;
    }
    if (from == 0 || own > context->classes) return;
    Reached& record = (*context->objects)[static_cast<uint32_t>(own - 1)];
    if (record.kind() == 0) record.link(static_cast<uint32_t>(from), kind, link_index(kind, info));
}

// A primitive array refers to nothing but its class, so it can lead nowhere but to its class object,
// and only as the first to reach it: once that class is reached, such an array needs neither a
// record nor a tag (which spares the VM's tag table an entry), unless it is what is searched for.
bool leads_nowhere(const SearchContext* context, jlong class_tag) {
    uint32_t number = static_cast<uint32_t>(class_tag - 1);
    return context->infos[number].primitive_array && class_tag != context->searched &&
           (*context->objects)[number].kind() != 0;
}

// An object reached for the first time, from a root or from a tagged object, and of a class the
// search tagged: it gets the next number, and an instance of the searched class that no root holds
// joins the instance list. False when the search has no memory left for it.
bool reach_new(SearchContext* context, jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
               jlong class_tag, jlong size, jlong from, jlong* tag_ptr) {
    bool root = is_root(kind);
    if (class_tag <= 0 || class_tag > context->classes || (from == 0 && !root)) return true;
    if (leads_nowhere(context, class_tag)) return true;
    uint32_t class_kind = static_cast<uint32_t>(class_tag - 1) << Reached::KIND_BITS | static_cast<uint32_t>(kind);
    jint index = root ? root_index(kind, info) : link_index(kind, info);
    uint32_t number = 0;
    Reached record{root ? 0 : static_cast<uint32_t>(from), class_kind, index};
    if (!context->objects->add(record, &number)) return false;
    *tag_ptr = static_cast<jlong>(number) + 1;
    return root || class_tag != context->searched || context->instances->push_back(Instance{number + 1, size});
}
}  // namespace

// Runs for every reference the VM follows: no JNI, nothing looked up; records come from the
// search's blocks. A search that runs out of memory (or reaches its ceiling) stops here.
jint JNICALL heapReferenceCallbackDump(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* info,
                                       jlong class_tag, jlong, jlong size, jlong* tag_ptr,
                                       jlong* referrer_tag_ptr, jint, void* user_data) {
    auto* context = static_cast<SearchContext*>(user_data);
    if (context->limit != nullptr && limit_reached(context->limit, "heapReferenceCallback")) return JVMTI_VISIT_ABORT;
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL && context->construction->contains(info->stack_local.method)) return 0;
    jlong own = context->known(*tag_ptr);
    jlong from = referrer_tag_ptr != nullptr ? context->known(*referrer_tag_ptr) : 0;
    if (own == 0) {
        return reach_new(context, kind, info, class_tag, size, from, tag_ptr) ? JVMTI_VISIT_OBJECTS : JVMTI_VISIT_ABORT;
    }
    if (own != from) reach_again(context, kind, info, own, from);
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

bool same_link(const Reached& a, const Reached& b) { return a.class_kind == b.class_kind && a.index == b.index; }

// The walk's records, read by tag for the merging.
class ReachedByTag {
public:
    ReachedByTag(ReachedTable& objects, ClassInfo* infos) : m_objects(objects), m_infos(infos) {}
    Reached& operator[](uint32_t tag) { return m_objects[tag - 1]; }
    ClassInfo* info(const Reached& record) const { return &m_infos[record.class_number()]; }
    uint32_t count() const { return m_objects.size(); }

    // The tag of the last object of the run of equal links that `start` belongs to: a linked
    // list's nodes, each first reached through the same field of the one before. The records
    // passed are pointed at that last one (the walk is over: parents now serve the merging alone),
    // so that the next instance held along the same run crosses it in one step. Without that,
    // instances spread along a chain of n links cost n*n/2 steps, more than the walk itself.
    uint32_t run_end(uint32_t start) {
        uint32_t last = start;
        while ((*this)[last].parent != 0 && same_link((*this)[last], (*this)[(*this)[last].parent])) {
            last = (*this)[last].parent;
        }
        for (uint32_t tag = start; tag != last;) {
            uint32_t next = (*this)[tag].parent;
            (*this)[tag].parent = last;
            tag = next;
        }
        return last;
    }

private:
    ReachedTable& m_objects;
    ClassInfo* m_infos;
};

// Merges one instance's chain of first references, from the instance up to its root. False when
// the compaction deadline has passed or the tree cannot grow. A chain longer than the objects
// numbered has a loop (a class object whose first reference came late, from below it): merging
// stops there rather than going round.
bool merge_instance(Tree& tree, ReachedByTag& objects, const Instance& instance, std::optional<double> deadline,
                    jlong* steps) {
    const Reached* child = &objects[instance.tag];
    if (tree.root->count == 0) tree.root->info = objects.info(*child);
    tree.root->count++;
    tree.root->size += instance.size;
    Path* current = tree.root;
    jint level = 0;
    uint32_t chain = 0;
    for (uint32_t holder = child->parent; holder != 0; child = &objects[holder], holder = child->parent) {
        if ((deadline && ++*steps % CHECK_EVERY == 0 && *deadline < get_time()) || ++chain > objects.count()) {
            LOG_DEBUG("TIMEOUT or loop in compact");
            return false;
        }
        if (same_link(*child, objects[holder])) {
            holder = objects.run_end(holder);
            continue;
        }
        current = tree.add_link(current, objects.info(objects[holder]), child->kind(), child->index, instance.size);
        if (current == nullptr) return false;
        level++;
    }
    if (tree.add_link(current, nullptr, child->kind(), child->index, instance.size) == nullptr) return false;
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
          m_objects(m_budget, TAG_ENTRY_BYTES), m_instances(m_budget), m_tree(m_budget) {}
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
    bool is_class_tag(jlong tag) const { return tag > 0 && tag <= m_context.classes; }
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
    ReachedTable m_objects;
    BudgetArray<Instance> m_instances;
    SearchContext m_context;
    std::optional<IterationLimit> m_limit;
    Tree m_tree;
    ConstructionFrames m_construction;
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

// Numbers the classes first, so that a class's number is its index in m_infos. False when memory
// ran out.
bool Search::tag_classes(const char* wanted) {
    size_t wanted_length = std::strlen(wanted);
    // Beyond what a record can number (more than any class space holds), classes stay unknown.
    uint32_t count = std::min(static_cast<uint32_t>(m_classes.count()), Reached::MAX_CLASSES);
    m_infos = static_cast<ClassInfo*>(m_budget.allocate(count * sizeof(ClassInfo)));
    if (m_infos == nullptr) return false;
    std::memset(static_cast<void*>(m_infos), 0, count * sizeof(ClassInfo));
    m_info_count = count;
    m_context.classes = count;
    for (uint32_t k = 0; k < count; k++) {
        ClassInfo& info = m_infos[k];
        info.klass = m_classes[static_cast<jint>(k)];
        uint32_t number = 0;
        if (!m_objects.add(Reached{0, k << Reached::KIND_BITS, 0}, &number)) return false;
        if (g_jvmti->SetTag(info.klass, static_cast<jlong>(number) + 1) != JVMTI_ERROR_NONE) continue;
        JvmtiBuffer<char> signature;
        if (g_jvmti->GetClassSignature(info.klass, signature.out(), nullptr) != JVMTI_ERROR_NONE) continue;
        info.primitive_array = signature.get()[0] == '[' && signature.get()[1] != '[' && signature.get()[1] != 'L';
        if (g_virtual_threads) m_construction.add_class(info.klass, signature.get());
        if (m_context.searched == 0 && std::strncmp(signature.get(), wanted, wanted_length) == 0) {
            m_context.searched = static_cast<jlong>(number) + 1;
        }
    }
    return true;
}

bool Search::has_targets() const {
    if (m_context.searched == 0) LOG_ERROR("Cannot find search class");
    return m_context.searched != 0;
}

jvmtiError Search::walk(jlong limit_millis) {
    m_limit = start_limit(limit_millis, get_time());
    m_context.limit = m_limit ? &*m_limit : nullptr;
    m_context.objects = &m_objects;
    m_context.infos = m_infos;
    m_context.instances = &m_instances;
    m_context.construction = &m_construction;
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
        if (g_jvmti->GetTag(m_classes[k], &tag) == JVMTI_ERROR_NONE && is_class_tag(tag)) {
            m_infos[tag - 1].klass = m_classes[k];
        }
    }
}

// Without a time limit every instance is merged; with one, merging stops at the same limit
// counted from the end of the walk. False when memory ran out.
bool Search::compact(jlong limit_millis) {
    if (!m_tree.plant()) return false;
    std::optional<double> deadline;
    if (limit_millis > 0) deadline = m_walk_end + static_cast<double>(limit_millis) / 1000.0;
    jlong steps = 0;
    ReachedByTag objects(m_objects, m_infos);
    for (size_t k = 0; k < m_instances.size(); k++) {
        if (!merge_instance(m_tree, objects, m_instances[k], deadline, &steps)) break;
    }
    LOG_DEBUG("Nodes reduced=%d total=%d", m_tree.reduced, m_tree.total);
    return m_budget.failure() == WalkBudget::NONE;
}

// Every tag goes, class tags included. The tags are numbers and name no memory, so the records go
// whatever happens; tags that stay make the next heap operation clear them first.
void Search::clean_up() {
    m_clean_up_error = clear_every_tag();
    if (m_clean_up_error != JVMTI_ERROR_NONE) mark_tags_left();
    m_objects.free_all();
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
    return g_jvmti->GetTag(klass, &tag) == JVMTI_ERROR_NONE && is_class_tag(tag) ? &m_infos[tag - 1] : nullptr;
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
