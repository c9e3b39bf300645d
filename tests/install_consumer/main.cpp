// A program outside the tree, built against an installed liborvo.
#include <orvo.h>

#include <cstdio>

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
