#define ORVO_SOURCE "orvo_record"
#include "orvo_membuffer.h"

#include <pthread.h>

#include <cstring>
#include <new>
#include <utility>

namespace orvo {

namespace {

// A received message's record is one block, made when the message arrives
// and dropped when the next one is handed out, on the same thread. Each
// thread keeps the last small block it let go of for its next one, which
// spares the allocator a round trip per message.
constexpr int kSpareMaxSize = 1024;

__thread cMemBufferData* tSpare __attribute__((tls_model("initial-exec"))) = nullptr;
__thread bool tSpareCleanup __attribute__((tls_model("initial-exec"))) = false;

pthread_key_t gSpareKey;

void FreeSpareAtExit(void*)
{
    ::operator delete(static_cast<void*>(tSpare));
    tSpare = nullptr;
    // A block let go of later in the thread's end arms the clean-up again.
    tSpareCleanup = false;
}

void CreateSpareKey()
{
    pthread_key_create(&gSpareKey, &FreeSpareAtExit);
}

// Makes the thread's end free its spare block; once per thread.
void ArmSpareCleanup()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, &CreateSpareKey);
    // The value only makes the destructor run; it frees whatever block is
    // spare by then.
    pthread_setspecific(gSpareKey, &tSpareCleanup);
    tSpareCleanup = true;
}

}  // namespace

ORVO_HOT cMemBufferData* cMemBufferData::New(int Size)
{
    cMemBufferData* d = tSpare;
    // The spare serves a request it fits without wasting more than half of
    // itself. Its size field is lowered to the request: the allocation may
    // be larger than the size says, never smaller.
    if (d != nullptr && Size <= d->m_Size && d->m_Size <= 2 * Size) {
        tSpare = nullptr;
    } else {
        // One allocation for header and bytes: a record costs one malloc, not two.
        void* raw = ::operator new(sizeof(cMemBufferData) + (Size > 0 ? static_cast<size_t>(Size) : 0));
        d = static_cast<cMemBufferData*>(raw);
    }
    d->m_Size = Size;
    d->m_RefCount = 1;
    static_assert(sizeof(cMemBufferData) == 8, "block header grew");
    return d;
}

ORVO_HOT void cMemBufferData::Free()
{
    if (m_Size <= kSpareMaxSize) {
        if (!tSpareCleanup)
            ArmSpareCleanup();
        // The newest block is kept: it is the one still in the cache.
        ::operator delete(static_cast<void*>(std::exchange(tSpare, this)));
        return;
    }
    ::operator delete(static_cast<void*>(this));
}

cMemBuffer::cMemBuffer(const cMemBuffer& Buf, int Offs, int Size)
    : m_pData(Buf.m_pData), m_Offset(Buf.m_Offset + Offs), m_Size(Size)
{
    if (m_pData != nullptr)
        m_pData->AddRef();
    ORVO_ASSERT(m_Offset>=0);
    ORVO_ASSERT(m_Size>=0);
    ORVO_ASSERT((m_pData==0 && m_Size==0) || (m_pData!=0 && m_Offset+m_Size<=m_pData->m_Size));
}

cMemBuffer::cMemBuffer(const void* p, int Size, int NewSize)
    : m_pData(nullptr), m_Offset(0), m_Size(0)
{
    Create(p, Size, NewSize);
}

cMemBuffer& cMemBuffer::operator=(const cMemBuffer& Other)
{
    Create(Other);
    return *this;
}

ORVO_HOT void cMemBuffer::Release()
{
    if (m_pData != nullptr) {
        m_pData->Release();
        m_pData = nullptr;
    }
}

void cMemBuffer::CheckStrong() const
{
    ORVO_ASSERT((m_pData==0 && m_Size==0) || (m_pData!=0 && m_Size>0 && m_Offset+m_Size<=m_pData->m_Size));
}

int cMemBuffer::GetCapacity() const
{
    return m_pData != nullptr ? m_pData->m_Size : 0;
}

int cMemBuffer::GetRefCount() const
{
    return m_pData != nullptr ? m_pData->m_RefCount : 0;
}

ORVO_HOT char* cMemBuffer::Create()
{
    Release();
    m_Offset = 0;
    m_Size = 0;
    return nullptr;
}

char* cMemBuffer::Create(const cMemBuffer& Buf)
{
    Share(Buf);
    ORVO_ASSERT(m_Offset>=0);
    ORVO_ASSERT(m_Size>=0);
    CheckStrong();
    return GetBuffer();
}

ORVO_HOT char* cMemBuffer::Create(const cMemBuffer& Buf, int Offs, int Size)
{
    if (Size == 0)
        return Create();
    const int Offset = Buf.m_Offset + Offs;   // before Share: Buf may be this buffer
    Share(Buf);
    m_Offset = Offset;
    m_Size = Size;
    ORVO_ASSERT(m_Offset>=0);
    ORVO_ASSERT(m_Size>=0);
    CheckStrong();
    return GetBuffer();
}

ORVO_HOT char* cMemBuffer::Create(const void* pSrc, int Size, int NewSize)
{
    if (NewSize == -1)
        NewSize = Size;
    else if (Size > NewSize)
        Size = NewSize;
    ORVO_ASSERT(NewSize >= 0);
    ORVO_ASSERT(Size >= 0 && Size <= NewSize);

    if (NewSize == 0)
        return Create();

    // In place: the block is ours alone and already has exactly the wanted
    // capacity. The capacity decides, not the view, so a view at an offset
    // is moved down to the block's start.
    if (m_pData != nullptr && m_pData->m_RefCount == 1 && m_pData->m_Size == NewSize) {
        // Without a source the first Size bytes stay as they are; only the
        // bytes behind them are zeroed.
        char* pStart = m_pData->Bytes();
        if (pSrc != nullptr && Size > 0 && pSrc != pStart)
            std::memmove(pStart, pSrc, Size);
        std::memset(pStart + Size, 0, NewSize - Size);
        m_Offset = 0;
        m_Size = NewSize;
        CheckStrong();
        return pStart;
    }

    // A new block; pSrc may lie in the old one, so the old block is released
    // only after the copy.
    cMemBufferData* pNew = cMemBufferData::New(NewSize);
    if (pSrc != nullptr && Size > 0)
        std::memcpy(pNew->Bytes(), pSrc, Size);
    else
        Size = 0;
    if (NewSize > Size)
        std::memset(pNew->Bytes() + Size, 0, NewSize - Size);
    Release();
    m_pData = pNew;
    m_Offset = 0;
    m_Size = NewSize;
    CheckStrong();
    return m_pData->Bytes();
}

char* cMemBuffer::SetBufferSize(int Size)
{
    ORVO_ASSERT(Size >= 0);
    return Create(GetBuffer(), m_Size, Size);
}

char* cMemBuffer::CreateCopy(int Offs, int Size)
{
    ORVO_ASSERT(Size >= 0);
    char* pStart = GetBuffer();
    return Create(pStart != nullptr ? pStart + Offs : nullptr, Size, Size);
}

}  // namespace orvo
