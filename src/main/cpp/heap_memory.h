// The native memory of heap walks: a ceiling per walk, allocations that fail instead of ending the
// process (the library has no exceptions: a throwing new that fails aborts, inside a safepoint when
// it happens in a walk's callback), and the tags that a failed clean-up could leave behind.
#pragma once

#include "nothrow_array.h"

#include <jni.h>
#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

// What the VM's tag table takes for each tag set, measured; a walk counts it against its ceiling.
constexpr size_t TAG_ENTRY_BYTES = 64;

// The native memory one heap operation may take. Every block comes from here, so that running
// out of memory or reaching the ceiling ends the walk with a reason instead of the process.
class WalkBudget {
public:
    enum Failure { NONE, OUT_OF_MEMORY, OVER_CEILING };

    explicit WalkBudget(size_t ceiling_bytes) : m_ceiling(ceiling_bytes) {}

    // A block of `bytes`, with `also_charged` more counted for memory that the VM takes on the
    // walk's behalf; null, with the reason kept, when the ceiling would be passed or the system
    // has no memory left.
    void* allocate(size_t bytes, size_t also_charged = 0);
    // Gives back a block of this budget that is no longer needed while the walk goes on.
    void release(void* block, size_t bytes);
    // Ends the walk as past its ceiling: for records that can number no more objects.
    void refuse() { m_failure = OVER_CEILING; }

    Failure failure() const { return m_failure; }
    size_t used() const { return m_used; }

private:
    size_t m_ceiling;
    size_t m_used = 0;
    Failure m_failure = NONE;
};

// The ceiling of every walk, from kv.jvmti.heap.walk.max.mb.
size_t walk_ceiling_bytes();

// The default ceiling for this machine: a quarter of its memory, or of the memory limit of the
// process's control group when that is lower, and at least 64 MB.
long machine_walk_max_mb();

// Blocks taken from a budget and freed together, or handed on whole while tags may name them.
class BlockChain {
public:
    BlockChain() = default;
    ~BlockChain() { free_all(); }
    BlockChain(const BlockChain&) = delete;
    BlockChain& operator=(const BlockChain&) = delete;

    // `bytes` of memory aligned for any type, or null.
    void* add(WalkBudget& budget, size_t bytes, size_t also_charged = 0);
    void free_all();
    // Moves every block of `other` into this chain.
    void take_all(BlockChain& other);
    bool empty() const { return m_first == nullptr; }

    struct alignas(std::max_align_t) Header {
        Header* next;
    };

private:
    Header* m_first = nullptr;
};

// A growing array whose blocks come from a walk's budget.
template <typename T>
using BudgetArray = NothrowArray<T, WalkBudget>;

// Nodes found again by the key they carry: an open-addressing table of node pointers, linear
// probing, at most half full. A Node has `size_t hash() const` and `bool matches(const Key&) const`.
template <typename Node>
class NodeIndex {
public:
    explicit NodeIndex(WalkBudget& budget) : m_budget(budget) {}
    ~NodeIndex() {
        if (m_slots != nullptr) m_budget.release(m_slots, m_capacity * sizeof(Node*));
    }
    NodeIndex(const NodeIndex&) = delete;
    NodeIndex& operator=(const NodeIndex&) = delete;

    template <typename Key>
    Node* find(const Key& key, size_t hash) const {
        if (m_slots == nullptr) return nullptr;
        for (size_t k = hash & (m_capacity - 1);; k = (k + 1) & (m_capacity - 1)) {
            Node* node = m_slots[k];
            if (node == nullptr || node->matches(key)) return node;
        }
    }

    // Adds a node whose key is not in the index yet; false when the table could not grow.
    bool add(Node* node) {
        if (2 * (m_count + 1) > m_capacity && !grow()) return false;
        place(m_slots, m_capacity, node);
        m_count++;
        return true;
    }

private:
    static void place(Node** slots, size_t capacity, Node* node) {
        size_t k = node->hash() & (capacity - 1);
        while (slots[k] != nullptr) k = (k + 1) & (capacity - 1);
        slots[k] = node;
    }

    bool grow() {
        size_t capacity = m_capacity == 0 ? 64 : m_capacity * 2;
        auto* slots = static_cast<Node**>(m_budget.allocate(capacity * sizeof(Node*)));
        if (slots == nullptr) return false;
        std::memset(slots, 0, capacity * sizeof(Node*));
        for (size_t k = 0; k < m_capacity; k++) {
            if (m_slots[k] != nullptr) place(slots, capacity, m_slots[k]);
        }
        if (m_slots != nullptr) m_budget.release(m_slots, m_capacity * sizeof(Node*));
        m_slots = slots;
        m_capacity = capacity;
        return true;
    }

    WalkBudget& m_budget;
    Node** m_slots = nullptr;
    size_t m_capacity = 0;
    size_t m_count = 0;
};

// Mixes the words of a key into a table index; the low bits must vary.
inline size_t mix_hash(uint64_t a, uint64_t b, uint64_t c) {
    uint64_t h = a * 0x9E3779B97F4A7C15ULL ^ (b + 0x632BE59BD9B4E019ULL) * 0xBF58476D1CE4E5B9ULL ^ c;
    h ^= h >> 31;
    h *= 0x94D049BB133111EBULL;
    return static_cast<size_t>(h ^ (h >> 29));
}

// Why a heap operation ended without its result. It is raised only once TAG_LOCK is released:
// raising runs the exception's managed constructor.
struct WalkFailure {
    enum Kind { NONE, TAGS_LEFT, OUT_OF_MEMORY, OVER_CEILING, JVMTI };
    Kind kind = NONE;
    jvmtiError error = JVMTI_ERROR_NONE;

    static WalkFailure of(const WalkBudget& budget);
    static WalkFailure jvmti(jvmtiError error) { return WalkFailure{JVMTI, error}; }
    explicit operator bool() const { return kind != NONE; }
};

void raise_walk_failure(JNIEnv* env, const WalkFailure& failure);

// ---- tags left behind. Each of these runs under TAG_LOCK.

// Clears every object's tag: a heap iteration over the tagged objects, class objects included.
jvmtiError clear_every_tag();

// Every heap operation starts with this, before it sets a tag: tags that an earlier clean-up
// failed to clear are cleared now, and the memory they named freed. The error when they still
// cannot be (the operation must then refuse).
jvmtiError clear_leftover_tags();

// After a clean-up that failed: the blocks that tags may still name stay allocated until
// clear_leftover_tags succeeds, so that no tag ever names freed memory.
void keep_until_tags_cleared(BlockChain& blocks);

// After a clean-up that failed to clear tags that name no memory (numbers): the next heap
// operation clears them first, or refuses.
void mark_tags_left();

jint JNICALL heapIterationCallbackFreeTag(jlong class_tag, jlong size, jlong* tag_ptr, jint length, void* user_data);
