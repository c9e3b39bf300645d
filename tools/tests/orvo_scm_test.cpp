// orvo-scm as a real process on a free port, driven by scripted clients over
// real sockets: registration and refusal, configuration and its push on a
// file change, technologies and notifications, watchdog, health, stored
// records across a restart, and the services it starts and restarts.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <orvo_record.h>
#include <orvo_uuid.h>

#include "../../tests/test_helpers.h"
#include "record_json.h"
#include "scm_client.h"
#include "scm_process.h"

using namespace orvo;
using namespace orvo_test;

namespace {

const int kWait = 10000;

std::string BytesOf(const cRecord& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

cRecord Sub(const cRecord& r, const char* name)
{
    cRecord sub;
    r.GetFirstPar(name, RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(sub);
    return sub;
}

class OrvoScm : public ::testing::Test {
protected:
    bool StartScm(cScmProcess& scm, const std::string& json, const std::vector<std::string>& more = {})
    {
        return m_Dir.StartScm(scm, json, more);
    }

    // An SCM with no configured services, with or without -shared-tech.
    bool StartEmptyScm(cScmProcess& scm, bool sharedTech)
    {
        return StartScm(scm, R"({"services": {}})",
                        sharedTech ? std::vector<std::string>{"-shared-tech"} : std::vector<std::string>{});
    }

    // Registers name and takes its configuration; the answer's record.
    cRecord Register(cScmClient& c, cScmProcess& scm, const cUuid& id, const std::string& name,
                     const cRecord& config, const std::string& sap = "127.0.0.1:1")
    {
        cMsg msg;
        EXPECT_TRUE(c.Connect(scm.Port()));
        EXPECT_TRUE(c.Send(RegisterMsg(id, name, 4242, config, sap)));
        EXPECT_TRUE(c.ReceiveType(msg, 0x10001, kWait)) << name;
        cMsg request = Request(0x10003);
        request.GetRecord().AppendUuidPar("service-id", id);
        request.GetRecord().AppendTextPar("path", "");
        EXPECT_TRUE(c.Send(request));
        EXPECT_TRUE(c.ReceiveType(msg, 0x10004, kWait)) << name;
        EXPECT_EQ(msg.GetTid(), request.GetTid());
        return msg.GetRecord();
    }

    cScmTestDir m_Dir;
};

const char* const kAlphaJson = R"({"services": {"alpha": {"config": [
    {"name": "level", "type": "uint", "value": 7},
    {"name": "meter", "type": "record", "value": [{"name": "id", "type": "text", "value": "m1"}]}]}}})";

// A taken port, an address that is none, a mistyped option: orvo-scm says
// why and ends with status 2, without ever listening (a listen() on a socket
// whose bind failed would bind it on every interface, at a port the kernel
// picks).
TEST_F(OrvoScm, RefusesATakenPortABadAddressAndUnknownOptions)
{
    unsigned short takenPort = 0;
    const int taken = ListenOnLoopback(takenPort);
    ASSERT_GE(taken, 0);
    const std::string port = std::to_string(takenPort);
    struct sCase {
        std::vector<std::string> options;
        const char* says;
    };
    const std::vector<sCase> cases = {
        {{"-listen", "127.0.0.1:" + port}, "cannot listen on 127.0.0.1:"},
        {{"-listen", "garbage"}, "-listen garbage is no ip:port address"},
        {{"-lisen", "127.0.0.1:1"}, "unknown option '-lisen'"},
        {{"stray"}, "unexpected argument 'stray'"},
        {{"-control-access", "everyone"}, "-control-access everyone:"},
    };
    for (const sCase& c : cases) {
        cScmProcess scm;
        EXPECT_FALSE(StartScm(scm, R"({"services": {}})", c.options)) << c.says;
        EXPECT_EQ(scm.Exit(kWait), 2) << c.says;
        const std::string out = scm.Output();
        EXPECT_NE(out.find(c.says), std::string::npos) << out;
        EXPECT_EQ(out.find("listening on"), std::string::npos) << out;
    }
    close(taken);
    // A wrong file at start: its line and the reason, status 2.
    cScmProcess scm;
    EXPECT_FALSE(StartScm(scm, "{\"services\": {\n \"alpha\": {\"start\": true}}}"));
    EXPECT_EQ(scm.Exit(kWait), 2);
    EXPECT_NE(scm.Output().find(": line 2: services.alpha: \"start\" needs a \"command\""), std::string::npos)
        << scm.Output();
}

TEST_F(OrvoScm, RegistersRefusesASecondLiveNameAndServesTheConfiguration)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, kAlphaJson));
    cUuid id;
    id.Create();
    cRecord own;
    own.AppendUIntPar("level", 1);
    own.AppendTextPar("scm-sap", scm.Sap());
    cScmClient alpha;
    const cRecord answer = Register(alpha, scm, id, "alpha", own);

    cUuid got;
    ASSERT_TRUE(answer.GetFirstPar("service-id").GetUuid(got));
    EXPECT_EQ(got, id);
    EXPECT_EQ(answer.GetFirstPar("path", RECORD_TEXT, RECORD_SEL_TYPE).GetString(), "");
    // The file's elements replace the registered ones of the same name; the
    // others stay, in their order.
    cRecord expected;
    expected.AppendTextPar("scm-sap", scm.Sap());
    expected.AppendUIntPar("level", 7);
    cRecord meter;
    meter.AppendTextPar("id", "m1");
    expected.AppendRecordPar("meter", meter);
    EXPECT_EQ(BytesOf(Sub(answer, "config")), BytesOf(expected));
    cMsg msg;
    ASSERT_TRUE(alpha.ReceiveType(msg, 0x10141, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("scm-health").GetString(), "running");

    // The same name again while alpha is connected: refused, reason 2.
    cScmClient twin;
    ASSERT_TRUE(twin.Connect(scm.Port()));
    cUuid other;
    other.Create();
    cMsg reg = RegisterMsg(other, "alpha", 4343, cRecord());
    ASSERT_TRUE(twin.Send(reg));
    ASSERT_TRUE(twin.ReceiveType(msg, 0x10002, kWait));
    EXPECT_EQ(msg.GetTid(), reg.GetTid());
    EXPECT_EQ(msg.GetRecord().GetFirstPar("reason").GetSInt(), 2);
    EXPECT_EQ(msg.GetRecord().GetFirstPar("sub-reason").GetString(), "name 'alpha' is registered by pid 4242");

    // A registration without a uuid: reason 1.
    cMsg bad = Request(0x10000, "name", "beta");
    ASSERT_TRUE(twin.Send(bad));
    ASSERT_TRUE(twin.ReceiveType(msg, 0x10002, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("reason").GetSInt(), 1);

    // Once alpha's connection is gone, the name can be taken again.
    alpha.Close();
    ASSERT_TRUE(scm.WaitFor("'alpha' disconnected", kWait));
    ASSERT_TRUE(twin.Send(reg));
    EXPECT_TRUE(twin.ReceiveType(msg, 0x10001, kWait));

    // The library's own control messages: service information of orvo-scm.
    ASSERT_TRUE(twin.Send(Request(0x7006)));
    ASSERT_TRUE(twin.ReceiveType(msg, 0x7007, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("name").GetString(), "orvo-scm");

    // Stopping is announced to the registered services.
    ASSERT_EQ(kill(scm.Pid(), SIGTERM), 0);
    ASSERT_TRUE(twin.ReceiveType(msg, 0x10141, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("scm-health").GetString(), "stopping");
    EXPECT_EQ(scm.Terminate(kWait), 0);
}

// Two services started in the same microsecond carry the same id (time of
// day and a generator seeded with the second): each configuration request is
// answered with the asker's own configuration, not the first of that id.
TEST_F(OrvoScm, ServicesSharingAnIdEachGetTheirOwnConfiguration)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {"zeta": {"config": [
        {"name": "journal", "type": "text", "value": "/zeta.journal"}]}}})"));
    cUuid id;
    id.Create();
    cScmClient alpha, zeta;
    Register(alpha, scm, id, "alpha", cRecord());
    const cRecord answer = Register(zeta, scm, id, "zeta", cRecord());
    EXPECT_EQ(Sub(answer, "config").GetFirstPar("journal").GetString(), "/zeta.journal");
}

TEST_F(OrvoScm, FindsServicesByNameAndTechnologyAndNotifiesSubscribers)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {}})"));
    cUuid clientId, meterId;
    clientId.Create();
    meterId.Create();
    cScmClient client, meter;
    Register(client, scm, clientId, "reader", cRecord());
    cMsg subscribe = Request(0x1006C);
    subscribe.GetRecord().AppendUIntPar("mask", 2);
    ASSERT_TRUE(client.Send(subscribe));

    cMsg msg;
    cMsg unknown = Request(0x10018, "service-tech", "meter");
    ASSERT_TRUE(client.Send(unknown));
    ASSERT_TRUE(client.ReceiveType(msg, 0x1001A, kWait));
    EXPECT_EQ(msg.GetTid(), unknown.GetTid());
    EXPECT_EQ(msg.GetRecord().GetFirstPar("service-tech").GetString(), "meter");

    Register(meter, scm, meterId, "meter-svc", cRecord());
    cMsg tech = Request(0x1001B);
    tech.GetRecord().AppendUuidPar("service-id", meterId);
    tech.GetRecord().AppendTextPar("service-tech", "meter");
    tech.GetRecord().AppendTextPar("service-tech", "clock");
    ASSERT_TRUE(meter.Send(tech));

    // The subscriber hears of it ...
    ASSERT_TRUE(client.ReceiveType(msg, 0x10140, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("command").GetString(), "add-technology");
    const cRecord note = Sub(msg.GetRecord(), "service");
    EXPECT_EQ(note.GetFirstPar("name").GetString(), "meter-svc");
    EXPECT_EQ(note.GetFirstPar("sap").GetString(), "127.0.0.1:1");
    EXPECT_EQ(note.GetFirstPar("pid").GetSInt(), 4242);
    // ... and both look-ups give the same description.
    for (const auto& key : {std::make_pair("service-tech", "clock"), std::make_pair("service-name", "meter-svc")}) {
        ASSERT_TRUE(client.Send(Request(0x10018, key.first, key.second)));
        ASSERT_TRUE(client.ReceiveType(msg, 0x10019, kWait)) << key.first;
        const cRecord info = Sub(msg.GetRecord(), "service");
        cUuid id;
        ASSERT_TRUE(info.GetFirstPar("service-id").GetUuid(id));
        EXPECT_EQ(id, meterId);
        const cRecord techs = Sub(info, "tech");
        EXPECT_EQ(techs.GetParCount("service-tech"), 2);
        EXPECT_EQ(techs.GetFirstPar("service-tech").GetString(), "meter");
    }
    // A technology whose service went away is unknown again.
    meter.Close();
    ASSERT_TRUE(scm.WaitFor("'meter-svc' disconnected", kWait));
    ASSERT_TRUE(client.Send(Request(0x10018, "service-tech", "meter")));
    EXPECT_TRUE(client.ReceiveType(msg, 0x1001A, kWait));
}

// Look-ups of a technology answer the service that offered it first while
// that one is connected; a second offer is refused unless -shared-tech; a
// closed connection forgets the registration and its offers.
TEST_F(OrvoScm, ATechnologyBelongsToItsFirstOfferWhileConnected)
{
    const auto offer = [](cScmClient& c, const cUuid& id, const char* tech) {
        cMsg m = Request(0x1001B);
        m.GetRecord().AppendUuidPar("service-id", id);
        m.GetRecord().AppendTextPar("service-tech", tech);
        EXPECT_TRUE(c.Send(m));
    };
    // The name of the service a look-up of "meter" gives; "" when unknown.
    const auto lookUp = [](cScmClient& c) {
        cMsg m;
        EXPECT_TRUE(c.Send(Request(0x10018, "service-tech", "meter")));
        while (c.Receive(m, kWait)) {
            if (m.GetType() == 0x10019)
                return Sub(m.GetRecord(), "service").GetFirstPar("name").GetString();
            if (m.GetType() == 0x1001A)
                return std::string();
        }
        return std::string("no answer");
    };
    for (const bool shared : {false, true}) {
        SCOPED_TRACE(shared ? "-shared-tech" : "default");
        cScmProcess scm;
        ASSERT_TRUE(StartEmptyScm(scm, shared));
        cUuid zetaId, alphaId, askerId;
        zetaId.Create();
        alphaId.Create();
        askerId.Create();
        cScmClient zeta, alpha, asker;
        // "zeta" offers first: name order must not decide.
        Register(zeta, scm, zetaId, "zeta", cRecord());
        Register(alpha, scm, alphaId, "alpha", cRecord());
        Register(asker, scm, askerId, "asker", cRecord());
        offer(zeta, zetaId, "meter");
        ASSERT_TRUE(scm.WaitFor("'zeta' offers meter", kWait));
        offer(alpha, alphaId, "meter");
        ASSERT_TRUE(scm.WaitFor(shared ? "'alpha' offers meter" : "'alpha' offers meter: refused, 'zeta' offers it",
                                kWait));
        EXPECT_EQ(lookUp(asker), "zeta");

        zeta.Close();
        ASSERT_TRUE(scm.WaitFor("'zeta' disconnected", kWait));
        EXPECT_EQ(lookUp(asker), shared ? "alpha" : "");

        // Forgotten: zeta registers anew and offers again; the first offer
        // still connected keeps the look-ups.
        cScmClient back;
        Register(back, scm, zetaId, "zeta", cRecord());
        const size_t mark = scm.OutputSize();
        offer(back, zetaId, "meter");
        ASSERT_TRUE(scm.WaitFor("'zeta' offers meter", kWait, mark));
        EXPECT_EQ(lookUp(asker), shared ? "alpha" : "zeta");
    }
}

// A service whose sap could not be bound registers port 0
// (cScmService::Init): a look-up of its technology never hands out that
// address, subscribers hear nothing of it; with -shared-tech a later offer
// with a sap answers the look-ups. By name it is still described.
TEST_F(OrvoScm, ATechnologyOfAServiceWithoutSapIsNotHandedOut)
{
    for (const bool shared : {false, true}) {
        SCOPED_TRACE(shared ? "-shared-tech" : "default");
        cScmProcess scm;
        ASSERT_TRUE(StartEmptyScm(scm, shared));
        cUuid askerId, sapless, withSap;
        askerId.Create();
        sapless.Create();
        withSap.Create();
        cScmClient asker, first, second;
        Register(asker, scm, askerId, "asker", cRecord());
        cMsg subscribe = Request(0x1006C);
        subscribe.GetRecord().AppendUIntPar("mask", 2);
        ASSERT_TRUE(asker.Send(subscribe));
        Register(first, scm, sapless, "nosap", cRecord(), "127.0.0.1:0");
        ASSERT_TRUE(scm.WaitFor("'nosap' registered without a sap it listens on (127.0.0.1:0)", kWait));
        cMsg offer = Request(0x1001B);
        offer.GetRecord().AppendUuidPar("service-id", sapless);
        offer.GetRecord().AppendTextPar("service-tech", "meter");
        ASSERT_TRUE(first.Send(offer));
        ASSERT_TRUE(scm.WaitFor("'nosap' offers meter", kWait));

        cMsg msg;
        const cMsg lookUp = Request(0x10018, "service-tech", "meter");
        ASSERT_TRUE(asker.Send(lookUp));
        while (asker.Receive(msg, kWait) && msg.GetTid() != lookUp.GetTid())
            EXPECT_NE(msg.GetType(), 0x10140u) << "a notification of a service without sap";
        EXPECT_EQ(msg.GetType(), 0x1001Au);
        EXPECT_EQ(msg.GetRecord().GetFirstPar("service-tech").GetString(), "meter");
        ASSERT_TRUE(asker.Send(Request(0x10018, "service-name", "nosap")));
        ASSERT_TRUE(asker.ReceiveType(msg, 0x10019, kWait));
        EXPECT_EQ(Sub(msg.GetRecord(), "service").GetFirstPar("sap").GetString(), "127.0.0.1:0");

        Register(second, scm, withSap, "meter-svc", cRecord(), "127.0.0.1:1");
        offer = Request(0x1001B);
        offer.GetRecord().AppendUuidPar("service-id", withSap);
        offer.GetRecord().AppendTextPar("service-tech", "meter");
        ASSERT_TRUE(second.Send(offer));
        ASSERT_TRUE(scm.WaitFor("'meter-svc' offers meter", kWait));
        ASSERT_TRUE(asker.Send(Request(0x10018, "service-tech", "meter")));
        while (asker.Receive(msg, kWait) && msg.GetType() != 0x10019 && msg.GetType() != 0x1001A) {
        }
        if (shared) {
            ASSERT_EQ(msg.GetType(), 0x10019u);
            EXPECT_EQ(Sub(msg.GetRecord(), "service").GetFirstPar("name").GetString(), "meter-svc");
        } else {
            EXPECT_EQ(msg.GetType(), 0x1001Au) << "the first offer keeps the technology";
        }
        EXPECT_EQ(scm.Terminate(kWait), 0);
    }
}

// -idle-timeout-ms: a connection that holds part of a frame is closed after
// the limit; a registered service that is only quiet owes nothing and stays.
// The option is in the -h table (and so in orvo-scm(8)).
TEST_F(OrvoScm, IdleTimeoutClosesAConnectionStuckInAFrame)
{
    cScmProcess help;
    ASSERT_TRUE(help.Spawn({EnvOr("ORVO_SCM_BIN", "orvo-scm"), "-h"}));
    EXPECT_TRUE(help.WaitFor("-idle-timeout-ms", kWait)) << help.Output();
    help.Exit(kWait);

    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {}})", {"-idle-timeout-ms", "300"}));
    cUuid id;
    id.Create();
    cScmClient quiet, stuck;
    Register(quiet, scm, id, "quiet", cRecord());
    ASSERT_TRUE(stuck.Connect(scm.Port()));
    ASSERT_EQ(send(stuck.Fd(), "\x04", 1, MSG_NOSIGNAL), 1);   // the first byte of a frame
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(stuck.WaitClosed(5000));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), 250);
    usleep(600 * 1000);   // twice the limit more
    cMsg msg;
    const cMsg list = Request(0x10200);
    ASSERT_TRUE(quiet.Send(list));
    EXPECT_TRUE(quiet.ReceiveType(msg, 0x10201, kWait)) << "a quiet registered service was closed";
    EXPECT_EQ(scm.Terminate(kWait), 0);

    cScmProcess bad;
    EXPECT_FALSE(StartScm(bad, R"({"services": {}})", {"-idle-timeout-ms", "-5"}));
    EXPECT_EQ(bad.Exit(kWait), 2);
}

// A configuration asked for by another service's name: the answer and the
// health go to the asker only; pushes and log requests from a service are
// refused with 0x10017 rather than left unanswered.
TEST_F(OrvoScm, AnswersTheAskerAndRefusesWhatItDoesNotServe)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, kAlphaJson));
    cUuid alphaId, betaId;
    alphaId.Create();
    betaId.Create();
    cScmClient alpha, beta;
    cMsg msg;
    Register(alpha, scm, alphaId, "alpha", cRecord());
    ASSERT_TRUE(alpha.ReceiveType(msg, 0x10141, kWait));
    Register(beta, scm, betaId, "beta", cRecord());
    ASSERT_TRUE(beta.ReceiveType(msg, 0x10141, kWait));

    ASSERT_TRUE(beta.Send(Request(0x10003, "service-name", "alpha")));
    ASSERT_TRUE(beta.ReceiveType(msg, 0x10004, kWait));
    ASSERT_TRUE(beta.ReceiveType(msg, 0x10141, kWait));
    EXPECT_FALSE(alpha.ReceiveType(msg, 0x10141, 500));

    for (unsigned long type : {0x10015ul, 0x1019Aul, 0x1019Dul, 0x101A0ul}) {
        cMsg request = Request(type);
        ASSERT_TRUE(beta.Send(request));
        ASSERT_TRUE(beta.ReceiveType(msg, 0x10017, kWait)) << std::hex << type;
        EXPECT_EQ(msg.GetTid(), request.GetTid());
        EXPECT_FALSE(msg.GetRecord().GetFirstPar("reason").GetString().empty());
    }
}

TEST_F(OrvoScm, PushesAChangedConfigurationAndReportsTheAnswer)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, kAlphaJson));
    cUuid id;
    id.Create();
    cScmClient alpha;
    Register(alpha, scm, id, "alpha", cRecord());

    WriteFile(m_Dir.File(), R"({"services": {"alpha": {"config": [{"name": "level", "type": "uint", "value": 9}]}}})");
    cMsg push;
    ASSERT_TRUE(alpha.ReceiveType(push, 0x10015, kWait));
    EXPECT_TRUE(push.GetTid().IsValid());
    EXPECT_TRUE(push.GetRecord().GetFirstPar("full-config").GetBool());
    EXPECT_EQ(Sub(push.GetRecord(), "config").GetFirstPar("level").GetUInt(), 9u);
    EXPECT_EQ(Sub(push.GetRecord(), "config").GetParCount(), 1);
    EXPECT_TRUE(push.GetRecord().GetFirstPar("path", RECORD_RECORD, RECORD_SEL_TYPE).IsValid());
    cMsg done(0x10016);
    done.SetTid(push.GetTid());
    ASSERT_TRUE(alpha.Send(done));
    EXPECT_TRUE(scm.WaitFor("'alpha' applied the pushed configuration", kWait));

    // A broken file is not taken: its line and the reason are reported,
    // nothing is pushed, the running configuration is still served.
    size_t mark = scm.OutputSize();
    WriteFile(m_Dir.File(), "{\"services\": {\n\"alpha\": {\"config\": [{\"name\": \"level\", \"type\": \"uint\", \"value\": -9}]}}}");
    ASSERT_TRUE(scm.WaitFor("configuration file not taken", kWait, mark));
    EXPECT_TRUE(scm.WaitFor("line 2: services.alpha.config: element 0 \"level\": uint value must be an integer",
                            kWait, mark));
    EXPECT_TRUE(scm.WaitFor("(the running configuration is kept)", kWait, mark));
    cMsg msg;
    EXPECT_FALSE(alpha.ReceiveType(msg, 0x10015, 500));
    cMsg ask = Request(0x10003, "service-name", "alpha");
    ASSERT_TRUE(alpha.Send(ask));
    ASSERT_TRUE(alpha.ReceiveType(msg, 0x10004, kWait));
    EXPECT_EQ(Sub(msg.GetRecord(), "config").GetFirstPar("level").GetUInt(), 9u);

    // A refusal is reported as such.
    mark = scm.OutputSize();
    WriteFile(m_Dir.File(), R"({"services": {"alpha": {"config": [{"name": "level", "type": "uint", "value": 10}]}}})");
    ASSERT_TRUE(alpha.ReceiveType(push, 0x10015, kWait));
    cMsg refused(0x10017);
    refused.SetTid(push.GetTid());
    ASSERT_TRUE(alpha.Send(refused));
    EXPECT_TRUE(scm.WaitFor("'alpha' refused the pushed configuration", kWait, mark));

    // Without an entry the service gets back the configuration it registered with.
    WriteFile(m_Dir.File(), R"({"services": {}})");
    ASSERT_TRUE(alpha.ReceiveType(push, 0x10015, kWait));
    EXPECT_TRUE(Sub(push.GetRecord(), "config").IsEmpty());
}

TEST_F(OrvoScm, WatchdogCountsMissedAnswersAgainstTheServicesLimit)
{
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {"quiet": {"failure-action": "log"}}})", {"-wdt-ms", "200"}));
    cUuid id;
    id.Create();
    cRecord system, config;
    system.AppendUIntPar("wdt-failures", 4);   // a stalled test must not look like a silent service
    system.AppendTextPar("wdt", "ON");
    config.AppendRecordPar("system", system);
    cScmClient quiet;
    Register(quiet, scm, id, "quiet", config);
    cMsg msg;
    EXPECT_FALSE(quiet.ReceiveType(msg, 0x10009, 400)) << "no triggers before the service is ready";
    ASSERT_TRUE(quiet.Send(Request(0x10006)));
    ASSERT_TRUE(quiet.ReceiveType(msg, 0x10007, kWait));
    ASSERT_TRUE(scm.WaitFor("'quiet' ready, watchdog allows 4 missed answers", kWait));

    // Answering every trigger keeps it quiet ...
    unsigned lastSeq = 0;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(quiet.ReceiveType(msg, 0x10009, kWait));
        const unsigned seq = msg.GetRecord().GetFirstPar("seq-no").GetUInt();
        EXPECT_GT(seq, lastSeq);
        lastSeq = seq;
        cMsg answer(0x1000A);
        answer.GetRecord().AppendUuidPar("service-id", id);
        answer.GetRecord().AppendUIntPar("seq-no", seq);
        ASSERT_TRUE(quiet.Send(answer));
    }
    EXPECT_EQ(scm.Output().find("watchdog:"), std::string::npos);
    // ... an answer with a stale sequence number does not count ...
    cMsg stale(0x1000A);
    stale.GetRecord().AppendUIntPar("seq-no", lastSeq - 1);
    ASSERT_TRUE(quiet.Send(stale));
    // ... and silence is acted on: logged only, since the action is "log".
    EXPECT_TRUE(scm.WaitFor("watchdog: 'quiet' stopped answering (failure-action 'log': logged only)", kWait));
}

TEST_F(OrvoScm, StoredRecordsOutliveARestart)
{
    cRecord history;
    history.AppendUInt64Par("energy", 123456789012ULL);
    history.AppendTextPar("unit", "Wh");
    history.AppendTextPar("unit", "kWh");
    for (int round = 0; round < 2; ++round) {
        cScmProcess scm;
        ASSERT_TRUE(StartScm(scm, R"({"services": {}})"));
        cScmClient c;
        ASSERT_TRUE(c.Connect(scm.Port()));
        if (round == 0) {
            cMsg store = Request(0x10028, "name", "meter.history");
            store.GetRecord().AppendRecordPar("record", history);
            ASSERT_TRUE(c.Send(store));
        }
        cMsg fetch = Request(0x1002B, "name", "meter.history");
        ASSERT_TRUE(c.Send(fetch));
        cMsg msg;
        ASSERT_TRUE(c.ReceiveType(msg, 0x1002B, kWait)) << "round " << round;
        EXPECT_EQ(msg.GetTid(), fetch.GetTid());
        EXPECT_EQ(BytesOf(Sub(msg.GetRecord(), "record")), BytesOf(history)) << "round " << round;
        ASSERT_TRUE(c.Send(Request(0x1002B, "name", "nothing.here")));
        ASSERT_TRUE(c.ReceiveType(msg, 0x1002B, kWait));
        EXPECT_FALSE(msg.GetRecord().GetFirstPar("record").IsValid());
        EXPECT_EQ(scm.Terminate(kWait), 0);
    }
}


// With -only-children a registration is taken only over a connection that
// a process orvo-scm started holds: its own child registers, this test's
// process (same user, same host) is refused with reason 3.
TEST_F(OrvoScm, OnlyChildrenRefusesOtherProcesses)
{
    const std::string fake = EnvOr("ORVO_FAKE_SERVICE", "scm_fake_service");
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm, R"({"services": {"kid": {"start": true, "command": ")" + fake + R"( {scm-sap} kid"}}})",
                         {"-only-children"}));
    EXPECT_GT(RegisteredPid(scm, "kid", 0), 0);
    cScmClient outsider;
    ASSERT_TRUE(outsider.Connect(scm.Port()));
    cUuid id;
    id.Create();
    cMsg msg;
    ASSERT_TRUE(outsider.Send(RegisterMsg(id, "outsider", getpid(), cRecord())));
    ASSERT_TRUE(outsider.ReceiveType(msg, 0x10002, kWait));
    EXPECT_EQ(msg.GetRecord().GetFirstPar("reason").GetSInt(), 3);
    EXPECT_EQ(msg.GetRecord().GetFirstPar("sub-reason").GetString(), "not a process started by this SCM");
    EXPECT_TRUE(scm.WaitFor("registration of 'outsider' refused", kWait));
    EXPECT_EQ(scm.Terminate(kWait), 0);
}

TEST_F(OrvoScm, StartsItsServicesRestartsThemAndStopsThemOnSigterm)
{
    const std::string fake = EnvOr("ORVO_FAKE_SERVICE", "scm_fake_service");
    cScmProcess scm;
    ASSERT_TRUE(StartScm(scm,
                         R"({"services": {
        "steady": {"start": true, "command": ")" + fake + R"( {scm-sap} steady"},
        "mute": {"start": true, "failure-action": "restart", "command": ")" + fake + R"( {scm-sap} mute mute-wdt"},
        "broken": {"start": true, "command": "/nonexistent/orvo-service"}}})",
                         {"-wdt-ms", "150"}));
    const int steady = RegisteredPid(scm, "steady", 0);
    ASSERT_GT(steady, 0);

    // Killed: started again, as a new process.
    size_t mark = scm.OutputSize();
    ASSERT_EQ(kill(steady, SIGKILL), 0);
    ASSERT_TRUE(scm.WaitFor("'steady' (pid " + std::to_string(steady) + ") ended with code 0: restart in 200 ms",
                            kWait, mark));
    const int again = RegisteredPid(scm, "steady", mark);
    ASSERT_GT(again, 0);
    EXPECT_NE(again, steady);

    // The service that does not answer its watchdog is restarted (limit 2).
    const int mute = RegisteredPid(scm, "mute", 0);
    ASSERT_GT(mute, 0);
    size_t failed = 0;
    ASSERT_TRUE(scm.WaitFor("watchdog: 'mute' stopped answering: restarting it", kWait, 0, &failed));
    const int mute2 = RegisteredPid(scm, "mute", failed);
    ASSERT_GT(mute2, 0);
    EXPECT_NE(mute2, mute);
    EXPECT_EQ(scm.Output().find("watchdog: 'steady'"), std::string::npos);

    // A command that cannot run is reported once, not retried in a loop.
    EXPECT_TRUE(scm.WaitFor("'broken' could not be started (/nonexistent/orvo-service)", kWait));
    const std::string out = scm.Output();
    EXPECT_EQ(out.find("started /nonexistent/orvo-service"), out.rfind("started /nonexistent/orvo-service"));

    // SIGTERM ends the children first, then orvo-scm itself.
    EXPECT_EQ(scm.Terminate(kWait), 0);
    EXPECT_NE(kill(again, 0), 0);
    EXPECT_NE(scm.Output().find("stopping"), std::string::npos);
}

}  // namespace
