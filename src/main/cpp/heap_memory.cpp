#include "heap_memory.h"

#include "config.h"
#include "error_name.h"
#include "exception.h"
#include "global.h"
#include "log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

void* WalkBudget::allocate(size_t bytes, size_t also_charged) {
    size_t room = m_ceiling - m_used;
    if (m_used > m_ceiling || bytes > room || also_charged > room - bytes) {
        m_failure = OVER_CEILING;
        return nullptr;
    }
    // Through the nothrow operator, so that the agent's own heap accounting sees these blocks.
    void* block = ::operator new(bytes, std::nothrow);
    if (block == nullptr) {
        m_failure = OUT_OF_MEMORY;
        return nullptr;
    }
    m_used += bytes + also_charged;
    return block;
}

void WalkBudget::release(void* block, size_t bytes) {
    ::operator delete(block);
    m_used -= bytes < m_used ? bytes : m_used;
}

size_t walk_ceiling_bytes() { return static_cast<size_t>(g_heap_walk_max_mb) << 20; }

namespace {
// The first bytes of a small system file, as text; empty when it cannot be read.
void read_small_file(const char* path, char* text, size_t capacity) {
    text[0] = '\0';
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t length = read(fd, text, capacity - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
}

uint64_t cgroup_memory_limit() {
    char text[64];
    read_small_file("/sys/fs/cgroup/memory.max", text, sizeof text);
    uint64_t limit = parse_cgroup_memory_limit(text);
    if (limit != 0) return limit;
    read_small_file("/sys/fs/cgroup/memory/memory.limit_in_bytes", text, sizeof text);
    return parse_cgroup_memory_limit(text);
}
}  // namespace

long machine_walk_max_mb() {
    long pages = sysconf(_SC_PHYS_PAGES);
    long page_size = sysconf(_SC_PAGE_SIZE);
    uint64_t physical = pages > 0 && page_size > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(page_size) : 0;
    return default_walk_max_mb(physical, cgroup_memory_limit());
}

void* BlockChain::add(WalkBudget& budget, size_t bytes, size_t also_charged) {
    if (bytes > SIZE_MAX - sizeof(Header)) return nullptr;
    auto* header = static_cast<Header*>(budget.allocate(sizeof(Header) + bytes, also_charged));
    if (header == nullptr) return nullptr;
    header->next = m_first;
    m_first = header;
    return header + 1;
}

void BlockChain::free_all() {
    while (m_first != nullptr) {
        Header* next = m_first->next;
        ::operator delete(m_first);
        m_first = next;
    }
}

void BlockChain::take_all(BlockChain& other) {
    while (other.m_first != nullptr) {
        Header* block = other.m_first;
        other.m_first = block->next;
        block->next = m_first;
        m_first = block;
    }
}

WalkFailure WalkFailure::of(const WalkBudget& budget) {
    switch (budget.failure()) {
        case WalkBudget::OUT_OF_MEMORY: return WalkFailure{OUT_OF_MEMORY, JVMTI_ERROR_NONE};
        case WalkBudget::OVER_CEILING: return WalkFailure{OVER_CEILING, JVMTI_ERROR_NONE};
        default: return WalkFailure{};
    }
}

void raise_walk_failure(JNIEnv* env, const WalkFailure& failure) {
    switch (failure.kind) {
        case WalkFailure::NONE: return;
        case WalkFailure::TAGS_LEFT:
            throw_exception(env, ILLEGAL_STATE,
                            "Tags of an earlier heap walk could not be cleared (%s): heap walks are refused until they are",
                            get_error_message(failure.error).c_str());
            return;
        case WalkFailure::OUT_OF_MEMORY:
            throw_exception(env, ILLEGAL_STATE, "Heap walk stopped: out of native memory");
            return;
        case WalkFailure::OVER_CEILING:
            throw_exception(env, ILLEGAL_STATE,
                            "Heap walk stopped: it needs more than %ld MB of native memory (kv.jvmti.heap.walk.max.mb)",
                            g_heap_walk_max_mb);
            return;
        case WalkFailure::JVMTI: throw_jvmti_exception(env, failure.error); return;
    }
}

// ---- tags left behind

namespace {
// Guarded by TAG_LOCK.
bool s_tags_left = false;
BlockChain s_named_by_tags;
}  // namespace

jint JNICALL heapIterationCallbackFreeTag(jlong, jlong, jlong* tag_ptr, jint, void*) {
    *tag_ptr = 0;
    return JVMTI_VISIT_OBJECTS;
}

jvmtiError clear_every_tag() {
    jvmtiHeapCallbacks callbacks{};
    callbacks.heap_iteration_callback = heapIterationCallbackFreeTag;
    return g_jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, nullptr);
}

jvmtiError clear_leftover_tags() {
    if (!s_tags_left) return JVMTI_ERROR_NONE;
    jvmtiError error = clear_every_tag();
    if (error != JVMTI_ERROR_NONE) {
        LOG_WARN("Tags of an earlier heap walk still cannot be cleared %s %d", get_error_message(error).c_str(), error);
        return error;
    }
    LOG_DEBUG("Tags of an earlier heap walk cleared");
    s_named_by_tags.free_all();
    s_tags_left = false;
    return JVMTI_ERROR_NONE;
}

void keep_until_tags_cleared(BlockChain& blocks) {
    s_named_by_tags.take_all(blocks);
    mark_tags_left();
}

void mark_tags_left() { s_tags_left = true; }
