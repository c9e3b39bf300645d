#define ORVO_SOURCE "orvo_socket"
#include "orvo_bytebuffer.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace orvo {

namespace {

// Bytes of blocks given back by Release() since the last TakeReleasedBytes.
std::atomic<unsigned long> gReleased(0);

// The first block: a few frames of the usual size (headers, requests and
// replies of a few hundred bytes) fit without growing.
const unsigned long kFirstBlock = 512;

}  // namespace

cByteBuffer::cByteBuffer(unsigned long capacity)
    : m_pBegin(nullptr), m_pEnd(nullptr), m_Capacity(0), m_Allocated(0)
{
    if (capacity > 0xFFFFFFFFul)
        capacity = 0xFFFFFFFFul;
    m_Capacity = static_cast<uint32_t>(capacity);
}

cByteBuffer::~cByteBuffer()
{
    free(m_pBegin);
}

bool cByteBuffer::Grow(unsigned long need)
{
    // Doubling keeps the copies of a growing buffer linear in its size; the
    // capacity caps the block.
    unsigned long size = m_Allocated != 0 ? m_Allocated : kFirstBlock;
    while (size < need)
        size = size > m_Capacity / 2 ? m_Capacity : size * 2;
    if (size > m_Capacity)
        size = m_Capacity;
    const unsigned long held = this->size();
    unsigned char* block = static_cast<unsigned char*>(realloc(m_pBegin, size));
    if (block == nullptr)
        return false;
    m_pBegin = block;
    m_pEnd = block + held;
    m_Allocated = static_cast<uint32_t>(size);
    return true;
}

ORVO_HOT bool cByteBuffer::pushback(const void* p, unsigned long n)
{
    // Comparing against the free space (never size() + n) cannot overflow.
    if (asize() <= n)
        return false;
    if (n == 0)
        return true;
    if (p == nullptr)
        return false;
    const unsigned long held = size();
    if (n > m_Allocated - held) {
        // The source may lie inside the block that is about to move.
        const unsigned char* src = static_cast<const unsigned char*>(p);
        const bool inside = m_pBegin != nullptr && src >= m_pBegin && src < m_pEnd;
        const unsigned long offset = inside ? static_cast<unsigned long>(src - m_pBegin) : 0;
        if (!Grow(held + n))
            return false;
        if (inside)
            p = m_pBegin + offset;
    }
    // memmove: the source may lie inside this block.
    memmove(m_pEnd, p, n);
    m_pEnd += n;
    return true;
}

ORVO_HOT void cByteBuffer::popfront(unsigned long n)
{
    if (n == 0)
        return;
    const unsigned long held = size();
    if (n >= held) {
        m_pEnd = m_pBegin;
        return;
    }
    memmove(m_pBegin, m_pBegin + n, held - n);
    m_pEnd = m_pBegin + (held - n);
    ORVO_ASSERT(m_pEnd>=m_pBegin && size()<=m_Allocated);
}

void cByteBuffer::Release()
{
    if (m_pBegin == nullptr)
        return;
    gReleased.fetch_add(m_Allocated, std::memory_order_relaxed);
    free(m_pBegin);
    m_pBegin = m_pEnd = nullptr;
    m_Allocated = 0;
}

unsigned long cByteBuffer::TakeReleasedBytes(unsigned long atLeast)
{
    unsigned long seen = gReleased.load(std::memory_order_relaxed);
    while (seen >= atLeast) {
        if (gReleased.compare_exchange_weak(seen, 0, std::memory_order_relaxed))
            return seen;
    }
    return 0;
}

}  // namespace orvo
