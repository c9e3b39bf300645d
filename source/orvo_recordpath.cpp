#define ORVO_SOURCE "orvo_record"
#include "orvo_recordpath.h"

#include <cstring>

namespace orvo {

using namespace recordcodec;

// ---------------------------------------------------------------------------
// cRecordList

cRecordList::cRecordList() = default;

// A list of no bytes holds no block, so that it can be assigned freely (a
// zero-length view onto a block may not be assigned).
cRecordList::cRecordList(const cMemBuffer& Buf, int Offs, int Size)
    : m_Buffer(Size > 0 ? cMemBuffer(Buf, Offs, Size) : cMemBuffer())
{
}

cRecordList::cRecordList(const cRecordList& Other) = default;

cRecordList& cRecordList::operator=(const cRecordList& Other)
{
    m_Buffer = Other.m_Buffer;
    return *this;
}

void cRecordList::AddTail(const cRecord& Rec)
{
    const int old = m_Buffer.GetBufferSize();
    const int size = Rec.GetSize();
    const long long total = static_cast<long long>(old) + VarintSize(static_cast<uint32_t>(size)) + size;
    ORVO_ASSERT(total <= 0x7FFFFFFF);
    cMemBuffer block;
    char* p = block.Create(nullptr, 0, static_cast<int>(total));
    if (old > 0)
        std::memcpy(p, m_Buffer.GetBuffer(), old);
    p = PutVarint(p + old, static_cast<uint32_t>(size));
    if (size > 0)
        std::memcpy(p, Rec.GetBuffer(), size);
    m_Buffer = block;
}

void cRecordList::AddTail(const cRecordList& List)
{
    const int old = m_Buffer.GetBufferSize();
    const int size = List.GetSize();
    if (size <= 0)
        return;
    const long long total = static_cast<long long>(old) + size;
    ORVO_ASSERT(total <= 0x7FFFFFFF);
    cMemBuffer block;
    char* p = block.Create(nullptr, 0, static_cast<int>(total));
    if (old > 0)
        std::memcpy(p, m_Buffer.GetBuffer(), old);
    std::memcpy(p + old, List.GetBuffer(), size);
    m_Buffer = block;
}

bool cRecordList::ViewEntry(const char* p, cRecord& Rec, uint32_t Limit) const
{
    const char* pList = m_Buffer.GetBuffer();
    const char* pEnd = pList + m_Buffer.GetBufferSize();
    uint32_t size = 0;
    const char* entry = GetVarint32(p, pEnd, size);
    if (entry == nullptr || size > Limit || static_cast<uintptr_t>(pEnd - entry) < size)
        return false;
    Rec.Create(m_Buffer, static_cast<int>(entry - pList), static_cast<int>(size));
    return true;
}

int cRecordList::GetCount() const
{
    cRecord Rec;
    if (!GetFirst(Rec))
        return 0;
    int count = 1;
    while (GetNext(Rec))
        ++count;
    return count;
}

bool cRecordList::GetFirst(cRecord& Rec) const
{
    if (m_Buffer.GetBufferSize() == 0)
        return false;
    return ViewEntry(m_Buffer.GetBuffer(), Rec, UINT32_MAX);
}

bool cRecordList::GetNext(cRecord& Rec) const
{
    const char* pList = m_Buffer.GetBuffer();
    const char* pEnd = pList + m_Buffer.GetBufferSize();
    const char* pRec = Rec.GetBuffer();
    ORVO_ASSERT(pRec>pList);
    pRec += Rec.GetSize();
    ORVO_ASSERT(pRec<=pEnd);
    if (pRec == pEnd)
        return false;
    // Entries above MaxEntrySize are taken as damage, not data.
    return ViewEntry(pRec, Rec, MaxEntrySize);
}

void cRecordList::Remove(cRecord& Rec)
{
    const int size = Rec.GetSize();
    const int header = VarintSize(static_cast<uint32_t>(size));
    const long long Offs = static_cast<long long>(reinterpret_cast<intptr_t>(Rec.GetBuffer())) - header -
                           static_cast<long long>(reinterpret_cast<intptr_t>(m_Buffer.GetBuffer()));
    const long long Size = static_cast<long long>(header) + size;
    ORVO_ASSERT(Offs>=0);
    ORVO_ASSERT(Offs+Size<=m_Buffer.GetBufferSize());
    const int old = m_Buffer.GetBufferSize();
    const int rest = static_cast<int>(old - Size);
    cMemBuffer block;
    char* p = block.Create(nullptr, 0, rest);
    const char* src = m_Buffer.GetBuffer();
    if (rest > 0) {
        std::memcpy(p, src, static_cast<size_t>(Offs));
        std::memcpy(p + Offs, src + Offs + Size, static_cast<size_t>(old - Offs - Size));
    }
    // Rec holds its own reference (when it has bytes) and keeps the old ones.
    m_Buffer = block;
}

// ---------------------------------------------------------------------------
// cRecordPath, cRecordPathEntry

cRecordPath::cRecordPath() = default;

cRecordPath::cRecordPath(const cRecord& Rec) : m_Record(Rec) {}

cRecordPath::cRecordPath(const cRecordPath& Other) : m_Record(Other.m_Record) {}

cRecordPath& cRecordPath::operator=(const cRecordPath& Other)
{
    m_Record = Other.m_Record;
    return *this;
}

void cRecordPath::AddLevel(const char* Name, const cRecord& Filter)
{
    m_Record.AppendRecordPar(Name, Filter, 0);
}

cRecordPathEntry cRecordPath::GetFirstEntry() const
{
    cRecordPathEntry E;
    const cRecordPar Par = m_Record.GetFirstPar(nullptr, RECORD_RECORD, RECORD_SEL_TYPE);
    E.Take(Par, Par.IsValid() ? Par.GetName() : "");
    return E;
}

bool cRecordPath::SeekNextEntry(cRecordPathEntry& E) const
{
    if (!E.IsValid())
        return false;
    cRecordPar Par = E;
    m_Record.SeekNextPar(Par, nullptr, RECORD_RECORD, RECORD_SEL_TYPE);
    if (!Par.IsValid()) {
        E.Take(Par, std::string());
        return false;
    }
    // A root level named "." contributes nothing to the dotted names below.
    const std::string level = E.m_Level == "." ? std::string(Par.GetName())
                                               : E.m_Level + "." + Par.GetName();
    E.Take(Par, level);
    return true;
}

cRecordPathEntry::cRecordPathEntry() : m_Valid(false), m_FilterPresent(false) {}

void cRecordPathEntry::Take(const cRecordPar& Par, const std::string& Level)
{
    cRecordPar::operator=(Par);
    m_Valid = Par.IsValid();
    if (m_Valid) {
        m_Level = Level;
        m_FilterPresent = Par.GetRecord(m_Filter);
    } else {
        m_Level.clear();
        m_Filter.Create();
        m_FilterPresent = false;
    }
}

bool cRecordPathEntry::GetFilter(cRecord& Rec) const
{
    Rec = m_Filter;
    return m_Valid && m_FilterPresent;
}

}  // namespace orvo
