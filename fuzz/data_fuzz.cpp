// Fuzzes cData's text parsers (hexadecimal, escaped) and cHelper's splitter:
// no crash or overread, and escaping round-trips.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_data.h"

using orvo::cData;
using orvo::cHelper;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 512)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);

    cData hex(text.c_str());
    const unsigned limit = size > 0 ? data[0] % 8 : 0;
    hex.ToString(limit);
    hex.SetSeparator(size > 1 ? text.substr(1, data[1] % 3) : std::string());
    hex.ToString(limit);
    hex.Printable(limit);
    hex.Digitable(limit);
    hex.ToBase64();

    cData raw(data, static_cast<int>(size), false);
    unsigned count = 0;
    const std::string escaped = raw.Escape(count);
    cData back;
    if (!back.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>(escaped.c_str())) ||
        back.GetLen() != size || (size > 0 && !(back == raw)))
        std::abort();
    cData loose;
    loose.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>(text.c_str()));

    // Hexadecimal text of arbitrary bytes parses back to the same bytes.
    cData again(raw.ToString().c_str());
    if (size > 0 && !(again == raw))
        std::abort();

    const std::string sep = size > 2 ? text.substr(0, 1 + data[2] % 2) : ".";
    const auto tokens = cHelper::GetStringTokens(text, sep, size > 3 ? data[3] % 4 : 0);
    std::string joined;
    for (size_t i = 0; i < tokens.size(); ++i)
        joined += (i ? sep : std::string()) + tokens[i];
    if (joined != text)
        std::abort();
    cHelper::TokensAsNameValue(text, ";", "=");
    cHelper::StringXmlDecode(text);
    return 0;
}
