// Checks the data model the build really targets and that a program linked
// against liborvo starts on it. The 32-bit ARM build defines
// ORVO_EXPECT_ILP32: there long, pointers and time_t are 4 bytes, and the
// byte formats of the library must not depend on that.
#include <climits>
#include <cstdio>
#include <ctime>

#include "orvo_object.h"

#if defined(ORVO_EXPECT_ILP32)
static_assert(sizeof(long) == 4, "32-bit ARM: long must be 4 bytes");
static_assert(sizeof(void*) == 4, "32-bit ARM: pointers must be 4 bytes");
static_assert(sizeof(time_t) == 4, "32-bit ARM: time_t must be 4 bytes");
static_assert(sizeof(long long) == 8, "long long must be 8 bytes");
#if !defined(__arm__)
#error "the ARM build does not target ARM"
#endif
#endif

int main()
{
    std::printf("sizeof(long)=%u sizeof(void*)=%u sizeof(time_t)=%u\n",
                static_cast<unsigned>(sizeof(long)), static_cast<unsigned>(sizeof(void*)),
                static_cast<unsigned>(sizeof(time_t)));
    orvo::cObject object;
    object.SetObjName("platform");
    if (object.ToString() != "name=platform") {
        std::printf("liborvo: unexpected cObject::ToString() \"%s\"\n", object.ToString().c_str());
        return 1;
    }
#if defined(ORVO_EXPECT_ILP32)
    // Same facts at run time, as the emulated machine reports them.
    volatile long probe = LONG_MAX;
    if (static_cast<unsigned long>(probe) != 0x7FFFFFFFul)
        return 1;
#endif
    return 0;
}
