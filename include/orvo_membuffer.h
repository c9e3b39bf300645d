// orvo_membuffer.h - cMemBuffer, the reference-counted byte store under every
// record, record list and element view.
//
// A cMemBuffer is a view (offset and length) into a shared block. Copying a
// buffer copies no bytes: the copy shares the block and bumps its count. The
// block is freed when the last view releases it.
//
// Functions that change bytes (Create(const void*, ...), SetBufferSize,
// CreateCopy) always leave this buffer on a private block; the only exception
// is the in-place case: when this buffer is the only holder of its block and
// the block already has exactly the wanted capacity, the block is reused and
// the bytes are moved to its start.
//
// Thread safety: none. Reference counts are plain ints; a buffer and every
// view sharing its block must stay on one thread.
//
// Contract breaches (negative sizes or offsets, a view outside its block)
// abort through ORVO_ASSERT with the texts "m_Offset>=0", "m_Size>=0",
// "NewSize >= 0", "Size >= 0 && Size <= NewSize", "Size >= 0" and the block
// invariant "(m_pData==0 && m_Size==0) || (m_pData!=0 && m_Size>0 &&
// m_Offset+m_Size<=m_pData->m_Size)". There are no error returns.
#pragma once

#include "orvo_object.h"

// Internal members of the record family's exported classes: not exported,
// so that the library's own calls to them are direct and can be inlined.
#ifndef ORVO_RECORD_INTERNAL
#define ORVO_RECORD_INTERNAL __attribute__((visibility("hidden")))
#endif

namespace orvo {

// The shared block: header and bytes in one allocation. Internal; declared
// here only so that sharing and releasing a block can be inlined.
class ORVO_API cMemBufferData {
public:
    // A block of Size bytes (not initialised) with count 1.
    static cMemBufferData* New(int Size);
    void AddRef() { ++m_RefCount; }
    // Frees the block when the last holder lets go.
    void Release()
    {
        if (--m_RefCount == 0)
            Free();
    }

    int m_Size;         // capacity in bytes
    int m_RefCount;     // views pointing here
    // The m_Size bytes right behind this header. The header is kept at 8
    // bytes so that a 1024-byte block plus header (1032 bytes) still fits
    // the allocator's per-thread cache.
    char* Bytes() { return reinterpret_cast<char*>(this + 1); }

private:
    void Free();
};

class ORVO_API cMemBuffer {
public:
    // Empty buffer: no block, offset 0, size 0.
    cMemBuffer() : m_pData(nullptr), m_Offset(0), m_Size(0) {}
    // Shares Other's block (count + 1) with the same offset and size.
    cMemBuffer(const cMemBuffer& Other)
        : m_pData(Other.m_pData), m_Offset(Other.m_Offset), m_Size(Other.m_Size)
    {
        if (m_pData != nullptr)
            m_pData->AddRef();
    }
    // Sub-view: shares Buf's block, offset Buf's offset + Offs, size Size.
    // A view of length 0 onto a block is accepted here (and only here); such
    // a view must not be assigned with operator=/Create(const cMemBuffer&),
    // which require the strong invariant.
    cMemBuffer(const cMemBuffer& Buf, int Offs, int Size);
    // Starts empty, then Create(p, Size, NewSize).
    cMemBuffer(const void* p, int Size, int NewSize = -1);
    ~cMemBuffer()
    {
        if (m_pData != nullptr)
            m_pData->Release();
    }

    // Same as Create(Other).
    cMemBuffer& operator=(const cMemBuffer& Other);

    // Releases the block; the buffer becomes empty. Returns null.
    char* Create();
    // Shares Buf's block, offset and size. Returns the view start (null for
    // an empty buffer).
    char* Create(const cMemBuffer& Buf);
    // Size 0: same as Create(). Otherwise shares Buf's block with offset
    // Buf's offset + Offs and size Size; the view must lie inside the block.
    char* Create(const cMemBuffer& Buf, int Offs, int Size);
    // Fresh private contents of NewSize bytes (NewSize -1 means Size; Size is
    // cut to NewSize): Size bytes from pSrc (none when pSrc is null), the rest
    // zero. NewSize 0 empties the buffer and returns null. pSrc may point into
    // this buffer's own block. Returns the first byte.
    char* Create(const void* pSrc, int Size, int NewSize = -1);
    // Resizes to Size bytes keeping the leading bytes (new bytes are zero).
    // Size 0 empties the buffer. Returns the first byte or null.
    char* SetBufferSize(int Size);
    // Private copy of Size bytes starting Offs bytes into the view. Offs and
    // Size are not checked against the view. Returns the first byte or null.
    char* CreateCopy(int Offs, int Size);

    // Length of the view.
    int GetBufferSize() const { return m_Size; }
    // First byte of the view, or null when no block is held. Valid while this
    // buffer (or another view of the same block) holds the block.
    char* GetBuffer() const { return m_pData != nullptr ? m_pData->Bytes() + m_Offset : nullptr; }
    // Capacity of the held block (0 when empty) and the number of views that
    // share it (0 when empty); for diagnostics and tests.
    int GetCapacity() const;
    // Whether this buffer is its block's only holder and views all of the
    // block's Size bytes from its start: SetBufferSize(Size) would then
    // change nothing.
    bool IsPrivateWhole(int Size) const
    {
        return m_pData != nullptr && m_pData->m_RefCount == 1 && m_pData->m_Size == Size &&
               m_Offset == 0 && m_Size == Size;
    }
    // Create(Buf) for a Buf known to satisfy the block invariant (e.g. a
    // record's own buffer): shares block, offset and size without checks.
    void Share(const cMemBuffer& Buf)
    {
        if (Buf.m_pData != m_pData) {
            // Take the new block before letting go of the old one: Buf may
            // be a view that only this buffer keeps alive.
            cMemBufferData* pOld = m_pData;
            m_pData = Buf.m_pData;
            if (m_pData != nullptr)
                m_pData->AddRef();
            if (pOld != nullptr)
                pOld->Release();
        }
        m_Offset = Buf.m_Offset;
        m_Size = Buf.m_Size;
    }
    int GetRefCount() const;

private:
    ORVO_RECORD_INTERNAL void Release();
    ORVO_RECORD_INTERNAL void CheckStrong() const;

    cMemBufferData* m_pData;   // shared block, or null
    int m_Offset;              // start of the view inside the block
    int m_Size;                // length of the view
};

}  // namespace orvo
