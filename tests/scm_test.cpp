// SCM client and technology connections against a scripted SCM: a raw TCP
// listener on 127.0.0.1 in this test that reads and writes frames built
// here by hand, so every protocol step and every failure is checked byte by
// byte. The service under test runs its loop on this thread, driven by a
// 10 ms tick timer between the script's steps; the ways the SCM's loss ends
// a process run in forked children. Timer steps of the technology health
// check use the millisecond clock seam (real clock plus an offset).
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_recordmerge.h"
#include "orvo_scm.h"
#include "orvo_scmio.h"
#include "orvo_time.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

const unsigned long TICK = 0x123101, PROBE = 0x123102;
const int kWaitMs = 20000;          // qemu and the sanitizers are slow

struct cTestScmService : cScmService {
    void ThreadMain() override {}
};

// ---- frames by hand -----------------------------------------------------------

std::string Frame(const cMsg& m)
{
    std::string payload;
    m.Serialize(m.GetTid().IsValid() ? 1 : 0, payload);
    const uint32_t n = uint32_t(payload.size() + 6);
    return std::string{4, char(m.GetTid().IsValid() ? 1 : 0), char(n), char(n >> 8),
                       char(n >> 16), char(n >> 24)} + payload;
}

bool RecvAll(int fd, std::string& out, size_t n)
{
    out.assign(n, '\0');
    for (size_t got = 0; got < n;) {
        const ssize_t r = recv(fd, &out[got], n - got, 0);
        if (r <= 0)
            return false;
        got += size_t(r);
    }
    return true;
}

bool Readable(int fd, int ms)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

int Listener(unsigned short& port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    cSocketAddr any("127.0.0.1", 0);
    socklen_t len = sizeof(sockaddr_in);
    sockaddr_in bound{};
    if (bind(fd, any.GetSockAddr(), sizeof(sockaddr_in)) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len) != 0)
        return -1;
    port = cSocketAddr(bound).GetPort();
    return fd;
}

// A port nothing listens on.
unsigned short DeadPort()
{
    unsigned short port = 0;
    close(Listener(port));
    return port;
}

// "name=value;" of every element, in order (records in their text form).
std::string Fields(const cRecord& r)
{
    std::string out;
    for (cRecordPar p = r.GetFirstPar(); p.IsValid(); r.SeekNextPar(p)) {
        cRecord sub;
        const bool isRecord = p.GetType() == RECORD_RECORD && p.GetRecord(sub);
        out += std::string(p.GetName()) + "=" + (isRecord ? sub.ToString() : p.GetString()) + ";";
    }
    return out;
}

cMsg Msg(unsigned long type, const cRecord& r = cRecord(), const cUuid& tid = cUuid())
{
    cMsg m(type);
    m.SetRecord(r);
    m.SetTid(tid);
    return m;
}

// One end of a raw connection: the scripted SCM or a technology's service.
struct cPeer {
    int listenFd = -1;
    int fd = -1;
    unsigned short port = 0;

    cPeer() { listenFd = Listener(port); }
    ~cPeer()
    {
        Drop();
        close(listenFd);
    }
    std::string Sap() const { return "127.0.0.1:" + std::to_string(port); }
    bool Accept()
    {
        if (!Readable(listenFd, kWaitMs))
            return false;
        fd = accept(listenFd, nullptr, nullptr);
        return fd >= 0;
    }
    void Drop()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    bool Send(const cMsg& m) const
    {
        const std::string f = Frame(m);
        return send(fd, f.data(), f.size(), MSG_NOSIGNAL) == ssize_t(f.size());
    }
    // The 0x4002 a message socket announces itself with.
    bool Announce(const char* name) const
    {
        cRecord r;
        r.AppendTextPar("peer-name", name);
        return Send(Msg(MSG_SOCKET_CONNECTED, r));
    }
};

// ---- the fixture: a service on this thread and a scripted SCM -------------------

long long gClockOffset = 0;
long long ShiftedClock()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000 + gClockOffset;
}

class Scm : public ::testing::Test {
protected:
    void SetUp() override
    {
        GetConfig()->Create();
        cService::SetStopFlag(false);
        gClockOffset = 0;
        SetMsecClockOverride(ShiftedClock);
    }
    void TearDown() override
    {
        delete tick;
        svc.DeInit();
        SetMsecClockOverride(nullptr);
        cService::SetStopFlag(false);
        GetConfig()->Create();
    }

    void InitService(const char* failureAction = "log")
    {
        GetConfig()->AppendTextPar("scm-sap", scm.Sap());
        GetConfig()->AppendTextPar("ip", "127.0.0.1");
        svc.Init("tsvc", cSocketAddr("127.0.0.1", 0), failureAction);
        tick = new cTimer(&svc, true, nullptr);
        tick->Start(10, TICK);
    }

    // One pass of the loop; a handed-out message other than the tick is kept.
    void Spin()
    {
        cMsg m;
        if (svc.GetMessage(m) && m.GetType() != TICK)
            handed.push_back(m);
    }
    // Runs the loop for about ms.
    void SpinFor(int ms)
    {
        const long long end = ShiftedClock() + ms;
        while (ShiftedClock() < end)
            Spin();
    }
    // The next message the service sends to fd; an empty message (type 0)
    // after kWaitMs.
    cMsg Next(int fd)
    {
        const long long end = ShiftedClock() + kWaitMs;
        while (!Readable(fd, 0) && ShiftedClock() < end)
            Spin();
        std::string h, p;
        cMsg m;
        if (!Readable(fd, 0) || !RecvAll(fd, h, 6))
            return cMsg();
        const uint32_t n = uint8_t(h[2]) | uint8_t(h[3]) << 8 | uint8_t(h[4]) << 16 |
                           uint32_t(uint8_t(h[5])) << 24;
        if (h[0] != 4 || n < 6 || n > 196606 || !RecvAll(fd, p, n - 6) ||
            m.Create(uint8_t(h[1]), p.data(), int(p.size()), nullptr, nullptr) != 1)
            return cMsg();
        return m;
    }
    // Nothing arrives at fd while the loop runs for ms.
    bool Silent(int fd, int ms)
    {
        SpinFor(ms);
        return !Readable(fd, 0);
    }
    // The first handed-out message of type (removed from the list); an empty
    // message after kWaitMs.
    cMsg Handed(unsigned long type)
    {
        const long long end = ShiftedClock() + kWaitMs;
        for (;;) {
            for (size_t i = 0; i < handed.size(); ++i) {
                if (handed[i].GetType() == type) {
                    cMsg m = handed[i];
                    handed.erase(handed.begin() + long(i));
                    return m;
                }
            }
            if (ShiftedClock() >= end)
                return cMsg();
            Spin();
        }
    }
    size_t CountHanded(unsigned long type) const
    {
        size_t n = 0;
        for (const cMsg& m : handed)
            n += m.GetType() == type;
        return n;
    }

    // Connect, both announcements, registration accepted, configuration
    // asked for: the id of that request.
    cUuid Register()
    {
        InitService();
        EXPECT_TRUE(scm.Accept());
        EXPECT_TRUE(scm.Announce("scm"));
        cMsg hello = Next(scm.fd);
        EXPECT_EQ(hello.GetType(), MSG_SOCKET_CONNECTED);
        EXPECT_EQ(hello.GetRecord().GetFirstPar("peer-name").GetString(), "tsvc");
        cMsg reg = Next(scm.fd);
        EXPECT_EQ(reg.GetType(), MSG_SCM_REGISTER);
        EXPECT_EQ(Fields(reg.GetRecord()),
                  "service-id=" + svc.GetServiceId().ToString() + ";name=tsvc;sap=127.0.0.1:" +
                      std::to_string(svc.GetSapAddress().GetPort()) + ";pid=" +
                      std::to_string(getpid()) + ";config=" + GetConfig()->ToString() + ";");
        EXPECT_TRUE(scm.Send(Msg(MSG_SCM_REGISTER_ACK)));
        cMsg ask = Next(scm.fd);
        EXPECT_EQ(ask.GetType(), MSG_SCM_GETCONFIG);
        EXPECT_TRUE(ask.GetTid().IsValid());
        EXPECT_EQ(ask.GetTid(), svc.GetPendingConfigId());
        EXPECT_EQ(Fields(ask.GetRecord()), "service-id=" + svc.GetServiceId().ToString() + ";path=;");
        return ask.GetTid();
    }

    cRecord ConfigAnswer(const cRecord& config, const cUuid& id, const char* path = "")
    {
        cRecord r;
        r.AppendUuidPar("service-id", id);
        r.AppendTextPar("path", path);
        r.AppendRecordPar("config", config);
        return r;
    }

    cTestScmService svc;
    cPeer scm;
    cTimer* tick = nullptr;
    std::vector<cMsg> handed;
};

cRecord SampleConfig()
{
    cRecord system, unit, trace, config;
    system.AppendUIntPar("bc-timelost", 7000);
    system.AppendUIntPar("msgQsize", 150);
    unit.AppendTextPar("trace-level", "DEBUG");
    trace.AppendRecordPar("scmtest", unit);
    trace.AppendBoolPar("log-scm", false);
    config.AppendRecordPar("system", system);
    config.AppendRecordPar("trace", trace);
    config.AppendSIntPar("answer", 42);
    return config;
}

cUnit gScmTestUnit("scmtest", ERROR, OUTPUT_NONE);

// ---- cScmService ---------------------------------------------------------------------

TEST_F(Scm, FullLife)
{
    const cUuid pending = Register();
    EXPECT_EQ(GetConfig()->GetFirstParByPath("system", ".").GetType(), RECORD_RECORD);
    EXPECT_EQ(svc.GetScmSocket()->GetObjName(), "scm");
    EXPECT_EQ(gSCMsocket, svc.GetScmSocket());
    EXPECT_EQ(svc.GetServiceTech(), "unknown");

    // The configuration answer: taken, then handed to the program emptied.
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(SampleConfig(), svc.GetServiceId()),
                             pending)));
    cMsg got = Handed(MSG_SCM_GETCONFIG_ACK);
    EXPECT_EQ(got.GetType(), MSG_SCM_GETCONFIG_ACK);
    EXPECT_TRUE(got.GetRecord().IsEmpty());
    EXPECT_EQ(GetConfig()->GetFirstPar("answer").GetSInt(), 42);
    EXPECT_EQ(svc.GetBcTimeLost(), 7000u);
    EXPECT_EQ(svc.GetMsgQSize(), 150u);
    EXPECT_EQ(gScmTestUnit.GetLevel(), DEBUG);
    EXPECT_FALSE(svc.GetPendingConfigId().IsValid());

    // Ready, acknowledged.
    EXPECT_GT(svc.SetReady(), 0);
    cMsg ready = Next(scm.fd);
    EXPECT_EQ(ready.GetType(), MSG_SCM_RUN);
    EXPECT_EQ(Fields(ready.GetRecord()), "service-id=" + svc.GetServiceId().ToString() + ";");
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_RUN_ACK)));
    EXPECT_EQ(Handed(MSG_SCM_RUN_ACK).GetType(), MSG_SCM_RUN_ACK);

    // Watchdog trigger reaches the program, which answers it.
    cRecord wdt;
    wdt.AppendUIntPar("seq-no", 77);
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_WDT, wdt)));
    cMsg trigger = Handed(MSG_SCM_WDT);
    ASSERT_EQ(trigger.GetType(), MSG_SCM_WDT);
    svc.SetWDT(trigger);
    cMsg wdtAck = Next(scm.fd);
    EXPECT_EQ(wdtAck.GetType(), MSG_SCM_WDT_ACK);
    EXPECT_EQ(Fields(wdtAck.GetRecord()), "service-id=" + svc.GetServiceId().ToString() + ";seq-no=77;");

    // Health is kept and consumed; a health of another type changes nothing;
    // 0x10008 is consumed.
    cRecord health, badHealth;
    health.AppendTextPar("scm-health", "good");
    badHealth.AppendUIntPar("scm-health", 3);
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_HEALTH, health)) && scm.Send(Msg(MSG_SCM_HEALTH, badHealth)) &&
                scm.Send(Msg(MSG_SCM_NOP)));
    cRecord probe;
    probe.AppendTextPar("scm-health", "never");
    ASSERT_TRUE(scm.Send(Msg(PROBE, probe)));     // comes after them on the same stream
    EXPECT_EQ(Handed(PROBE).GetType(), PROBE);
    EXPECT_EQ(svc.GetScmHealth(), "good");
    EXPECT_EQ(CountHanded(MSG_SCM_HEALTH) + CountHanded(MSG_SCM_NOP), 0u);

    // DeInit forgets the SCM.
    svc.DeInit();
    EXPECT_EQ(gSCMsocket, nullptr);
    EXPECT_EQ(svc.GetScmSocket(), nullptr);
    EXPECT_EQ(svc.GetServiceTech(), "unknown");
}

// Without "scm-sap" there is no SCM at all: one FATAL line, no socket, no
// traffic. Each Init form adds the "system" defaults with its failure action.
TEST_F(Scm, InitFormsAndNoScm)
{
    const eLEVEL level = UnitORVO->GetLevel();
    const eOUTPUT output = UnitORVO->GetOutput();
    SetTraceLevel(UnitORVO, FATAL);
    SetTraceOut(UnitORVO, OUTPUT_STDOUT);
    testing::internal::CaptureStdout();
    svc.Init("alone", "reboot");
    const std::string out = testing::internal::GetCapturedStdout();
    SetTraceLevel(UnitORVO, level);
    SetTraceOut(UnitORVO, output);
    const std::string text = "Can't connect SCM, missing SCM-SAP destination addr in config";
    ASSERT_NE(out.find(text), std::string::npos);
    EXPECT_EQ(out.find(text, out.find(text) + 1), std::string::npos);
    EXPECT_EQ(svc.GetScmSocket(), nullptr);
    EXPECT_EQ(gSCMsocket, nullptr);
    EXPECT_EQ(svc.SetReady(), 0);
    EXPECT_EQ(svc.GetSapAddress().GetIP(), 0u);       // the configuration's "port", any address

    cRecord system;
    ASSERT_TRUE(GetConfig()->GetFirstPar("system").GetRecord(system));
    EXPECT_EQ(Fields(system), "failure-action=reboot;wdt-failures=3;wdt=ON;bc-timelost=5000;msgQsize=200;");

    GetConfig()->Create();
    svc.Init("alone", cSocketAddr("127.0.0.1", 0));
    ASSERT_TRUE(GetConfig()->GetFirstPar("system").GetRecord(system));
    EXPECT_EQ(system.GetFirstPar("failure-action").GetString(), "restart");
    EXPECT_EQ(svc.GetSapAddress().GetIP(), 0x7F000001u);
}

}  // namespace
