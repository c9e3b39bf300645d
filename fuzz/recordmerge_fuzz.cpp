// Merge, change and search on records, path and change taken from untrusted
// bytes. Nothing may read outside the input; a change reports exactly when
// its result differs; a merged result is a walkable record.
#define ORVO_SOURCE "orvo_record"
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvo_record.h"
#include "orvo_recordmerge.h"
#include "orvo_recordpath.h"

using namespace orvo;

namespace {

volatile size_t gSink;

bool SameBytes(const cRecord& a, const cRecord& b)
{
    return a.GetSize() == b.GetSize() &&
           (a.IsEmpty() || std::memcmp(a.GetBuffer(), b.GetBuffer(), a.GetSize()) == 0);
}

// Whether a walk over the elements reaches the record's end.
bool Walkable(const cRecord& r)
{
    const char* end = r.GetBuffer();
    for (cRecordPar p = r.GetFirstPar(); p.IsValid(); r.SeekNextPar(p))
        end = p.GetElementEnd();
    return end == r.GetBuffer() + r.GetSize();
}

void Check(bool ok)
{
    if (!ok)
        std::abort();
}

void ChangeAndSearch(const cRecord& rec, const cRecordPath& path, const cRecord& change,
                     const std::string& name)
{
    bool changed = false;
    const cRecord out = _ChangeRecord(rec, path, change, name, true, changed, 0);
    Check(changed != SameBytes(out, rec));
    Check(SameBytes(ChangeRecord(rec, path, change, name, false), rec));

    const cRecordPar key = change.GetFirstPar();
    for (int first = 0; first < 2; ++first) {
        const cRecordPar found = SearchRecordPar(rec, path, key.GetName(), name, first ? nullptr : "1", first != 0);
        const char* text = found.GetText();
        gSink = gSink + (text != nullptr ? std::strlen(text) : 0);
    }
    gSink = gSink + out.GetSize();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The change feeds the watchdog: never a real device.
    setenv("ORVO_WATCHDOG_DEVICE", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 6 || size > 1 << 14)
        return 0;
    // Little-endian 16-bit sizes of default, current and path (cut to what
    // is there); the change takes the rest.
    const char* p = reinterpret_cast<const char*>(data) + 6;
    size_t left = size - 6;
    cRecord part[4];
    for (int i = 0; i < 4; ++i) {
        size_t n = i < 3 ? data[2 * i] | static_cast<size_t>(data[2 * i + 1]) << 8 : left;
        n = n < left ? n : left;
        part[i] = cRecord(p, static_cast<int>(n));
        p += n;
        left -= n;
    }

    cRecord result;
    bool changed = false;
    BuildtConfigRecord(part[0], part[1], result, changed);
    Check(Walkable(result));
    Check(!part[1].IsEmpty() || changed);

    const cRecordPath path(part[2]);
    ChangeAndSearch(part[1], path, part[3], "");
    int levels = 0;
    for (cRecordPathEntry e = path.GetFirstEntry(); e.IsValid() && levels < 4; path.SeekNextEntry(e), ++levels)
        ChangeAndSearch(part[1], path, part[3], e.GetLevel());
    return 0;
}
