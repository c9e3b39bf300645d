// SCM client and technology connections against a scripted SCM: a raw TCP
// listener on 127.0.0.1 in this test that reads and writes frames built
// here by hand, so every protocol step and every failure is checked byte by
// byte. The service under test runs its loop on this thread, driven by a
// 10 ms tick timer between the script's steps; the ways the SCM's loss ends
// a process run in forked children. Timer steps of the technology health
// check use the millisecond clock seam (real clock plus an offset).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
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
    // Connects as a client to port on 127.0.0.1.
    bool Connect(unsigned short to)
    {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        cSocketAddr addr("127.0.0.1", to);
        return connect(fd, addr.GetSockAddr(), sizeof(sockaddr_in)) == 0;
    }
    // The 0x4002 a message socket announces itself with.
    bool Announce(const char* name) const
    {
        cRecord r;
        r.AppendTextPar("peer-name", name);
        return Send(Msg(MSG_SOCKET_CONNECTED, r));
    }
};

// While it lives no socket can be had: cSocket::Socket fails with EMFILE.
// Every free descriptor below FD_SETSIZE is taken (the library refuses the
// ones above), so the process and the sanitizers (whose checks open pipes)
// still get descriptors above it; under a lower limit every descriptor is
// taken.
struct cNoSockets {
    rlimit before{};
    std::vector<int> taken;
    cNoSockets()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlim_t room = FD_SETSIZE + 64;
        if (before.rlim_cur < room && before.rlim_max >= room) {
            rlimit raised = before;
            raised.rlim_cur = room;
            setrlimit(RLIMIT_NOFILE, &raised);
        }
        for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0; taken.push_back(fd)) {
            if (fd >= FD_SETSIZE) {
                close(fd);
                break;
            }
        }
    }
    ~cNoSockets()
    {
        for (int fd : taken)
            close(fd);
        setrlimit(RLIMIT_NOFILE, &before);
    }
};

// ---- the fixture: a service on this thread and a scripted SCM -------------------

cUnit gScmTestUnit("scmtest", ERROR, OUTPUT_NONE);

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
        SetTraceLevel(&gScmTestUnit, ERROR);
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
        EXPECT_TRUE(svc.IsSapUp());
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

    // What reaches standard output while step runs.
    static std::string Captured(const std::function<void()>& step)
    {
        testing::internal::CaptureStdout();
        step();
        return testing::internal::GetCapturedStdout();
    }
    // What UnitORVO traces at level and above while step runs.
    static std::string OrvoTraces(eLEVEL level, const std::function<void()>& step)
    {
        const eLEVEL before = UnitORVO->GetLevel();
        const eOUTPUT output = UnitORVO->GetOutput();
        SetTraceLevel(UnitORVO, level);
        SetTraceOut(UnitORVO, OUTPUT_STDOUT);
        const std::string out = Captured(step);
        SetTraceLevel(UnitORVO, before);
        SetTraceOut(UnitORVO, output);
        return out;
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

// An answer to another request, for another service, for a sub-path, or
// with keys of the wrong type changes nothing and keeps the request
// pending; each still reaches the program. The right one is then taken.
TEST_F(Scm, ConfigAnswersThatDoNotMatch)
{
    const cUuid pending = Register();
    const std::string before = GetConfig()->ToString();
    cUuid other;
    other.Create();
    cRecord wrongId = ConfigAnswer(SampleConfig(), svc.GetServiceId());
    cRecord textId, textConfig, noPath, recordPath, recordPathRec;
    textId.AppendTextPar("service-id", svc.GetServiceId().ToString());
    textId.AppendTextPar("path", "");
    textId.AppendRecordPar("config", SampleConfig());
    textConfig.AppendUuidPar("service-id", svc.GetServiceId());
    textConfig.AppendTextPar("path", "");
    textConfig.AppendTextPar("config", "x");
    noPath.AppendUuidPar("service-id", svc.GetServiceId());
    noPath.AppendRecordPar("config", SampleConfig());
    recordPathRec.AppendRecordPar("system", cRecord());
    recordPath.AppendUuidPar("service-id", svc.GetServiceId());
    recordPath.AppendRecordPar("path", recordPathRec);
    recordPath.AppendRecordPar("config", SampleConfig());
    const std::vector<cMsg> wrong = {
        Msg(MSG_SCM_GETCONFIG_ACK, wrongId, other),                                     // other request
        Msg(MSG_SCM_GETCONFIG_ACK, wrongId),                                            // no id
        Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(SampleConfig(), other), pending),       // other service
        Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(SampleConfig(), svc.GetServiceId(), "system"), pending),
        Msg(MSG_SCM_GETCONFIG_ACK, textId, pending),
        Msg(MSG_SCM_GETCONFIG_ACK, textConfig, pending),
        Msg(MSG_SCM_GETCONFIG_ACK, noPath, pending),
        Msg(MSG_SCM_GETCONFIG_ACK, recordPath, pending),
    };
    for (const cMsg& m : wrong) {
        ASSERT_TRUE(scm.Send(m));
        cMsg got = Handed(MSG_SCM_GETCONFIG_ACK);
        EXPECT_EQ(got.GetRecord().ToString(), m.GetRecord().ToString());
        EXPECT_EQ(GetConfig()->ToString(), before);
        EXPECT_EQ(svc.GetPendingConfigId(), pending);
    }
    EXPECT_EQ(gScmTestUnit.GetLevel(), ERROR);
    EXPECT_EQ(svc.GetBcTimeLost(), 5000u);

    // Taken; a repeat of the same answer afterwards changes nothing.
    cRecord plain;
    plain.AppendSIntPar("answer", 1);
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(plain, svc.GetServiceId()), pending)));
    Handed(MSG_SCM_GETCONFIG_ACK);
    EXPECT_EQ(GetConfig()->ToString(), plain.ToString());
    EXPECT_EQ(svc.GetBcTimeLost(), 5000u);              // absent: kept
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(SampleConfig(), svc.GetServiceId()),
                             pending)));
    Handed(MSG_SCM_GETCONFIG_ACK);
    EXPECT_EQ(GetConfig()->ToString(), plain.ToString());
}

// "msgQsize" is read only when "bc-timelost" is there.
TEST_F(Scm, QueueSizeOnlyWithTimeLost)
{
    const cUuid pending = Register();
    cRecord system, config;
    system.AppendUIntPar("msgQsize", 99);
    config.AppendRecordPar("system", system);
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(config, svc.GetServiceId()), pending)));
    Handed(MSG_SCM_GETCONFIG_ACK);
    EXPECT_EQ(GetConfig()->ToString(), config.ToString());
    EXPECT_EQ(svc.GetMsgQSize(), 200u);
}

// The record path of the levels names, in order.
cRecord LevelPath(std::initializer_list<const char*> names)
{
    cRecordPath path;
    for (const char* name : names)
        path.AddLevel(name, cRecord());
    return path.GetRecord();
}
cRecord LevelPath(const char* name)
{
    return LevelPath({name});
}

cRecord SetConfigRecord(const cRecord& path, const cRecord& config, int full)
{
    cRecord r;
    r.AppendRecordPar("path", path);
    r.AppendRecordPar("config", config);
    r.AppendRecordPar("filter", cRecord());
    if (full >= 0)
        r.AppendBoolPar("full-config", full == 1);
    return r;
}

// Configuration pushed by the SCM: changed at the path, or replaced whole;
// answered 0x10016 with the request's id; the program gets the old
// configuration. A push without a usable path or config, and a partial push
// that would not be applied as sent, is refused with 0x10017 and a reason and
// changes nothing.
TEST_F(Scm, SetConfigurationFromScm)
{
    Register();
    cRecord inner, start;
    inner.AppendUIntPar("x", 1);
    start.AppendRecordPar("a", inner);
    start.AppendUIntPar("keep", 5);
    *GetConfig() = start;

    cRecord newInner, change;
    newInner.AppendUIntPar("x", 2);
    change.AppendRecordPar("a", newInner);
    cUuid tid;
    tid.Create();
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SETCONFIG, SetConfigRecord(LevelPath("a"), change, -1), tid)));
    cMsg ack = Next(scm.fd);
    EXPECT_EQ(ack.GetType(), MSG_SCM_SETCONFIG_ACK);
    EXPECT_EQ(ack.GetTid(), tid);
    EXPECT_TRUE(ack.GetRecord().IsEmpty());
    cMsg got = Handed(MSG_SCM_SETCONFIG);
    EXPECT_EQ(Fields(got.GetRecord()), "old-config=" + start.ToString() + ";");
    EXPECT_EQ(GetConfig()->GetFirstParByPath("a.x", ".").GetUInt(), 2u);
    EXPECT_EQ(GetConfig()->GetFirstPar("keep").GetUInt(), 5u);

    // Full configuration: replaced whole, trace levels applied.
    const cRecord changed = *GetConfig();
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SETCONFIG, SetConfigRecord(LevelPath("a"), SampleConfig(), 1), tid)));
    EXPECT_EQ(Next(scm.fd).GetType(), MSG_SCM_SETCONFIG_ACK);
    EXPECT_EQ(Fields(Handed(MSG_SCM_SETCONFIG).GetRecord()), "old-config=" + changed.ToString() + ";");
    EXPECT_EQ(GetConfig()->ToString(), SampleConfig().ToString());
    EXPECT_EQ(gScmTestUnit.GetLevel(), DEBUG);
    SetTraceLevel(&gScmTestUnit, ERROR);

    // Refused, each with its reason.
    cRecord textPath, textConfig, system, plain, recordAndPlain, emptySystem, deep, same;
    textPath.AppendTextPar("path", "a");
    textPath.AppendRecordPar("config", change);
    textConfig.AppendRecordPar("path", LevelPath("a"));
    textConfig.AppendTextPar("config", "x");
    ASSERT_TRUE(GetConfig()->GetFirstPar("system").GetRecord(system));
    plain.AppendUIntPar("v", 3);                        // SetConfigUInt's shape
    recordAndPlain.AppendRecordPar("system", system);
    recordAndPlain.AppendUIntPar("v", 3);
    emptySystem.AppendRecordPar("system", cRecord());
    deep.AppendRecordPar("deep", system);
    const std::string malformed = "\"path\" and \"config\" must be records";
    const struct {
        cRecord push;
        std::string reason;
    } refused[] = {
        {cRecord(), malformed},
        {textPath, malformed},
        {SetConfigRecord(cRecord(), change, 0), malformed},
        {textConfig, malformed},
        {SetConfigRecord(LevelPath("system"), plain, 0), "'v' is not a record: a change sets records only"},
        {SetConfigRecord(LevelPath("system"), recordAndPlain, 0), "'v' is not a record"},
        {SetConfigRecord(LevelPath("system"), cRecord(), 0), "the change would only remove it"},
        {SetConfigRecord(LevelPath("system"), emptySystem, -1), "the change would only remove it"},
        {SetConfigRecord(LevelPath("nowhere"), cRecord(), 0), "no record to put at"},
        {SetConfigRecord(LevelPath({"nowhere", "deep"}), deep, 0), "addresses nothing in the configuration"},
    };
    const cRecord keep = *GetConfig();
    for (const auto& c : refused) {
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SETCONFIG, c.push, tid)));
        cMsg nack = Next(scm.fd);
        EXPECT_EQ(nack.GetType(), MSG_SCM_SETCONFIG_NACK) << c.reason;
        EXPECT_EQ(nack.GetTid(), tid);
        EXPECT_NE(nack.GetRecord().GetFirstPar("reason").GetString().find(c.reason), std::string::npos)
            << nack.GetRecord().ToString();
        EXPECT_EQ(Handed(MSG_SCM_SETCONFIG).GetRecord().ToString(), c.push.ToString());
        EXPECT_EQ(GetConfig()->ToString(), keep.ToString());
    }

    // A partial push of what is there already is applied (and changes nothing).
    same.AppendRecordPar("system", system);
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SETCONFIG, SetConfigRecord(LevelPath("system"), same, 0), tid)));
    EXPECT_EQ(Next(scm.fd).GetType(), MSG_SCM_SETCONFIG_ACK);
    EXPECT_EQ(GetConfig()->ToString(), keep.ToString());
}

// The library's own units as orvoInit names them ("orvo", "default") and as
// the service registers them: trace.orvo.trace-level = DEBUG in the SCM's
// configuration answer shows the library's DEBUG traces. A unit's map key
// ("UnitDefault") names it too. In a child: orvoInit sets up the process
// (signals included).
TEST_F(Scm, TraceLevelsOfBuiltInUnits)
{
    std::string out;
    EXPECT_EQ(orvo_test::RunInChild([&] {
                  orvoInit(ERROR, OUTPUT_STDOUT, false);
                  const cUuid pending = Register();
                  // The configuration the service registered with, its "orvo"
                  // unit at DEBUG.
                  cRecord config = *GetConfig(), trace, orvo, warn;
                  if (!config.GetFirstPar("trace").GetRecord(trace) ||
                      trace.GetFirstParByPath("orvo.trace-level", ".").GetString() != "ERROR")
                      return 2;
                  orvo.AppendTextPar("trace-level", "DEBUG");
                  trace.SetRecordPar("orvo", orvo);
                  warn.AppendTextPar("trace-level", "WARNING");
                  trace.AppendRecordPar("UnitDefault", warn);
                  config.SetRecordPar("trace", trace);
                  std::printf("--- answer ---\n");
                  scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(config, svc.GetServiceId()), pending));
                  Handed(MSG_SCM_GETCONFIG_ACK);
                  scm.Send(Msg(MSG_SCM_RUN_ACK));
                  Handed(MSG_SCM_RUN_ACK);
                  return UnitORVO->GetLevel() == DEBUG && UnitDefault->GetLevel() == WARNING ? 0 : 3;
              }, &out, false, 60), 0) << out;
    const size_t answer = out.find("--- answer ---\n");
    ASSERT_NE(answer, std::string::npos) << out;
    EXPECT_EQ(out.find("[DEBUG"), out.find("[DEBUG", answer)) << "DEBUG before the answer:\n" << out;
    EXPECT_NE(out.find("|orvo"), std::string::npos) << out;
    EXPECT_NE(out.find("[DEBUG     ]: SCM_RUN_ACK service 'tsvc' ready\n", answer), std::string::npos) << out;
}

// A refused registration: the reason traced, 0x1005 handed to the program.
TEST_F(Scm, RegistrationRefused)
{
    InitService();
    ASSERT_TRUE(scm.Accept());
    ASSERT_TRUE(scm.Announce("scm"));
    EXPECT_EQ(Next(scm.fd).GetType(), MSG_SOCKET_CONNECTED);
    EXPECT_EQ(Next(scm.fd).GetType(), MSG_SCM_REGISTER);

    cRecord both, reasonOnly, textReason;
    both.AppendSIntPar("reason", 4);
    both.AppendTextPar("sub-reason", "name in use");
    reasonOnly.AppendSIntPar("reason", -2);
    textReason.AppendTextPar("reason", "4");
    const std::string out = OrvoTraces(FATAL, [&] {
        for (const cRecord& r : {both, reasonOnly, textReason}) {
            scm.Send(Msg(MSG_SCM_REGISTER_NACK, r));
            EXPECT_EQ(Handed(MSG_TERMINATE_REQUEST).GetType(), MSG_TERMINATE_REQUEST);
            EXPECT_EQ(CountHanded(MSG_SCM_REGISTER_NACK), 0u);
            cService::SetStopFlag(false);
        }
    });
    EXPECT_NE(out.find("]: service not registered, reason=4 (name in use)\n"), std::string::npos) << out;
    EXPECT_NE(out.find("]: service not registered, reason=-2 (-no-sub-reason-)\n"), std::string::npos);
    EXPECT_NE(out.find("]: service not registered, unknown reason\n"), std::string::npos);
}

// A sap whose port another process holds: Init goes on (and traces), the
// service knows it has no sap, and it registers port 0 instead of the
// other process's address.
TEST_F(Scm, ASapThatCannotBeBoundIsRegisteredAsPortZero)
{
    unsigned short takenPort = 0;
    const int taken = orvo_test::ListenOnLoopback(takenPort);
    ASSERT_GE(taken, 0);
    GetConfig()->AppendTextPar("scm-sap", scm.Sap());
    GetConfig()->AppendTextPar("ip", "127.0.0.1");
    cMsg reg;
    const std::string out = OrvoTraces(ERROR, [&] {
        svc.Init("tsvc", cSocketAddr("127.0.0.1", takenPort), "log");
        tick = new cTimer(&svc, true, nullptr);
        tick->Start(10, TICK);
        ASSERT_TRUE(scm.Accept());
        ASSERT_TRUE(scm.Announce("scm"));
        EXPECT_EQ(Next(scm.fd).GetType(), MSG_SOCKET_CONNECTED);
        reg = Next(scm.fd);
    });
    close(taken);
    EXPECT_FALSE(svc.IsSapUp());
    ASSERT_EQ(reg.GetType(), MSG_SCM_REGISTER);
    EXPECT_EQ(reg.GetRecord().GetFirstPar("sap").GetString(), "127.0.0.1:0");
    const std::string asked = "127.0.0.1:" + std::to_string(takenPort);
    EXPECT_NE(out.find("cService::Init: sap socket " + asked + " failed: Address already in use"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Register: sap " + asked + " is not listening; registering port 0"), std::string::npos)
        << out;
}

// Socket events of other channels are the base dispatch's: a close or a
// failed connect elsewhere ends nothing.
TEST_F(Scm, SocketEventsOfOtherChannels)
{
    Register();
    cMsgTcpSocket other(&svc, nullptr);
    for (unsigned long type : {MSG_SOCKET_CLOSED, MSG_SOCKET_CONNECT_FAILED, MSG_SOCKET_CONNECTED}) {
        cMsg m(type, &other, nullptr);
        EXPECT_FALSE(svc.PreDispatchMessage(m));
    }
    SpinFor(100);
    EXPECT_EQ(CountHanded(MSG_INTERRUPT_REQUEST), 0u);
    EXPECT_TRUE(Silent(scm.fd, 0));
}

// A client on the sap that speaks the SCM protocol is an ordinary client:
// each message the service would act on from the SCM (registration answers,
// a configuration answer to the pending request, a configuration push, a
// "syntax error", health) reaches the program as it was sent and changes
// nothing: no configuration taken, no request to the SCM, no answer to the
// client, no stop, the process goes on.
TEST_F(Scm, ScmProtocolFromAnotherPeerIsApplicationTraffic)
{
    const cUuid pending = Register();
    const std::string before = GetConfig()->ToString();
    cPeer client;
    ASSERT_TRUE(client.Connect(svc.GetSapAddress().GetPort()));
    ASSERT_TRUE(client.Announce("intruder"));
    cRecord nack, health;
    nack.AppendSIntPar("reason", 2);
    health.AppendTextPar("scm-health", "stopping");
    const std::vector<cMsg> intruders = {
        Msg(MSG_SCM_REGISTER_ACK),
        Msg(MSG_SCM_REGISTER_NACK, nack),
        Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(SampleConfig(), svc.GetServiceId()), pending),
        Msg(MSG_SCM_SETCONFIG, SetConfigRecord(LevelPath("."), SampleConfig(), 1), pending),
        Msg(MSG_SCM_SYNTAX_ERROR),
        Msg(MSG_SCM_HEALTH, health),
    };
    for (const cMsg& m : intruders) {
        ASSERT_TRUE(client.Send(m));
        cMsg got = Handed(m.GetType());
        EXPECT_EQ(got.GetType(), m.GetType()) << std::hex << m.GetType();
        EXPECT_EQ(got.GetRecord().ToString(), m.GetRecord().ToString()) << std::hex << m.GetType();
    }
    SpinFor(200);
    EXPECT_EQ(GetConfig()->ToString(), before);
    EXPECT_EQ(svc.GetPendingConfigId(), pending);
    EXPECT_EQ(svc.GetConfigAnswersTaken(), 0u);
    EXPECT_EQ(svc.GetScmHealth(), "");
    EXPECT_EQ(CountHanded(MSG_TERMINATE_REQUEST), 0u);
    EXPECT_FALSE(cService::GetStopFlag());
    EXPECT_TRUE(Silent(scm.fd, 0));
    EXPECT_EQ(Next(client.fd).GetType(), MSG_SOCKET_CONNECTED);    // the sap's own hello
    EXPECT_FALSE(Readable(client.fd, 0));
}

// Every request carries its keys (representative rows; the header lists them
// all); ids are fresh where the caller gives none, the caller's otherwise.
TEST_F(Scm, RequestsCarryTheirKeys)
{
    Register();
    const std::string sid = "service-id=" + svc.GetServiceId().ToString() + ";";
    cRecordPath path;
    path.AddLevel("a", cRecord());
    const std::string pathText = "path=" + path.GetRecord().ToString() + ";";
    cRecord rec;
    rec.AppendSIntPar("v", -3);
    cUuid id;
    id.Create();
    struct sCase {
        std::function<int()> call;
        unsigned long type;
        std::string fields;
        int tid;        // 0 none, 1 fresh, 2 id
    };
    const std::vector<sCase> cases = {
        {[&] { return svc.SetConfig2(id, nullptr, path, rec); }, MSG_SCM_SETCONFIG,
         "service-name=;" + pathText + "config=" + rec.ToString() + ";", 2},
        {[&] { return svc.SetConfigUInt("s", path, "n", 9); }, MSG_SCM_SETCONFIG,
         "service-name=s;" + pathText + "config={n=9 };", 1},
        {[&] { return svc.StoreRecord("hist", rec); }, MSG_SCM_STORE_RECORD,
         "name=hist;record=" + rec.ToString() + ";", 0},
        {[&] { return svc.FetchLog("events", 0, 1); }, MSG_SCM_LOG_FETCH, sid + "log=events;index=0;count=1;", 1},
        {[&] { return svc.RequestServiceConfig2(id, "meter", path, nullptr); }, MSG_SCM_GETCONFIG,
         "service-name=meter;" + pathText + "filter=;", 2},
        {[&] { return svc.SetServiceTech("meter", 3, "clock", "relay"); }, MSG_SCM_SET_SERVICE_TECH,
         sid + "service-tech=meter;service-tech=clock;service-tech=relay;", 1},
        {[&] { return svc.SetServiceTech("solo", 0); }, MSG_SCM_SET_SERVICE_TECH, sid + "service-tech=solo;", 1},
    };
    cUuid lastFresh;
    for (const sCase& c : cases) {
        EXPECT_GT(c.call(), 0);
        cMsg m = Next(scm.fd);
        EXPECT_EQ(m.GetType(), c.type) << c.fields;
        EXPECT_EQ(Fields(m.GetRecord()), c.fields);
        EXPECT_EQ(m.GetTid().IsValid(), c.tid != 0) << c.fields;
        if (c.tid == 2) {
            EXPECT_EQ(m.GetTid(), id);
        } else if (c.tid == 1) {
            EXPECT_NE(m.GetTid(), lastFresh);
            lastFresh = m.GetTid();
        }
    }
    EXPECT_EQ(svc.GetServiceTech(), "solo");
}

// A request the socket refuses (too large for a frame) is traced with the
// request's name; the configuration requests add the message text.
TEST_F(Scm, FailedSendsAreTraced)
{
    Register();
    cRecord big;
    const std::string data(197000, 'b');
    big.AppendDataPar("d", data.data(), int(data.size()));
    const std::string out = OrvoTraces(ERROR, [&] {
        EXPECT_LT(svc.StoreRecord("huge", big), 0);
        EXPECT_LT(svc.SetConfig("other", cRecordPath(), big), 0);
    });
    EXPECT_NE(out.find("[ERROR     ]: StoreRecord: send failed\n"), std::string::npos) << out.substr(0, 300);
    EXPECT_NE(out.find("[ERROR     ]: scmService[SetConfig] send failed, msg="), std::string::npos);
    EXPECT_TRUE(Silent(scm.fd, 50));
}

// Without "scm-sap" there is no SCM at all: one FATAL line, no socket, no
// traffic. Each Init form adds the "system" defaults with its failure action.
TEST_F(Scm, InitFormsAndNoScm)
{
    const std::string out = OrvoTraces(FATAL, [&] { svc.Init("alone", "reboot"); });
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

// ---- the SCM's loss ends the process (children) ---------------------------------

int QuietLoop(cService& svc, std::vector<unsigned long>* types = nullptr)
{
    cMsg m;
    while (svc.GetMessage(m)) {
        if (types != nullptr && m.GetType() != TICK)
            types->push_back(m.GetType());
    }
    return 5;
}

void FatalToStdout()
{
    SetTraceLevel(UnitORVO, FATAL);
    SetTraceOut(UnitORVO, OUTPUT_STDOUT);
}

// Every connect to the SCM that cannot succeed ends the process with status 0
// and "can't connect to SCM": a refused connect, an "scm-sap" that is no
// address, no socket to be had (out of descriptors); the last two are
// reported first.
TEST_F(Scm, EveryFailedConnectEndsLikeARefusedConnect)
{
    const std::string dead = "127.0.0.1:" + std::to_string(DeadPort());
    const struct {
        std::string sap;
        bool noSockets;
        std::string report;
    } cases[] = {
        {dead, false, ""},
        {"garbage", false, "malformed SCM-SAP 'garbage'"},
        {"127.0.0.1", false, "malformed SCM-SAP '127.0.0.1'"},
        {"1.2.3", false, "malformed SCM-SAP '1.2.3'"},
        {scm.Sap(), true, "SCM socket for " + scm.Sap() + " failed: "},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(orvo_test::RunInChild([&] {
                      FatalToStdout();
                      SetTraceLevel(UnitORVO, ERROR);
                      GetConfig()->AppendTextPar("scm-sap", c.sap);
                      std::unique_ptr<cNoSockets> none(c.noSockets ? new cNoSockets : nullptr);
                      svc.Init("tsvc", cSocketAddr("127.0.0.1", 0), "log");
                      return QuietLoop(svc);
                  }, &out, false, 60), 0) << c.sap;
        EXPECT_NE(out.find("]: " + c.report), std::string::npos) << out;
        EXPECT_NE(out.find("]: can't connect to SCM; exit service\n"), std::string::npos) << out;
    }
}

TEST_F(Scm, LossOfTheScmEndsTheProcess)
{
    std::string out;
    // Closed by the SCM: the close reaches the program, then 0x1004, then the
    // loop ends normally.
    EXPECT_EQ(orvo_test::RunInChild([&] {
                  FatalToStdout();
                  Register();
                  scm.Drop();
                  std::vector<unsigned long> types;
                  QuietLoop(svc, &types);
                  return types == std::vector<unsigned long>{MSG_SOCKET_CLOSED, MSG_INTERRUPT_REQUEST} ? 3 : 4;
              }, &out, false, 60), 3);
    EXPECT_NE(out.find("]: connection closed by SCM; exit service\n"), std::string::npos) << out;

    // Protocol error: exit code 1.
    out.clear();
    EXPECT_EQ(orvo_test::RunInChild([&] {
                  FatalToStdout();
                  Register();
                  scm.Send(Msg(MSG_SCM_SYNTAX_ERROR));
                  return QuietLoop(svc);
              }, &out, false, 60), 1);
    EXPECT_NE(out.find("]: syntax error in SCM protocoll; exit service\n"), std::string::npos) << out;
}

// ---- the trace copy ----------------------------------------------------------------

std::string Names(const cRecord& r)
{
    std::string out;
    for (cRecordPar p = r.GetFirstPar(); p.IsValid(); r.SeekNextPar(p))
        out += std::string(p.GetName()) + ",";
    return out;
}

TEST_F(Scm, TracesCopiedToTheScm)
{
    Register();
    cUnit unit("tcopy", ERROR, OUTPUT_NONE);
    mUnits->erase("tcopy");
    _Trace(&unit, ERROR, "not asked for");
    EXPECT_TRUE(Silent(scm.fd, 50));

    cRecord trace;
    trace.AppendBoolPar("log-scm", true);
    GetConfig()->AppendRecordPar("trace", trace);
    cRecord rec;
    rec.AppendTextPar("k", "v");
    _Trace(&unit, WARNING, rec);
    cMsg m = Next(scm.fd);
    EXPECT_EQ(m.GetType(), MSG_SCM_TRACE_LOG);
    const cRecord& r = m.GetRecord();
    EXPECT_EQ(Names(r), "service-id,name,executable,unit,level,time,osc,txt,rec,");
    EXPECT_EQ(r.GetFirstPar("name").GetString(), "tsvc");
    EXPECT_EQ(r.GetFirstPar("executable").GetString(), GetExeName());
    EXPECT_EQ(r.GetFirstPar("unit").GetString(), "tcopy");
    EXPECT_EQ(r.GetFirstPar("level").GetString(), "WARNING");
    EXPECT_EQ(r.GetFirstPar("txt").GetString(), rec.ToString());
    cRecord carried;
    ASSERT_TRUE(r.GetFirstPar("rec").GetRecord(carried));
    EXPECT_EQ(carried.ToString(), rec.ToString());

    // A copy too large for a frame: the "--FAILED-->>" line, whatever the
    // unit's output; the socket's own complaint is not copied again.
    cRecord big;
    const std::string data(197000, 'z');
    big.AppendDataPar("d", data.data(), int(data.size()));
    const std::string out = Captured([&] { _Trace(&unit, ERROR, big); });
    EXPECT_EQ(out.rfind("--FAILED-->>", 0), 0u) << out.substr(0, 200);
    EXPECT_NE(out.find("|tcopy        [ERROR     ]: "), std::string::npos);
    EXPECT_TRUE(Silent(scm.fd, 50));
}

// Traces from another thread while the loop runs: every copy arrives whole
// and in order on the one SCM stream.
TEST_F(Scm, TracesFromAnotherThread)
{
    Register();
    cRecord trace;
    trace.AppendBoolPar("log-scm", true);
    GetConfig()->AppendRecordPar("trace", trace);
    cUnit unit("tthread", ERROR, OUTPUT_NONE);
    mUnits->erase("tthread");
    const int count = 300;
    std::thread tracer([&] {
        for (int i = 0; i < count; ++i)
            _Trace(&unit, ERROR, FormatString("line %i %s", i, std::string(size_t(i) * 7, 'q').c_str()));
    });
    int seen = 0;
    for (; seen < count; ++seen) {
        cMsg m = Next(scm.fd);
        if (m.GetType() != MSG_SCM_TRACE_LOG)
            break;
        const std::string txt = m.GetRecord().GetFirstPar("txt").GetString();
        if (txt != FormatString("line %i %s", seen, std::string(size_t(seen) * 7, 'q').c_str()))
            break;
    }
    tracer.join();
    EXPECT_EQ(seen, count);
}

// ---- technology connections ------------------------------------------------------

cRecord ServiceRecord(const std::string& sap, const std::vector<std::string>& techs, bool wrapped,
                      const char* command = nullptr)
{
    cRecord service, tech, out;
    cUuid id;
    id.Create();
    service.AppendUuidPar("service-id", id);
    service.AppendTextPar("name", "metersvc");
    for (const std::string& t : techs)
        tech.AppendTextPar("service-tech", t);
    service.AppendRecordPar("tech", tech);
    service.AppendSIntPar("pid", 321);
    service.AppendTextPar("sap", sap);
    if (command != nullptr)
        out.AppendTextPar("command", command);
    if (!wrapped)
        return service;
    out.AppendRecordPar("service", service);
    return out;
}

TEST(ScmServiceInfo, Decoding)
{
    const cScmServiceInfo wrapped(ServiceRecord("10.0.0.1:4000", {"a", "b"}, true));
    ASSERT_TRUE(wrapped.IsValid());
    EXPECT_EQ(wrapped.GetName(), "metersvc");
    EXPECT_EQ(wrapped.GetSAP(), "10.0.0.1:4000");
    EXPECT_EQ(wrapped.GetPID(), 321);
    EXPECT_EQ(wrapped.GetTech(), (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(wrapped.HasTraceLog());
    EXPECT_EQ(wrapped.ToString(), "name=metersvc sap=10.0.0.1:4000 pid=321 uuid=" +
                                      wrapped.GetServiceID().ToString());
    EXPECT_EQ(wrapped.GetObjName(), "cScmServiceInfo");

    cRecord plain = ServiceRecord("x", {}, false);
    plain.AppendBoolPar("tracelog", false);
    const cScmServiceInfo direct(plain);
    EXPECT_TRUE(direct.IsValid());
    EXPECT_TRUE(direct.HasTraceLog());
    EXPECT_TRUE(direct.GetTech().empty());

    // Each required key of another type (or, for "sap", missing) makes it
    // not valid.
    for (const std::string key : {"service-id", "name", "pid", "sap", "tech"}) {
        cRecord bad, tech;
        cUuid id;
        id.Create();
        tech.AppendTextPar("service-tech", "a");
        key == "service-id" ? bad.AppendTextPar("service-id", "") : bad.AppendUuidPar("service-id", id);
        bad.AppendTextPar("name", key == "name" ? "" : "n");
        key == "tech" ? bad.AppendTextPar("tech", "a") : bad.AppendRecordPar("tech", tech);
        key == "pid" ? bad.AppendUIntPar("pid", 3) : bad.AppendSIntPar("pid", 3);
        if (key != "sap")
            bad.AppendTextPar("sap", "x");
        const cScmServiceInfo info(bad);
        EXPECT_FALSE(info.IsValid()) << key;
        EXPECT_EQ(info.ToString(), "not-valid");
    }
    EXPECT_FALSE(cScmServiceInfo().IsValid());
    EXPECT_FALSE(cScmServiceInfo(cRecord()).IsValid());
}

struct cTechLink : cScmServiceIO {
    using cScmServiceIO::cScmServiceIO;
    void OnConnect() override
    {
        ++connects;
        calls += "connect,";
    }
    void OnClose() override
    {
        ++closes;
        calls += "close,";
    }
    int DispatchMessage(const cMsg& m) override
    {
        dispatched.push_back(m.GetType());
        return 7;
    }
    int connects = 0;
    int closes = 0;
    std::string calls;      // the callbacks in order
    std::vector<unsigned long> dispatched;
};

// A link whose owner has taken its configuration and asked the SCM once.
class TechLink : public Scm {
protected:
    void LookedUp()
    {
        pending = Register();
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(cRecord(), svc.GetServiceId()), pending)));
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_GETCONFIG_ACK)), 1);
        ExpectLookUp();
    }
    void ExpectLookUp()
    {
        cMsg notify = Next(scm.fd);
        EXPECT_EQ(notify.GetType(), MSG_SCM_NOTIFICATION_REQUEST);
        EXPECT_EQ(Fields(notify.GetRecord()), "mask=2;");
        cMsg ask = Next(scm.fd);
        EXPECT_EQ(ask.GetType(), MSG_SCM_SERVICE_INFO_REQUEST);
        EXPECT_EQ(Fields(ask.GetRecord()), "service-tech=meter;");
    }
    void Announce(const std::string& sap)
    {
        EXPECT_EQ(io.ProcessMsg(Msg(MSG_SCM_SERVICE_INFO, ServiceRecord(sap, {"meter"}, true))), 1);
    }
    // Announces tech's place and takes its connection up: one OnConnect.
    void ConnectTo(cPeer& tech)
    {
        Announce(tech.Sap());
        ASSERT_TRUE(tech.Accept());
        ASSERT_TRUE(tech.Announce("metersvc"));
        EXPECT_EQ(Next(tech.fd).GetRecord().GetFirstPar("peer-name").GetString(), "tsvc");
        cMsg up = Handed(MSG_SOCKET_CONNECTED);
        EXPECT_TRUE(io.IsMsgFromHere(up));
        EXPECT_EQ(io.ProcessMsg(up), 1);
        EXPECT_EQ(io.GetConnectedSAP(), tech.Sap());
    }
    static size_t Count(const std::string& out, const std::string& line)
    {
        size_t n = 0;
        for (size_t p = 0; (p = out.find("]: " + line, p)) != std::string::npos; ++p)
            ++n;
        return n;
    }
    cUuid pending;
    cTechLink io{&svc, "meter"};
};

// The look-up, an unknown answer, the connect and traffic both ways; Send
// before the link is up sends nothing.
TEST_F(TechLink, LooksUpConnectsAndCarriesMessages)
{
    EXPECT_EQ(io.ToString(), "cScmServiceIO technology=meter");
    cPeer tech;
    const std::string out = OrvoTraces(DEBUG, [&] {
        LookedUp();
        cMsg early(PROBE);
        EXPECT_EQ(io.Send(early), 0);
        cRecord unknown;
        unknown.AppendTextPar("service-tech", "meter");
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_TECH_UNKNOWN, unknown)));
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_TECH_UNKNOWN)), 1);
        // The answer lists other technologies too: only "meter" is taken.
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SERVICE_INFO, ServiceRecord(tech.Sap(), {"clock", "meter"}, true))));
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_SERVICE_INFO)), 1);
        EXPECT_EQ(io.GetAnnouncedSAP(), tech.Sap());
        ASSERT_TRUE(tech.Accept());
        ASSERT_TRUE(tech.Announce("metersvc"));
        EXPECT_EQ(Next(tech.fd).GetRecord().GetFirstPar("peer-name").GetString(), "tsvc");
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SOCKET_CONNECTED)), 1);
    });
    EXPECT_EQ(io.connects, 1);
    EXPECT_EQ(io.GetConnectedSAP(), tech.Sap());
    size_t at = 0;
    for (const std::string& line : std::vector<std::string>{
             "get config to tech 'meter' received", "start connection to tech 'meter'",
          "tech 'meter' is unknown (perhaps not connected yet)", "connection info for tech 'meter' sap received",
          "connect to tech 'meter', sap=" + tech.Sap(), "connection to tech 'meter' established"}) {
        at = out.find("]: " + line, at);
        ASSERT_NE(at, std::string::npos) << line << "\n" << out;
    }

    cMsg req(PROBE);
    req.GetRecord().AppendUIntPar("n", 5);
    EXPECT_GT(io.Send(req), 0);
    cMsg atTech = Next(tech.fd);
    EXPECT_EQ(atTech.GetType(), PROBE);
    EXPECT_EQ(Fields(atTech.GetRecord()), "n=5;");
    ASSERT_TRUE(tech.Send(Msg(PROBE + 1)));
    cMsg reply = Handed(PROBE + 1);
    EXPECT_TRUE(io.IsMsgFromHere(reply));
    EXPECT_EQ(io.ProcessMsg(reply), 7);
    EXPECT_EQ(io.dispatched, std::vector<unsigned long>{PROBE + 1});
}

// While connected the link keeps its place: the same SAP again is silent, a
// new one is only remembered.
TEST_F(TechLink, AConnectedLinkKeepsItsPlace)
{
    LookedUp();
    cPeer tech, tech2;
    ConnectTo(tech);
    const std::string same = OrvoTraces(DEBUG, [&] {
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_SERVICE_INFO, ServiceRecord(tech.Sap(), {"meter"}, false))));
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_SERVICE_INFO)), 1);
        EXPECT_TRUE(Silent(tech.listenFd, 100));
    });
    EXPECT_EQ(Count(same, "connection info for tech"), 0u) << same;
    EXPECT_EQ(Count(same, "connect to tech"), 0u) << same;

    const std::string moved = OrvoTraces(DEBUG, [&] {
        ASSERT_TRUE(scm.Send(Msg(MSG_SCM_NOTIFICATION, ServiceRecord(tech2.Sap(), {"meter"}, true, "add-technology"))));
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_NOTIFICATION)), 1);
        EXPECT_TRUE(Silent(tech2.listenFd, 100));
    });
    EXPECT_EQ(io.GetAnnouncedSAP(), tech2.Sap());
    EXPECT_EQ(io.GetConnectedSAP(), tech.Sap());
    EXPECT_EQ(Count(moved, "connection to tech 'meter' should reconnected"), 1u) << moved;
    EXPECT_EQ(Count(moved, "already connected to tech 'meter', sap=" + tech.Sap()), 1u) << moved;
    EXPECT_EQ(io.connects, 1);
}

// A closed link: told once, Send refused, exactly one health time-out 5 s
// later asks the SCM again; HealthRequest does not re-arm a running timer;
// the next connect, to the newly announced place, stops it.
TEST_F(TechLink, AClosedLinkAsksAgainOnceAfterFiveSeconds)
{
    LookedUp();
    cPeer tech, tech2;
    ConnectTo(tech);
    const std::string out = OrvoTraces(DEBUG, [&] {
        tech.Drop();
        EXPECT_EQ(io.ProcessMsg(Handed(MSG_SOCKET_CLOSED)), 1);
    });
    EXPECT_EQ(Count(out, "connection to tech 'meter' shutdown"), 1u) << out;
    EXPECT_EQ(io.closes, 1);
    EXPECT_EQ(io.GetConnectedSAP(), "");
    EXPECT_TRUE(io.GetHealthTimer().IsRunning());
    cMsg req(PROBE);
    EXPECT_EQ(io.Send(req), 0);

    gClockOffset += 4500;        // the spin itself takes real time
    SpinFor(50);
    EXPECT_EQ(CountHanded(MSG_SCM_TECH_HEALTH_TIMEOUT), 0u);
    gClockOffset += 600;
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_TECH_HEALTH_TIMEOUT)), 1);
    ExpectLookUp();
    gClockOffset += 6000;
    SpinFor(100);
    EXPECT_EQ(CountHanded(MSG_SCM_TECH_HEALTH_TIMEOUT), 0u);

    io.HealthRequest();
    const uint64_t due = io.GetHealthTimer().GetDue();
    gClockOffset += 1000;
    io.HealthRequest();
    EXPECT_EQ(io.GetHealthTimer().GetDue(), due);

    ConnectTo(tech2);
    EXPECT_EQ(io.connects, 2);
    EXPECT_FALSE(io.GetHealthTimer().IsRunning());
}

// Socket events and time-outs of another link, and notifications other than
// "add-technology", are not this link's: they go to DispatchMessage or are
// returned untouched.
TEST_F(TechLink, AnotherLinksEventsAreNotThisOnes)
{
    LookedUp();
    cTechLink clock(&svc, "clock");
    clock.HealthRequest();
    gClockOffset += 5100;
    cMsg clockTimeout = Handed(MSG_SCM_TECH_HEALTH_TIMEOUT);
    EXPECT_EQ(io.ProcessMsg(clockTimeout), 7);
    EXPECT_EQ(io.dispatched.back(), MSG_SCM_TECH_HEALTH_TIMEOUT);
    EXPECT_EQ(clock.ProcessMsg(clockTimeout), 1);
    EXPECT_EQ(Next(scm.fd).GetType(), MSG_SCM_NOTIFICATION_REQUEST);
    cMsg ask = Next(scm.fd);
    EXPECT_EQ(ask.GetType(), MSG_SCM_SERVICE_INFO_REQUEST);
    EXPECT_EQ(Fields(ask.GetRecord()), "service-tech=clock;");
    for (unsigned long type : {MSG_SOCKET_CONNECTED, MSG_SOCKET_CLOSED, MSG_SOCKET_CONNECT_FAILED})
        EXPECT_EQ(clock.ProcessMsg(cMsg(type, &io.GetSocket(), nullptr)), 1);
    EXPECT_TRUE(clock.dispatched.empty());
    EXPECT_EQ(clock.connects + clock.closes, 0);
    cRecord otherCommand;
    otherCommand.AppendTextPar("command", "remove-technology");
    EXPECT_EQ(clock.ProcessMsg(Msg(MSG_SCM_NOTIFICATION, otherCommand)), 7);
}

// Late duplicates and answers about other services do not start another look-up.
TEST_F(TechLink, OnlyTheOwnAcceptedConfigAnswerStartsTheLookUp)
{
    LookedUp();
    cUuid other;
    other.Create();
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(cRecord(), svc.GetServiceId()), pending)));
    ASSERT_TRUE(scm.Send(Msg(MSG_SCM_GETCONFIG_ACK, ConfigAnswer(cRecord(), other), other)));
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_GETCONFIG_ACK)), 1);
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_GETCONFIG_ACK)), 1);
    EXPECT_TRUE(Silent(scm.fd, 200));
}

// A failed connect ends closed: OnClose, and a new look-up 5 s later.
// An answer that lists the technology twice is acted on for each entry.
TEST_F(TechLink, FailedConnectEndsClosedWithARetry)
{
    LookedUp();
    const std::string dead = "127.0.0.1:" + std::to_string(DeadPort());
    const std::string out = OrvoTraces(DEBUG, [&] {
        EXPECT_EQ(io.ProcessMsg(Msg(MSG_SCM_SERVICE_INFO, ServiceRecord(dead, {"meter", "meter"}, true))), 1);
        cMsg failed = Handed(MSG_SOCKET_CONNECT_FAILED);
        EXPECT_TRUE(io.IsMsgFromHere(failed));
        EXPECT_EQ(io.ProcessMsg(failed), 1);
        SpinFor(100);
    });
    EXPECT_EQ(Count(out, "connection info for tech 'meter' sap received"), 2u) << out;
    EXPECT_EQ(Count(out, "connection to tech 'meter' failed"), 1u) << out;
    EXPECT_EQ(CountHanded(MSG_SOCKET_CONNECT_FAILED), 0u);
    EXPECT_EQ(io.closes, 1);
    EXPECT_FALSE(io.IsConnected());
    EXPECT_TRUE(io.GetHealthTimer().IsRunning());
    gClockOffset += 5100;
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_TECH_HEALTH_TIMEOUT)), 1);
    ExpectLookUp();
}

// No socket to be had (out of descriptors): traced, closed, and a new
// look-up 5 s later.
TEST_F(TechLink, NoSocketEndsClosedWithARetry)
{
    LookedUp();
    const std::string dead = "127.0.0.1:" + std::to_string(DeadPort());
    const std::string out = OrvoTraces(ERROR, [&] {
        const cNoSockets none;
        Announce(dead);
    });
    EXPECT_NE(out.find("]: socket for tech 'meter' failed: "), std::string::npos) << out;
    EXPECT_EQ(io.calls, "close,");
    EXPECT_TRUE(io.GetHealthTimer().IsRunning());
    gClockOffset += 5100;
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SCM_TECH_HEALTH_TIMEOUT)), 1);
    ExpectLookUp();
}

// A SAP that is no address: traced, closed, retried by the health timer.
TEST_F(TechLink, MalformedSapIsTracedAndEndsClosed)
{
    LookedUp();
    const std::string out = OrvoTraces(ERROR, [&] { Announce("garbage"); });
    EXPECT_NE(out.find("malformed sap 'garbage' of tech 'meter'"), std::string::npos) << out;
    EXPECT_EQ(io.closes, 1);
    EXPECT_TRUE(io.GetHealthTimer().IsRunning());
}

// Events still queued for the old connection are dropped on reconnect: A
// up, A's close taken while a stale 0x4002 and 0x4003 of A still wait in the
// queue, then B announced: connect, close, connect, and nothing more.
TEST_F(TechLink, ReconnectDropsTheOldConnectionsEvents)
{
    LookedUp();
    cPeer techA, techB;
    ConnectTo(techA);
    techA.Drop();
    cMsg closeA = Handed(MSG_SOCKET_CLOSED);
    ASSERT_TRUE(io.IsMsgFromHere(closeA));
    cMsg staleUp(MSG_SOCKET_CONNECTED, &io.GetSocket(), nullptr);
    cMsg staleClose(MSG_SOCKET_CLOSED, &io.GetSocket(), nullptr);
    svc.OnMsg(staleUp);
    svc.OnMsg(staleClose);
    EXPECT_EQ(io.ProcessMsg(closeA), 1);

    Announce(techB.Sap());
    ASSERT_TRUE(techB.Accept());
    ASSERT_TRUE(techB.Announce("metersvc"));
    EXPECT_EQ(io.ProcessMsg(Handed(MSG_SOCKET_CONNECTED)), 1);
    SpinFor(200);
    for (const cMsg& m : handed)     // what a loop would give the link
        io.ProcessMsg(m);
    EXPECT_EQ(io.calls, "connect,close,connect,");
    EXPECT_EQ(io.connects, 2);
    EXPECT_EQ(io.closes, 1);
    EXPECT_EQ(io.GetConnectedSAP(), techB.Sap());
}

}  // namespace
