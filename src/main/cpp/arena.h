// Records of one kind allocated in a few large blocks and freed all at once, for heap walks that
// make one record per object: millions of small allocations would cost more than the walk.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

template <typename T>
class Arena {
public:
    explicit Arena(size_t records_per_block = 1 << 16) : m_per_block(records_per_block) {}
    ~Arena() {
        for (T* block : m_blocks) std::free(block);
    }
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // A record (trivial type, left uninitialised), or null when memory is exhausted.
    T* allocate() {
        if (m_used == m_per_block || m_blocks.empty()) {
            void* block = std::malloc(sizeof(T) * m_per_block);
            if (block == nullptr) return nullptr;
            m_blocks.push_back(static_cast<T*>(block));
            m_used = 0;
        }
        return m_blocks.back() + m_used++;
    }

    size_t allocated() const { return m_blocks.empty() ? 0 : (m_blocks.size() - 1) * m_per_block + m_used; }

private:
    size_t m_per_block;
    size_t m_used = 0;
    std::vector<T*> m_blocks;
};
