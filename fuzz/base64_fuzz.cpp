// Fuzzes cBase64's decoder with both alphabets: it reads only the given bytes
// (the input is an exact heap block), never writes past DecodedMaxSize, and
// whatever it accepts encodes back to the same text once line breaks and
// padding are set aside.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "orvo_base64.h"

using orvo::cBase64;
using orvo::eBase64Alphabet;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<char> text(data, data + size);
    for (eBase64Alphabet a : {eBase64Alphabet::Standard, eBase64Alphabet::UrlSafe}) {
        std::vector<unsigned char> out(cBase64::DecodedMaxSize(size));
        size_t outLen = 0;
        if (!cBase64::Decode(text.data(), text.size(), out.data(), outLen, a))
            continue;
        if (outLen > out.size())
            std::abort();
        std::string bare;
        for (char c : text)
            if (c != '\r' && c != '\n' && c != '=')
                bare += c;
        if (cBase64::Encode(out.data(), outLen, a, false) != bare)
            std::abort();
    }
    return 0;
}
