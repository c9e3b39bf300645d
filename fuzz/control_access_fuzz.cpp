// Fuzzes the text form of the control access policy (it comes from the
// command line or the SCM's configuration): any text parses or is refused
// without a crash, a refused text leaves the policy as it was, and a parsed
// one reads back to the same policy from its own text form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_access.h"

using orvo::cControlAccess;
using orvo::cSocketAddr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    cControlAccess policy = cControlAccess::None();
    std::string error;
    if (!policy.Parse(text, &error)) {
        if (policy.GetMode() != orvo::CONTROL_NONE || error.empty())
            std::abort();
        return 0;
    }
    cControlAccess again = cControlAccess::None();
    if (!again.Parse(policy.ToString()) || again.ToString() != policy.ToString())
        std::abort();
    // The same verdict for a few addresses from both.
    for (uint32_t ip : {0x7F000001u, 0xC0000201u, 0u, 0xFFFFFFFFu,
                        size >= 4 ? uint32_t(data[0]) << 24 | data[1] << 16 | data[2] << 8 | data[3] : 1u}) {
        const cSocketAddr peer(ip, 1);
        if (policy.Allows(peer) != again.Allows(peer))
            std::abort();
    }
    return 0;
}
