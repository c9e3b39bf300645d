// Trace units: levels, the call-site test, repeat suppression on a fixed
// clock, standard-output lines byte by byte, the SCM/service/channel messages
// through test hooks, and syslog() caught on a private /dev/log.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "../source/orvo_hooks.h"
#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_sharedmem.h"
#include "orvo_time.h"
#include "test_helpers.h"

using namespace orvo;
using tTexts = std::vector<std::string>;

namespace {

long long gNowMs = 1709633742123LL;   // 05.03.2024 10:15:42.123
long long FakeClock() { return gNowMs; }

cUnit gQuiet("tq", ERROR, OUTPUT_NONE);
cUnit gOther("tq2", ERROR, OUTPUT_NONE);
cUnit gLoud("a-rather-long-unit-name", DEBUG, OUTPUT_STDOUT);
cChannel* const kCh1 = reinterpret_cast<cChannel*>(0x1000);
cChannel* const kCh2 = reinterpret_cast<cChannel*>(0x2000);

// The expected line; the time text comes from gmtime_r.
std::string Line(const char* oscFmt, cUnit* unit, const char* level, const std::string& text)
{
    const time_t sec = static_cast<time_t>(gNowMs / 1000);
    struct tm tm;
    gmtime_r(&sec, &tm);
    char buf[512];
    int n = std::snprintf(buf, sizeof buf, "%02d.%02d.%04d %02d:%02d:%02d.%03d", tm.tm_mday,
                          tm.tm_mon + 1, tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec,
                          static_cast<int>(gNowMs % 1000));
    n += std::snprintf(buf + n, sizeof buf - n, oscFmt, GetOSC());
    std::snprintf(buf + n, sizeof buf - n, " %-8s|%-13s[%-10s]: %s\n", GetExeName().c_str(),
                  unit->GetObjName().c_str(), level, text.c_str());
    return buf;
}

struct tSeen { cChannel* ch; unsigned long type; cRecord rec; };
std::vector<tSeen> gSeen;

int CaptureChannel(cChannel* ch, cMsg& msg)
{
    gSeen.push_back({ch, msg.GetType(), msg.GetRecord()});
    return 0;
}
void CaptureService(cMsg& msg)
{
    gSeen.push_back({nullptr, msg.GetType(), msg.GetRecord()});
}
bool ServiceInfo(cUuid& id, std::string& name)
{
    name = "svc";
    return id.Create("00112233-4455-6677-8899-AABBCCDDEEFF");
}

// "name=value;" of every element, in order.
std::string Fields(const cRecord& r)
{
    std::string out;
    for (cRecordPar p = r.GetFirstPar(); p.IsValid(); r.SeekNextPar(p))
        out += std::string(p.GetName()) + "=" + p.GetString() + ";";
    return out;
}

// The "txt" of every message seen so far, which are then forgotten.
tTexts Texts()
{
    tTexts texts;
    for (const tSeen& s : gSeen)
        texts.push_back(s.rec.GetFirstPar("txt").GetString());
    gSeen.clear();
    return texts;
}

class Trace : public ::testing::Test {
protected:
    void SetUp() override
    {
        cTime::SetClockOverride(FakeClock);
        hooks::TraceChannelSend = CaptureChannel;
        // A trace nobody else issues ends whatever run an earlier test left.
        static int serial = 0;
        testing::internal::CaptureStdout();
        _Trace(&gOther, FATAL, FormatString("reset %i", ++serial));
        testing::internal::GetCapturedStdout();
        RegisterTraceChannel(kCh1);
        gSeen.clear();
    }
    void TearDown() override
    {
        UnRegisterTraceChannel(kCh1);
        UnRegisterTraceChannel(kCh2);
        hooks::TraceChannelSend = nullptr;
        hooks::MainServiceSend = nullptr;
        hooks::MainServiceInfo = nullptr;
        GetConfig()->Create();
        cTime::SetClockOverride(nullptr);
    }
};

int gFormatted = 0;
const char* Counted(const char* text) { ++gFormatted; return text; }

}  // namespace

TEST(TraceUnit, LevelsNamesAndFormatting)
{
    const int values[] = {0, 1, 2, 4, 8, 16, 32, 256, 3, 64};
    const char* texts[] = {"NONE",  "FATAL",  "ERROR", "WARNING", "INFO",
                           "DEBUG", "SYSLOG", "ALL",   "?",       "?"};
    cUnit unit("levels", ERROR, OUTPUT_NONE);
    EXPECT_EQ((*mUnits)["levels"], &unit);
    mUnits->erase("levels");
    for (int i = 0; i < 10; ++i) {
        EXPECT_STREQ(GetTraceLevelTxt(static_cast<eLEVEL>(values[i])), texts[i]);
        SetTraceLevel(&unit, std::string(texts[i]));
        EXPECT_EQ(unit.GetLevel(), i < 8 ? values[i] : NONE) << texts[i];
    }
    SetTraceLevel(&unit, std::string("debug"));   // case matters: switches off
    EXPECT_EQ(unit.GetLevel(), NONE);
    SetTraceLevel(nullptr, DEBUG);
    SetTraceOut(nullptr, OUTPUT_STDOUT);
    // The text is only built when the unit admits the level.
    SetTraceLevel(&unit, WARNING);
    ORVO_TRACE(&unit, INFO, Counted("x"));
    EXPECT_EQ(gFormatted, 0);
    ORVO_TRACE(&unit, WARNING, Counted("x"));
    EXPECT_EQ(gFormatted, 1);

    EXPECT_EQ(FormatString(nullptr), "");
    EXPECT_EQ(FormatString("%9000d", 1).size(), 8095u);
}

TEST_F(Trace, RepeatsAreCountedAndSummarised)
{
    for (int i = 0; i < 5; ++i)
        _Trace(&gQuiet, ERROR, "five");
    _Trace(&gQuiet, ERROR, std::string("next"));
    EXPECT_EQ(Texts(),
              (tTexts{"five", "LAST TRACE FROM THIS SOURCE REPEATED 4 TIMES (five)", "next"}));
    // One repeat gives no summary; another unit or level is another source.
    for (const char* text : {"twice", "twice", "same"})
        _Trace(&gQuiet, ERROR, text);
    _Trace(&gOther, ERROR, "same");
    _Trace(&gOther, WARNING, "same");
    EXPECT_EQ(Texts(), (tTexts{"twice", "same", "same", "same"}));
    // The summary goes out on the old unit and level.
    for (int i = 0; i < 3; ++i)
        _Trace(&gQuiet, FATAL, "run");
    _Trace(&gOther, ERROR, "other");
    ASSERT_EQ(gSeen.size(), 3u);
    EXPECT_EQ(Fields(gSeen[1].rec).substr(0, 24), "unit=tq;level=FATAL;time");

    // The period: 60 whole seconds from the first repeat.
    gSeen.clear();
    gNowMs = 1700000000000LL;
    _Trace(&gQuiet, ERROR, "tick");
    gNowMs += 1000;
    _Trace(&gQuiet, ERROR, "tick");          // first repeat starts the period
    gNowMs += 59999;
    _Trace(&gQuiet, ERROR, "tick");          // 59.999 s later: still dropped
    EXPECT_EQ(Texts(), tTexts{"tick"});
    gNowMs += 1;
    _Trace(&gQuiet, ERROR, "tick");          // 60 s: summary, then the trace
    _Trace(&gQuiet, ERROR, "tick");          // a new run starts
    gNowMs += 60000;
    _Trace(&gQuiet, ERROR, "tick");          // one repeat only: no summary
    EXPECT_EQ(Texts(),
              (tTexts{"LAST TRACE FROM THIS SOURCE REPEATED 2 TIMES (tick)", "tick", "tick"}));
}

TEST_F(Trace, StandardOutputLines)
{
    gNowMs = 1709633742123LL;
    EXPECT_EQ(Line("(%i)", &gLoud, "INFO", "x").substr(0, 24), "05.03.2024 10:15:42.123(");
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; ++i)
        _Trace(&gLoud, INFO, "hello");
    cRecord rec;
    rec.AppendSIntPar("n", 5);
    _Trace(&gLoud, DEBUG, rec);
    _Trace(&gLoud, DEBUG, static_cast<const cObject&>(gQuiet));
    const std::string summary = "LAST TRACE FROM THIS SOURCE REPEATED 2 TIMES (hello)";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Line("(%i)", &gLoud, "INFO", "hello") +
                              Line("(%lu)", &gLoud, "INFO", "hello") +
                              Line("(%lu)", &gLoud, "INFO", "hello") +
                              Line("(%i)", &gLoud, "INFO", summary) +
                              Line("(%i)", &gLoud, "DEBUG", "{n=5 }") +
                              Line("(%i)", &gLoud, "DEBUG", "name=tq"));
    EXPECT_EQ(gSeen.size(), 4u);   // repeats reach standard output only
}

// The SCM copy (0x10190, same record as 0x1007) is checked over a real
// socket in scm_test.
TEST_F(Trace, ServiceAndChannelMessages)
{
    hooks::MainServiceSend = CaptureService;
    _Trace(&gQuiet, ERROR, "not asked for");
    ASSERT_EQ(gSeen.size(), 1u);             // only the channel: no SCM socket
    gSeen.clear();

    cRecord trace;
    trace.AppendBoolPar("log-scm", true);
    GetConfig()->AppendRecordPar("trace", trace);
    hooks::MainServiceInfo = ServiceInfo;
    cUnit service("tsvc", ERROR, OUTPUT_SERVICE);
    mUnits->erase("tsvc");
    cRecord rec;
    rec.AppendTextPar("k", "v");
    _Trace(&service, ERROR, rec);
    ASSERT_EQ(gSeen.size(), 2u);
    const std::string head = "service-id=00112233-4455-6677-8899-AABBCCDDEEFF;name=svc;";
    const std::string time = "level=ERROR;time=" + cTime().Now(true).ToString() + ";";
    const std::string txt = "txt=" + rec.ToString() + ";";
    const std::string full = head + "executable=" + GetExeName() + ";unit=tsvc;" + time +
                             "osc=" + std::to_string(GetOSC()) + ";" + txt + "rec=" +
                             rec.ToString() + ";";
    EXPECT_EQ(gSeen[0].type, 0x1007u);
    EXPECT_EQ(Fields(gSeen[0].rec), full);
    EXPECT_EQ(gSeen[1].type, 0x7002u);
    EXPECT_EQ(Fields(gSeen[1].rec), head + "unit=tsvc;" + time + txt);
}

TEST_F(Trace, ChannelList)
{
    RegisterTraceChannel(kCh2);
    RegisterTraceChannel(kCh1);              // moves to the end, listed once
    UnRegisterTraceChannel(reinterpret_cast<cChannel*>(0x3000));
    SendTrace(&gQuiet, INFO, "to all");
    ASSERT_EQ(gSeen.size(), 2u);
    EXPECT_EQ(gSeen[0].ch, kCh2);
    EXPECT_EQ(gSeen[1].ch, kCh1);
    // A send that unregisters a later channel: that one is skipped.
    gSeen.clear();
    hooks::TraceChannelSend = [](cChannel* ch, cMsg& msg) {
        UnRegisterTraceChannel(kCh1);
        return CaptureChannel(ch, msg);
    };
    SendTrace(&gQuiet, INFO, "once");
    EXPECT_EQ(gSeen.size(), 1u);
    // ClearTraceUnits drops the channel list and the unit map.
    const std::map<std::string, cUnit*> saved = *mUnits;
    gSeen.clear();
    RegisterTraceChannel(kCh1);
    ClearTraceUnits();
    EXPECT_EQ(mUnits, nullptr);
    SendTrace(&gQuiet, INFO, "after clear");
    EXPECT_TRUE(gSeen.empty());
    cUnit fresh("fresh", ERROR, OUTPUT_NONE);
    ASSERT_EQ(mUnits->size(), 1u);
    *mUnits = saved;
}

// A child makes its own mount namespace, puts an empty tmpfs on /dev there,
// listens on /dev/log and traces.
TEST_F(Trace, SystemLogEntry)
{
    const int rc = orvo_test::RunInChild([] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            return 77;
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, "/dev/log");
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            return 3;
        cUnit unit("tsyslog", ERROR, OUTPUT_SYSLOG);
        _Trace(&unit, FATAL, "to the log");
        char buf[1024] = {};
        const timeval tv = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        const std::string got(buf, std::max<ssize_t>(0, recv(fd, buf, sizeof buf - 1, 0)));
        // The log adds its own time stamp between priority and ident.
        char want[256];
        std::snprintf(want, sizeof want, " orvo: %-8s|%-13s[%-10s]: %s\n", GetExeName().c_str(),
                      "tsyslog", "FATAL", "to the log");
        const size_t n = std::strlen(want);
        if (got.compare(0, 3, "<8>") == 0 && got.size() > n && got.compare(got.size() - n, n, want) == 0)
            return 0;
        std::fprintf(stderr, "syslog datagram: [%s]\n", got.c_str());
        return 4;
    });
    if (rc == 77)
        GTEST_SKIP() << "no private mount namespace (unshare or mount refused: not root?), "
                        "so /dev/log cannot be replaced";
    EXPECT_EQ(rc, 0);
}
