// Fuzzes cObis::FromString and the number form: printing a parsed code and
// parsing it again keeps its number; FromNumber round-trips through text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_obis.h"

using orvo::cObis;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 256)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    cObis o;
    // ToString leaves out an empty D, so only codes with D re-parse alike.
    if (o.FromString(text) && o.IsValid() && !o.Short.D.empty()) {
        cObis again;
        again.FromString(o.ToString());
        if (again.ToNumber() != o.ToNumber())
            std::abort();
    }
    o.ToNumber();
    cObis::cShort s(text);
    s.ToString();
    s.ToNumber();

    if (size >= 6) {
        unsigned long long n = 0;
        for (int i = 0; i < 6; ++i)
            n = n << 8 | data[i];
        cObis num;
        num.FromNumber(n);
        cObis back(num.ToString());
        if (!(back == num) || back.ToNumber() != n)
            std::abort();
    }
    return 0;
}
