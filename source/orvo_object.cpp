#define ORVO_SOURCE "orvo_object"
#include "orvo_object.h"

#include <cstdio>
#include <cstdlib>

namespace orvo {

void AssertFailed(const char* expr, const char* family, const char* function)
{
    std::fprintf(stderr, "orvo assertion failed: %s (%s: %s)\n", expr, family, function);
    std::fflush(stderr);
    std::abort();
}

std::string cObject::ToString() const
{
    return "name=" + m_ObjName;
}

}  // namespace orvo
