// orvo-ctl: the operator's command for liborvo devices. One command with
// subcommands; human output by default, --json for scripts. Exit status 0 on
// success, 1 on failure, 2 on a usage error.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include <orvo_blockfile.h>
#include <orvo_crc.h>
#include <orvo_sharedmem.h>
#include <orvo_init.h>
#include <orvo_record.h>
#include <orvo_recordpath.h>
#include <orvo_time.h>

#ifdef ORVO_CTL_TYPE_NAMES
#include <tesk.h>
#endif

#include "ctl_client.h"
#include "pcap_writer.h"
#include "scm_list.h"
#include "record_json.h"

using namespace orvo;
using orvo_tools::tJson;

namespace {

const char* const kVersion = "orvo-ctl " ORVO_CTL_VERSION;

enum { EXIT_OK = 0, EXIT_FAIL = 1, EXIT_USAGE = 2 };

volatile std::sig_atomic_t g_Stop = 0;
void OnSignal(int) { g_Stop = 1; }

const char* const kMainHelp =
    "Usage: orvo-ctl COMMAND [ARGUMENTS] [--json]\n"
    "Looks at and controls the services of a liborvo device.\n"
    "\n"
    "Commands:\n"
    "  journal FILE [--tail N] [--since TIME] [--verify] [--follow]\n"
    "                      print the blocks of a record or block file\n"
    "  eeprom [FILE]       decode the EEPROM pattern, checking every item's CRC\n"
    "  statusw [get | set BIT | clear BIT]\n"
    "                      read or change the status word\n"
    "  list                the services registered with the SCM\n"
    "  info SERVICE        the service information of a running service\n"
    "  config SERVICE [PATH]\n"
    "                      the configuration the SCM holds for a service\n"
    "  config SERVICE set PATH=VALUE\n"
    "                      change it through the SCM, showing old -> new\n"
    "  trace SERVICE [UNIT=LEVEL ...] [--follow]\n"
    "                      switch trace units on, print trace lines until Ctrl-C\n"
    "  snoop SERVICE [--type T ...] [--pcap FILE]\n"
    "                      watch the messages a service sends and receives\n"
    "  send SERVICE TYPE [RECORD-JSON] [--wait]\n"
    "                      send one message, optionally print its answer\n"
    "\n"
    "SERVICE is host:port (a service's sap) or a name looked up through the SCM.\n"
    "\n"
    "Options:\n"
    "  --scm ADDR          the SCM's address (default 127.0.0.1:47000)\n"
    "  --timeout MS        how long to wait for an answer (default 5000)\n"
    "  --json              machine-readable output (records in their JSON form)\n"
    "  -h, --help          this text; COMMAND --help describes one command\n"
    "  --version           the version\n"
    "\n"
    "Exit status: 0 on success, 1 on failure, 2 on a usage error.\n";

const char* const kJournalHelp =
    "Usage: orvo-ctl journal FILE [--tail N] [--since TIME] [--verify] [--follow] [--json]\n"
    "Prints the blocks of a record or block file, oldest first, with index,\n"
    "creation time (local time), bstime and the record in its text form. The\n"
    "file is opened read-only and never changed.\n"
    "\n"
    "  --tail N      only the newest N blocks\n"
    "  --since TIME  only blocks created at or after TIME: \"YYYY-MM-DD hh:mm:ss\"\n"
    "                (local time) or @SECONDS since the epoch\n"
    "  --verify      check every block's CRC and the chain; names the first\n"
    "                damaged block and exits with 1 when the file is damaged\n"
    "  --follow      keep printing blocks as they are appended, until Ctrl-C\n";

int Usage(const std::string& message)
{
    std::fprintf(stderr, "orvo-ctl: %s (orvo-ctl --help lists the commands)\n", message.c_str());
    return EXIT_USAGE;
}

std::string LocalTime(long long ms)
{
    time_t sec = static_cast<time_t>(ms / 1000);
    struct tm tm;
    localtime_r(&sec, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    char out[80];
    std::snprintf(out, sizeof out, "%s.%03lld", buf, ms % 1000);
    return out;
}

// "YYYY-MM-DD hh:mm:ss" in local time, "YYYY-MM-DD", or "@seconds".
bool ParseTime(const std::string& text, long long& ms)
{
    if (!text.empty() && text[0] == '@') {
        char* end = nullptr;
        long long sec = std::strtoll(text.c_str() + 1, &end, 10);
        if (end == text.c_str() + 1 || *end)
            return false;
        ms = sec * 1000;
        return true;
    }
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm);
    if (!end || *end) {
        std::memset(&tm, 0, sizeof tm);
        end = strptime(text.c_str(), "%Y-%m-%d", &tm);
        if (!end || *end)
            return false;
    }
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    if (t == static_cast<time_t>(-1))
        return false;
    ms = static_cast<long long>(t) * 1000;
    return true;
}

bool ParseCount(const std::string& text, unsigned long& n)
{
    char* end = nullptr;
    if (text.empty() || text[0] == '-')
        return false;
    n = std::strtoul(text.c_str(), &end, 10);
    return *end == 0;
}

struct tJournalArgs {
    std::string file;
    bool tail = false;
    unsigned long tailCount = 0;
    bool since = false;
    long long sinceMs = 0;
    bool verify = false;
    bool follow = false;
    bool json = false;
};

// Prints one block; false when its CRC or position is bad.
bool PrintBlock(cBlockFile& file, unsigned long index, const tJournalArgs& a, tJson* jsonOut,
                std::string& error)
{
    void* data = nullptr;
    unsigned long size = 0;
    cTime ctime;
    unsigned long long bstime = 0;
    int rc = file.GetAt(index, data, size, ctime, bstime);
    if (rc != BLOCKFILE_OK && rc != BLOCKFILE_CRC_ERR) {
        error = "block " + std::to_string(index) + ": " + GetBlockFileErrorText(rc);
        return false;
    }
    long long ms = ctime.ToMilliSeconds();
    if (a.since && ms < a.sinceMs)
        return rc == BLOCKFILE_OK || ((error = "block " + std::to_string(index) + ": " +
                                                GetBlockFileErrorText(rc)), false);
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    if (jsonOut) {
        tJson j;
        j["index"] = index;
        j["ctime"] = ms;
        j["bstime"] = bstime;
        j["size"] = size;
        j["crc_ok"] = rc == BLOCKFILE_OK;
        j["record"] = orvo_tools::RecordBytesToJson(bytes, size);
        jsonOut->push_back(j);
    } else {
        cRecord record;
        std::string text;
        if (size > 0) {
            record.Create(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
            text = record.ToString();
        }
        std::printf("%6lu  %s  %12llu  %s%s\n", index, LocalTime(ms).c_str(), bstime,
                    rc == BLOCKFILE_OK ? "" : "[CRC ERROR] ", text.c_str());
    }
    if (rc != BLOCKFILE_OK) {
        error = "block " + std::to_string(index) + ": " + GetBlockFileErrorText(rc);
        return false;
    }
    return true;
}

int Journal(const std::vector<std::string>& args, bool json)
{
    tJournalArgs a;
    a.json = json;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& w = args[i];
        if (w == "--help" || w == "-h") {
            std::fputs(kJournalHelp, stdout);
            return EXIT_OK;
        } else if (w == "--tail" || w == "--since") {
            if (i + 1 >= args.size())
                return Usage("journal: " + w + " needs a value");
            const std::string& v = args[++i];
            if (w == "--tail") {
                a.tail = true;
                if (!ParseCount(v, a.tailCount))
                    return Usage("journal: --tail wants a count, not '" + v + "'");
            } else {
                a.since = true;
                if (!ParseTime(v, a.sinceMs))
                    return Usage("journal: --since wants \"YYYY-MM-DD hh:mm:ss\" or @SECONDS, not '" + v + "'");
            }
        } else if (w == "--verify") {
            a.verify = true;
        } else if (w == "--follow") {
            a.follow = true;
        } else if (!w.empty() && w[0] == '-') {
            return Usage("journal: unknown option '" + w + "'");
        } else if (a.file.empty()) {
            a.file = w;
        } else {
            return Usage("journal: one FILE only");
        }
    }
    if (a.file.empty())
        return Usage("journal: FILE missing");

    cBlockFile file;
    if (!file.OpenReadOnly(a.file)) {
        std::fprintf(stderr, "orvo-ctl: cannot read journal %s%s%s\n", a.file.c_str(),
                     file.GetDamage().empty() ? "" : ": ", file.GetDamage().c_str());
        return EXIT_FAIL;
    }
    unsigned long count = file.Count();
    unsigned long first = a.tail && a.tailCount < count ? count - a.tailCount : 0;
    tJson blocks = tJson::array();
    std::vector<std::string> damage;
    if (!json && !a.verify)
        std::printf("%6s  %-23s  %12s  %s\n", "INDEX", "CREATED", "BSTIME", "RECORD");
    for (unsigned long i = a.verify ? 0 : first; i < count; ++i) {
        std::string error;
        bool show = i >= first && !a.verify;
        if (show) {
            if (!PrintBlock(file, i, a, json ? &blocks : nullptr, error))
                damage.push_back(error);
        } else {
            void* data;
            unsigned long size;
            cTime ctime;
            unsigned long long bstime;
            int rc = file.GetAt(i, data, size, ctime, bstime);
            if (rc != BLOCKFILE_OK)
                damage.push_back("block " + std::to_string(i) + ": " + GetBlockFileErrorText(rc));
        }
    }
    if (!file.GetDamage().empty())
        damage.push_back(file.GetDamage());

    if (a.verify) {
        if (json) {
            tJson out;
            out["file"] = a.file;
            out["blocks"] = count;
            out["ok"] = damage.empty();
            out["damage"] = damage;
            std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
        } else if (damage.empty()) {
            std::printf("%s: %lu blocks, every CRC and the chain intact\n", a.file.c_str(), count);
        } else {
            std::printf("%s: %lu readable blocks, DAMAGED\n", a.file.c_str(), count);
            for (const auto& d : damage)
                std::printf("  %s\n", d.c_str());
        }
        return damage.empty() ? EXIT_OK : EXIT_FAIL;
    }
    if (json) {
        tJson out;
        out["file"] = a.file;
        out["count"] = count;
        out["blocks"] = blocks;
        out["damage"] = damage;
        std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
    } else {
        for (const auto& d : damage)
            std::fprintf(stderr, "orvo-ctl: %s: %s\n", a.file.c_str(), d.c_str());
    }
    std::fflush(stdout);
    if (!a.follow)
        return damage.empty() ? EXIT_OK : EXIT_FAIL;

    // Follow: reread the file and print what was appended since.
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    long long lastMs = 0;
    {
        void* data; unsigned long size; cTime ct; unsigned long long bs;
        if (count > 0 && file.GetAt(count - 1, data, size, ct, bs) != BLOCKFILE_INVALID)
            lastMs = ct.ToMilliSeconds();
    }
    unsigned long lastCount = count;
    while (!g_Stop) {
        usleep(300 * 1000);
        cBlockFile again;
        if (!again.OpenReadOnly(a.file))
            continue;
        unsigned long n = again.Count();
        // A ring keeps its count: new blocks are those created after the last one printed.
        unsigned long start = n > lastCount ? lastCount : n;
        while (start > 0) {
            void* data; unsigned long size; cTime ct; unsigned long long bs;
            if (again.GetAt(start - 1, data, size, ct, bs) == BLOCKFILE_INVALID ||
                ct.ToMilliSeconds() <= lastMs)
                break;
            --start;
        }
        for (unsigned long i = start; i < n; ++i) {
            tJson one = tJson::array();
            std::string error;
            PrintBlock(again, i, a, json ? &one : nullptr, error);
            if (json && !one.empty())
                std::printf("%s\n", one[0].dump(-1, ' ', false, tJson::error_handler_t::replace).c_str());
            void* data; unsigned long size; cTime ct; unsigned long long bs;
            if (again.GetAt(i, data, size, ct, bs) != BLOCKFILE_INVALID)
                lastMs = ct.ToMilliSeconds();
        }
        lastCount = n;
        std::fflush(stdout);
    }
    return EXIT_OK;
}

const char* const kEepromHelp =
    "Usage: orvo-ctl eeprom [FILE] [--json]\n"
    "Decodes the EEPROM pattern item by item and checks each item's CRC. FILE\n"
    "defaults to $ORVO_EEPROM_DEVICE, then /dev/eeprom0. Exits with 1 when an\n"
    "item's CRC does not match or the device cannot be read.\n";

const char* const kStatuswHelp =
    "Usage: orvo-ctl statusw [get | set BIT | clear BIT] [--json]\n"
    "Prints the status word (get, the default) or sets or clears one bit\n"
    "(0 to 63) and prints the new value.\n";

struct tEepromItem {
    const char* name;
    long offset;
    unsigned int size;
    bool integer;  // little-endian unsigned number, otherwise text
};

// The device's identity and counters: each item followed by its CRC.
const tEepromItem kEepromItems[] = {
    {"version", 0, 1, true},          {"osc", 3, 4, true},
    {"bootcount", 9, 4, true},        {"hardware-id", 15, 6, false},
    {"software-id", 23, 6, false},    {"serial-number", 31, 16, false},
    {"production-date", 49, 8, false}, {"hardware-version", 59, 5, false},
    {"mac-eth0", 66, 17, false},      {"mac-eth1", 85, 17, false},
    {"key", 104, 12, false},          {"flag", 118, 3, false},
    {"oem", 123, 48, false},          {"wbus-address", 173, 16, false},
    {"password-hash", 191, 32, false},
};

int Eeprom(const std::vector<std::string>& args, bool json)
{
    std::string path;
    for (const auto& w : args) {
        if (w == "--help" || w == "-h") {
            std::fputs(kEepromHelp, stdout);
            return EXIT_OK;
        }
        if (!w.empty() && w[0] == '-')
            return Usage("eeprom: unknown option '" + w + "'");
        if (!path.empty())
            return Usage("eeprom: one FILE only");
        path = w;
    }
    if (path.empty()) {
        const char* env = std::getenv("ORVO_EEPROM_DEVICE");
        path = env && *env ? env : "/dev/eeprom0";
    }
    unsigned char image[512];
    int fd = open(path.c_str(), O_RDONLY);
    ssize_t got = fd < 0 ? -1 : pread(fd, image, sizeof image, 0);
    if (fd >= 0)
        close(fd);
    if (got != static_cast<ssize_t>(sizeof image)) {
        std::fprintf(stderr, "orvo-ctl: cannot read 512 bytes of EEPROM %s: %s\n", path.c_str(),
                     got < 0 ? std::strerror(errno) : "file too short");
        return EXIT_FAIL;
    }
    tJson items = tJson::array();
    int bad = 0;
    if (!json)
        std::printf("%-17s %6s %4s  %-4s %s\n", "ITEM", "OFFSET", "SIZE", "CRC", "VALUE");
    for (const auto& it : kEepromItems) {
        const char* p = reinterpret_cast<const char*>(image + it.offset);
        bool crcOk = verifyCRC16(p, static_cast<int>(it.size + 2));
        bad += crcOk ? 0 : 1;
        std::string text;
        unsigned long long number = 0;
        if (it.integer) {
            for (unsigned int i = it.size; i-- > 0;)
                number = number << 8 | image[it.offset + i];
            text = std::to_string(number);
        } else {
            // Unwritten items are 0xFF: printable characters only, the
            // bytes themselves go to --json as hexadecimal.
            for (size_t i = 0; i < strnlen(p, it.size); ++i)
                text += p[i] >= 0x20 && p[i] < 0x7F ? p[i] : '?';
        }
        if (json) {
            tJson j;
            j["item"] = it.name;
            j["offset"] = it.offset;
            j["size"] = it.size;
            j["crc_ok"] = crcOk;
            char hex[3];
            std::string bytes;
            for (unsigned int i = 0; i < it.size; ++i) {
                std::snprintf(hex, sizeof hex, "%02x", image[it.offset + i]);
                bytes += hex;
            }
            j["hex"] = bytes;
            if (it.integer)
                j["value"] = number;
            else
                j["value"] = text;
            items.push_back(j);
        } else {
            std::printf("%-17s %6ld %4u  %-4s %s\n", it.name, it.offset, it.size,
                        crcOk ? "ok" : "BAD", text.c_str());
        }
    }
    if (json) {
        tJson out;
        out["device"] = path;
        out["ok"] = bad == 0;
        out["items"] = items;
        std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
    } else if (bad) {
        std::printf("%d item(s) with a bad CRC\n", bad);
    }
    return bad ? EXIT_FAIL : EXIT_OK;
}

int Statusw(const std::vector<std::string>& args, bool json)
{
    for (const auto& w : args)
        if (w == "--help" || w == "-h") {
            std::fputs(kStatuswHelp, stdout);
            return EXIT_OK;
        }
    std::string action = args.empty() ? "get" : args[0];
    unsigned long bit = 0;
    if (action == "get") {
        if (args.size() > 1)
            return Usage("statusw: get takes no argument");
    } else if (action == "set" || action == "clear") {
        if (args.size() != 2 || !ParseCount(args[1], bit) || bit > 63)
            return Usage("statusw: " + action + " wants one BIT from 0 to 63");
    } else {
        return Usage("statusw: unknown action '" + action + "'");
    }
    if (action != "get") {
        unsigned long long mask = 1ULL << bit;
        bool ok = action == "set" ? ModifyStatusW(mask, ~0ULL) : ModifyStatusW(0, ~mask);
        if (!ok) {
            std::fprintf(stderr, "orvo-ctl: cannot open the status word\n");
            return EXIT_FAIL;
        }
    }
    unsigned long long value = GetStatusW();
    if (json) {
        tJson out;
        out["statusw"] = value;
        tJson bits = tJson::array();
        for (int i = 0; i < 64; ++i)
            if (value >> i & 1)
                bits.push_back(i);
        out["bits"] = bits;
        std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
    } else {
        std::printf("statusw 0x%016llx", value);
        const char* sep = "  bits:";
        for (int i = 0; i < 64; ++i)
            if (value >> i & 1) {
                std::printf("%s %d", sep, i);
                sep = ",";
            }
        std::printf("\n");
    }
    return EXIT_OK;
}

const char* const kInfoHelp =
    "Usage: orvo-ctl info SERVICE [--scm ADDR] [--timeout MS] [--json]\n"
    "Asks a running service for its information (name, sap, service id, trace\n"
    "units and configuration). SERVICE is host:port or a name the SCM knows.\n";

struct tNetOptions {
    std::string scm = "127.0.0.1:47000";
    int timeoutMs = 5000;
};

// The sap "host:port" of service: itself when it has a colon, otherwise what
// the SCM answers for the name. Prints the reason and returns false.
bool ResolveService(const std::string& service, const tNetOptions& net, std::string& sap)
{
    if (service.find(':') != std::string::npos) {
        sap = service;
        return true;
    }
    orvo_ctl::cCtlClient scm;
    std::string error;
    if (!scm.Connect(net.scm, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: the SCM at %s is not reachable: %s\n", net.scm.c_str(), error.c_str());
        return false;
    }
    cMsg request = orvo_ctl::Request(0x10018);
    request.GetRecord().AppendTextPar("service-name", service);
    cMsg answer;
    bool timedOut = false;
    if (!scm.Send(request) || !scm.ReceiveAnswer(answer, request.GetTid(), net.timeoutMs, timedOut)) {
        if (timedOut)
            std::fprintf(stderr, "orvo-ctl: the SCM at %s did not answer within %d ms\n", net.scm.c_str(), net.timeoutMs);
        else
            std::fprintf(stderr, "orvo-ctl: the SCM at %s closed the connection\n", net.scm.c_str());
        return false;
    }
    if (answer.GetType() != 0x10019) {
        std::fprintf(stderr, "orvo-ctl: unknown service '%s'\n", service.c_str());
        return false;
    }
    cRecord entry;
    answer.GetRecord().GetFirstPar("service", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(entry);
    sap = entry.GetFirstPar("sap").GetString();
    // Port 0: the service could not bind its sap and listens nowhere.
    if (sap.find(':') == std::string::npos || sap.compare(sap.rfind(':'), std::string::npos, ":0") == 0) {
        std::fprintf(stderr, "orvo-ctl: the SCM knows no sap for '%s'\n", service.c_str());
        return false;
    }
    return true;
}

// Takes --scm and --timeout out of args; false on a usage error (printed).
bool TakeNetOptions(std::vector<std::string>& args, tNetOptions& net, const char* command)
{
    for (size_t i = 0; i < args.size();) {
        if (args[i] != "--scm" && args[i] != "--timeout") {
            ++i;
            continue;
        }
        if (i + 1 >= args.size()) {
            Usage(std::string(command) + ": " + args[i] + " needs a value");
            return false;
        }
        if (args[i] == "--scm") {
            net.scm = args[i + 1];
        } else {
            unsigned long ms = 0;
            if (!ParseCount(args[i + 1], ms) || ms == 0 || ms > 3600000) {
                Usage(std::string(command) + ": --timeout wants milliseconds, not '" + args[i + 1] + "'");
                return false;
            }
            net.timeoutMs = static_cast<int>(ms);
        }
        args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
    }
    return true;
}

// Sends request on client (unless it went already) and waits for the answer
// with its tid, of type want (0: any). On failure says why on standard error
// ("<who> did not answer within N ms", or "<who> <what>") and returns false.
bool Ask(orvo_ctl::cCtlClient& client, cMsg& request, unsigned long want, int timeoutMs,
         const std::string& who, const char* what, cMsg& answer, bool sent = false)
{
    bool timedOut = false;
    if ((sent || client.Send(request)) && client.ReceiveAnswer(answer, request.GetTid(), timeoutMs, timedOut) &&
        (want == 0 || answer.GetType() == want))
        return true;
    std::fprintf(stderr, "orvo-ctl: %s %s\n", who.c_str(),
                 timedOut ? ("did not answer within " + std::to_string(timeoutMs) + " ms").c_str() : what);
    return false;
}

// An answer in JSON: {"type": "0x...", ["tid": ...,] "record": {...}}.
void PrintJsonAnswer(const char* type, const cRecord& record, const std::string& tid = "")
{
    tJson out;
    out["type"] = type;
    if (!tid.empty())
        out["tid"] = tid;
    out["record"] = orvo_tools::RecordToJson(record);
    std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
}

// Hands the record of every message of type that arrives on client to show
// until Ctrl-C or SIGTERM (true) or until the service closes the connection
// or show returns false (false, said on standard error by then).
bool Follow(orvo_ctl::cCtlClient& client, const std::string& sap, unsigned long type,
            const std::function<bool(const cRecord&)>& show)
{
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    while (!g_Stop) {
        cMsg msg;
        bool timedOut = false;
        if (!client.Receive(msg, 1000, timedOut)) {
            if (timedOut)
                continue;
            std::fprintf(stderr, "orvo-ctl: the service at %s closed the connection\n", sap.c_str());
            return false;
        }
        if (msg.GetType() == type && !show(msg.GetRecord()))
            return false;
    }
    return true;
}

// The command line of a subcommand that talks to a service or the SCM,
// split: "--help" or "-h" prints help; --scm and --timeout go to net; each
// word of flags is noted in flags when given; each word of valued takes the
// next word as its value (values, in order); any other word that begins with
// "-" is a usage error; the rest are words.
struct tCommandLine {
    tNetOptions net;
    std::vector<std::string> words;
    std::vector<std::string> flags;
    std::vector<std::pair<std::string, std::string>> values;
    bool Has(const char* flag) const
    {
        for (const auto& f : flags)
            if (f == flag)
                return true;
        return false;
    }
};

// -1 to go on, otherwise the exit status to return at once (EXIT_OK after
// the help, EXIT_USAGE after a usage error, printed).
int SplitCommandLine(std::vector<std::string> args, const char* command, const char* help,
                     const std::vector<std::string>& flags, const std::vector<std::string>& valued,
                     tCommandLine& line)
{
    for (const auto& w : args)
        if (w == "--help" || w == "-h") {
            std::fputs(help, stdout);
            return EXIT_OK;
        }
    if (!TakeNetOptions(args, line.net, command))
        return EXIT_USAGE;
    const auto known = [](const std::vector<std::string>& list, const std::string& w) {
        for (const auto& k : list)
            if (k == w)
                return true;
        return false;
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& w = args[i];
        if (known(flags, w)) {
            line.flags.push_back(w);
        } else if (known(valued, w)) {
            if (i + 1 >= args.size())
                return Usage(std::string(command) + ": " + w + " needs a value");
            line.values.emplace_back(w, args[++i]);
        } else if (w.size() > 1 && w[0] == '-') {
            return Usage(std::string(command) + ": unknown option '" + w + "'");
        } else {
            line.words.push_back(w);
        }
    }
    return -1;
}

int Info(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "info", kInfoHelp, {}, {}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    args = line.words;
    if (args.size() != 1)
        return Usage("info: one SERVICE wanted");
    std::string sap;
    if (!ResolveService(args[0], net, sap))
        return EXIT_FAIL;
    orvo_ctl::cCtlClient client;
    std::string error;
    if (!client.Connect(sap, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: %s\n", error.c_str());
        return EXIT_FAIL;
    }
    cMsg request = orvo_ctl::Request(0x7006);
    cMsg answer;
    if (!Ask(client, request, 0x7007, net.timeoutMs, "the service at " + sap, "gave no service information", answer))
        return EXIT_FAIL;
    const cRecord& r = answer.GetRecord();
    if (json) {
        PrintJsonAnswer("0x7007", r);
        return EXIT_OK;
    }
    // GetString copies: a formatted value lives in the (temporary) view.
    auto text = [&](const char* name) { return r.GetFirstPar(name).GetString(); };
    std::printf("%-11s %s\n", "name:", text("name").c_str());
    std::printf("%-11s %s\n", "sap:", text("sap").c_str());
    std::printf("%-11s %s\n", "service-id:", text("service-id").c_str());
    cRecord units, config;
    r.GetFirstPar("units", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(units);
    r.GetFirstPar("config", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(config);
    std::printf("\n%-24s %s\n", "UNIT", "LEVEL");
    for (cRecordPar u = units.GetFirstPar(); u.IsValid(); units.SeekNextPar(u)) {
        cRecord unit;
        u.GetRecord(unit);
        std::printf("%-24s %s\n", unit.GetFirstPar("name").GetString().c_str(),
                    unit.GetFirstPar("level").GetString().c_str());
    }
    std::printf("\nconfiguration:\n%s", config.ToString2(1).c_str());
    return EXIT_OK;
}

const char* const kListHelp =
    "Usage: orvo-ctl list [--scm ADDR] [--timeout MS] [--json]\n"
    "Lists the services registered with the SCM: name, pid, sap, state and\n"
    "technologies.\n";

int List(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "list", kListHelp, {}, {}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    if (!line.words.empty())
        return Usage("list: unexpected '" + line.words[0] + "'");
    orvo_ctl::cCtlClient scm;
    std::string error;
    if (!scm.Connect(net.scm, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: the SCM at %s is not reachable: %s\n", net.scm.c_str(), error.c_str());
        return EXIT_FAIL;
    }
    cMsg request = orvo_ctl::Request(orvo_scm::kMsgServiceListRequest);
    cMsg answer;
    if (!Ask(scm, request, orvo_scm::kMsgServiceListAnswer, net.timeoutMs, "the SCM at " + net.scm,
             "gave no service list", answer))
        return EXIT_FAIL;
    const cRecord& r = answer.GetRecord();
    if (json) {
        PrintJsonAnswer("0x10201", r);
        return EXIT_OK;
    }
    std::printf("%-20s %7s  %-21s %-12s %s\n", "NAME", "PID", "SAP", "STATE", "TECHNOLOGIES");
    cRecordPar p = r.GetFirstPar("service", RECORD_RECORD, RECORD_SEL_TYPE);
    for (bool ok = p.IsValid(); ok; ok = r.SeekNextPar(p, "service", RECORD_RECORD, RECORD_SEL_TYPE)) {
        cRecord s, tech;
        p.GetRecord(s);
        s.GetFirstPar("tech", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(tech);
        std::string techs;
        for (cRecordPar t = tech.GetFirstPar(); t.IsValid(); tech.SeekNextPar(t))
            techs += (techs.empty() ? "" : ",") + t.GetString();
        std::printf("%-20s %7s  %-21s %-12s %s\n", s.GetFirstPar("name").GetString().c_str(),
                    s.GetFirstPar("pid").GetString().c_str(), s.GetFirstPar("sap").GetString().c_str(),
                    s.GetFirstPar("state").GetString().c_str(), techs.c_str());
    }
    return EXIT_OK;
}

const char* const kSendHelp =
    "Usage: orvo-ctl send SERVICE TYPE [RECORD-JSON] [--wait] [--scm ADDR] [--timeout MS] [--json]\n"
    "Sends one message of TYPE (0x... or decimal) with a fresh transaction id\n"
    "and the record RECORD-JSON (its JSON form; empty when left out) to\n"
    "SERVICE. With --wait prints the answer with the same transaction id.\n"
    "A RECORD-JSON that is not a record's JSON form is a usage error (2).\n";

int Send(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "send", kSendHelp, {"--wait"}, {}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    const bool wait = line.Has("--wait");
    const std::vector<std::string>& words = line.words;
    if (words.size() < 2 || words.size() > 3)
        return Usage("send: SERVICE and TYPE wanted");
    char* end = nullptr;
    unsigned long type = std::strtoul(words[1].c_str(), &end, 0);
    if (words[1].empty() || *end || words[1][0] == '-')
        return Usage("send: TYPE '" + words[1] + "' is not a number");
    cMsg msg = orvo_ctl::Request(type);
    if (words.size() == 3) {
        tJson j;
        std::string error;
        if (!orvo_tools::ParseJson(words[2], j, error) || !orvo_tools::JsonToRecord(j, msg.GetRecord(), error))
            return Usage("send: RECORD-JSON: " + error);
    }
    std::string sap;
    if (!ResolveService(words[0], net, sap))
        return EXIT_FAIL;
    orvo_ctl::cCtlClient client;
    std::string error;
    if (!client.Connect(sap, net.timeoutMs, error) || !client.Send(msg)) {
        std::fprintf(stderr, "orvo-ctl: %s\n", error.empty() ? ("cannot send to " + sap).c_str() : error.c_str());
        return EXIT_FAIL;
    }
    const std::string tid = msg.GetTid().ToString();
    if (!wait) {
        if (json)
            std::printf("%s\n", tJson{{"tid", tid}}.dump(2).c_str());
        else
            std::printf("sent 0x%lx tid %s to %s\n", type, tid.c_str(), sap.c_str());
        return EXIT_OK;
    }
    cMsg answer;
    if (!Ask(client, msg, 0, net.timeoutMs, "the service at " + sap, "closed the connection without answering",
             answer, true))
        return EXIT_FAIL;
    char typeText[32];
    std::snprintf(typeText, sizeof typeText, "0x%lx", answer.GetType());
    if (json) {
        PrintJsonAnswer(typeText, answer.GetRecord(), tid);
    } else {
        std::printf("answer %s tid %s\n%s", typeText, tid.c_str(), answer.GetRecord().ToString2(1).c_str());
    }
    return EXIT_OK;
}

const char* const kConfigHelp =
    "Usage: orvo-ctl config SERVICE [PATH] [--scm ADDR] [--timeout MS] [--json]\n"
    "       orvo-ctl config SERVICE set PATH=VALUE [--scm ADDR] [--timeout MS] [--json]\n"
    "Prints the configuration the SCM holds for the registered service SERVICE,\n"
    "or only the element at PATH (names separated by '.').\n"
    "\n"
    "set changes the element at PATH through the SCM, which hands the service\n"
    "its new configuration, and prints PATH: OLD -> NEW once the service has\n"
    "taken it. VALUE is read as the element's type: text, uint, sint, uint64,\n"
    "sint64 or bool (true/false).\n";

// The configuration the SCM holds for the service called name.
bool FetchConfig(const std::string& name, const tNetOptions& net, cRecord& config)
{
    orvo_ctl::cCtlClient scm;
    std::string error;
    if (!scm.Connect(net.scm, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: the SCM at %s is not reachable: %s\n", net.scm.c_str(), error.c_str());
        return false;
    }
    cMsg request = orvo_ctl::Request(0x10003);
    request.GetRecord().AppendTextPar("service-name", name);
    request.GetRecord().AppendTextPar("path", "");
    cMsg answer;
    if (!Ask(scm, request, 0x10004, net.timeoutMs, "the SCM at " + net.scm, "gave no configuration", answer))
        return false;
    answer.GetRecord().GetFirstPar("config", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(config);
    return true;
}

// One element of type (as old has it) named name with value read from text;
// false when text is no value of that type or the type is not settable.
bool TypedElement(const cRecordPar& old, const std::string& name, const std::string& text, cRecord& out,
                  std::string& why)
{
    tJson element;
    element["name"] = name;
    element["type"] = old.GetTypeName();
    const int type = old.GetType();
    char* end = nullptr;
    errno = 0;
    if (type == RECORD_TEXT) {
        element["value"] = text;
    } else if (type == RECORD_BOOL) {
        if (text != "true" && text != "false") {
            why = "wants true or false";
            return false;
        }
        element["value"] = text == "true";
    } else if (type == RECORD_UINT || type == RECORD_UINT64) {
        const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        if (text.empty() || *end || text[0] == '-' || errno != 0) {
            why = "wants an unsigned number";
            return false;
        }
        element["value"] = v;
    } else if (type == RECORD_SINT || type == RECORD_SINT64) {
        const long long v = std::strtoll(text.c_str(), &end, 0);
        if (text.empty() || *end || errno != 0) {
            why = "wants a number";
            return false;
        }
        element["value"] = v;
    } else {
        why = std::string("is of type ") + old.GetTypeName() + ", which cannot be set from the command line";
        return false;
    }
    std::string error;
    if (!orvo_tools::JsonToRecord(tJson::array({element}), out, error)) {
        why = error;
        return false;
    }
    return true;
}

int ConfigSet(const std::string& service, const std::string& assignment, const tNetOptions& net, bool json)
{
    const size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0)
        return Usage("config: set wants PATH=VALUE, not '" + assignment + "'");
    const std::string path = assignment.substr(0, eq);
    const std::string value = assignment.substr(eq + 1);
    cRecord before;
    if (!FetchConfig(service, net, before))
        return EXIT_FAIL;
    const cRecordPar old = before.GetFirstParByPath(path.c_str(), ".");
    if (!old.IsValid()) {
        std::fprintf(stderr, "orvo-ctl: '%s' has no configuration element '%s'\n", service.c_str(), path.c_str());
        return EXIT_FAIL;
    }
    std::vector<std::string> levels;
    for (size_t from = 0;;) {
        const size_t dot = path.find('.', from);
        levels.push_back(path.substr(from, dot - from));
        if (dot == std::string::npos)
            break;
        from = dot + 1;
    }
    cRecord change;
    std::string why;
    if (!TypedElement(old, levels.back(), value, change, why))
        return Usage("config: '" + path + "' " + why);
    levels.pop_back();
    cRecordPath where;
    if (levels.empty())
        where.AddLevel(".", cRecord());
    for (const auto& level : levels)
        where.AddLevel(level.c_str(), cRecord());

    orvo_ctl::cCtlClient scm;
    std::string error;
    if (!scm.Connect(net.scm, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: the SCM at %s is not reachable: %s\n", net.scm.c_str(), error.c_str());
        return EXIT_FAIL;
    }
    cMsg request = orvo_ctl::Request(0x10015);
    request.GetRecord().AppendTextPar("service-name", service);
    request.GetRecord().AppendRecordPar("path", where.GetRecord());
    request.GetRecord().AppendRecordPar("config", change);
    cMsg answer;
    bool timedOut = false;
    if (!scm.Send(request) || !scm.ReceiveAnswer(answer, request.GetTid(), net.timeoutMs, timedOut)) {
        std::fprintf(stderr, "orvo-ctl: the SCM at %s %s\n", net.scm.c_str(),
                     timedOut ? ("did not confirm the change within " + std::to_string(net.timeoutMs) + " ms").c_str()
                              : "closed the connection");
        return EXIT_FAIL;
    }
    if (answer.GetType() != 0x10016) {
        const std::string reason = answer.GetRecord().GetFirstPar("reason").GetString();
        std::fprintf(stderr, "orvo-ctl: the change of '%s' was refused%s%s\n", path.c_str(),
                     reason.empty() ? "" : ": ", reason.c_str());
        return EXIT_FAIL;
    }
    cRecord after;
    if (!FetchConfig(service, net, after))
        return EXIT_FAIL;
    const cRecordPar now = after.GetFirstParByPath(path.c_str(), ".");
    if (json) {
        cRecord o, n;
        o.AppendPar(old, 0, 0);
        if (now.IsValid())
            n.AppendPar(now, 0, 0);
        tJson out;
        out["path"] = path;
        out["old"] = orvo_tools::RecordToJson(o)[0];
        out["new"] = now.IsValid() ? orvo_tools::RecordToJson(n)[0] : tJson();
        std::printf("%s\n", out.dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
    } else {
        std::printf("%s: %s -> %s\n", path.c_str(), old.GetString().c_str(), now.GetString().c_str());
    }
    return EXIT_OK;
}

int Config(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "config", kConfigHelp, {}, {}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    args = line.words;
    const bool set = args.size() >= 2 && args[1] == "set";
    if (args.empty() || (!set && args.size() > 2) || (set && args.size() != 3))
        return Usage("config: SERVICE [PATH] or SERVICE set PATH=VALUE wanted");
    if (args[0].find(':') != std::string::npos)
        return Usage("config: SERVICE must be a name the SCM knows");
    // The SCM answers configuration requests only for services it knows.
    std::string sap;
    if (!ResolveService(args[0], net, sap))
        return EXIT_FAIL;
    if (set)
        return ConfigSet(args[0], args[2], net, json);
    cRecord config;
    if (!FetchConfig(args[0], net, config))
        return EXIT_FAIL;
    cRecord shown = config;
    if (args.size() == 2) {
        cRecordPar at = config.GetFirstParByPath(args[1].c_str(), ".");
        if (!at.IsValid()) {
            std::fprintf(stderr, "orvo-ctl: '%s' has no configuration element '%s'\n", args[0].c_str(), args[1].c_str());
            return EXIT_FAIL;
        }
        shown = cRecord();
        shown.AppendPar(at, 0, 0);
    }
    if (json)
        std::printf("%s\n", orvo_tools::RecordToJson(shown).dump(2, ' ', false, tJson::error_handler_t::replace).c_str());
    else
        std::printf("%s", shown.ToString2().c_str());
    return EXIT_OK;
}

const char* const kTraceHelp =
    "Usage: orvo-ctl trace SERVICE [UNIT=LEVEL ...] [--follow] [--scm ADDR] [--timeout MS] [--json]\n"
    "Sets the trace level of each UNIT of a running service (LEVEL one of NONE,\n"
    "FATAL, ERROR, WARNING, INFO, DEBUG, SYSLOG, ALL) and prints the service's\n"
    "units and levels afterwards. With --follow it then prints the service's\n"
    "trace lines as they come (time, unit, level, text; --json: one object per\n"
    "line) until Ctrl-C, and on Ctrl-C switches every unit of the service off\n"
    "(NONE) again.\n";

const char* const kTraceLevels[] = {"NONE", "FATAL", "ERROR", "WARNING", "INFO", "DEBUG", "SYSLOG", "ALL"};

// Connects to the sap of service; prints the reason and returns false.
bool ConnectService(const std::string& service, const tNetOptions& net, orvo_ctl::cCtlClient& client,
                    std::string& sap)
{
    if (!ResolveService(service, net, sap))
        return false;
    std::string error;
    if (!client.Connect(sap, net.timeoutMs, error)) {
        std::fprintf(stderr, "orvo-ctl: %s\n", error.c_str());
        return false;
    }
    return true;
}

// Asks for the service information (0x7006) on an open connection; messages
// with other tids that arrive meanwhile are dropped.
bool AskServiceInfo(orvo_ctl::cCtlClient& client, const std::string& sap, int timeoutMs, cRecord& info)
{
    cMsg request = orvo_ctl::Request(0x7006);
    cMsg answer;
    if (!Ask(client, request, 0x7007, timeoutMs, "the service at " + sap, "gave no service information", answer))
        return false;
    info = answer.GetRecord();
    return true;
}

void PrintUnits(const cRecord& info, bool json)
{
    cRecord units;
    info.GetFirstPar("units", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(units);
    tJson out = tJson::object();
    if (!json)
        std::printf("%-24s %s\n", "UNIT", "LEVEL");
    for (cRecordPar u = units.GetFirstPar(); u.IsValid(); units.SeekNextPar(u)) {
        cRecord unit;
        u.GetRecord(unit);
        const std::string name = unit.GetFirstPar("name").GetString();
        const std::string level = unit.GetFirstPar("level").GetString();
        if (json)
            out[name] = level;
        else
            std::printf("%-24s %s\n", name.c_str(), level.c_str());
    }
    if (json)
        std::printf("%s\n", tJson{{"units", out}}.dump(-1, ' ', false, tJson::error_handler_t::replace).c_str());
    std::fflush(stdout);
}

void PrintTraceLine(const cRecord& r, bool json)
{
    const long long ms = r.GetFirstPar("time").GetTime().ToMilliSeconds();
    if (json) {
        tJson line;
        line["service"] = r.GetFirstPar("name").GetString();
        line["service-id"] = r.GetFirstPar("service-id").GetString();
        line["unit"] = r.GetFirstPar("unit").GetString();
        line["level"] = r.GetFirstPar("level").GetString();
        line["time"] = ms;
        line["txt"] = r.GetFirstPar("txt").GetString();
        std::printf("%s\n", line.dump(-1, ' ', false, tJson::error_handler_t::replace).c_str());
    } else {
        std::printf("%s %-13s %-8s %s\n", LocalTime(ms).c_str(), r.GetFirstPar("unit").GetString().c_str(),
                    r.GetFirstPar("level").GetString().c_str(), r.GetFirstPar("txt").GetString().c_str());
    }
    std::fflush(stdout);
}

int Trace(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "trace", kTraceHelp, {"--follow"}, {}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    const bool follow = line.Has("--follow");
    const std::vector<std::string>& words = line.words;
    if (words.empty())
        return Usage("trace: SERVICE missing");
    // The service sets the units named in "units", each a sub-record with
    // "name" and "level", and from then on sends its trace lines here.
    cMsg on = orvo_ctl::Request(0x7000);
    cRecord units;
    for (size_t i = 1; i < words.size(); ++i) {
        const size_t eq = words[i].find('=');
        const std::string level = eq == std::string::npos ? "" : words[i].substr(eq + 1);
        bool known = false;
        for (const char* l : kTraceLevels)
            known = known || level == l;
        if (eq == 0 || !known)
            return Usage("trace: '" + words[i] + "' is not UNIT=LEVEL with LEVEL one of NONE, FATAL, ERROR, "
                         "WARNING, INFO, DEBUG, SYSLOG, ALL");
        cRecord unit;
        unit.AppendTextPar("name", words[i].substr(0, eq));
        unit.AppendTextPar("level", level);
        units.AppendRecordPar(words[i].substr(0, eq).c_str(), unit);
    }
    on.GetRecord().AppendRecordPar("units", units);
    orvo_ctl::cCtlClient client;
    std::string sap;
    if (!ConnectService(words[0], net, client, sap))
        return EXIT_FAIL;
    cRecord info;
    if (!client.Send(on) || !AskServiceInfo(client, sap, net.timeoutMs, info))
        return EXIT_FAIL;
    PrintUnits(info, json);
    if (!follow)
        return EXIT_OK;
    if (!Follow(client, sap, 0x7002, [json](const cRecord& r) {
            PrintTraceLine(r, json);
            return true;
        }))
        return EXIT_FAIL;
    // Trace off: every unit of the service back to NONE, this connection no
    // longer a trace output. The answer to the information request shows
    // that the service has handled it before the connection closes.
    if (!client.Send(orvo_ctl::Request(0x7001)) || !AskServiceInfo(client, sap, net.timeoutMs, info))
        return EXIT_FAIL;
    if (!json)
        std::fprintf(stderr, "orvo-ctl: trace units of %s switched off\n", sap.c_str());
    return EXIT_OK;
}

const char* const kSnoopHelp =
    "Usage: orvo-ctl snoop SERVICE [--type T ...] [--pcap FILE] [--scm ADDR] [--timeout MS] [--json]\n"
    "Prints every message the service sends and receives, as it happens, until\n"
    "Ctrl-C: time, direction (> sent, < received), peer, type and its name,\n"
    "tid and record.\n"
    "--json prints one object per line.\n"
    "\n"
    "  --type T     only messages of type T (0x... or decimal); may be repeated\n"
    "  --pcap FILE  also write the messages to FILE, a pcap capture: each one\n"
    "               is an IPv4+TCP packet on 127.0.0.1 carrying the message's\n"
    "               frame, from the service's sap port when it sent it, to it\n"
    "               when it received it, the other side port 47000\n";

// The catalogue's name of a message type; the hexadecimal form when the
// catalogue does not know it (or is not built in).
std::string TypeName(unsigned long type)
{
#ifdef ORVO_CTL_TYPE_NAMES
    return GetMsgTypeTxt(type);
#else
    char text[16];
    std::snprintf(text, sizeof text, "0x%06lX", type);
    return text;
#endif
}

// Writes a snoop report (0x7005) as a line and, when pcap is open, a packet.
bool ShowSnoop(const cRecord& r, bool json, orvo_ctl::cPcapWriter* pcap)
{
    const bool sent = r.GetFirstPar("dir").GetUInt() == 0;
    const unsigned long type = r.GetFirstPar("msg-type").GetUInt();
    cUuid tid;
    r.GetFirstPar("msg-tid", RECORD_UUID, RECORD_SEL_TYPE).GetUuid(tid);
    cRecord record;
    r.GetFirstPar("msg-record", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(record);
    const long long ms = r.GetFirstPar("time").GetTime().ToMilliSeconds();
    char typeText[32];
    std::snprintf(typeText, sizeof typeText, "0x%lx", type);
    const std::string peer = r.GetFirstPar("peer-name").GetString();
    if (json) {
        tJson line;
        line["time"] = ms;
        line["dir"] = sent ? "sent" : "received";
        line["peer"] = peer;
        line["type"] = typeText;
        line["type_name"] = TypeName(type);
        line["tid"] = tid.IsValid() ? tid.ToString() : "";
        line["record"] = orvo_tools::RecordToJson(record);
        std::printf("%s\n", line.dump(-1, ' ', false, tJson::error_handler_t::replace).c_str());
    } else {
        std::printf("%s %s %-16s %-9s %-20s %s %s\n", LocalTime(ms).c_str(), sent ? ">" : "<", peer.c_str(),
                    typeText, TypeName(type).c_str(), tid.IsValid() ? tid.ToString().c_str() : "-",
                    record.ToString().c_str());
    }
    std::fflush(stdout);
    if (pcap == nullptr)
        return true;
    cMsg msg(type);
    if (tid.IsValid())
        msg.SetTid(tid);
    msg.SetRecord(record);
    return pcap->Write(orvo_ctl::Frame(msg), sent, ms);
}

int Snoop(std::vector<std::string> args, bool json)
{
    tCommandLine line;
    const int early = SplitCommandLine(args, "snoop", kSnoopHelp, {}, {"--type", "--pcap"}, line);
    if (early >= 0)
        return early;
    const tNetOptions& net = line.net;
    const std::vector<std::string>& words = line.words;
    std::vector<unsigned long> types;
    std::string pcapPath;
    for (const auto& option : line.values) {
        const std::string& v = option.second;
        if (option.first == "--pcap") {
            pcapPath = v;
            continue;
        }
        char* end = nullptr;
        const unsigned long type = std::strtoul(v.c_str(), &end, 0);
        if (v.empty() || *end || v[0] == '-' || type > 0xFFFFFF)
            return Usage("snoop: --type wants a message type, not '" + v + "'");
        types.push_back(type);
    }
    if (words.size() != 1)
        return Usage("snoop: one SERVICE wanted");
    orvo_ctl::cCtlClient client;
    std::string sap;
    if (!ConnectService(words[0], net, client, sap))
        return EXIT_FAIL;
    orvo_ctl::cPcapWriter pcap;
    if (!pcapPath.empty() &&
        !pcap.Open(pcapPath, static_cast<uint16_t>(std::atoi(sap.c_str() + sap.rfind(':') + 1)))) {
        std::fprintf(stderr, "orvo-ctl: cannot write %s: %s\n", pcapPath.c_str(), std::strerror(errno));
        return EXIT_FAIL;
    }
    // Snoop on, then the information request: its answer shows that the
    // service has taken the request, so nothing after this line is missed.
    cRecord info;
    if (!client.Send(orvo_ctl::Request(0x7003)) || !AskServiceInfo(client, sap, net.timeoutMs, info))
        return EXIT_FAIL;
    if (!json)
        std::fprintf(stderr, "orvo-ctl: snooping on %s (%s), Ctrl-C ends\n",
                     info.GetFirstPar("name").GetString().c_str(), sap.c_str());
    const bool followed = Follow(client, sap, 0x7005, [&](const cRecord& r) {
        const unsigned long type = r.GetFirstPar("msg-type").GetUInt();
        bool wanted = types.empty();
        for (unsigned long t : types)
            wanted = wanted || t == type;
        if (wanted && !ShowSnoop(r, json, pcapPath.empty() ? nullptr : &pcap)) {
            std::fprintf(stderr, "orvo-ctl: cannot write %s\n", pcapPath.c_str());
            return false;
        }
        return true;
    });
    if (!followed)
        return EXIT_FAIL;
    client.Send(orvo_ctl::Request(0x7004));
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    std::vector<std::string> args;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        std::string w = argv[i];
        if (w == "--json")
            json = true;
        else
            args.push_back(w);
    }
    if (args.empty())
        return Usage("COMMAND missing");
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "--help" || command == "-h") {
        std::fputs(kMainHelp, stdout);
        return EXIT_OK;
    }
    if (command == "--version") {
        std::printf("%s\n", kVersion);
        return EXIT_OK;
    }
    using tCommand = int (*)(std::vector<std::string>, bool);
    static const struct {
        const char* name;
        tCommand run;
    } kCommands[] = {
        {"journal", [](std::vector<std::string> a, bool j) { return Journal(a, j); }},
        {"config", Config},
        {"trace", Trace},
        {"snoop", Snoop},
        {"send", Send},
        {"list", List},
        {"info", Info},
        {"eeprom", [](std::vector<std::string> a, bool j) { return Eeprom(a, j); }},
        {"statusw", [](std::vector<std::string> a, bool j) { return Statusw(a, j); }},
    };
    for (const auto& c : kCommands)
        if (command == c.name)
            return c.run(args, json);
    return Usage("unknown command '" + command + "'");
}
