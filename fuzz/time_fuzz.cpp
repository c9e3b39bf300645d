// Fuzzes the cTime text and binary parsers: any input must parse or fail
// without crashing, and the printed forms of a parsed value must re-parse to
// the same seconds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_time.h"

using orvo::cTime;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 256)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);

    cTime t;
    if (t.Create(text.c_str()) && t.IsValid() && t.GetMilliSecond() < 1000) {
        cTime again;
        if (!again.Create(t.ToString()) || again.ToMilliSeconds() != t.ToMilliSeconds())
            std::abort();
    }
    t.ToDateString();
    t.ToTimeString();

    cTime iso;
    if (iso.FromISO8601String(text) && iso.IsValid() && iso.IsUtc()) {
        cTime again;
        if (!again.FromISO8601String(iso.ToISO8601String()) || !(again == iso))
            std::abort();
    }
    iso.ToISO8601String();

    cTime bin;
    if (bin.Create(data, static_cast<int>(size))) {
        // The binary form is unsigned: only non-negative seconds come back.
        const unsigned char* b = static_cast<const unsigned char*>(bin.GetBuffer());
        cTime again;
        if (!again.Create(b, bin.GetSize()) || (bin.IsValid() && !(again == bin)))
            std::abort();
        bin.ToString();
    }
    if (size >= 4) {
        // Arithmetic on arbitrary values must stay inside the 32-bit range.
        long delta = static_cast<long>(static_cast<int32_t>(data[0] | data[1] << 8 | data[2] << 16 |
                                                            static_cast<uint32_t>(data[3]) << 24));
        unsigned applied = 0;
        bin.FromSeconds(static_cast<unsigned long>(static_cast<uint32_t>(delta)) >> 1, true);
        bin.AddSeconds(delta);
        bin.AddDays(delta);
        if (bin.ToSeconds() > 0x7FFFFFFFUL)
            std::abort();
        // The summer hour is added by rebuilding the date, which may leave
        // the 32-bit range (-1) near 2038.
        bin.ToLocalTime(data[0] % 3, data[1] & 1, &applied);
        bin.ToString();
    }
    return 0;
}
