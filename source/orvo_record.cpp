#define ORVO_SOURCE "orvo_record"
#include "orvo_record.h"

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "orvo_data.h"
#include "orvo_obis.h"
#include "orvo_recordpath.h"
#include "orvo_time.h"
#include "orvo_uuid.h"

namespace orvo {

namespace recordcodec {

int VarintSize(uint64_t v)
{
    int n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

char* PutVarint(char* p, uint64_t v)
{
    do {
        unsigned char b = static_cast<unsigned char>(v & 0x7F);
        v >>= 7;
        if (v != 0)
            b |= 0x80;
        *p++ = static_cast<char>(b);
    } while (v != 0);
    return p;
}

const char* GetVarint64(const char* p, const char* end, uint64_t& v)
{
    uint64_t result = 0;
    unsigned shift = 0;
    while (p != nullptr && p < end) {
        const unsigned char b = static_cast<unsigned char>(*p++);
        if (shift < 64)
            result |= static_cast<uint64_t>(b & 0x7F) << shift;
        if ((b & 0x80) == 0) {
            v = result;
            return p;
        }
        if (shift < 64)
            shift += 7;
    }
    return nullptr;
}

const char* GetVarint32(const char* p, const char* end, uint32_t& v)
{
    uint32_t result = 0;
    unsigned shift = 0;
    while (p != nullptr && p < end) {
        const unsigned char b = static_cast<unsigned char>(*p++);
        // Bits that do not fit into 32 bits are dropped, as the format
        // has always done for 32-bit reads.
        if (shift < 32)
            result |= static_cast<uint32_t>(b & 0x7F) << shift;
        if ((b & 0x80) == 0) {
            v = result;
            return p;
        }
        if (shift < 32)
            shift += 7;
    }
    return nullptr;
}

uint32_t SelMask(int Sel)
{
    // Bit 0: 0x0F, bit 1: 0x10, bit 2: 0x1E0; higher bits are ignored.
    static const uint32_t kMasks[8] = {0x000, 0x00F, 0x010, 0x01F, 0x1E0, 0x1EF, 0x1F0, 0x1FF};
    return kMasks[static_cast<unsigned>(Sel) & 7u];
}

bool DecodeElement(const char* p, const char* end, tElement& e)
{
    uint32_t type = 0;
    uint32_t length = 0;
    const char* q = GetVarint32(p, end, type);
    if (q == nullptr)
        return false;
    q = GetVarint32(q, end, length);
    if (q == nullptr)
        return false;
    if (static_cast<uintptr_t>(end - q) < length)
        return false;
    const char* nul = static_cast<const char*>(std::memchr(q, 0, length));
    if (nul == nullptr)
        return false;
    e.type = type;
    e.name = q;
    e.value = nul + 1;
    e.valueSize = static_cast<uint32_t>(q + length - e.value);
    e.next = q + length;
    return true;
}

}  // namespace recordcodec

using namespace recordcodec;

namespace {

// Type words, lengths and small numbers take one byte.
inline const char* Varint32(const char* p, const char* end, uint32_t& v)
{
    if (p < end && (static_cast<unsigned char>(*p) & 0x80) == 0) {
        v = static_cast<unsigned char>(*p);
        return p + 1;
    }
    return GetVarint32(p, end, v);
}

// Values: up to five bytes (32 bits) or nine bytes (63 bits) decoded without
// the general loop's shift tests; longer or unterminated forms take the
// general decoder, which gives the same result for the forms handled here.
template <typename T, int MaxBytes>
inline const char* ValueVarint(const char* p, const char* end, T& v,
                               const char* (*general)(const char*, const char*, T&))
{
    const ptrdiff_t avail = end - p;
    const int n = avail < MaxBytes ? static_cast<int>(avail) : MaxBytes;
    T r = 0;
    for (int i = 0; i < n; ++i) {
        const T b = static_cast<unsigned char>(p[i]);
        r |= (b & 0x7F) << (7 * i);
        if ((b & 0x80) == 0) {
            v = r;
            return p + i + 1;
        }
    }
    return general(p, end, v);
}

inline const char* ValueVarint32(const char* p, const char* end, uint32_t& v)
{
    return ValueVarint<uint32_t, 5>(p, end, v, &GetVarint32);
}

inline const char* ValueVarint64(const char* p, const char* end, uint64_t& v)
{
    return ValueVarint<uint64_t, 9>(p, end, v, &GetVarint64);
}

// Ordered pointer tests without comparing unrelated pointers directly.
inline bool InRange(const void* p, const void* lo, const void* hi)
{
    const uintptr_t v = reinterpret_cast<uintptr_t>(p);
    return p != nullptr && v >= reinterpret_cast<uintptr_t>(lo) && v < reinterpret_cast<uintptr_t>(hi);
}

// The device's 32-bit atol: a decimal number saturated to the 32-bit range,
// on every host (a 64-bit host's atol would keep larger values).
long Atol32(const char* s)
{
    if (s == nullptr)
        return 0;
    long long v = std::strtoll(s, nullptr, 10);
    if (v > INT32_MAX)
        v = INT32_MAX;
    if (v < INT32_MIN)
        v = INT32_MIN;
    return static_cast<long>(v);
}

__attribute__((noinline)) bool NotNull(const void* p)
{
    return p != nullptr;
}

// A time value that is not valid (the calendar search rejects 30 February).
cTime InvalidTime()
{
    cTime t;
    t.Create(2024, 2, 30, 0, 0, 0, 0);
    return t;
}

const char* const kTypeNames[16] = {
    "none", "text", "sint", "uint", "time", "data", "record", "uuid",
    "sint64", "uint64", "bool", "obis", "", "", "", ""};

}  // namespace

// ---------------------------------------------------------------------------
// cRecordString

cRecordString::cRecordString() : m_Length(0) {}

cRecordString::cRecordString(const char* Text) : m_Length(0)
{
    *this += Text;
}

const char* cRecordString::GetBuffer() const
{
    const char* p = m_Buffer.GetBuffer();
    return p != nullptr ? p : "";
}

void cRecordString::SetBufferSize(int Size)
{
    if (Size == 0) {
        m_Buffer.Create();
        m_Length = 0;
        return;
    }
    char* p = m_Buffer.SetBufferSize(Size);
    if (m_Length > Size - 1)
        m_Length = Size - 1;
    p[m_Length] = 0;
}

cRecordString& cRecordString::operator+=(const char* Text)
{
    if (Text == nullptr)
        return *this;
    const size_t added = std::strlen(Text);
    // Text may lie in our own block, which a resize would free.
    cMemBuffer keep;
    if (InRange(Text, m_Buffer.GetBuffer(), m_Buffer.GetBuffer() + m_Buffer.GetBufferSize()))
        keep = m_Buffer;
    const long long need = static_cast<long long>(m_Length) + static_cast<long long>(added) + 1;
    ORVO_ASSERT(need + 256 <= INT_MAX);
    const int capacity = m_Buffer.GetBufferSize();
    char* p;
    if (need > capacity) {
        long long grow = need - 1 + 256;
        if (grow < capacity + capacity / 2LL)
            grow = capacity + capacity / 2LL;
        p = m_Buffer.SetBufferSize(static_cast<int>(grow > INT_MAX ? INT_MAX : grow));
    } else {
        // Same capacity: in place when unshared, a private copy otherwise.
        p = m_Buffer.SetBufferSize(capacity);
    }
    std::memcpy(p + m_Length, Text, added + 1);
    m_Length += static_cast<int>(added);
    return *this;
}

// ---------------------------------------------------------------------------
// cRecordPar

cRecordPar::cRecordPar(const cRecordPar& Other)
    : cObject(Other), m_Buffer(Other.m_Buffer), m_pIRec(Other.m_pIRec),
      m_pElement(Other.m_pElement), m_pName(Other.m_pName), m_pValue(Other.m_pValue),
      m_ValueSize(Other.m_ValueSize), m_Type(Other.m_Type)
{
    std::memcpy(m_Text, Other.m_Text, sizeof m_Text);
}

cRecordPar& cRecordPar::operator=(const cRecordPar& Other)
{
    if (this == &Other)
        return *this;
    cObject::operator=(Other);
    m_Buffer = Other.m_Buffer;
    m_pIRec = Other.m_pIRec;
    m_pElement = Other.m_pElement;
    m_pName = Other.m_pName;
    m_pValue = Other.m_pValue;
    m_ValueSize = Other.m_ValueSize;
    m_Type = Other.m_Type;
    std::memcpy(m_Text, Other.m_Text, sizeof m_Text);
    return *this;
}

void cRecordPar::Invalidate()
{
    m_Text[0] = 0;
    m_Buffer.Create();
    m_pIRec = nullptr;
    m_pElement = nullptr;
    m_pName = nullptr;
    m_pValue = nullptr;
    m_ValueSize = 0;
    m_Type = 0;
}

__attribute__((always_inline)) inline int cRecordPar::SetDecoded(const cRecord* pIRec, const char* p,
                                                             const tElement& e)
{
    // The record's own buffer satisfies the block invariant already, so it
    // is shared without Create's checks.
    m_Buffer.Share(pIRec->m_Buffer);
    const char* Buffer = m_Buffer.GetBuffer();
    ORVO_ASSERT(Buffer==pIRec->m_pBuffer);
    // The record pointer is kept for identification only; it is never used
    // to reach bytes (the record may be gone while this view lives).
    m_pIRec = pIRec;
    // A view moved to another element must not show the previous element's
    // text for a value type that has none.
    m_Text[0] = 0;
    m_pElement = p;
    m_pName = e.name;
    m_pValue = e.value;
    m_ValueSize = static_cast<int32_t>(e.valueSize);
    m_Type = e.type;
    return static_cast<int>(e.value - e.name);
}

int cRecordPar::Set(const cRecord* pIRec, char* p)
{
    tElement e;
    if (pIRec == nullptr || !InRange(p, pIRec->m_pBuffer, pIRec->m_pEnd) ||
        !DecodeElement(p, pIRec->m_pEnd, e)) {
        Invalidate();
        return 0;
    }
    return SetDecoded(pIRec, p, e);
}

bool cRecordPar::IsValid() const
{
    if (!NotNull(this))
        ::orvo::AssertFailed("this", ORVO_SOURCE, __PRETTY_FUNCTION__);
    return m_pElement != nullptr;
}

bool cRecordPar::IsEmpty() const
{
    return m_pElement != nullptr && (m_Type & RECORD_FLAG_EMPTY) != 0;
}

const char* cRecordPar::GetName() const
{
    return m_pElement != nullptr ? m_pName : nullptr;
}

const char* cRecordPar::GetData() const
{
    return m_pElement != nullptr ? m_pValue : nullptr;
}

int cRecordPar::GetSize() const
{
    return m_pElement != nullptr ? m_ValueSize : 0;
}

int cRecordPar::GetType(int Sel) const
{
    return m_pElement != nullptr ? static_cast<int>(m_Type & SelMask(Sel)) : 0;
}

const char* cRecordPar::GetTypeName(int Sel) const
{
    return kTypeNames[GetType(Sel) & 0x0F];
}

int cRecordPar::GetTypeByName(const char* Name)
{
    if (Name == nullptr)
        return 0;
    for (int i = 0; i < 12; ++i)
        if (std::strcmp(kTypeNames[i], Name) == 0)
            return i;
    return 0;
}

bool cRecordPar::HasName(const char* Name) const
{
    return Name != nullptr && m_pElement != nullptr && std::strcmp(m_pName, Name) == 0;
}

bool cRecordPar::operator==(const char* Text) const
{
    if (m_pElement == nullptr || Text == nullptr)
        return false;
    const char* mine = GetText();
    return mine != nullptr && std::strcmp(mine, Text) == 0;
}

bool cRecordPar::operator==(const cRecordPar& Other) const
{
    if (m_pElement == nullptr || Other.m_pElement == nullptr)
        return m_pElement == nullptr && Other.m_pElement == nullptr;
    return std::strcmp(m_pName, Other.m_pName) == 0 &&
           (m_Type & 0x1F) == (Other.m_Type & 0x1F) && m_ValueSize == Other.m_ValueSize &&
           (m_ValueSize == 0 || std::memcmp(m_pValue, Other.m_pValue, m_ValueSize) == 0);
}

// The value as a NUL-terminated text that lies inside the element: the value
// itself when it holds a NUL, otherwise a cut copy in the text area (damaged
// elements must not make readers run past the record).
const char* cRecordPar::BoundedText() const
{
    // A well-formed text ends with its NUL; otherwise look for an earlier one.
    if (m_ValueSize > 0 &&
        (m_pValue[m_ValueSize - 1] == 0 || std::memchr(m_pValue, 0, m_ValueSize) != nullptr))
        return m_pValue;
    const size_t n = m_ValueSize < static_cast<int32_t>(sizeof m_Text) - 1
                         ? static_cast<size_t>(m_ValueSize) : sizeof m_Text - 1;
    if (n > 0)
        std::memcpy(m_Text, m_pValue, n);
    m_Text[n] = 0;
    return m_Text;
}

int cRecordPar::GetSInt() const
{
    return static_cast<int>(GetUInt());
}

unsigned int cRecordPar::GetUInt() const
{
    if (m_pElement == nullptr)
        return 0;
    const uint32_t type = m_Type & 0x0F;
    if (type == RECORD_SINT || type == RECORD_UINT) {
        uint32_t v = 0;
        if (ValueVarint32(m_pValue, m_pValue + m_ValueSize, v) == nullptr)
            return 0;
        return v;
    }
    return static_cast<unsigned int>(Atol32(GetText()));
}

long long cRecordPar::GetSInt64() const
{
    if (m_pElement == nullptr)
        return 0;
    const uint32_t type = m_Type & 0x0F;
    if (type == RECORD_SINT64 || type == RECORD_UINT64)
        return static_cast<long long>(GetUInt64());
    return Atol32(GetText());
}

unsigned long long cRecordPar::GetUInt64() const
{
    if (m_pElement == nullptr)
        return 0;
    const uint32_t type = m_Type & 0x0F;
    if (type == RECORD_SINT64 || type == RECORD_UINT64) {
        uint64_t v = 0;
        if (ValueVarint64(m_pValue, m_pValue + m_ValueSize, v) == nullptr)
            return 0;
        return v;
    }
    // Sign-extended like the device's long converted to 64 bits.
    return static_cast<unsigned long long>(static_cast<long long>(Atol32(GetText())));
}

bool cRecordPar::GetBool() const
{
    if (m_pElement == nullptr)
        return false;
    if ((m_Type & 0x0F) == RECORD_BOOL)
        return m_ValueSize > 0 && m_pValue[0] != 0;
    return Atol32(GetText()) == 1;
}

cTime cRecordPar::GetTime() const
{
    if (m_pElement != nullptr && (m_Type & 0x0F) == RECORD_TIME) {
        cTime t;
        if (t.Create(m_pValue, m_ValueSize))
            return t;
    }
    return InvalidTime();
}

bool cRecordPar::GetUuid(cUuid& Uuid) const
{
    if (m_pElement == nullptr || (m_Type & 0x0F) != RECORD_UUID) {
        Uuid.Clear();
        return false;
    }
    return Uuid.Create(m_pValue, m_ValueSize);
}

bool cRecordPar::GetObis(cObis& Obis) const
{
    const char* text = nullptr;
    if (m_pElement != nullptr && (m_Type & 0x0F) == RECORD_OBIS && !(m_Type & RECORD_FLAG_EMPTY))
        text = BoundedText();
    else
        text = GetText();
    if (text == nullptr) {
        Obis.Clean();
        return false;
    }
    return Obis.FromString(text);
}

std::string cRecordPar::GetString() const
{
    const char* text = GetText();
    return text != nullptr ? std::string(text) : std::string();
}

bool cRecordPar::GetRecord(cRecord& Rec) const
{
    Rec.Create();
    if (m_pElement == nullptr || (m_Type & 0x0F) != RECORD_RECORD)
        return false;
    const char* end = m_pValue + m_ValueSize;
    uint32_t size = 0;
    const char* entry = GetVarint32(m_pValue, end, size);
    if (entry == nullptr || static_cast<uintptr_t>(end - entry) < size)
        return false;
    Rec.Create(m_Buffer, static_cast<int>(entry - m_Buffer.GetBuffer()), static_cast<int>(size));
    return true;
}

bool cRecordPar::GetIRec(cRecordList& List) const
{
    if (m_pElement == nullptr || (m_Type & 0x0F) != RECORD_RECORD) {
        List = cRecordList();
        return false;
    }
    List = cRecordList(m_Buffer, static_cast<int>(m_pValue - m_Buffer.GetBuffer()), m_ValueSize);
    return true;
}

const char* cRecordPar::GetLink() const
{
    if (m_pElement == nullptr || !(m_Type & RECORD_FLAG_EXTERNAL) || (m_Type & RECORD_FLAG_EMPTY))
        return nullptr;
    return BoundedText();
}

const char* cRecordPar::GetText() const
{
    if (m_pElement == nullptr || (m_Type & RECORD_FLAG_EMPTY))
        return nullptr;
    const size_t cap = sizeof m_Text;
    switch (m_Type & 0x0F) {
    case RECORD_TEXT: {
        const char* text = BoundedText();
        if (m_Type & RECORD_FLAG_EXTERNAL) {
            // The actual value is the tail behind the last '=', looked for
            // behind the last ']' so that links may contain '=' in brackets.
            const char* bracket = std::strrchr(text, ']');
            const char* eq = std::strrchr(bracket != nullptr ? bracket : text, '=');
            if (eq != nullptr)
                return eq + 1;
        }
        return text;
    }
    case RECORD_SINT:
        std::snprintf(m_Text, cap, "%i", GetSInt());
        return m_Text;
    case RECORD_UINT:
        std::snprintf(m_Text, cap, "%u", GetUInt());
        return m_Text;
    case RECORD_SINT64:
        std::snprintf(m_Text, cap, "%" PRId64, static_cast<int64_t>(GetSInt64()));
        return m_Text;
    case RECORD_UINT64:
        std::snprintf(m_Text, cap, "%" PRIu64, static_cast<uint64_t>(GetUInt64()));
        return m_Text;
    case RECORD_BOOL:
        std::snprintf(m_Text, cap, "%s", GetBool() ? "true" : "false");
        return m_Text;
    case RECORD_TIME:
        std::snprintf(m_Text, cap, "%s", GetTime().ToString().c_str());
        return m_Text;
    case RECORD_UUID: {
        cUuid uuid;
        GetUuid(uuid);
        std::snprintf(m_Text, cap, "%s", uuid.ToString().c_str());
        return m_Text;
    }
    case RECORD_OBIS: {
        cObis obis;
        const std::string raw = BoundedText();
        if (obis.FromString(raw))
            std::snprintf(m_Text, cap, "%s", obis.ToString().c_str());
        else
            std::snprintf(m_Text, cap, "%s", raw.c_str());
        return m_Text;
    }
    case RECORD_RECORD: {
        cRecord child;
        GetRecord(child);
        std::snprintf(m_Text, cap, "%s", child.ToString().c_str());
        return m_Text;
    }
    case RECORD_DATA: {
        const int shown = m_ValueSize < 16 ? m_ValueSize : 16;
        cData data(reinterpret_cast<const unsigned char*>(m_pValue), shown, false);
        const std::string hex = data.ToString(0);
        if (m_ValueSize <= 16)
            std::snprintf(m_Text, cap, "%s", hex.c_str());
        else
            std::snprintf(m_Text, cap, "%s...,len=%i]", hex.c_str(), static_cast<int>(m_ValueSize));
        return m_Text;
    }
    default:
        // Type none (and unknown codes) has no value text: the area stays
        // as it is.
        return m_Text;
    }
}

// ---------------------------------------------------------------------------
// cRecord

cRecord::cRecord(const void* p, int Size) : m_pEnd(nullptr), m_pBuffer(nullptr)
{
    Create(p, Size);
}

cRecord::cRecord(const cMemBuffer& Buf, int Offs, int Size) : m_pEnd(nullptr), m_pBuffer(nullptr)
{
    Create(Buf, Offs, Size);
}

ORVO_HOT void cRecord::Create()
{
    m_Buffer.Create();
    m_pEnd = nullptr;
    m_pBuffer = nullptr;
}

ORVO_HOT void cRecord::Create(const void* p, int Size)
{
    if (p == nullptr || Size <= 0) {
        Create();
        return;
    }
    m_pBuffer = m_Buffer.Create(p, Size, Size);
    m_pEnd = m_pBuffer + Size;
}

void cRecord::Create(const cMemBuffer& Buf, int Offs, int Size)
{
    // Computed before m_Buffer changes: Buf may be our own buffer.
    char* pos = Buf.GetBuffer() != nullptr ? Buf.GetBuffer() + Offs : nullptr;
    m_Buffer.Create(Buf, Offs, Size);
    if (Size == 0) {
        // No bytes, so no block is held; the position is kept so that an
        // empty list entry can still be stepped over by cRecordList::GetNext.
        m_pBuffer = pos;
        m_pEnd = pos;
    } else {
        m_pBuffer = m_Buffer.GetBuffer();
        m_pEnd = m_pBuffer + Size;
    }
}

void cRecord::CheckSize(int Size)
{
    Reserve(Size);
}

inline void cRecord::Reserve(int Size)
{
    const long long OldSize = GetSize();
    ORVO_ASSERT(OldSize>=0);
    ORVO_ASSERT(OldSize+Size>0);
    const long long capacity = (OldSize + Size + 1024) & ~1023LL;
    ORVO_ASSERT(capacity <= INT_MAX);
    // Already private with exactly this capacity (the common append): a
    // resize would keep block, offset and bytes as they are.
    if (m_Buffer.IsPrivateWhole(static_cast<int>(capacity)))
        return;
    m_Buffer.SetBufferSize(static_cast<int>(capacity));
    m_pBuffer = m_Buffer.GetBuffer();
    m_pEnd = m_pBuffer + OldSize;
    ORVO_ASSERT(m_pBuffer>(char*)1000);
}

namespace {

// Copies n bytes; names and small values without a library call. Overlapping
// fixed-size moves never read or write outside [s, s + n) and [d, d + n).
inline void CopyBytes(char* d, const void* src, size_t n)
{
    const char* s = static_cast<const char*>(src);
    if (n >= 8 && n <= 16) {
        uint64_t a;
        uint64_t b;
        std::memcpy(&a, s, 8);
        std::memcpy(&b, s + n - 8, 8);
        std::memcpy(d, &a, 8);
        std::memcpy(d + n - 8, &b, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t a;
        uint32_t b;
        std::memcpy(&a, s, 4);
        std::memcpy(&b, s + n - 4, 4);
        std::memcpy(d, &a, 4);
        std::memcpy(d + n - 4, &b, 4);
    } else if (n > 0 && n < 4) {
        d[0] = s[0];
        d[n / 2] = s[n / 2];
        d[n - 1] = s[n - 1];
    } else if (n > 16) {
        std::memcpy(d, s, n);
    }
}

// Writes an element at p: type word, length, name (nameSize bytes with its
// NUL), then the value pieces. Returns the byte behind it.
inline char* PutElement(char* p, uint32_t TypeWord, uint32_t length, const char* Name,
                        size_t nameSize, const void* v1, size_t n1, const void* v2, size_t n2)
{
    if (TypeWord < 0x80 && length < 0x80) {
        p[0] = static_cast<char>(TypeWord);
        p[1] = static_cast<char>(length);
        p += 2;
    } else {
        p = PutVarint(p, TypeWord);
        p = PutVarint(p, length);
    }
    CopyBytes(p, Name, nameSize);
    p += nameSize;
    CopyBytes(p, v1, n1);
    p += n1;
    CopyBytes(p, v2, n2);
    return p + n2;
}

}  // namespace

// The record does not yet hold a block of its own with the capacity needed:
// Reserve reallocates (or asserts), keeping sources inside the old bytes
// alive until they are copied.
__attribute__((noinline)) void cRecord::AppendElementSlow(uint32_t TypeWord, const char* Name,
                                                         size_t nameSize, uint32_t length,
                                                         const void* v1, int n1, const void* v2,
                                                         int n2)
{
    const int Size = static_cast<int>(length) + 20;
    // A source inside our own bytes would be freed by a reallocation.
    const char* lo = m_Buffer.GetBuffer();
    if (lo != nullptr) {
        const char* hi = lo + m_Buffer.GetBufferSize();
        if (InRange(Name, lo, hi) || InRange(v1, lo, hi) || InRange(v2, lo, hi)) {
            const cMemBuffer keep(m_Buffer);
            Reserve(Size);
            m_pEnd = PutElement(m_pEnd, TypeWord, length, Name, nameSize, v1,
                                static_cast<size_t>(n1), v2, static_cast<size_t>(n2));
            return;
        }
    }
    Reserve(Size);
    m_pEnd = PutElement(m_pEnd, TypeWord, length, Name, nameSize, v1, static_cast<size_t>(n1), v2,
                        static_cast<size_t>(n2));
}

// Inlined into every append, so that constant value sizes and absent second
// pieces fold away.
__attribute__((always_inline)) inline void cRecord::AppendElement(uint32_t TypeWord, const char* Name,
                                                                  const void* v1, int n1,
                                                                  const void* v2, int n2)
{
    if (Name == nullptr)
        return;
    if (v1 == nullptr || n1 < 0)
        n1 = 0;
    if (v2 == nullptr || n2 < 0)
        n2 = 0;
    const size_t nameSize = std::strlen(Name) + 1;
    const long long length = static_cast<long long>(nameSize) + n1 + n2;
    ORVO_ASSERT(length + 20 <= INT_MAX);
    const long long OldSize = GetSize();
    const long long capacity = (OldSize + length + 20 + 1024) & ~1023LL;
    // Already private with exactly this capacity (the common append):
    // Reserve's checks hold and it would change nothing, so the element is
    // written straight away.
    if (OldSize >= 0 && capacity <= INT_MAX && m_Buffer.IsPrivateWhole(static_cast<int>(capacity))) {
        m_pEnd = PutElement(m_pEnd, TypeWord, static_cast<uint32_t>(length), Name, nameSize, v1,
                            static_cast<size_t>(n1), v2, static_cast<size_t>(n2));
        return;
    }
    AppendElementSlow(TypeWord, Name, nameSize, static_cast<uint32_t>(length), v1, n1, v2, n2);
}

// An element whose value is one varint (and for a record element the child's
// bytes behind it), written straight into the record.
__attribute__((always_inline)) inline void cRecord::AppendVarintElement(uint32_t TypeWord,
                                                                        const char* Name,
                                                                        uint64_t Value,
                                                                        const void* Tail,
                                                                        int TailSize)
{
    if (Name == nullptr)
        return;
    const size_t nameSize = std::strlen(Name) + 1;
    if (Tail == nullptr || TailSize < 0)
        TailSize = 0;
    const int n = VarintSize(Value);
    const long long length = static_cast<long long>(nameSize) + n + TailSize;
    ORVO_ASSERT(length + 20 <= INT_MAX);
    const long long OldSize = GetSize();
    const long long capacity = (OldSize + length + 20 + 1024) & ~1023LL;
    if (OldSize >= 0 && capacity <= INT_MAX && m_Buffer.IsPrivateWhole(static_cast<int>(capacity))) {
        char* p = PutElement(m_pEnd, TypeWord, static_cast<uint32_t>(length), Name, nameSize,
                             nullptr, 0, nullptr, 0);
        p = PutVarint(p, Value);
        CopyBytes(p, Tail, static_cast<size_t>(TailSize));
        m_pEnd = p + TailSize;
        return;
    }
    char v[10];
    PutVarint(v, Value);
    AppendElementSlow(TypeWord, Name, nameSize, static_cast<uint32_t>(length), v, n, Tail, TailSize);
}

namespace {
inline uint32_t TypeWord(int Flags, int Type)
{
    return (static_cast<uint32_t>(Flags) & ~0x0Fu) | static_cast<uint32_t>(Type);
}
}  // namespace

void cRecord::AppendPar(const char* Name, int Flags)
{
    AppendElement(TypeWord(Flags, RECORD_NONE), Name, nullptr, 0);
}

void cRecord::AppendEmtpyPar(const char* Name, int Flags)
{
    AppendElement(static_cast<uint32_t>(Flags) | RECORD_FLAG_EMPTY, Name, nullptr, 0);
}

void cRecord::AppendTextPar(const char* Name, const char* Value, int Flags)
{
    if (Value == nullptr) {
        AppendElement(TypeWord(Flags, RECORD_TEXT) | RECORD_FLAG_EMPTY, Name, nullptr, 0);
        return;
    }
    AppendElement(TypeWord(Flags, RECORD_TEXT), Name, Value, static_cast<int>(std::strlen(Value) + 1));
}

void cRecord::AppendTextPar(const char* Name, const std::string& Value, int Flags)
{
    AppendTextPar(Name, Value.c_str(), Flags);
}

void cRecord::AppendSIntPar(const char* Name, int Value, int Flags)
{
    AppendVarintElement(TypeWord(Flags, RECORD_SINT), Name, static_cast<uint32_t>(Value));
}

void cRecord::AppendUIntPar(const char* Name, unsigned int Value, int Flags)
{
    AppendVarintElement(TypeWord(Flags, RECORD_UINT), Name, static_cast<uint32_t>(Value));
}

void cRecord::AppendTimePar(const char* Name, const cTime& Value, int Flags)
{
    if (!Value.IsValid() || (Flags & RECORD_FLAG_EMPTY)) {
        AppendElement(TypeWord(Flags, RECORD_TIME) | RECORD_FLAG_EMPTY, Name, nullptr, 0);
        return;
    }
    AppendElement(TypeWord(Flags, RECORD_TIME), Name, Value.GetBuffer(), Value.GetSize());
}

void cRecord::AppendDataPar(const char* Name, const void* p, int Size, int Flags)
{
    AppendElement(TypeWord(Flags, RECORD_DATA), Name, p, Size);
}

void cRecord::AppendRecordPar(const char* Name, const cRecord& Rec, int Flags)
{
    uint32_t type = TypeWord(Flags, RECORD_RECORD);
    if (Rec.IsEmpty())
        type |= RECORD_FLAG_EMPTY;
    AppendVarintElement(type, Name, static_cast<uint32_t>(Rec.GetSize()),
                        Rec.IsEmpty() ? nullptr : Rec.GetBuffer(), Rec.GetSize());
}

void cRecord::AppendIRecPar(const char* Name, const cRecordList& List, int Flags)
{
    AppendElement(TypeWord(Flags, RECORD_RECORD), Name, List.GetBuffer(), List.GetSize());
}

void cRecord::AppendUuidPar(const char* Name, const cUuid& Value, int Flags)
{
    if (!Value.IsValid() || (Flags & RECORD_FLAG_EMPTY)) {
        AppendElement(TypeWord(Flags, RECORD_UUID) | RECORD_FLAG_EMPTY, Name, nullptr, 0);
        return;
    }
    AppendElement(TypeWord(Flags, RECORD_UUID), Name, Value.GetBuffer(), Value.GetSize());
}

void cRecord::AppendSInt64Par(const char* Name, long long Value, int Flags)
{
    AppendVarintElement(TypeWord(Flags, RECORD_SINT64), Name, static_cast<uint64_t>(Value));
}

void cRecord::AppendUInt64Par(const char* Name, unsigned long long Value, int Flags)
{
    AppendVarintElement(TypeWord(Flags, RECORD_UINT64), Name, static_cast<uint64_t>(Value));
}

void cRecord::AppendBoolPar(const char* Name, bool Value, int Flags)
{
    const char v = Value ? 1 : 0;
    AppendElement(TypeWord(Flags, RECORD_BOOL), Name, &v, 1);
}

void cRecord::AppendObisPar(const char* Name, const cObis& Value, int Flags)
{
    if (Flags & RECORD_FLAG_EMPTY) {
        AppendElement(TypeWord(Flags, RECORD_OBIS) | RECORD_FLAG_EMPTY, Name, nullptr, 0);
        return;
    }
    const std::string text = Value.ToString();
    AppendElement(TypeWord(Flags, RECORD_OBIS), Name, text.c_str(), static_cast<int>(text.size() + 1));
}

void cRecord::AppendPar(const cRecordPar& Par, int Flags, int Sel)
{
    (void)Sel;   // every bit of Par's type word is taken
    if (!Par.IsValid())
        return;
    const uint32_t type = (static_cast<uint32_t>(Flags) & ~0x0Fu) |
                          (static_cast<uint32_t>(Par.GetType(RECORD_SEL_ALL)) & 0x1FF);
    // Par holds its block, so its bytes survive a reallocation of ours.
    AppendElement(type, Par.GetName(), Par.GetData(), Par.GetSize());
}

void cRecord::SetEmtpyPar(const char* Name, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendEmtpyPar(Name, Flags);
}

void cRecord::SetTextPar(const char* Name, const char* Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendTextPar(Name, Value, Flags);
}

void cRecord::SetTextPar(const char* Name, const std::string& Value, int Flags)
{
    SetTextPar(Name, Value.c_str(), Flags);
}

void cRecord::SetSIntPar(const char* Name, int Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendSIntPar(Name, Value, Flags);
}

void cRecord::SetUIntPar(const char* Name, unsigned int Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendUIntPar(Name, Value, Flags);
}

void cRecord::SetTimePar(const char* Name, const cTime& Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendTimePar(Name, Value, Flags);
}

void cRecord::SetDataPar(const char* Name, const void* p, int Size, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendDataPar(Name, p, Size, Flags);
}

void cRecord::SetRecordPar(const char* Name, const cRecord& Rec, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendRecordPar(Name, Rec, Flags);
}

void cRecord::SetIRecPar(const char* Name, const cRecordList& List, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendIRecPar(Name, List, Flags);
}

void cRecord::SetUuidPar(const char* Name, const cUuid& Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendUuidPar(Name, Value, Flags);
}

void cRecord::SetSInt64Par(const char* Name, long long Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendSInt64Par(Name, Value, Flags);
}

void cRecord::SetUInt64Par(const char* Name, unsigned long long Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendUInt64Par(Name, Value, Flags);
}

void cRecord::SetBoolPar(const char* Name, bool Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendBoolPar(Name, Value, Flags);
}

void cRecord::SetObisPar(const char* Name, const cObis& Value, int Flags)
{
    DeletePar(Name, 0, 0);
    AppendObisPar(Name, Value, Flags);
}

namespace {

// Eight bytes at p as a little-endian word (p may be unaligned).
inline uint64_t Load64(const char* p)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
#else
    uint64_t w = 0;
    for (int i = 7; i >= 0; --i)
        w = (w << 8) | static_cast<unsigned char>(p[i]);
    return w;
#endif
}

// Bit 7 of every byte of w that is 0; the lowest such bit marks the first
// zero byte exactly (bits above it may be false hits).
inline uint64_t ZeroBytes(uint64_t w)
{
    return (w - 0x0101010101010101ULL) & ~w & 0x8080808080808080ULL;
}

// Whether the element name q is Name (any name when Name is null). The
// caller has checked that q's NUL lies inside the element; the compare stops
// at the first difference or at that NUL, so neither name is read past its
// NUL.
inline bool SameName(const char* q, const char* Name)
{
    if (Name == nullptr)
        return true;
    for (size_t i = 0;; ++i) {
        const char c = q[i];
        if (c != Name[i])
            return false;
        if (c == 0)
            return true;
    }
}

}  // namespace

namespace {

// The search behind cRecord::Find, inlined into the look-ups: the first
// element at or behind p (p not null) inside [p, end) whose name is Name and
// whose type word & mask is want; null when none or when the walk meets a
// damaged element first. e receives the decoded match.
__attribute__((always_inline)) inline const char* FindElement(const char* p, const char* const end,
                                                              const char* Name, uint32_t mask,
                                                              uint32_t want, tElement& e)
{
    // Most passed elements differ from the searched name in their first
    // byte; only a hit on it is compared in full. Any name: no byte tested.
    const uint64_t firstMask = Name != nullptr ? 0xFF : 0;
    const uint64_t first = Name != nullptr ? static_cast<unsigned char>(Name[0]) : 0;
    uint32_t type = 0;
    uint32_t length = 0;
    const char* q = nullptr;
    const char* nul = nullptr;
    while (p < end) {
        // The common case: one-byte type word and length, a name of up to
        // seven characters and eight bytes to look at behind the length.
        // The name's NUL must lie inside the element, or the walk ends here.
        while (end - p >= 10) {
            uint16_t head;
            std::memcpy(&head, p, sizeof head);
            if ((head & 0x8080) != 0)
                break;
            type = static_cast<unsigned char>(p[0]);
            length = static_cast<unsigned char>(p[1]);
            q = p + 2;
            if (static_cast<uintptr_t>(end - q) < length)
                return nullptr;
            const uint64_t w = Load64(q);
            const uint64_t z = ZeroBytes(w);
            if (z == 0)
                break;
            const uint32_t at = static_cast<uint32_t>(__builtin_ctzll(z)) >> 3;
            if (at >= length)
                return nullptr;
            if (((w ^ first) & firstMask) == 0 && (type & mask) == want && SameName(q, Name)) {
                nul = q + at;
                goto found;
            }
            p = q + length;
        }
        if (p >= end)
            break;
        q = Varint32(p, end, type);
        if (q == nullptr || (q = Varint32(q, end, length)) == nullptr ||
            static_cast<uintptr_t>(end - q) < length)
            return nullptr;
        if ((nul = static_cast<const char*>(std::memchr(q, 0, length))) == nullptr)
            return nullptr;
        if ((type & mask) == want && SameName(q, Name))
            goto found;
        p = q + length;
    }
    return nullptr;

found:
    e.type = type;
    e.name = q;
    e.value = nul + 1;
    e.valueSize = static_cast<uint32_t>(q + length - (nul + 1));
    e.next = q + length;
    return p;
}

}  // namespace

const char* cRecord::Find(const char* p, const char* Name, int Type, int Sel, tElement* pFound) const
{
    if (p == nullptr)
        return nullptr;
    tElement e;
    p = FindElement(p, m_pEnd, Name, SelMask(Sel), static_cast<uint32_t>(Type), e);
    if (p != nullptr && pFound != nullptr)
        *pFound = e;
    return p;
}

cRecordPar cRecord::GetFirstPar(const char* Name, int Type, int Sel) const
{
    cRecordPar Par;
    if (m_pBuffer == nullptr)
        return Par;
    tElement e;
    const char* p = FindElement(m_pBuffer, m_pEnd, Name, SelMask(Sel), static_cast<uint32_t>(Type), e);
    if (p != nullptr)
        Par.SetDecoded(this, p, e);
    return Par;
}

bool cRecord::SeekNextPar(cRecordPar& Par, const char* Name, int Type, int Sel) const
{
    if (!Par.IsValid())
        return false;
    const char* from = Par.GetElementEnd();
    // The element must end inside our bytes (its end may be our end).
    if (from != m_pEnd && !InRange(from, m_pBuffer, m_pEnd)) {
        Par.Set(nullptr, nullptr);
        return false;
    }
    tElement e;
    const char* p = Find(from, Name, Type, Sel, &e);
    if (p == nullptr) {
        Par.Set(nullptr, nullptr);
        return false;
    }
    Par.SetDecoded(this, p, e);
    return true;
}

int cRecord::GetParCount(const char* Name, int Type, int Sel) const
{
    int count = 0;
    const char* p = m_pBuffer;
    tElement e;
    while ((p = Find(p, Name, Type, Sel, &e)) != nullptr) {
        ++count;
        p = e.next;
    }
    return count;
}

bool cRecord::DeletePar(const char* Name, int Type, int Sel)
{
    tElement e;
    const char* p = Find(m_pBuffer, Name, Type, Sel, &e);
    if (p == nullptr)
        return false;
    const long offset = static_cast<long>(p - m_pBuffer);
    const long size = static_cast<long>(e.next - p);
    // Copy on write: a shared record moves to a private block first.
    CheckSize(0);
    char* q = m_pBuffer + offset;
    std::memmove(q, q + size, static_cast<size_t>(m_pEnd - (q + size)));
    m_pEnd -= size;
    return true;
}

bool cRecord::DeletePar(cRecordPar& Par)
{
    if (!Par.IsValid())
        return false;
    // Par belongs to us only when its element starts at one of our element
    // boundaries (a nested element or a view of other bytes never does).
    const char* target = Par.GetElement();
    const char* p = m_pBuffer;
    tElement e;
    while (p != nullptr && p < m_pEnd && p != target) {
        if (!DecodeElement(p, m_pEnd, e))
            return false;
        p = e.next;
    }
    if (p == nullptr || p != target || p >= m_pEnd || !DecodeElement(p, m_pEnd, e))
        return false;
    const long offset = static_cast<long>(p - m_pBuffer);
    const long size = static_cast<long>(e.next - p);
    CheckSize(0);
    char* q = m_pBuffer + offset;
    std::memmove(q, q + size, static_cast<size_t>(m_pEnd - (q + size)));
    m_pEnd -= size;
    Par.Set(this, q);
    return true;
}

std::string cRecord::CheckParameter(const char* Name)
{
    (void)Name;
    return std::string();
}

cRecordPar cRecord::GetFirstParByPath(const char* Path, const char* Separators, int Type, int Sel) const
{
    if (Path == nullptr || Separators == nullptr)
        return cRecordPar();
    // Tokens are cut in a fixed local buffer; a longer path is refused
    // rather than cut, so it can never address a wrong element.
    char buffer[256];
    const size_t length = std::strlen(Path);
    if (length >= sizeof buffer)
        return cRecordPar();
    std::memcpy(buffer, Path, length + 1);

    char* save = nullptr;
    char* token = strtok_r(buffer, Separators, &save);
    if (token == nullptr)
        return cRecordPar();
    cRecordPar Par = GetFirstPar(token, Type, Sel);
    while (Par.IsValid() && (token = strtok_r(nullptr, Separators, &save)) != nullptr) {
        // A token behind a leaf is ignored and the leaf kept.
        if (Par.GetType(RECORD_SEL_TYPE) != RECORD_RECORD)
            continue;
        cRecord child;
        Par.GetRecord(child);
        Par = child.GetFirstPar(token, Type, Sel);
    }
    return Par;
}

}  // namespace orvo
