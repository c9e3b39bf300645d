// orvo_bytebuffer.h - the linear byte queue behind the framed sockets' send
// and receive buffers.
#pragma once

#include <cstdint>

#include "orvo_object.h"

namespace orvo {

// cByteBuffer: a fixed-capacity queue of bytes in one heap block. Bytes are
// appended at the back and consumed from the front; the data always starts
// at the start of the block, so consuming moves the remaining bytes down (it
// is not a ring). The block is allocated once, by the constructor; a failed
// allocation (or capacity 0) leaves a buffer of capacity 0 that refuses every
// append. Requests beyond what is there are refused or clipped, never read
// or written past the block.
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
    // Empties the buffer.
    void clear() { m_pEnd = m_pBegin; }

    // Bytes held.
    unsigned long size() const { return static_cast<unsigned long>(m_pEnd - m_pBegin); }
    // Free bytes: capacity() - size().
    unsigned long asize() const { return m_Capacity - size(); }
    unsigned long capacity() const { return m_Capacity; }
    // The first byte held; size() bytes are readable from here. The pointer
    // stays the same for the buffer's life (null when the capacity is 0); its
    // contents change with every popfront.
    const unsigned char* data() const { return m_pBegin; }

private:
    unsigned char* m_pBegin;    // the block (malloc) and the read position
    unsigned char* m_pEnd;      // write position, first free byte
    uint32_t m_Capacity;        // bytes in the block
};

}  // namespace orvo
