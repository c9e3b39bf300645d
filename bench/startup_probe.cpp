// A service that starts and ends at its first GetMessage: orvoInit, Init of
// the service, one message posted to itself and handed out. Built twice by
// bench/CMakeLists.txt: startup_probe links liborvo only, startup_probe_wan
// links the transfer library too (libcurl mapped and started by orvoInit, as
// every program did when liborvo itself linked libcurl). "--maps" prints the
// shared objects mapped at that point.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "orvo.h"
#ifdef PROBE_WAN
#include "orvo_wan.h"
#endif

namespace {
struct cProbe : orvo::cService {
    void ThreadMain() override {}
};
}  // namespace

int main(int argc, char** argv)
{
#ifdef PROBE_WAN
    volatile auto keep = &orvo::wanGlobalInit;   // the program uses the transfer library
    (void)keep;
#endif
    orvo::orvoInit(orvo::ERROR, orvo::OUTPUT_NONE, false);
    cProbe svc;
    svc.Init("probe", orvo::cSocketAddr("127.0.0.1", 0));
    orvo::cMsg hello(0x6001);
    svc.SendToInternal(&svc, hello);
    orvo::cMsg msg;
    if (!svc.GetMessage(msg) || msg.GetType() != 0x6001)
        return 1;
    if (argc > 1 && strcmp(argv[1], "--maps") == 0) {
        std::ifstream maps("/proc/self/maps");
        std::set<std::string> libs;
        std::string line;
        while (std::getline(maps, line)) {
            size_t slash = line.find('/');
            if (slash != std::string::npos && line.find(".so", slash) != std::string::npos)
                libs.insert(line.substr(line.rfind('/') + 1));
        }
        printf("%zu", libs.size());
        for (const std::string& l : libs)
            printf(" %s", l.c_str());
        printf("\n");
    }
    fflush(stdout);
    _exit(0);   // the measurement ends at the first message, not at orvoDeinit's linger
}
