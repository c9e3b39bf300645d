// A program that transfers: links liborvo-wan (pkg-config orvo-wan, CMake
// orvo::wan) and starts libcurl through orvoInit.
#include <orvo.h>
#include <orvo_wan.h>

int main()
{
    orvo::orvoInit(orvo::ERROR, orvo::OUTPUT_NONE, false);
    orvo::tWanRequest req;                     // no url: refused without a transfer
    int rc = orvo::wanGlobalInit() ? 0 : 1;
    {
        orvo::cService* none = nullptr;
        orvo::cWanClient wan(none);
        if (wan.Start(req) != 0)
            rc = 2;
    }
    return rc;
}
