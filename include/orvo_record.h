// orvo_record.h - cRecord, the typed record, cRecordPar, the read view of one
// record element, and cRecordString, the text buffer of the record text form.
//
// A record is a flat byte sequence of elements; the bytes are the record, so
// they go into messages and files unchanged (see docs/record_format.md):
//
//     varint(type word) varint(length) name NUL value
//
// Varints are unsigned LEB128. The type word's low nibble is the value type
// (eRecordType), bit 0x10 marks an empty element, 0x20 "marked", 0x40 a
// further mark that no text form prints, 0x80 "template", 0x100 "external".
// The length counts name, NUL and value.
//
// Sharing: a cRecord holds its bytes in a cMemBuffer. Copies, child records,
// record lists and element views share the block (O(1), no bytes copied).
// Every change first moves the record to a private block unless the record
// is the block's only holder and the block already has the needed capacity
// (copy on write in 1024-byte capacity steps, see CheckSize). Views therefore
// keep seeing the bytes they were made from.
//
// Untrusted bytes: any byte sequence may be put into a record. Reading never
// leaves the record's bytes: an element whose varints, length or name run
// past the end (or whose name has no NUL inside its length) is invalid and
// ends a walk; getters of such elements return neutral values.
//
// Thread safety: none. Records and their views belong to one thread.
#pragma once

#include <cstdint>
#include <string>

#include "orvo_membuffer.h"
#include "orvo_object.h"

namespace orvo {

class cTime;
class cUuid;
class cObis;
class cRecord;
class cRecordList;
class cRecordPath;
namespace recordcodec { struct tElement; }

// Value types (low nibble of the type word).
enum eRecordType {
    RECORD_NONE = 0,
    RECORD_TEXT = 1,
    RECORD_SINT = 2,
    RECORD_UINT = 3,
    RECORD_TIME = 4,
    RECORD_DATA = 5,
    RECORD_RECORD = 6,
    RECORD_UUID = 7,
    RECORD_SINT64 = 8,
    RECORD_UINT64 = 9,
    RECORD_BOOL = 10,
    RECORD_OBIS = 11
};

// Flag bits of the type word.
enum eRecordFlag {
    RECORD_FLAG_EMPTY = 0x10,
    RECORD_FLAG_MARKED = 0x20,
    RECORD_FLAG_MARK40 = 0x40,
    RECORD_FLAG_TEMPLATE = 0x80,
    RECORD_FLAG_EXTERNAL = 0x100
};

// Selector bits for the (Type, Sel) filters: an element matches when
// (type word & mask) == Type, mask made of 0x0F for bit 0, 0x10 for bit 1 and
// 0x1E0 for bit 2. Sel 0 matches every element, 1 compares the value type
// only, 7 compares all nine bits.
enum eRecordSel {
    RECORD_SEL_TYPE = 1,
    RECORD_SEL_EMPTY = 2,
    RECORD_SEL_MARKS = 4,
    RECORD_SEL_ALL = 7
};

// cRecordString: a growable NUL-terminated text on top of cMemBuffer. Copies
// share the bytes; a change copies them first when they are shared.
class ORVO_API cRecordString {
public:
    cRecordString();
    explicit cRecordString(const char* Text);

    // Length of the text (without the NUL).
    int GetLength() const { return m_Length; }
    // The text; "" for an empty string, never null. Valid until the next
    // change of this string.
    const char* GetBuffer() const;
    // Resizes the buffer to Size bytes keeping the text (cut to Size - 1
    // characters when it does not fit). Size 0 empties the string.
    void SetBufferSize(int Size);
    // Appends Text (null appends nothing). When length + added + 1 exceeds
    // the capacity the buffer first grows to length + added + 256 bytes (or
    // 1.5 times the capacity when that is more, so long texts grow in
    // amortised linear time). Text may point into this string.
    cRecordString& operator+=(const char* Text);
    cRecordString& operator+=(const std::string& Text) { return *this += Text.c_str(); }

    std::string ToString() const { return std::string(GetBuffer(), m_Length); }

private:
    cMemBuffer m_Buffer;   // capacity; bytes beyond the NUL are unused
    int m_Length;          // characters before the NUL
};

// cRecordPar: read view of one record element. It shares the record's block,
// so the element stays readable while the view lives, whatever happens to the
// record afterwards. Pointers it returns (GetName, GetData, GetText, GetLink)
// stay valid as long as this view is neither destroyed nor re-set; GetText
// results that live in the view's own 128-byte text area are overwritten by
// the next GetText/GetLink call on the same view.
class ORVO_API cRecordPar : public cObject {
public:
    // Invalid view.
    cRecordPar()
        : m_pIRec(nullptr), m_pElement(nullptr), m_pName(nullptr), m_pValue(nullptr),
          m_ValueSize(0), m_Type(0)
    {
        m_Text[0] = 0;
    }
    cRecordPar(const cRecordPar& Other);           // shares the block
    cRecordPar& operator=(const cRecordPar& Other);
    ~cRecordPar() override {}

    // Views the element starting at p. When p lies in [start, end) of pIRec
    // and the element's bytes lie inside the record, the view shares pIRec's
    // block and the result is the name length + 1. Otherwise (p outside,
    // pIRec null, element running past the record's end) the view becomes
    // invalid and the result is 0. Asserts "Buffer==pIRec->m_pBuffer".
    int Set(const cRecord* pIRec, char* p);

    // Whether the view stands on an element. Asserts "this".
    bool IsValid() const;
    // Empty flag (0x10) set.
    bool IsEmpty() const;
    // Element name; null on an invalid view.
    const char* GetName() const;
    // First value byte and value size; null and 0 on an invalid view.
    const char* GetData() const;
    int GetSize() const;
    // Type word & mask(Sel) (0 on an invalid view). Sel 1: the value type.
    int GetType(int Sel = RECORD_SEL_TYPE) const;
    // Name of the value type in the low nibble of GetType(Sel): "none",
    // "text", "sint", "uint", "time", "data", "record", "uuid", "sint64",
    // "uint64", "bool", "obis"; "" for codes 12-15.
    const char* GetTypeName(int Sel = RECORD_SEL_TYPE) const;
    // Type code of a type name; 0 for null or an unknown name.
    static int GetTypeByName(const char* Name);
    // Whether the element's name is Name; false for null or an invalid view.
    bool HasName(const char* Name) const;
    // Compare GetText() with Text; == is false on an invalid view, an empty
    // element (no text) or a null Text; != is its negation.
    bool operator==(const char* Text) const;
    bool operator!=(const char* Text) const { return !(*this == Text); }
    // Equal elements: both invalid, or both valid with the same name, the
    // same value type and empty flag (marks are not compared) and the same
    // value bytes.
    bool operator==(const cRecordPar& Other) const;
    bool operator!=(const cRecordPar& Other) const { return !(*this == Other); }

    // Typed getters. Integer types decode the stored varint (sint read as
    // uint gives the bit pattern and vice versa; sint64/uint64 likewise).
    // Any other type parses GetText() like the device's 32-bit atol: a
    // decimal number saturated to the 32-bit range (so GetUInt64 of a text
    // "5000000000" is 2147483647), 0 for no number. 0 on an invalid view.
    int GetSInt() const;
    unsigned int GetUInt() const;
    long long GetSInt64() const;
    unsigned long long GetUInt64() const;
    // Type bool: the value byte is not 0. Other types: the text parses as 1.
    bool GetBool() const;
    // The time value of a valid time element; an invalid cTime otherwise.
    cTime GetTime() const;
    // The 16 bytes of a uuid element; otherwise Uuid is cleared. Returns
    // whether a value was taken.
    bool GetUuid(cUuid& Uuid) const;
    // Parses the element's text (an obis element stores its text form).
    // Returns cObis::FromString's result; false (Obis cleaned) without text.
    bool GetObis(cObis& Obis) const;
    // GetText() as a string; "" when there is no text.
    std::string GetString() const;
    // Record element: Rec becomes a view of the first child record (no
    // copy). Returns false (Rec empty) when the element is not a record or
    // its list holds no complete entry.
    bool GetRecord(cRecord& Rec) const;
    // Record element: List becomes a view of the whole list (no copy).
    // Returns false (List empty) when the element is not of type record.
    bool GetIRec(cRecordList& List) const;
    // External element: the whole value text; null otherwise.
    const char* GetLink() const;

    // Value as text; null on an invalid view or an empty element.
    //   text: the value itself; external: the part after the last '='
    //         (searched behind the last ']' when there is one);
    //   sint "%i", uint "%u", sint64/uint64 as 64-bit decimals,
    //   bool "true"/"false", time/uuid/obis their ToString(), record the
    //   first child's ToString(), data the hexadecimal form of the first
    //   min(size, 16) bytes ("%s...,len=%i]" with the full size when longer);
    //   none (and codes 12-15): the text area as it stands ("" after the
    //   view was set on the element, so no earlier value shows through).
    // Formatted values live in a 128-byte area of this view and are cut to
    // fit. A text value without a NUL inside the element is copied there.
    const char* GetText() const;

    // Token text "name=value" (record text form; "name=" for an empty
    // element, "" for an invalid view). A record element prints its children
    // as "{" Sep child Sep child Sep ... "}". Text values are quoted when
    // they contain any of ";,:=", a blank, a lower-case letter or '"', or
    // start with one of "({[" (quotes inside doubled).
    cRecordString GetTokenStr(bool All, const char* Sep) const;
    // GetTokenStr(true, " ").
    std::string ToString() const override;

    // Internal: the element's start (type word); null when invalid.
    const char* GetElement() const { return m_pElement; }
    // Internal: one past the element's last byte; null when invalid.
    const char* GetElementEnd() const { return m_pValue != nullptr ? m_pValue + m_ValueSize : nullptr; }

    // Library-internal (not exported): Set for an element that a search of
    // pIRec has already decoded and checked against its bytes.
    ORVO_RECORD_INTERNAL int SetDecoded(const cRecord* pIRec, const char* p,
                                        const recordcodec::tElement& e);

private:
    void Invalidate();
    const char* BoundedText() const;

    mutable char m_Text[128];      // result area of GetText
    cMemBuffer m_Buffer;           // keeps the record's block alive
    const cRecord* m_pIRec;        // record the view was made from (not owned)
    const char* m_pElement;        // type word; null when invalid
    const char* m_pName;           // NUL-terminated name
    const char* m_pValue;          // first value byte
    int32_t m_ValueSize;           // length - (name length + 1)
    uint32_t m_Type;               // decoded type word
};

// cRecord: the record. The buffer's size is the capacity; the content is
// [GetBuffer(), GetBuffer() + GetSize()).
class ORVO_API cRecord : public cObject {
public:
    cRecord() : m_pEnd(nullptr), m_pBuffer(nullptr) {}
    // Private copy of Size bytes (capacity exactly Size). Null p or Size <= 0
    // give an empty record.
    cRecord(const void* p, int Size);
    // View of Size bytes at Offs inside Buf's view (no copy).
    cRecord(const cMemBuffer& Buf, int Offs, int Size);
    // Copies share the block.
    cRecord(const cRecord& Other)
        : cObject(Other), m_Buffer(Other.m_Buffer), m_pEnd(Other.m_pEnd), m_pBuffer(Other.m_pBuffer)
    {
    }
    cRecord& operator=(const cRecord& Other)
    {
        if (this != &Other) {
            cObject::operator=(Other);
            m_Buffer.Share(Other.m_Buffer);   // a record's buffer keeps the block invariant
            m_pEnd = Other.m_pEnd;
            m_pBuffer = Other.m_pBuffer;
        }
        return *this;
    }
    ~cRecord() override {}

    // Empty record (no block).
    void Create();
    // Like the constructors above.
    void Create(const void* p, int Size);
    // A view of Size bytes; Size 0 gives an empty record that holds no block
    // but remembers its position (so an empty entry of a record list can be
    // passed to cRecordList::GetNext).
    void Create(const cMemBuffer& Buf, int Offs, int Size);

    int GetSize() const { return static_cast<int>(m_pEnd - m_pBuffer); }
    bool IsEmpty() const { return m_pEnd == m_pBuffer; }
    // First element byte. For an empty record null or a position marker that
    // must not be read. Valid until the record changes.
    char* GetBuffer() const { return m_pBuffer; }
    // The underlying buffer (its size is the capacity).
    const cMemBuffer& GetMemBuffer() const { return m_Buffer; }

    // Makes room for Size more bytes: capacity becomes the next multiple of
    // 1024 strictly above GetSize() + Size, on a private block (copy on
    // write). Asserts "OldSize>=0", "OldSize+Size>0", "m_pBuffer>(char*)1000".
    void CheckSize(int Size);

    // Appending. Each writes one element at the end; the low nibble of Flags
    // is replaced by the type. A null Name appends nothing.
    void AppendPar(const char* Name, int Flags = 0);                 // type none
    // Type word = Flags | 0x10, low nibble as given: a typed empty element.
    void AppendEmtpyPar(const char* Name, int Flags = 0);
    // Null Value: empty text element (flag 0x10, no value).
    void AppendTextPar(const char* Name, const char* Value, int Flags = 0);
    void AppendTextPar(const char* Name, const std::string& Value, int Flags = 0);
    void AppendSIntPar(const char* Name, int Value, int Flags = 0);
    void AppendUIntPar(const char* Name, unsigned int Value, int Flags = 0);
    // Invalid time or Flags with 0x10: empty time element.
    void AppendTimePar(const char* Name, const cTime& Value, int Flags = 0);
    // Null p or Size <= 0: a data element without bytes.
    void AppendDataPar(const char* Name, const void* p, int Size, int Flags = 0);
    // Value = a list holding Rec as its one entry. An empty Rec sets 0x10 and
    // the list still holds its entry (one 0x00 byte).
    void AppendRecordPar(const char* Name, const cRecord& Rec, int Flags = 0);
    // Value = the list's bytes as they are.
    void AppendIRecPar(const char* Name, const cRecordList& List, int Flags = 0);
    // Invalid uuid or Flags with 0x10: empty uuid element.
    void AppendUuidPar(const char* Name, const cUuid& Value, int Flags = 0);
    void AppendSInt64Par(const char* Name, long long Value, int Flags = 0);
    void AppendUInt64Par(const char* Name, unsigned long long Value, int Flags = 0);
    void AppendBoolPar(const char* Name, bool Value, int Flags = 0);
    // The code's ToString() text, NUL-terminated; Flags with 0x10: empty.
    void AppendObisPar(const char* Name, const cObis& Value, int Flags = 0);
    // Copy of Par's name and value; type word = (Flags without its low
    // nibble) | (Par's type word & 0x1FF). Sel is ignored (all bits are
    // taken). An invalid Par appends nothing.
    void AppendPar(const cRecordPar& Par, int Flags, int Sel);

    // Setting: DeletePar(Name, 0, 0) followed by the matching append, so the
    // element moves to the end of the record. A null Name therefore removes
    // the record's first element (whatever its name) and appends nothing.
    void SetEmtpyPar(const char* Name, int Flags = 0);
    void SetTextPar(const char* Name, const char* Value, int Flags = 0);
    void SetTextPar(const char* Name, const std::string& Value, int Flags = 0);
    void SetSIntPar(const char* Name, int Value, int Flags = 0);
    void SetUIntPar(const char* Name, unsigned int Value, int Flags = 0);
    void SetTimePar(const char* Name, const cTime& Value, int Flags = 0);
    void SetDataPar(const char* Name, const void* p, int Size, int Flags = 0);
    void SetRecordPar(const char* Name, const cRecord& Rec, int Flags = 0);
    void SetIRecPar(const char* Name, const cRecordList& List, int Flags = 0);
    void SetUuidPar(const char* Name, const cUuid& Value, int Flags = 0);
    void SetSInt64Par(const char* Name, long long Value, int Flags = 0);
    void SetUInt64Par(const char* Name, unsigned long long Value, int Flags = 0);
    void SetBoolPar(const char* Name, bool Value, int Flags = 0);
    void SetObisPar(const char* Name, const cObis& Value, int Flags = 0);

    // First element named Name (any name when null) whose masked type word
    // equals Type (see eRecordSel); an invalid view when there is none.
    cRecordPar GetFirstPar(const char* Name = nullptr, int Type = 0, int Sel = 0) const;
    // Continues the search behind Par's element; Par becomes the next match
    // or invalid. An invalid Par, or one whose element does not end inside
    // this record's bytes, becomes/stays invalid. Returns Par.IsValid().
    bool SeekNextPar(cRecordPar& Par, const char* Name = nullptr, int Type = 0, int Sel = 0) const;
    // Number of matches.
    int GetParCount(const char* Name = nullptr, int Type = 0, int Sel = 0) const;
    // Removes the first match only (a null Name matches the first element).
    // Returns whether an element was removed.
    bool DeletePar(const char* Name, int Type = 0, int Sel = 0);
    // Removes the element Par views when it is one of this record's
    // elements (Par's element start is an element boundary of this record's
    // current bytes); Par then views what now stands at that place (invalid
    // at the end). Returns whether an element was removed.
    bool DeletePar(cRecordPar& Par);
    // Reserved check hook; returns "".
    std::string CheckParameter(const char* Name);

    // Walks a separator-delimited path: the first token is searched in this
    // record, every further token in the first child of the current record
    // element (nothing found: invalid result); a token behind a non-record
    // element is ignored and the element kept (a.b on a leaf "a" yields
    // "a"). Empty tokens vanish (a..b is a.b). Type/Sel apply at every
    // level. Invalid result for a null Path or Separators, and for a Path of
    // 256 or more characters (rejected rather than cut, so a long path never
    // finds a wrong element).
    cRecordPar GetFirstParByPath(const char* Path, const char* Separators, int Type = 0, int Sel = 0) const;
    // Structured-path search (defined with the record merge and search
    // functions).
    cRecordPar GetParByPath(const cRecordPath& Path, const char* Name) const;

    // Token text of the elements: joined by "," Sep, followed by " "; with
    // All false only " ". Records above 1024 bytes give "record to large for
    // printing, size=<n>; size must be less-than 1024; " instead.
    cRecordString GetTokenStr(bool All, const char* Sep) const;
    // "{" + GetTokenStr(true, " ") + "}", e.g. "{a=1, b= }".
    std::string ToString() const override;
    // Indented form, one line ("\n"-terminated) per element:
    //   <indent>name <type> = [marks]value
    // indent is three blanks per level starting at Level; marks are
    // " [marked]", " [template]", " [external <link up to its last '='>]";
    // the value is "[-empty-]" for an empty element, "%s (0x%X)" for
    // sint/uint, "%s (0x%llX)" for sint64/uint64, GetText() otherwise; a
    // record element is followed by its children one level deeper (an empty
    // child record as ".[empty]."). Children deeper than MaxLevel print "..."
    // (bounded recursion on damaged or hostile input). An empty record gives
    // "<indent>.[empty].\n".
    std::string ToString2(unsigned int Level = 0, unsigned int MaxLevel = 64) const;

private:
    friend class cRecordPar;

    // CheckSize's work, callable inline from the appends.
    ORVO_RECORD_INTERNAL void Reserve(int Size);
    // Writes one element: type word, varint(length), name NUL, then the
    // value pieces v1 and v2 (either may be null/0).
    ORVO_RECORD_INTERNAL void AppendElement(uint32_t TypeWord, const char* Name, const void* v1,
                                            int n1, const void* v2 = nullptr, int n2 = 0);
    // AppendElement for a value that is one varint, followed by Tail's
    // TailSize bytes (none when Tail is null); written in place.
    ORVO_RECORD_INTERNAL void AppendVarintElement(uint32_t TypeWord, const char* Name, uint64_t Value,
                                                  const void* Tail = nullptr, int TailSize = 0);
    // AppendElement's path when Reserve has to reallocate (or assert).
    ORVO_RECORD_INTERNAL void AppendElementSlow(uint32_t TypeWord, const char* Name, size_t nameSize,
                                                uint32_t length, const void* v1, int n1,
                                                const void* v2, int n2);
    // The first match at or behind p; null when none. When pFound is given
    // it receives the decoded match.
    ORVO_RECORD_INTERNAL const char* Find(const char* p, const char* Name, int Type, int Sel,
                                          recordcodec::tElement* pFound = nullptr) const;
    void AppendIndented(std::string& Out, unsigned int Level, unsigned int MaxLevel) const;

    cMemBuffer m_Buffer;   // storage; its size is the capacity
    char* m_pEnd;          // one past the last element byte
    char* m_pBuffer;       // first element byte
};

// Helpers shared by the record family's sources (not exported).
namespace recordcodec {

// Bytes taken by the LEB128 form of v (1 to 10).
int VarintSize(uint64_t v);
// Writes the LEB128 form of v at p; returns the byte behind it.
char* PutVarint(char* p, uint64_t v);
// Decodes a varint from [p, end); returns the byte behind it, or null when it
// runs past end. The 32-bit form drops groups at shift 32 and beyond, the
// 64-bit form those at 64 and beyond.
const char* GetVarint32(const char* p, const char* end, uint32_t& v);
const char* GetVarint64(const char* p, const char* end, uint64_t& v);

// Mask of a (Type, Sel) selector.
uint32_t SelMask(int Sel);

// One decoded element inside [start, end).
struct tElement {
    uint32_t type;         // type word
    const char* name;      // NUL-terminated inside the element
    const char* value;     // first value byte
    uint32_t valueSize;    // bytes of value
    const char* next;      // one past the element
};
// Decodes the element at p; false when any part of it lies past end or the
// name has no NUL inside the element's length.
bool DecodeElement(const char* p, const char* end, tElement& e);

}  // namespace recordcodec

}  // namespace orvo
