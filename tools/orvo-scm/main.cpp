// orvo-scm - a development service control manager: services register with
// it, get their configuration from a JSON file, find each other by
// technology, answer its watchdog and store records; it starts the services
// the file lists and restarts them. See docs/orvo-scm.md.
#include <cstdio>

#include <orvo_init.h>
#include <orvo_record.h>
#include <orvo_trace.h>

#include "scm_server.h"
#include "tool_args.h"

using namespace orvo;

namespace {

tArg gArgs[] = {
    {nullptr, "#orvo-scm: development service control manager", nullptr, nullptr},
    {"-config", "JSON file with the services (required)", nullptr, OnArg_Text},
    {"-listen", "address the services connect to", "127.0.0.1:47000", OnArg_Text},
    {"-store", "file of the records services store", "orvo-scm.records", OnArg_Text},
    {"-wdt-ms", "watchdog trigger period in ms", "5000", OnArg_Int},
    {"-poll-ms", "how often the JSON file is checked for changes, ms", "1000", OnArg_Int},
    {"-restart-ms", "delay before a service that ended is started again, ms", "1000", OnArg_Int},
    {"-shared-tech", "a technology may be offered by several services", nullptr, OnArg_Bool},
    {"-only-children", "registrations only from the services it started", nullptr, OnArg_Bool},
    {"-control-access", "who may send orvo-scm control messages (any, loopback, none, or a list)",
     "loopback", OnArg_Text},
    {"-idle-timeout-ms", "close a connection that owes progress (part of a frame, no frame, answers "
     "not taken) for this long, ms; 0: never", "0", OnArg_Int},
    {"-debug", "trace library internals too", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

unsigned long Positive(const char* key, unsigned long fallback)
{
    const int v = GetConfig()->GetFirstPar(key).GetSInt();
    return v > 0 ? static_cast<unsigned long>(v) : fallback;
}

}  // namespace

int main(int argc, char** argv)
{
    if (!orvo_tools::CheckOptions("orvo-scm", gArgs, argc, argv))
        return 2;
    orvoInit(WARNING, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    const cRecord& config = *GetConfig();
    orvo_scm::tScmOptions options;
    options.configPath = config.GetFirstPar("config").GetString();
    options.listen = config.GetFirstPar("listen").GetString();
    options.storePath = config.GetFirstPar("store").GetString();
    options.wdtPeriodMs = Positive("wdt-ms", options.wdtPeriodMs);
    options.pollMs = Positive("poll-ms", options.pollMs);
    options.restartDelayMs = Positive("restart-ms", options.restartDelayMs);
    options.sharedTech = config.GetFirstPar("shared-tech").GetBool();
    options.onlyChildren = config.GetFirstPar("only-children").GetBool();
    options.controlAccess = config.GetFirstPar("control-access").GetString();
    const int idleMs = config.GetFirstPar("idle-timeout-ms").GetSInt();
    if (idleMs < 0) {
        std::fprintf(stderr, "orvo-scm: -idle-timeout-ms wants milliseconds, 0 for never\n");
        return 2;
    }
    options.idleTimeoutMs = static_cast<unsigned long>(idleMs);
    if (config.GetFirstPar("debug").GetBool())
        SetTraceLevel(UnitORVO, DEBUG);
    if (options.configPath.empty()) {
        std::fprintf(stderr, "orvo-scm: -config <file.json> is required (-h lists the options)\n");
        return 2;
    }
    int status = 0;
    {
        orvo_scm::cScmServer server(options);
        status = server.Run();
    }
    orvoDeinit();
    return status;
}
