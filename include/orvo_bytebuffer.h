// orvo_bytebuffer.h - the linear byte queue behind the framed sockets' send
// and receive buffers.
#pragma once

#include <cstdint>

#include "orvo_object.h"

namespace orvo {

// cByteBuffer: a queue of bytes with a fixed capacity, in one heap block.
// Bytes are appended at the back and consumed from the front; the data
// always starts at the start of the block, so consuming moves the remaining
// bytes down (it is not a ring). The capacity is the limit of what the
// buffer holds; the block itself follows use: nothing is allocated until
// the first append, then the block doubles (from 512 bytes) as the bytes
// held need it, up to the capacity, and keeps its size until Release().
// So an idle buffer costs nothing and a busy one stops allocating once it
// has grown. A failed allocation refuses the append (nothing changes).
// Requests beyond what is there are refused or clipped, never read or
// written past the block.
//
// Not thread-safe: the owner serialises access (the framed sockets hold their
// process-wide frame lock around writes and flushes).
class ORVO_API cByteBuffer {
public:
    // Capacity in bytes, at most 0xFFFFFFFF (larger values are clipped).
    explicit cByteBuffer(unsigned long capacity);
    cByteBuffer(const cByteBuffer&) = delete;
    cByteBuffer& operator=(const cByteBuffer&) = delete;
    ~cByteBuffer();

    // Appends n bytes from p only when the free space is strictly greater
    // than n: a piece that would fill the buffer exactly is refused. Returns
    // whether it appended; a refused append changes nothing. n == 0 appends
    // nothing and succeeds while there is free space; a null p with n > 0 is
    // refused. p may point into this buffer.
    bool pushback(const void* p, unsigned long n);
    // Consumes n bytes from the front: n == 0 does nothing, n >= size()
    // empties the buffer, otherwise the rest moves to the start.
    void popfront(unsigned long n);
    // Empties the buffer; the block is kept for later appends.
    void clear() { m_pEnd = m_pBegin; }
    // Empties the buffer and gives its block back (a closed connection
    // keeps no memory); the next append allocates again.
    void Release();

    // Bytes held.
    unsigned long size() const { return static_cast<unsigned long>(m_pEnd - m_pBegin); }
    // Free bytes: capacity() - size().
    unsigned long asize() const { return m_Capacity - size(); }
    unsigned long capacity() const { return m_Capacity; }
    // Bytes of the block now allocated (0 before the first append and
    // after Release).
    unsigned long allocated() const { return m_Allocated; }
    // The first byte held; size() bytes are readable from here. Valid until
    // the next pushback (which may move the block) or Release; null while
    // no block is allocated.
    const unsigned char* data() const { return m_pBegin; }

    // Bytes of blocks given back by Release() in the whole process since the
    // count was last taken. When they are at least atLeast, returns them and
    // resets the count; otherwise returns 0 and leaves it. The service loop
    // uses it to decide when handing heap pages back to the system is worth
    // it. Any thread.
    static unsigned long TakeReleasedBytes(unsigned long atLeast = 0);

private:
    // Makes the block at least need bytes (need <= capacity); false when the
    // allocation failed (the old block stays).
    bool Grow(unsigned long need);

    unsigned char* m_pBegin;    // the block (malloc) and the read position
    unsigned char* m_pEnd;      // write position, first free byte
    uint32_t m_Capacity;        // most bytes the buffer may hold
    uint32_t m_Allocated;       // bytes in the block
};

}  // namespace orvo
