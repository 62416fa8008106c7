// A growable array for the paths that must not end the process when memory runs out: a failed
// allocation is reported to the caller instead of thrown (the library is built without
// exceptions, so a throwing allocation would abort the host). For trivially copyable records only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>

// Memory straight from the nothrow operator new (rather than malloc: the agent's heap accounting
// in the tests sees every block).
struct PlainMemory {
    void* allocate(size_t bytes) { return ::operator new(bytes, std::nothrow); }
    void release(void* block, size_t) { ::operator delete(block); }
    static PlainMemory& instance() {
        static PlainMemory memory;
        return memory;
    }
};

// `Memory` hands out and takes back blocks: allocate(bytes) gives null when it cannot, and
// release(block, bytes) takes back what it gave.
template <typename T, typename Memory = PlainMemory>
class NothrowArray {
    static_assert(std::is_trivially_copyable<T>::value, "records are moved with memcpy");

public:
    NothrowArray() : m_memory(Memory::instance()) {}
    explicit NothrowArray(Memory& memory) : m_memory(memory) {}
    ~NothrowArray() {
        if (m_data != nullptr) m_memory.release(m_data, m_capacity * sizeof(T));
    }
    NothrowArray(const NothrowArray&) = delete;
    NothrowArray& operator=(const NothrowArray&) = delete;

    // Room for at least `capacity` records; false (and nothing changed) when memory ran out.
    bool reserve(size_t capacity) {
        if (capacity <= m_capacity) return true;
        if (capacity > SIZE_MAX / sizeof(T)) return false;
        void* grown = m_memory.allocate(capacity * sizeof(T));
        if (grown == nullptr) return false;
        if (m_data != nullptr) {
            std::memcpy(grown, static_cast<const void*>(m_data), m_size * sizeof(T));
            m_memory.release(m_data, m_capacity * sizeof(T));
        }
        m_data = static_cast<T*>(grown);
        m_capacity = capacity;
        return true;
    }

    bool push_back(const T& record) {
        if (m_size == m_capacity && !reserve(m_capacity < 16 ? 16 : m_capacity * 2)) return false;
        std::memcpy(static_cast<void*>(m_data + m_size), &record, sizeof(T));
        m_size++;
        return true;
    }

    // Exactly `size` records, the new ones zeroed; false when memory ran out.
    bool resize_zeroed(size_t size) {
        if (!reserve(size)) return false;
        if (size > m_size) std::memset(static_cast<void*>(m_data + m_size), 0, (size - m_size) * sizeof(T));
        m_size = size;
        return true;
    }

    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    T* data() { return m_data; }
    const T* data() const { return m_data; }
    T& operator[](size_t index) { return m_data[index]; }
    const T& operator[](size_t index) const { return m_data[index]; }
    T* begin() { return m_data; }
    T* end() { return m_data + m_size; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_size; }

private:
    Memory& m_memory;
    T* m_data = nullptr;
    size_t m_size = 0;
    size_t m_capacity = 0;
};
