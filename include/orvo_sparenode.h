// orvo_sparenode.h - cSpareNodeAllocator, an allocator that keeps the last
// block given back and hands it out again for a request of the same size.
//
// Made for a std::deque used as a message queue: a queue that is filled and
// emptied one message at a time walks through its nodes, and without the
// spare every few messages would cost a node's allocation and release. With
// it the node the queue just left is the one it takes next.
//
// Each allocator object holds at most one spare, released by its destructor.
// A copy (and a rebound copy, as a container makes for its bookkeeping
// arrays) starts without one, so no block has two owners. All blocks come
// from operator new, so any two allocators may release each other's blocks.
// Not thread-safe; it belongs to its container.
#pragma once

#include <cstddef>
#include <new>

namespace orvo {

template <class T>
class cSpareNodeAllocator {
public:
    using value_type = T;

    cSpareNodeAllocator() noexcept = default;
    cSpareNodeAllocator(const cSpareNodeAllocator&) noexcept {}
    template <class U>
    cSpareNodeAllocator(const cSpareNodeAllocator<U>&) noexcept
    {
    }
    cSpareNodeAllocator& operator=(const cSpareNodeAllocator&) noexcept { return *this; }
    ~cSpareNodeAllocator() { ::operator delete(m_pSpare); }

    T* allocate(std::size_t count)
    {
        if (m_pSpare != nullptr && count == m_SpareCount) {
            T* block = m_pSpare;
            m_pSpare = nullptr;
            return block;
        }
        return static_cast<T*>(::operator new(count * sizeof(T)));
    }

    void deallocate(T* block, std::size_t count) noexcept
    {
        if (m_pSpare == nullptr) {
            m_pSpare = block;
            m_SpareCount = count;
            return;
        }
        ::operator delete(block);
    }

    template <class U>
    bool operator==(const cSpareNodeAllocator<U>&) const noexcept
    {
        return true;
    }
    template <class U>
    bool operator!=(const cSpareNodeAllocator<U>&) const noexcept
    {
        return false;
    }

private:
    T* m_pSpare = nullptr;
    std::size_t m_SpareCount = 0;
};

}  // namespace orvo
