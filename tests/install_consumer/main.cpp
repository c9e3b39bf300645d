// A program outside the tree, built against an installed liborvo.
#include <orvo.h>

#include <cstdio>

// Built a second time with -DDEBUG=1, as many projects do: the header must
// still compile, and the level stays reachable under its other name.
#ifdef DEBUG
static_assert(DEBUG == 1, "the program's own DEBUG macro survives the header");
static_assert(orvo::LEVEL_DEBUG == 16, "the trace level keeps its value");
#endif

int main()
{
    orvo::cObject object;
    object.SetObjName("consumer");
    object.SetDeleteAfterClose(true);
    if (object.ToString() != "name=consumer" || !object.GetDeleteAfterClose()) {
        std::printf("install consumer: unexpected cObject state \"%s\"\n", object.ToString().c_str());
        return 1;
    }
    std::printf("install consumer: %s\n", object.ToString().c_str());
    return 0;
}
