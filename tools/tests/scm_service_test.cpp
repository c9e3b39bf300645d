// The library's SCM client against the real orvo-scm: a cScmService of this
// test process lives a whole life with orvo-scm as its SCM, and the two
// example services find each other through it and survive a restart.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <functional>
#include <string>

#include <orvo.h>

#include "../../tests/test_helpers.h"
#include "scm_process.h"

using namespace orvo;
using namespace orvo_test;

namespace {

const int kWait = 10000;
const unsigned long kMsgGiveUp = 0x2FFFE;

struct cTestScmService : cScmService {
    void ThreadMain() override {}
};

// Runs the loop until done(msg) is true (true) or ms pass (false);
// watchdog triggers are answered on the way.
bool Pump(cTestScmService& service, const std::function<bool(cMsg&)>& done, unsigned long ms = kWait)
{
    cTimer giveUp(&service, false, nullptr);
    giveUp.Start(ms, kMsgGiveUp);
    cMsg msg;
    while (service.GetMessage(msg)) {
        if (msg == kMsgGiveUp)
            return false;
        if (msg == MSG_SCM_WDT)
            service.SetWDT(msg);
        if (done(msg))
            return true;
    }
    return false;
}

bool PumpUntil(cTestScmService& service, unsigned long type, cMsg* got = nullptr)
{
    return Pump(service, [&](cMsg& m) {
        if (m != type)
            return false;
        if (got != nullptr)
            *got = m;
        return true;
    });
}

class ScmService : public ::testing::Test {
protected:
    void TearDown() override { cService::SetStopFlag(false); }
    bool StartScm(cScmProcess& scm, const std::string& json, const std::vector<std::string>& more = {})
    {
        return m_Dir.StartScm(scm, json, more);
    }
    cScmTestDir m_Dir;
};

TEST_F(ScmService, LivesAWholeLifeWithOrvoScm)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {"life": {"config": [
        {"name": "tick-ms", "type": "uint", "value": 250}]}}})", {"-wdt-ms", "200"}));
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    GetConfig()->SetTextPar("scm-sap", scm.Sap());
    GetConfig()->SetTextPar("ip", "127.0.0.1");
    cTestScmService service;
    service.Init("life", cSocketAddr("127.0.0.1", 0), "log");

    // Connect, register, configuration: the file's value arrives, the
    // service's own keys stay.
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_GETCONFIG_ACK));
    EXPECT_EQ(GetConfig()->GetFirstPar("tick-ms").GetUInt(), 250u);
    EXPECT_EQ(GetConfig()->GetFirstParByPath("system.failure-action", ".").GetString(), "log");
    EXPECT_EQ(GetConfig()->GetFirstPar("scm-sap").GetString(), scm.Sap());
    EXPECT_TRUE(scm.WaitFor("registered 'life' pid " + std::to_string(getpid()) + " sap 127.0.0.1:" +
                                std::to_string(service.GetSapAddress().GetPort()), kWait));

    // Ready; the watchdog is then answered by Pump for a while without a failure.
    service.SetReady();
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_RUN_ACK));
    EXPECT_EQ(service.GetScmHealth(), "running");
    unsigned triggers = 0;
    Pump(service, [&](cMsg& m) { return m == MSG_SCM_WDT && ++triggers == 5; });
    EXPECT_EQ(triggers, 5u);

    // Technologies: offered, then found by technology and by name.
    service.SetServiceTech("clock", 1);
    service.RequestServiceInfoByTech("clock");
    cMsg info;
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_SERVICE_INFO, &info));
    cScmServiceInfo described(info.GetRecord());
    ASSERT_TRUE(described.IsValid());
    EXPECT_EQ(described.GetName(), "life");
    EXPECT_EQ(described.GetServiceID(), service.GetServiceId());
    EXPECT_EQ(described.GetPID(), getpid());
    service.RequestServiceInfoByTech("gas");
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_TECH_UNKNOWN, &info));
    EXPECT_EQ(info.GetRecord().GetFirstPar("service-tech").GetString(), "gas");

    // A stored record comes back.
    cRecord kept;
    kept.AppendUIntPar("count", 17);
    service.StoreRecord("life.state", kept);
    service.RequestStoredRecord("life.state");
    cMsg stored;
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_GET_STORED_RECORD, &stored));
    cRecord back;
    ASSERT_TRUE(stored.GetRecord().GetFirstPar("record").GetRecord(back));
    EXPECT_EQ(back.GetFirstPar("count").GetUInt(), 17u);

    // A changed file: the new configuration is pushed whole and applied.
    WriteFile(m_Dir.File(), R"({"services": {"life": {"config": [{"name": "tick-ms", "type": "uint", "value": 500}]}}})");
    cMsg pushed;
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_SETCONFIG, &pushed));
    EXPECT_EQ(GetConfig()->GetFirstPar("tick-ms").GetUInt(), 500u);
    EXPECT_EQ(GetConfig()->GetFirstPar("scm-sap").GetString(), scm.Sap());
    cRecord old;
    ASSERT_TRUE(pushed.GetRecord().GetFirstPar("old-config").GetRecord(old));
    EXPECT_EQ(old.GetFirstPar("tick-ms").GetUInt(), 250u);
    EXPECT_TRUE(scm.WaitFor("'life' applied the pushed configuration", kWait));
    EXPECT_EQ(scm.Output().find("watchdog:"), std::string::npos);

    // The SCM ends: the connection closes and the service's loop ends.
    EXPECT_EQ(scm.Terminate(kWait), 0);
    bool closed = false;
    Pump(service, [&](cMsg& m) { return closed = closed || m == MSG_SOCKET_CLOSED, false; });
    EXPECT_TRUE(closed);
    EXPECT_TRUE(cService::GetStopFlag()) << "the SCM's loss ends the service";
    service.DeInit();
}

// A service whose sap port is another process's: the library registers port
// 0 (include/orvo_scm.h), and orvo-scm answers a look-up of its technology
// with 0x1001a instead of an address the service does not own.
TEST_F(ScmService, ATechnologyWhoseSapIsNotBoundIsUnknown)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {}})"));
    unsigned short takenPort = 0;
    const int taken = ListenOnLoopback(takenPort);
    ASSERT_GE(taken, 0);
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    GetConfig()->SetTextPar("scm-sap", scm.Sap());
    GetConfig()->SetTextPar("ip", "127.0.0.1");
    cTestScmService service;
    service.Init("nosap", cSocketAddr("127.0.0.1", takenPort), "log");
    EXPECT_FALSE(service.IsSapUp());
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_GETCONFIG_ACK));
    EXPECT_TRUE(scm.WaitFor("registered 'nosap' pid " + std::to_string(getpid()) + " sap 127.0.0.1:0", kWait));
    EXPECT_TRUE(scm.WaitFor("'nosap' registered without a sap it listens on", kWait));

    service.SetServiceTech("meter", 1);
    ASSERT_TRUE(scm.WaitFor("'nosap' offers meter", kWait));
    service.RequestServiceInfoByTech("meter");
    cMsg info;
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_TECH_UNKNOWN, &info));
    EXPECT_EQ(info.GetRecord().GetFirstPar("service-tech").GetString(), "meter");
    close(taken);

    EXPECT_EQ(scm.Terminate(kWait), 0);
    Pump(service, [](cMsg&) { return false; }, 2000);
    service.DeInit();
}

// A configuration change asked for by the service itself (SetConfigUInt,
// no service name: its own) goes through orvo-scm: the one value changes,
// its siblings stay, the change comes back as a push and is acknowledged;
// a later change of the file keeps it.
TEST_F(ScmService, ConfigurationChangesGoThroughOrvoScm)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {"cfg": {"config": [
        {"name": "meter", "type": "record", "value": [{"name": "tick-ms", "type": "uint", "value": 250},
                                                      {"name": "phase", "type": "uint", "value": 3}]}]}}})"));
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    GetConfig()->SetTextPar("scm-sap", scm.Sap());
    GetConfig()->SetTextPar("ip", "127.0.0.1");
    cTestScmService service;
    service.Init("cfg", cSocketAddr("127.0.0.1", 0), "log");
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_GETCONFIG_ACK));
    EXPECT_EQ(GetConfig()->GetFirstParByPath("meter.tick-ms", ".").GetUInt(), 250u);

    cRecordPath meter;
    meter.AddLevel("meter", cRecord());
    EXPECT_GT(service.SetConfigUInt("", meter, "tick-ms", 400), 0);
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_SETCONFIG_ACK));
    EXPECT_EQ(GetConfig()->GetFirstParByPath("meter.tick-ms", ".").GetUInt(), 400u);
    EXPECT_EQ(GetConfig()->GetFirstParByPath("meter.phase", ".").GetUInt(), 3u);
    EXPECT_EQ(GetConfig()->GetFirstPar("scm-sap").GetString(), scm.Sap());

    // A path that names no record is refused with its reason.
    cRecordPath nowhere;
    nowhere.AddLevel("nowhere", cRecord());
    EXPECT_GT(service.SetConfigUInt("", nowhere, "x", 1), 0);
    cMsg refused;
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_SETCONFIG_NACK, &refused));
    EXPECT_FALSE(refused.GetRecord().GetFirstPar("reason").GetString().empty());

    WriteFile(m_Dir.File(), R"({"services": {"cfg": {"config": [
        {"name": "meter", "type": "record", "value": [{"name": "tick-ms", "type": "uint", "value": 250},
                                                      {"name": "phase", "type": "uint", "value": 4}]}]}}})");
    ASSERT_TRUE(PumpUntil(service, MSG_SCM_SETCONFIG));
    EXPECT_EQ(GetConfig()->GetFirstParByPath("meter.phase", ".").GetUInt(), 4u);
    EXPECT_EQ(GetConfig()->GetFirstParByPath("meter.tick-ms", ".").GetUInt(), 400u);
    EXPECT_TRUE(scm.WaitFor("'cfg' applied the pushed configuration", kWait));
    EXPECT_EQ(scm.Terminate(kWait), 0);
    Pump(service, [](cMsg&) { return false; }, 2000);
    service.DeInit();
}

TEST_F(ScmService, ExampleServicesFindEachOtherAndReconnectAfterARestart)
{
    const std::string examples = EnvOr("ORVO_EXAMPLES_DIR", "examples");
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {
        "meter": {"start": true, "command": ")" + examples + R"(/meter_service -scm-sap {scm-sap}"},
        "reader": {"start": true, "command": ")" + examples + R"(/meter_reader -scm-sap {scm-sap}",
                   "config": [{"name": "read-ms", "type": "uint", "value": 200}]}}})",
                         {"-restart-ms", "100"}));
    ASSERT_TRUE(scm.WaitFor("reader reader [INFO]: register 180 = ", kWait));
    const int meter = RegisteredPid(scm, "meter", 0);
    ASSERT_GT(meter, 0);
    const size_t mark = scm.OutputSize();
    ASSERT_EQ(kill(meter, SIGKILL), 0);
    size_t reconnected = 0;
    ASSERT_TRUE(scm.WaitFor("reader reader [INFO]: connected to the meter at", kWait, mark, &reconnected));
    EXPECT_NE(RegisteredPid(scm, "meter", mark), meter);
    EXPECT_TRUE(scm.WaitFor("reader reader [INFO]: register 180 = ", kWait, reconnected));
    EXPECT_EQ(scm.Terminate(kWait), 0);
}

TEST_F(ScmService, ChildOutputReachesTheConsoleAndTracesShowOnce)
{
    // The meter prints its traces (-log-stdout) and sends them to the SCM
    // too (trace.log-scm): the console shows each once, as the SCM's copy.
    // Lines of other forms, and trace-like lines of a program that is no
    // service, pass unchanged.
    const std::string examples = EnvOr("ORVO_EXAMPLES_DIR", "examples");
    const std::string plain = "not a trace from the echo child";
    const std::string traceLike = "01.02.2026 10:11:12.123(7) echo    |echo         [INFO      ]: trace-like";
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {
        "meter": {"start": true, "command": ")" + examples + R"(/meter_service -scm-sap {scm-sap} -log-stdout"},
        "echo1": {"start": true, "command": "echo )" + plain + R"("},
        "echo2": {"start": true, "command": "echo ')" + traceLike + R"('"}}})",
                         {"-restart-ms", "60000"}));
    ASSERT_TRUE(scm.WaitFor("meter meter [INFO]: meter ready, sap", kWait));
    ASSERT_TRUE(scm.WaitFor(plain, kWait));
    ASSERT_TRUE(scm.WaitFor(traceLike, kWait));
    EXPECT_EQ(scm.Terminate(kWait), 0);
    const std::string out = scm.Output();
    size_t count = 0;
    for (size_t at = out.find("meter ready, sap"); at != std::string::npos; at = out.find("meter ready, sap", at + 1))
        ++count;
    EXPECT_EQ(count, 1u) << out;
}

}  // namespace
