// Record bytes from an untrusted source: every element is read through every
// getter and text form, record elements are walked as lists (bounded depth),
// and text paths are resolved. Nothing may read outside the input.
#define ORVO_SOURCE "orvo_record"
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "orvo_obis.h"
#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "orvo_time.h"
#include "orvo_uuid.h"

using namespace orvo;

namespace {

const int kMaxDepth = 8;
volatile size_t gSink;

void Touch(const char* p, int size)
{
    size_t sum = 0;
    for (int i = 0; i < size; ++i)
        sum += static_cast<unsigned char>(p[i]);
    gSink = gSink + sum;
}

void TouchText(const char* text)
{
    if (text != nullptr)
        gSink = gSink + std::strlen(text);
}

void WalkRecord(const cRecord& rec, int depth, std::string& path);

// Look-ups by name and deletions walk or copy the whole record, so they are
// tried on the first few elements of each record only: on every element
// they made a long input cost a quadratic walk.
const int kWholeRecordOps = 8;

void WalkPar(const cRecord& rec, const cRecordPar& par, int index, int depth, std::string& path)
{
    TouchText(par.GetName());
    Touch(par.GetData(), par.GetSize());
    for (int sel = 0; sel < 8; ++sel)
        gSink = gSink + par.GetType(sel) + std::strlen(par.GetTypeName(sel));
    gSink = gSink + par.IsEmpty() + par.HasName("a") + (par == "1");
    gSink = gSink + par.GetSInt() + par.GetUInt() + par.GetSInt64() + par.GetUInt64() + par.GetBool();
    gSink = gSink + par.GetTime().IsValid();
    cUuid uuid;
    gSink = gSink + par.GetUuid(uuid);
    cObis obis;
    gSink = gSink + par.GetObis(obis);
    gSink = gSink + par.GetString().size();
    TouchText(par.GetText());
    TouchText(par.GetLink());
    gSink = gSink + par.ToString().size();
    gSink = gSink + std::strlen(par.GetTokenStr(true, ",").GetBuffer());

    // Copying the element into a record and deleting it from a copy.
    cRecord copy;
    copy.AppendPar(par, 0, 0);
    gSink = gSink + copy.GetSize();
    if (index < kWholeRecordOps) {
        gSink = gSink + (par == rec.GetFirstPar(par.GetName()));
        cRecord shared(rec);
        cRecordPar mine = par;
        shared.DeletePar(mine);
    }

    cRecord child;
    gSink = gSink + par.GetRecord(child) + child.GetSize();
    cRecordList list;
    if (!par.GetIRec(list))
        return;
    gSink = gSink + list.GetCount();
    if (depth >= kMaxDepth)
        return;
    if (path.size() < 200 && par.GetName()[0] != 0 && std::strchr(par.GetName(), '.') == nullptr) {
        path += path.empty() ? "" : ".";
        path += par.GetName();
    }
    cRecord entry;
    for (bool more = list.GetFirst(entry); more; more = list.GetNext(entry))
        WalkRecord(entry, depth + 1, path);
}

void WalkRecord(const cRecord& rec, int depth, std::string& path)
{
    gSink = gSink + rec.ToString().size() + rec.ToString2(0, 16).size();
    gSink = gSink + rec.GetTokenStr(false, nullptr).GetLength() + rec.GetParCount();
    int index = 0;
    for (cRecordPar par = rec.GetFirstPar(); par.IsValid(); rec.SeekNextPar(par))
        WalkPar(rec, par, index++, depth, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    cRecord rec(data, static_cast<int>(size));
    std::string path;
    WalkRecord(rec, 0, path);

    // A path built from the names met on the walk, and one from the input.
    for (int type = 0; type < 2; ++type)
        TouchText(rec.GetFirstParByPath(path.c_str(), ".", type ? RECORD_RECORD : 0, type).GetText());
    const size_t take = size < 300 ? size : 300;
    const std::string raw(reinterpret_cast<const char*>(data) + size - take, take);
    TouchText(rec.GetFirstParByPath(raw.c_str(), "./").GetText());

    // Appending behind arbitrary bytes keeps both the copy and the original.
    cRecord grown(rec);
    grown.AppendUIntPar("n", 300, 0);
    gSink = gSink + grown.GetParCount("n") + rec.GetSize();
    return 0;
}
