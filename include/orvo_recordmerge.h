// orvo_recordmerge.h - merging a configuration record with its definition,
// changing a record at a place named by a structured path, and searching an
// element by such a path.
//
// Paths (cRecordPath) name nested record elements from the root down. Each
// level has a name and a filter record; its dotted name is the names of all
// levels so far joined by "." ("meter", "meter.reg"). A level selects one
// child record:
//
//   - candidates are the child records in the lists of the record elements
//     (value type record) that carry the level's name, in element order and,
//     within an element, in list order (a name may repeat, and one element
//     may hold a list of several children);
//   - a child matches the level when the level's filter is empty, or when
//     the child's first element of the same name as the filter's FIRST
//     element equals that filter element by cRecordPar::operator== (name,
//     value type, empty flag and value bytes; marks are not compared).
//     Further filter elements are ignored. A filter that is not empty but
//     whose first element cannot be read, and a damaged level, match no
//     child;
//   - the addressed child of a level is the first candidate that matches.
//
// The walk starts at the root record, whose position is "." (an empty
// position text counts as "."). A first level named "." does not name an
// element: it is the root's own level, its filter must match the root record
// itself, and the levels after it carry the plain names ("." + "meter" is
// "meter"). In general a record at position P (the dotted name of the level
// that addressed it, or "." for the root) is processed like this: the first
// level whose dotted name is P is its own level, whose filter the record
// must match; the level behind it (for the root without a "." level: the
// first level) is the next level, which selects the next child. A position
// that is neither "." nor the dotted name of a level addresses nothing.
//
// Nesting: the merge, the copy and the change follow record elements at
// most MaxRecordDepth levels deep (untrusted records could otherwise nest
// deep enough to exhaust the stack); what lies below is treated as stated
// at each function.
//
// Thread safety: none; the caller owns every record involved. Records are
// read through views only: damaged bytes end a walk, they are never read
// past.
#pragma once

#include <string>

#include "orvo_record.h"
#include "orvo_recordpath.h"

namespace orvo {

// Deepest nesting the functions below follow.
const unsigned int MaxRecordDepth = 64;

// Merges a service's configuration definition Default with the configuration
// Current into Result (which is emptied first). Always returns true.
//
// Current empty: Result is a copy of Default without the elements whose
// marks (type word & 0x1E0) are exactly template (0x80), at every nesting
// level: record elements keep their type word (the empty flag recomputed:
// set when no child holds an element) and every child of their list is
// copied by the same rule. Changed = true.
//
// Otherwise, at every nesting level:
//  a. each element of Current, in order, is looked up by name (first
//     element of that name, any type) in Default. Unknown names are dropped
//     and set Changed. A known non-record element is appended as it is
//     (Current's type, flags and value win). A known record element becomes
//     AppendRecordPar(name, merge of Default element's first child with
//     Current element's first child, 0): further children and the element's
//     marks are not kept.
//  b. each element of Default whose marks are not exactly template (0x80)
//     and whose name Current lacks is appended, a non-record as it is
//     (AppendPar(d, 0, 0)), a record as AppendRecordPar(name, its first
//     child merged with an empty record, 0). The addition sets Changed
//     unless the marks of that element are exactly marked (0x20); what a
//     missing record element contains is judged with it, not on its own.
// So Result keeps Current's order for known names, followed by the missing
// defaults in Default's order. Bytes at the end of a Current record that do
// not form an element are dropped and set Changed. Record elements nested
// MaxRecordDepth records deep are copied as they stand (no merge, no
// template removal). Changed is false when nothing of the above happened.
// Default, Current and Result may be the same object.
ORVO_API bool BuildtConfigRecord(cRecord& Default, cRecord& Current, cRecord& Result, bool& Changed);

// _ChangeRecord(Rec, Path, Change, Name, Apply, Changed, 0) with a local
// changed flag: returns the changed copy of Rec.
ORVO_API cRecord ChangeRecord(cRecord Rec, cRecordPath Path, cRecord Change, std::string Name, bool Apply);

// Changes the child record that Path addresses below Rec, Rec standing at
// position Name (see above; "" for the root). Returns the result; Rec itself
// is never modified (the result shares bytes with it where nothing changed).
//
// Apply false, Depth >= MaxRecordDepth, a position that addresses nothing,
// a Rec that does not match its own level's filter, or a path that names no
// element below Name: Rec is returned unchanged.
//
// The replacement is every non-empty child record in the lists of Change's
// record elements that do not carry mark 0x40, in order (other elements of
// Change are ignored). When the next level is the last one:
//   - addressed child found, replacement not empty: the child's list entry
//     is replaced by the replacement's records (in place, in order);
//   - addressed child found, replacement empty: the child is removed from
//     its list; an element whose list loses its last entry is removed;
//   - no child matches, replacement not empty: the replacement's records
//     are appended to the list of the first record element carrying the
//     level's name, or, when there is none, as a new record element of that
//     name (flags 0) at the end of Rec;
//   - no child matches, replacement empty: nothing changes.
// A rebuilt element keeps its place and its type word, with the empty flag
// set when no child in its list holds an element. Every other byte of Rec
// is kept as it is, damaged lists and elements included.
// Otherwise the change goes on inside the addressed child
// (_ChangeRecord(child, ..., dotted name of the next level, ..., Depth + 1));
// without an addressed child nothing changes (intermediate children are
// never created).
//
// Changed is set to true when the result's bytes differ from Rec's, and is
// left as it is otherwise (so one flag can collect several changes).
//
// The device watchdog is fed (ToggleWD) at every depth once for each level
// of Path, once for each element of the record scanned for the addressed
// child (the scan stops at it), and, at the last level, once for each
// element of Change.
ORVO_API cRecord _ChangeRecord(cRecord Rec, cRecordPath Path, cRecord Change, std::string Name, bool Apply,
                               bool& Changed, unsigned int Depth);

// Searches the record that Path addresses below Rec, Rec standing at
// position Level ("" for the root), and returns the first element of that
// record (not of its children) named Name (any name when Name is null)
// whose text equals Value (cRecordPar::operator==(const char*); any value
// when Value is null). A path that names no element below Level addresses
// Rec itself.
// First true: only the addressed child of each level is searched (the
// first candidate that matches). First false: every matching candidate of
// each level is tried in order, depth first, and the first hit is returned.
// Returns an invalid view when nothing is found, the position addresses
// nothing, Rec does not match its own level's filter, or the record to
// search lies MaxRecordDepth or more records below Rec. The view shares
// Rec's bytes and stays valid after Rec changes or goes.
// cRecord::GetParByPath(Path, Name) is SearchRecordPar(*this, Path, Name,
// "", nullptr, true).
ORVO_API cRecordPar SearchRecordPar(cRecord Rec, cRecordPath Path, const char* Name, std::string Level,
                                    const char* Value, bool First);

}  // namespace orvo
