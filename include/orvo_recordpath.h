// orvo_recordpath.h - cRecordList, the list of child records that is the value
// of a record element, and cRecordPath / cRecordPathEntry, a structured path
// of named levels with filter records.
//
// List bytes (see docs/record_format.md): per entry varint(child size) and the
// child's element bytes, no padding, no terminator. An empty child is the
// single byte 0x00; an empty list has no bytes.
//
// Sharing and thread safety as for cRecord: lists and entry views share one
// block (no bytes copied); changes build a new block so other holders keep
// the old bytes; single-thread objects.
#pragma once

#include <string>

#include "orvo_membuffer.h"
#include "orvo_record.h"

namespace orvo {

class ORVO_API cRecordList {
public:
    // Entries above this size end a GetNext walk: treated as damage.
    static const int MaxEntrySize = 32000;

    cRecordList();
    // View of Size list bytes at Offs inside Buf's view (no copy); Size 0
    // gives an empty list.
    cRecordList(const cMemBuffer& Buf, int Offs, int Size);
    cRecordList(const cRecordList& Other);             // shares
    cRecordList& operator=(const cRecordList& Other);  // shares

    // Appends Rec as a new entry (varint size + bytes) on a new block.
    void AddTail(const cRecord& Rec);
    // Appends the other list's bytes (its entries as they are) on a new block.
    void AddTail(const cRecordList& List);

    // Number of entries a GetFirst/GetNext walk yields (a damaged tail is
    // not counted); 0 for an empty list.
    int GetCount() const;
    // Rec becomes a view of the first entry (no copy). False (Rec unchanged)
    // on an empty list or when the first entry runs past the list's end.
    bool GetFirst(cRecord& Rec) const;
    // Rec must be an entry view of this list: asserts "pRec>pList" (its
    // start lies behind the list start) and "pRec<=pEnd" (its end lies
    // inside the list). Rec becomes a view of the next entry and the result
    // is true; at the list's end, for an entry above MaxEntrySize bytes or
    // one running past the list's end the result is false and Rec unchanged.
    bool GetNext(cRecord& Rec) const;
    // Removes the entry Rec views (found by re-encoding Rec's size as the
    // entry header); the list takes a new block, Rec keeps the old bytes.
    // Asserts "Offs>=0" and "Offs+Size<=m_Buffer.GetBufferSize()".
    void Remove(cRecord& Rec);

    // The list bytes; null/0 for an empty list. Valid while the list is
    // unchanged.
    const char* GetBuffer() const { return m_Buffer.GetBuffer(); }
    int GetSize() const { return m_Buffer.GetBufferSize(); }
    bool IsEmpty() const { return m_Buffer.GetBufferSize() == 0; }
    const cMemBuffer& GetMemBuffer() const { return m_Buffer; }

private:
    // Views the entry whose size varint starts at p; false when the varint
    // or the entry runs past the list's end or exceeds Limit bytes.
    bool ViewEntry(const char* p, cRecord& Rec, uint32_t Limit) const;

    cMemBuffer m_Buffer;   // the list bytes
};

class cRecordPathEntry;

// A path: a record in which every level is one element of type record, named
// after the level, whose child record is the level's filter (an empty filter
// gives an element with the empty flag). Elements of other types are skipped
// by the walk.
class ORVO_API cRecordPath {
public:
    cRecordPath();
    cRecordPath(const cRecord& Rec);        // takes Rec (shared) as the path
    cRecordPath(const cRecordPath& Other);
    cRecordPath& operator=(const cRecordPath& Other);

    // Appends a level (AppendRecordPar(Name, Filter, 0)).
    void AddLevel(const char* Name, const cRecord& Filter);
    // Entry on the first level (level text = its name, filter = its child);
    // invalid for an empty path.
    cRecordPathEntry GetFirstEntry() const;
    // Moves E to the next level: level text = previous + "." + name (a
    // previous level of exactly "." gives the name alone), filter = its
    // child. Behind the last level E becomes invalid. Returns E.IsValid().
    bool SeekNextEntry(cRecordPathEntry& E) const;
    // The path itself as a record (shared bytes).
    const cRecord& GetRecord() const { return m_Record; }

    // "root" for an empty path; otherwise per level "%s<%s>=" with the name
    // and the filter's text ("empty" for an empty filter), levels separated
    // by one blank: "x<empty>= y<{a=1 }>=".
    std::string ToString() const;

private:
    cRecord m_Record;
};

// Position of a walk over a cRecordPath: a view of the current level element
// plus the level's dotted name and its filter.
class ORVO_API cRecordPathEntry : public cRecordPar {
public:
    cRecordPathEntry();

    // Whether the entry stands on a level.
    bool IsValid() const { return m_Valid; }
    // Dotted name of all levels so far ("x", "x.y").
    std::string GetLevel() const { return m_Level; }
    // Rec becomes the level's filter (a view into the path; empty for a
    // level without filter); returns whether the level element held a child
    // record at all (true also for an empty filter, false for an invalid
    // entry or a damaged level).
    bool GetFilter(cRecord& Rec) const;

private:
    friend class cRecordPath;
    // Takes the level element Par; invalid when Par is invalid.
    void Take(const cRecordPar& Par, const std::string& Level);

    bool m_Valid;              // stands on a level
    cRecord m_Filter;          // the level's filter (view into the path)
    std::string m_Level;       // dotted name of the levels so far
    bool m_FilterPresent;      // a filter record was found
};

}  // namespace orvo
