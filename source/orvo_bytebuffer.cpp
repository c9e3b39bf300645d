#define ORVO_SOURCE "orvo_socket"
#include "orvo_bytebuffer.h"

#include <cstdlib>
#include <cstring>

namespace orvo {

cByteBuffer::cByteBuffer(unsigned long capacity)
    : m_pBegin(nullptr), m_pEnd(nullptr), m_Capacity(0)
{
    if (capacity > 0xFFFFFFFFul)
        capacity = 0xFFFFFFFFul;
    if (capacity > 0)
        m_pBegin = static_cast<unsigned char*>(malloc(capacity));
    if (m_pBegin != nullptr)
        m_Capacity = static_cast<uint32_t>(capacity);
    m_pEnd = m_pBegin;
}

cByteBuffer::~cByteBuffer()
{
    free(m_pBegin);
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
    ORVO_ASSERT(m_pEnd>=m_pBegin && size()<=m_Capacity);
}

}  // namespace orvo
