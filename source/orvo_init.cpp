#define ORVO_SOURCE "orvo_init"
#include "orvo_init.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "orvo_hooks.h"
#include "orvo_record.h"
#include "orvo_sharedmem.h"
#include "tesk.h"

namespace orvo {

namespace hooks {
tServiceInitGlobal ServiceInitGlobal = nullptr;
tWanGlobal WanInit = nullptr;
tWanGlobal WanDeinit = nullptr;
}  // namespace hooks

namespace {

cRecord* gConfig = nullptr;

// Built on first use, so a trace from another file's static initialiser
// already sees "unknown".
std::string& ExeName()
{
    static std::string name("unknown");
    return name;
}

const int kArgFlags = 32;   // marks values from defaults or the command line

// libcurl's process-wide state lives in the transfer library: only a
// process that loaded it starts and ends libcurl.
void curlInit()
{
    if (hooks::WanInit)
        hooks::WanInit();
}

void curlDeinit()
{
    if (hooks::WanDeinit)
        hooks::WanDeinit();
}

}  // namespace

void orvoSetTransferHooks(void (*init)(), void (*deinit)())
{
    hooks::WanInit = init;
    hooks::WanDeinit = deinit;
}

namespace {

bool IsEndRow(const tArg& row)
{
    return row.name == nullptr && row.description == nullptr && row.def == nullptr &&
           row.handler == nullptr;
}

// The last path component of argv[0], cut at its first '.', without leading
// non-alphanumeric characters. The first character is never taken as a
// separator, so "/" alone stays "/" until the final skip empties it.
std::string ShortExeName(const char* path)
{
    const size_t len = std::strlen(path);
    size_t start = 0;
    for (size_t i = len; i-- > 1;) {
        if (path[i] == '/' || path[i] == '\\') {
            start = i + 1;
            break;
        }
    }
    std::string name(path + start);
    const size_t dot = name.find('.');
    if (dot != std::string::npos)
        name.resize(dot);
    size_t skip = 0;
    while (skip < name.size() && !std::isalnum(static_cast<unsigned char>(name[skip])))
        ++skip;
    return name.substr(skip);
}

void PrintHelp(const tArg* table)
{
    for (const tArg* row = table; row->name != nullptr || row->description != nullptr; ++row) {
        const char* desc = row->description != nullptr ? row->description : "";
        if (row->name != nullptr) {
            if (row->def != nullptr)
                std::printf("  %-10s\t%s (default=%s)\n", row->name, desc, row->def);
            else
                std::printf("  %-10s\t%s\n", row->name, desc);
        } else if (row->def != nullptr) {
            if (desc[0] == '#')
                std::printf("%s (default=%s)\n", desc + 1, row->def);
            else
                std::printf("  %-10s\t%s (default=%s)\n", " ", desc, row->def);
        } else {
            if (desc[0] == '#')
                std::puts(desc + 1);
            else
                std::printf("  %-10s\t%s\n", " ", desc);
        }
    }
}

}  // namespace

bool orvoInit(eLEVEL level, eOUTPUT output, bool resolveHw)
{
    delete gConfig;
    gConfig = new cRecord();

    UnitORVO->SetObjName("orvo");
    UnitDefault->SetObjName("default");

    std::srand(static_cast<unsigned>(std::time(nullptr)));

    // cService::InitGlobal(): installed by the service family.
    if (hooks::ServiceInitGlobal != nullptr)
        hooks::ServiceInitGlobal();

    SetTraceLevel(UnitORVO, level);
    SetTraceOut(UnitORVO, output);

    cRecord trace;
    trace.AppendBoolPar("log-scm", true, 0);
    if (mUnits != nullptr) {
        for (const auto& entry : *mUnits) {
            cRecord unit;
            unit.AppendTextPar("trace-level", GetTraceLevelTxt(entry.second->GetLevel()), 0);
            trace.AppendRecordPar(entry.second->GetObjName().c_str(), unit, 0);
        }
    }
    gConfig->AppendRecordPar("trace", trace, 0);

    if (resolveHw) {
        static const char* const kInterfaces[] = {"eth0", "eth1", "eth2", "eth3"};
        bool found = false;
        const char* tried = "";
        for (const char* name : kInterfaces) {
            tried = name;
            tIfConf ifc;
            ifc.name = name;
            if (GetIfConfByName(ifc)) {
                cUuid::SetMacAddr(ifc.hwaddr);
                found = true;
                break;
            }
        }
        if (!found)
            ORVO_TRACE(UnitORVO, ERROR, FormatString("Can't resolved ifconfig from %s", tried));
    }

    curlInit();
    return true;
}

bool orvoDeinit()
{
    CloseSharedCells();
    ClearTraceUnits();
    ClearMessageTxtFunc();
    delete gConfig;
    gConfig = nullptr;
    curlDeinit();
    // Lingers so that output still on its way (sockets, pipes) can drain.
    Sleep(1000);
    return true;
}

void orvoParseArgs(tArg* table, int argc, char** argv)
{
    static tArg kEmpty[] = {{nullptr, nullptr, nullptr, nullptr}};
    if (table == nullptr)
        table = kEmpty;

    if (argc > 0 && argv != nullptr && argv[0] != nullptr)
        ExeName() = ShortExeName(argv[0]);

    if (argc > 1 && argv[1] != nullptr &&
        (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "-?") == 0)) {
        PrintHelp(table);
        std::exit(0);
    }

    cRecord& config = *GetConfig();
    for (const tArg* row = table; !IsEndRow(*row); ++row) {
        if (row->name != nullptr && row->handler != nullptr)
            row->handler(config, row->name + 1, row->def);
    }

    if (argc > 1 && argv != nullptr) {
        int positional = 0;
        for (int i = 1; i < argc; ++i) {
            const char* word = argv[i];
            if (word == nullptr)
                continue;
            if (word[0] != '-') {
                config.AppendTextPar(FormatString("arg_%i", positional).c_str(), word, kArgFlags);
                ++positional;
                continue;
            }
            // A value never starts with "-": "-port -5" gives port an empty
            // value and makes -5 an option of its own.
            const char* value = "";
            if (i + 1 < argc && argv[i + 1] != nullptr && argv[i + 1][0] != '-') {
                value = argv[i + 1];
                ++i;
            }
            for (const tArg* row = table; !IsEndRow(*row); ++row) {
                if (row->handler != nullptr && row->name != nullptr &&
                    std::strcmp(row->name, word) == 0) {
                    row->handler(config, word + 1, value);
                    break;
                }
            }
        }
    }

    if (config.GetFirstPar("log-stdout").GetBool() && mUnits != nullptr) {
        for (auto& entry : *mUnits)
            SetTraceOut(entry.second, OUTPUT_STDOUT);
    }
}

void OnArg_Bool(cRecord& config, const char* key, const char* value)
{
    if (key == nullptr || value == nullptr)
        return;
    if (value[0] == '\0' || std::strcmp(value, "1") == 0 || std::strcmp(value, "true") == 0 ||
        std::strcmp(value, "TRUE") == 0)
        config.SetBoolPar(key, true, kArgFlags);
    else if (std::strcmp(value, "0") == 0 || std::strcmp(value, "false") == 0 ||
             std::strcmp(value, "FALSE") == 0)
        config.SetBoolPar(key, false, kArgFlags);
}

void OnArg_Int(cRecord& config, const char* key, const char* value)
{
    if (key == nullptr || value == nullptr)
        return;
    if (value[0] == '\0')
        config.SetEmtpyPar(key, kArgFlags);
    else
        config.SetSIntPar(key, std::atoi(value), kArgFlags);
}

void OnArg_Text(cRecord& config, const char* key, const char* value)
{
    if (key == nullptr || value == nullptr)
        return;
    if (value[0] == '\0')
        config.SetEmtpyPar(key, kArgFlags);
    else
        config.SetTextPar(key, value, kArgFlags);
}

cRecord* GetConfig()
{
    if (gConfig == nullptr)
        gConfig = new cRecord();
    return gConfig;
}

const std::string& GetExeName()
{
    return ExeName();
}

const char* GetOrvoVersion()
{
    return "3.20";
}

int GetPid()
{
    return static_cast<int>(::getpid());
}

void Sleep(unsigned long ms)
{
    ::usleep(static_cast<useconds_t>(1000 * ms));
}

bool GetIfConfByName(tIfConf& ifc)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        std::perror("socket() ");
        return false;
    }
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::strncpy(ifr.ifr_name, ifc.name.c_str(), 15);
    ifr.ifr_name[15] = '\0';

    // The failure paths below return without closing fd: a failed look-up
    // keeps its socket open, as this function has always behaved.
    if (::ioctl(fd, SIOCGIFADDR, &ifr) < 0) {
        std::perror("ioctl(SIOCGIFADDR) ");
        return false;
    }
    sockaddr_in in;
    std::memcpy(&in, &ifr.ifr_addr, sizeof in);
    ifc.address = cSocketAddr(in);

    if (::ioctl(fd, SIOCGIFNETMASK, &ifr) < 0) {
        std::perror("ioctl(SIOCGIFNETMASK) ");
        return false;
    }
    std::memcpy(&in, &ifr.ifr_netmask, sizeof in);
    ifc.netmask = cSocketAddr(in);

    if (::ioctl(fd, SIOCGIFHWADDR, &ifr) < 0) {
        std::perror("ioctl(SIOCGIFHWADDR) ");
        return false;
    }
    std::memcpy(ifc.hwaddr, ifr.ifr_hwaddr.sa_data, sizeof ifc.hwaddr);

    ::close(fd);
    return true;
}

}  // namespace orvo
