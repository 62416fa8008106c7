// Records of one kind handed out from blocks of a walk's budget and freed all at once, for heap
// walks that make one record per object: millions of small allocations would cost more than the
// walk. Blocks stay small (160 KB) so that a low ceiling still means something.
#pragma once

#include "heap_memory.h"

#include <cstddef>

template <typename T>
class Arena {
public:
    static constexpr size_t BLOCK_BYTES = 160 * 1024;
    // Each block counts `tag_bytes_per_record` more against the budget: the tag-table entry of the
    // object that each record describes.
    Arena(WalkBudget& budget, size_t tag_bytes_per_record) : m_budget(budget), m_tag_bytes(tag_bytes_per_record) {}

    // A record (trivial type, left uninitialised), or null when the budget is spent. Only pointer
    // arithmetic unless a block is full: this runs once per object inside the walk.
    T* allocate() {
        if (m_used < PER_BLOCK) return m_block + m_used++;
        return allocate_in_new_block();
    }

    // The blocks, for the caller to free or to keep while tags name their records.
    BlockChain& blocks() { return m_blocks; }

private:
    // What is left of a block once the chain's header and the allocator's own word are taken.
    static constexpr size_t PER_BLOCK = (BLOCK_BYTES - sizeof(BlockChain::Header) - 16) / sizeof(T);

    T* allocate_in_new_block() {
        void* block = m_blocks.add(m_budget, PER_BLOCK * sizeof(T), PER_BLOCK * m_tag_bytes);
        if (block == nullptr) return nullptr;
        m_block = static_cast<T*>(block);
        m_used = 1;
        return m_block;
    }

    WalkBudget& m_budget;
    size_t m_tag_bytes;
    BlockChain m_blocks;
    T* m_block = nullptr;
    size_t m_used = PER_BLOCK;
};
