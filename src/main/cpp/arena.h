// Records of one kind handed out from blocks of a walk's budget and freed all at once, for heap
// walks that make one record per object: millions of small allocations would cost more than the
// walk. Blocks stay small (160 KB) so that a low ceiling still means something.
#pragma once

#include "heap_memory.h"

#include <cstddef>
#include <cstdint>

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

// Records numbered from 0 in the order they are added and found again by number, for walks that
// tag each object with its number rather than with an address. A block holds a fixed power of two
// of records, so that a number finds its block by a shift and nothing moves as the table grows
// (no copy, no doubled peak); each block counts `tag_bytes_per_record` more against the budget.
template <typename T>
class NumberedRecords {
public:
    // 8,192 records a block: below the arenas' 160 KB for records up to 20 bytes.
    static constexpr unsigned BLOCK_SHIFT = 13;
    static constexpr uint32_t PER_BLOCK = uint32_t{1} << BLOCK_SHIFT;
    // Every number plus one fits 32 bits, so that records can name each other's tags in 4 bytes.
    static constexpr uint32_t MAX_RECORDS = UINT32_MAX - PER_BLOCK;

    NumberedRecords(WalkBudget& budget, size_t tag_bytes_per_record)
        : m_budget(budget), m_tag_bytes(tag_bytes_per_record), m_blocks(budget) {}
    ~NumberedRecords() { free_all(); }
    NumberedRecords(const NumberedRecords&) = delete;
    NumberedRecords& operator=(const NumberedRecords&) = delete;

    // Stores a record under the next number; false when the budget is spent. Only a copy unless
    // a block is full: this runs once per object inside the walk.
    bool add(const T& record, uint32_t* number) {
        if (m_room == 0 && !add_block()) return false;
        *m_tail++ = record;
        m_room--;
        *number = m_size++;
        return true;
    }

    T& operator[](uint32_t number) { return m_blocks[number >> BLOCK_SHIFT][number & (PER_BLOCK - 1)]; }
    uint32_t size() const { return m_size; }

    void free_all() {
        for (T* block : m_blocks) m_budget.release(block, PER_BLOCK * sizeof(T));
        m_blocks.resize_zeroed(0);
        m_size = 0;
        m_room = 0;
    }

private:
    bool add_block() {
        if (m_size >= MAX_RECORDS) {
            m_budget.refuse();
            return false;
        }
        auto* block = static_cast<T*>(m_budget.allocate(PER_BLOCK * sizeof(T), PER_BLOCK * m_tag_bytes));
        if (block == nullptr) return false;
        if (!m_blocks.push_back(block)) {
            m_budget.release(block, PER_BLOCK * sizeof(T));
            return false;
        }
        m_tail = block;
        m_room = PER_BLOCK;
        return true;
    }

    WalkBudget& m_budget;
    size_t m_tag_bytes;
    BudgetArray<T*> m_blocks;
    T* m_tail = nullptr;
    uint32_t m_room = 0;
    uint32_t m_size = 0;
};
