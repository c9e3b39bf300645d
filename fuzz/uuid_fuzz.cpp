// Fuzzes cUuid's text parser: a valid parse must print back to a text that
// parses to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_uuid.h"

using orvo::cUuid;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 128)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    cUuid u;
    const bool ok = u.Create(text.c_str());
    if (ok != u.IsValid())
        std::abort();
    const std::string printed = u.ToString();
    cUuid back;
    if (!back.Create(printed.c_str()) || !(back == u))
        std::abort();
    cUuid bin;
    if (bin.Create(data, static_cast<int>(size)) != (size == 16))
        std::abort();
    return 0;
}
