#define ORVO_SOURCE "orvo_record"
#include "orvo_recordmerge.h"

#include <cstring>
#include <string>

#include "orvo_sharedmem.h"

namespace orvo {

namespace {

// ---------------------------------------------------------------------------
// Element and list helpers

int Marks(const cRecordPar& Par)
{
    return Par.GetType(RECORD_SEL_MARKS);
}

bool IsRecord(const cRecordPar& Par)
{
    return Par.GetType(RECORD_SEL_TYPE) == RECORD_RECORD;
}

cRecord FirstChild(const cRecordPar& Par)
{
    cRecord Child;
    Par.GetRecord(Child);
    return Child;
}

bool SameBytes(const cRecord& A, const cRecord& B)
{
    return A.GetSize() == B.GetSize() &&
           (A.IsEmpty() || std::memcmp(A.GetBuffer(), B.GetBuffer(), A.GetSize()) == 0);
}

// An empty entry is the single byte 0 and a non-empty one starts with a
// non-zero size byte, so a list of empty children is all zero bytes.
bool HoldsNoElement(const cRecordList& List)
{
    const char* p = List.GetBuffer();
    for (int i = 0; i < List.GetSize(); ++i)
        if (p[i] != 0)
            return false;
    return true;
}

// Type word of a rebuilt record element: Par's marks, the empty flag when
// the new list carries no value.
int RebuiltFlags(const cRecordPar& Par, const cRecordList& List)
{
    return Marks(Par) | (HoldsNoElement(List) ? RECORD_FLAG_EMPTY : 0);
}

// The bytes of [From, To) of one block.
std::string BytesOf(const char* From, const char* To)
{
    return From == To ? std::string() : std::string(From, static_cast<size_t>(To - From));
}

cRecordList ListOfBytes(const std::string& Bytes)
{
    const int size = static_cast<int>(Bytes.size());
    if (size == 0)
        return cRecordList();
    return cRecordList(cMemBuffer(Bytes.data(), size), 0, size);
}

// ---------------------------------------------------------------------------
// Merge

void Merge(const cRecord& Default, const cRecord& Current, cRecord& Result, bool& Changed,
           unsigned int Depth);

// Copies From into To without elements marked exactly template, at every
// nesting level, every child of a list included.
void CopyWithoutTemplates(const cRecord& From, cRecord& To, unsigned int Depth)
{
    for (cRecordPar d = From.GetFirstPar(); d.IsValid(); From.SeekNextPar(d)) {
        if (Marks(d) == RECORD_FLAG_TEMPLATE)
            continue;
        if (!IsRecord(d) || Depth >= MaxRecordDepth) {
            To.AppendPar(d, 0, 0);
            continue;
        }
        cRecordList List;
        d.GetIRec(List);
        cRecordList Copy;
        cRecord Entry;
        for (bool more = List.GetFirst(Entry); more; more = List.GetNext(Entry)) {
            cRecord Child;
            CopyWithoutTemplates(Entry, Child, Depth + 1);
            Copy.AddTail(Child);
        }
        To.AppendIRecPar(d.GetName(), Copy, RebuiltFlags(d, Copy));
    }
}

// Step a: Current's elements whose names Default knows, in Current's order.
void MergeKnown(const cRecord& Default, const cRecord& Current, cRecord& Result, bool& Changed,
                unsigned int Depth)
{
    const char* walked = Current.GetBuffer();
    for (cRecordPar c = Current.GetFirstPar(); c.IsValid(); Current.SeekNextPar(c)) {
        walked = c.GetElementEnd();
        const cRecordPar d = Default.GetFirstPar(c.GetName());
        if (!d.IsValid()) {
            Changed = true;
            continue;
        }
        if (!IsRecord(c) || Depth >= MaxRecordDepth) {
            Result.AppendPar(c, 0, 0);
            continue;
        }
        cRecord Child;
        Merge(FirstChild(d), FirstChild(c), Child, Changed, Depth + 1);
        Result.AppendRecordPar(c.GetName(), Child, 0);
    }
    // A damaged tail cannot be carried over; losing it is a change.
    if (walked != Current.GetBuffer() + Current.GetSize())
        Changed = true;
}

// Step b: Default's elements that Current lacks, in Default's order.
void AddMissing(const cRecord& Default, const cRecord& Current, cRecord& Result, bool& Changed,
                unsigned int Depth)
{
    for (cRecordPar d = Default.GetFirstPar(); d.IsValid(); Default.SeekNextPar(d)) {
        if (Marks(d) == RECORD_FLAG_TEMPLATE || Current.GetFirstPar(d.GetName()).IsValid())
            continue;
        if (IsRecord(d) && Depth < MaxRecordDepth) {
            // The content comes with the element: only d's own marks decide
            // whether the addition is reported.
            bool inner = false;
            cRecord Child;
            Merge(FirstChild(d), cRecord(), Child, inner, Depth + 1);
            Result.AppendRecordPar(d.GetName(), Child, 0);
        } else {
            Result.AppendPar(d, 0, 0);
        }
        if (Marks(d) != RECORD_FLAG_MARKED)
            Changed = true;
    }
}

void Merge(const cRecord& Default, const cRecord& Current, cRecord& Result, bool& Changed,
           unsigned int Depth)
{
    MergeKnown(Default, Current, Result, Changed, Depth);
    AddMissing(Default, Current, Result, Changed, Depth);
}

// ---------------------------------------------------------------------------
// Path levels

// The levels of a path that matter for a record at one position.
struct tLevels {
    bool addressed = false;    // the position is the root or a level's dotted name
    bool hasOwn = false;       // a level stands at the position itself
    cRecordPathEntry own;      // that level: its filter applies to the record
    bool hasNext = false;      // a level lies below the position
    cRecordPathEntry next;     // that level: it selects the child
    bool nextIsLast = false;   // no level follows next
};

std::string PositionOf(const std::string& Name)
{
    return Name.empty() ? std::string(".") : Name;
}

// Resolves Position against Path. Feed: feed the watchdog once per level
// (every level is then walked).
tLevels FindLevels(const cRecordPath& Path, const std::string& Position, bool Feed)
{
    tLevels L;
    const bool root = Position == ".";
    L.addressed = root;
    bool first = true;
    for (cRecordPathEntry E = Path.GetFirstEntry(); E.IsValid(); Path.SeekNextEntry(E), first = false) {
        if (Feed)
            ToggleWD();
        if (L.hasNext) {
            L.nextIsLast = false;
            if (!Feed)
                break;
        } else if (L.hasOwn || (first && root && E.GetLevel() != Position)) {
            // The level behind the own one, or for the root without a "."
            // level the first one.
            L.hasNext = true;
            L.next = E;
            L.nextIsLast = true;
        } else if (E.GetLevel() == Position) {
            L.hasOwn = true;
            L.own = E;
            L.addressed = true;
        }
    }
    return L;
}

// Whether Rec passes Level's filter: empty filter, or Rec's first element
// named like the filter's first element equals it.
bool MatchesLevel(const cRecord& Rec, const cRecordPathEntry& Level)
{
    cRecord Filter;
    if (!Level.GetFilter(Filter))
        return false;
    if (Filter.IsEmpty())
        return true;
    const cRecordPar Key = Filter.GetFirstPar();
    return Key.IsValid() && Rec.GetFirstPar(Key.GetName()) == Key;
}

// A candidate child of a level and where it stands.
struct tChildPos {
    cRecordPar holder;         // record element whose list holds the child
    cRecordList list;          // that list
    const char* entry = nullptr;   // the child's entry (size varint) in list
    cRecord child;             // view of the child
    cRecordPar firstHolder;    // first record element named after the level
};

// Calls Visit(Pos) for every child that passes Level's filter, in element
// and list order, until Visit returns true; returns whether it did.
template <typename tVisit>
bool VisitCandidates(const cRecord& Rec, const cRecordPathEntry& Level, bool Feed, tChildPos& Pos,
                     tVisit Visit)
{
    for (cRecordPar Par = Rec.GetFirstPar(); Par.IsValid(); Rec.SeekNextPar(Par)) {
        if (Feed)
            ToggleWD();
        if (!IsRecord(Par) || !Par.HasName(Level.GetName()))
            continue;
        if (!Pos.firstHolder.IsValid())
            Pos.firstHolder = Par;
        Pos.holder = Par;
        Par.GetIRec(Pos.list);
        Pos.entry = Pos.list.GetBuffer();
        for (bool more = Pos.list.GetFirst(Pos.child); more; more = Pos.list.GetNext(Pos.child)) {
            if (MatchesLevel(Pos.child, Level) && Visit(Pos))
                return true;
            Pos.entry = Pos.child.GetBuffer() + Pos.child.GetSize();
        }
    }
    return false;
}

// ---------------------------------------------------------------------------
// Change

// Rec with the bytes of its element Par replaced by Replacement's bytes.
cRecord SpliceElement(const cRecord& Rec, const cRecordPar& Par, const cRecord& Replacement)
{
    std::string out = BytesOf(Rec.GetBuffer(), Par.GetElement());
    if (!Replacement.IsEmpty())
        out.append(Replacement.GetBuffer(), Replacement.GetSize());
    out += BytesOf(Par.GetElementEnd(), Rec.GetBuffer() + Rec.GetSize());
    return cRecord(out.data(), static_cast<int>(out.size()));
}

// Rec with Holder's list replaced by List (Holder removed when List is empty).
cRecord RebuildHolder(const cRecord& Rec, const cRecordPar& Holder, const cRecordList& List)
{
    cRecord Element;
    if (!List.IsEmpty())
        Element.AppendIRecPar(Holder.GetName(), List, RebuiltFlags(Holder, List));
    return SpliceElement(Rec, Holder, Element);
}

// Rec with the child at Pos replaced by Entries' children (removed when
// Entries is empty).
cRecord ReplaceChild(const cRecord& Rec, const tChildPos& Pos, const cRecordList& Entries)
{
    const char* list = Pos.list.GetBuffer();
    std::string out = BytesOf(list, Pos.entry);
    if (!Entries.IsEmpty())
        out.append(Entries.GetBuffer(), Entries.GetSize());
    out += BytesOf(Pos.child.GetBuffer() + Pos.child.GetSize(), list + Pos.list.GetSize());
    return RebuildHolder(Rec, Pos.holder, ListOfBytes(out));
}

// The non-empty children of Change's record elements without mark 0x40.
cRecordList CollectReplacement(const cRecord& Change)
{
    cRecordList Entries;
    for (cRecordPar Par = Change.GetFirstPar(); Par.IsValid(); Change.SeekNextPar(Par)) {
        ToggleWD();
        if (!IsRecord(Par) || (Par.GetType(RECORD_SEL_MARKS) & RECORD_FLAG_MARK40))
            continue;
        cRecordList List;
        Par.GetIRec(List);
        cRecord Child;
        for (bool more = List.GetFirst(Child); more; more = List.GetNext(Child))
            if (!Child.IsEmpty())
                Entries.AddTail(Child);
    }
    return Entries;
}

cRecord ChangeLastLevel(const cRecord& Rec, const cRecordPathEntry& Level, const cRecord& Change)
{
    tChildPos Pos;
    const bool found = VisitCandidates(Rec, Level, true, Pos, [](const tChildPos&) { return true; });
    const cRecordList Entries = CollectReplacement(Change);
    if (found)
        return ReplaceChild(Rec, Pos, Entries);
    if (Entries.IsEmpty())
        return Rec;
    if (Pos.firstHolder.IsValid()) {
        cRecordList List;
        Pos.firstHolder.GetIRec(List);
        List.AddTail(Entries);
        return RebuildHolder(Rec, Pos.firstHolder, List);
    }
    cRecord Out(Rec);
    Out.AppendIRecPar(Level.GetName(), Entries, 0);
    return Out;
}

cRecord ChangeBelow(const cRecord& Rec, const cRecordPathEntry& Level, const cRecordPath& Path,
                    const cRecord& Change, unsigned int Depth)
{
    tChildPos Pos;
    if (!VisitCandidates(Rec, Level, true, Pos, [](const tChildPos&) { return true; }))
        return Rec;
    bool changed = false;
    const cRecord Child = _ChangeRecord(Pos.child, Path, Change, Level.GetLevel(), true, changed, Depth + 1);
    if (!changed)
        return Rec;
    cRecordList One;
    One.AddTail(Child);
    return ReplaceChild(Rec, Pos, One);
}

// ---------------------------------------------------------------------------
// Search

// First element of Rec named Name (any when null) whose text is Value (any
// when null).
cRecordPar FindElement(const cRecord& Rec, const char* Name, const char* Value)
{
    cRecordPar Par = Rec.GetFirstPar(Name);
    while (Par.IsValid() && Value != nullptr && Par != Value)
        Rec.SeekNextPar(Par, Name);
    return Par;
}

cRecordPar Search(const cRecord& Rec, const cRecordPath& Path, const char* Name, const std::string& Level,
                  const char* Value, bool First, unsigned int Depth)
{
    if (Depth >= MaxRecordDepth)
        return cRecordPar();
    const tLevels L = FindLevels(Path, PositionOf(Level), false);
    if (!L.addressed || (L.hasOwn && !MatchesLevel(Rec, L.own)))
        return cRecordPar();
    if (!L.hasNext)
        return FindElement(Rec, Name, Value);
    cRecordPar Found;
    tChildPos Pos;
    VisitCandidates(Rec, L.next, false, Pos, [&](const tChildPos& P) {
        Found = Search(P.child, Path, Name, L.next.GetLevel(), Value, First, Depth + 1);
        return First || Found.IsValid();
    });
    return Found;
}

}  // namespace

bool BuildtConfigRecord(cRecord& Default, cRecord& Current, cRecord& Result, bool& Changed)
{
    Changed = false;
    cRecord Out;
    if (Current.IsEmpty()) {
        CopyWithoutTemplates(Default, Out, 0);
        Changed = true;
    } else {
        Merge(Default, Current, Out, Changed, 0);
    }
    // Assigned last: Result may be Default or Current itself.
    Result = Out;
    return true;
}

cRecord ChangeRecord(cRecord Rec, cRecordPath Path, cRecord Change, std::string Name, bool Apply)
{
    bool Changed = false;
    return _ChangeRecord(Rec, Path, Change, Name, Apply, Changed, 0);
}

cRecord _ChangeRecord(cRecord Rec, cRecordPath Path, cRecord Change, std::string Name, bool Apply,
                      bool& Changed, unsigned int Depth)
{
    if (!Apply || Depth >= MaxRecordDepth)
        return Rec;
    const tLevels L = FindLevels(Path, PositionOf(Name), true);
    if (!L.addressed || (L.hasOwn && !MatchesLevel(Rec, L.own)) || !L.hasNext)
        return Rec;
    const cRecord Out = L.nextIsLast ? ChangeLastLevel(Rec, L.next, Change)
                                     : ChangeBelow(Rec, L.next, Path, Change, Depth);
    if (SameBytes(Out, Rec))
        return Rec;
    Changed = true;
    return Out;
}

cRecordPar SearchRecordPar(cRecord Rec, cRecordPath Path, const char* Name, std::string Level,
                           const char* Value, bool First)
{
    return Search(Rec, Path, Name, Level, Value, First, 0);
}

cRecordPar cRecord::GetParByPath(const cRecordPath& Path, const char* Name) const
{
    return SearchRecordPar(*this, Path, Name, "", nullptr, true);
}

}  // namespace orvo
