// Control access: the policy's text form and matching, and a service over
// real sockets that answers a control message from an admitted address and
// drops one from a refused address with a trace that says why (on
// 127.0.0.x, and in a private network namespace holding 192.0.2.1).
#include <gtest/gtest.h>

#include <poll.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "orvo_access.h"
#include "orvo_channel.h"
#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_service.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

TEST(ControlAccess, TextFormAndMatching)
{
    struct {
        const char* text;
        const char* form;                 // ToString after Parse
        std::vector<const char*> in, out;
    } cases[] = {
        {"", "any", {"127.0.0.1", "192.0.2.9"}, {}},
        {" any ", "any", {"192.0.2.9"}, {}},
        {"none", "none", {}, {"127.0.0.1", "192.0.2.9"}},
        {"loopback", "loopback", {"127.0.0.1", "127.255.0.3"}, {"128.0.0.1", "192.0.2.9", "0.0.0.0"}},
        {"loopback, 192.0.2.7 192.0.2.64/26", "127.0.0.0/8, 192.0.2.7/32, 192.0.2.64/26",
         {"127.1.2.3", "192.0.2.7", "192.0.2.64", "192.0.2.127"},
         {"192.0.2.8", "192.0.2.63", "192.0.2.128", "128.0.0.1"}},
        {"192.0.2.77/24", "192.0.2.0/24", {"192.0.2.1", "192.0.2.255"}, {"192.0.3.1", "127.0.0.1"}},
        {"0.0.0.0/0", "0.0.0.0/0", {"192.0.2.1", "127.0.0.1"}, {}},
    };
    for (const auto& c : cases) {
        cControlAccess a = cControlAccess::None();
        ASSERT_TRUE(a.Parse(c.text)) << c.text;
        EXPECT_EQ(a.ToString(), c.form) << c.text;
        for (const char* ip : c.in)
            EXPECT_TRUE(a.Allows(cSocketAddr(ip, 1))) << c.text << " " << ip;
        for (const char* ip : c.out)
            EXPECT_FALSE(a.Allows(cSocketAddr(ip, 1))) << c.text << " " << ip;
    }

    for (const char* bad : {"192.0.2", "192.0.2.256", "1.2.3.4/33", "1.2.3.4/", "loopbak",
                            "1.2.3.4:80", "any none"}) {
        cControlAccess a = cControlAccess::Loopback();
        std::string error;
        EXPECT_FALSE(a.Parse(bad, &error)) << bad;
        EXPECT_NE(error.find("is no address"), std::string::npos) << error;
        EXPECT_EQ(a.GetMode(), CONTROL_LOOPBACK) << "a refused text leaves the policy: " << bad;
    }

    std::string why;
    EXPECT_FALSE(cControlAccess::Loopback().Allows(cSocketAddr("192.0.2.1", 0), &why));
    EXPECT_EQ(why, "control access is loopback only");
    cControlAccess list;
    list.Parse("192.0.2.1");
    EXPECT_FALSE(list.Allows(cSocketAddr("192.0.2.2", 0), &why));
    EXPECT_EQ(why, "192.0.2.2 is not in the control access list");
    EXPECT_FALSE(cControlAccess::None().Allows(cSocketAddr("127.0.0.1", 0), &why));
    EXPECT_EQ(why, "control messages are switched off");
    EXPECT_FALSE(list.AllowsUnaddressed(&why));
    EXPECT_TRUE(cControlAccess::Any().AllowsUnaddressed());
}

// Keeps the text of every trace sent to it as a trace channel.
class cTraceCatcher : public cChannel {
public:
    cTraceCatcher() : cChannel(nullptr, nullptr) { RegisterTraceChannel(this); }
    ~cTraceCatcher() override { UnRegisterTraceChannel(this); }
    void OnClose() override {}
    int OnRead(const void*, int size) override { return size; }
    void OnWrite() override {}
    int rawWrite(const void*, int size) override { return size; }
    int rawRead(void*, int) override { return 0; }
    int Send(cMsg& msg) override
    {
        texts.push_back(msg.GetRecord().GetFirstPar("txt").GetString());
        return 1;
    }
    bool Saw(const std::string& part) const
    {
        for (const std::string& t : texts)
            if (t.find(part) != std::string::npos)
                return true;
        return false;
    }
    std::vector<std::string> texts;
};

// A plain TCP client bound to from, connected to the service's sap.
int ConnectFrom(const char* from, const cSocketAddr& to)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    cSocketAddr src(from, 0);
    if (fd < 0 || ::bind(fd, src.GetSockAddr(), sizeof(sockaddr_in)) != 0 ||
        ::connect(fd, to.GetSockAddr(), sizeof(sockaddr_in)) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    return fd;
}

bool SendFrame(int fd, const cMsg& m)
{
    const unsigned char kind = m.GetTid().IsValid() ? 1 : 0;
    std::string payload;
    m.Serialize(kind, payload);
    const uint32_t n = uint32_t(payload.size() + 6);
    const std::string frame =
        std::string{4, char(kind), char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + payload;
    return ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == ssize_t(frame.size());
}

// Message types of the whole frames that wait on fd now.
std::vector<unsigned long> TypesWaiting(int fd, std::string& pending)
{
    char buf[65536];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
        pending.append(buf, size_t(n));
    std::vector<unsigned long> types;
    while (pending.size() >= 6) {
        const uint32_t len = uint8_t(pending[2]) | uint8_t(pending[3]) << 8 |
                             uint8_t(pending[4]) << 16 | uint32_t(uint8_t(pending[5])) << 24;
        if (len < 10 || pending.size() < len)
            break;
        types.push_back(uint8_t(pending[6]) | uint8_t(pending[7]) << 8 | uint8_t(pending[8]) << 16);
        pending.erase(0, len);
    }
    return types;
}

// Sends a service information request (0x7006) from address from and runs
// the loop until it is answered (true) or the trace of its refusal came and
// a further 200 ms passed without an answer (false).
bool AskServiceInfo(cService& svc, const char* from, const cTraceCatcher& traces,
                    const std::string& refusal)
{
    const int fd = ConnectFrom(from, svc.GetSapAddress());
    EXPECT_GE(fd, 0) << from;
    if (fd < 0)
        return false;
    cMsg ask(MSG_SERVICE_INFO_REQUEST);
    cUuid tid;
    tid.Create();
    ask.SetTid(tid);
    EXPECT_TRUE(SendFrame(fd, ask));
    std::string pending;
    bool answered = false;
    long long refusedAt = 0;
    for (const long long end = GetMsecClock() + 20000; GetMsecClock() < end && !answered;) {
        svc.WaitSyncMsg(20, 0x7e7e7e);
        for (unsigned long type : TypesWaiting(fd, pending))
            answered |= type == MSG_SERVICE_INFO;
        if (refusedAt == 0 && traces.Saw(refusal))
            refusedAt = GetMsecClock();
        if (refusedAt != 0 && GetMsecClock() - refusedAt > 200)
            break;
    }
    ::close(fd);
    svc.WaitSyncMsg(50, 0x7e7e7e);   // the close
    return answered;
}

struct cTraceLevel {
    eLEVEL old = UnitORVO->GetLevel();
    cTraceLevel() { SetTraceLevel(UnitORVO, WARNING); }
    ~cTraceLevel() { SetTraceLevel(UnitORVO, old); }
};

TEST(ControlAccess, RefusedAddressGetsNoAnswerAndTheTraceSaysWhy)
{
    cTraceLevel level;
    cTraceCatcher traces;
    cTestService svc;
    svc.Init("guarded", cSocketAddr("127.0.0.1", 0));
    ASSERT_TRUE(svc.IsSapUp());

    EXPECT_TRUE(AskServiceInfo(svc, "127.0.0.1", traces, "refused")) << "open by default";

    ASSERT_TRUE(svc.SetControlAccess("127.0.0.2"));
    EXPECT_FALSE(AskServiceInfo(svc, "127.0.0.1", traces,
                                "control message 0x7006 from 127.0.0.1 refused: 127.0.0.1 is not "
                                "in the control access list"));
    EXPECT_TRUE(AskServiceInfo(svc, "127.0.0.2", traces, "from 127.0.0.2 refused"));

    // A control message wrapped in 0x3004 is judged by the channel it came
    // through: a trace-off from the refused address leaves the levels alone.
    {
        const int fd = ConnectFrom("127.0.0.1", svc.GetSapAddress());
        ASSERT_GE(fd, 0);
        cMsg wrap(MSG_IN_RECORD);
        cMsg(MSG_TRACE_OFF).ToRecord(wrap.GetRecord());
        ASSERT_TRUE(SendFrame(fd, wrap));
        for (const long long end = GetMsecClock() + 20000;
             GetMsecClock() < end && !traces.Saw("control message 0x7001 from 127.0.0.1 refused");)
            svc.WaitSyncMsg(20, 0x7e7e7e);
        EXPECT_TRUE(traces.Saw("control message 0x7001 from 127.0.0.1 refused"));
        EXPECT_EQ(UnitORVO->GetLevel(), WARNING);
        ::close(fd);
    }

    // Other messages from a refused address still reach the program.
    const int fd = ConnectFrom("127.0.0.1", svc.GetSapAddress());
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(SendFrame(fd, cMsg(0x7e0042)));
    EXPECT_EQ(svc.WaitSyncMsg(20000, 0x7e0042).GetType(), 0x7e0042u);
    ::close(fd);

    // Without a policy of its own the service follows the configuration,
    // and a text it cannot read shuts the door.
    cTestService configured;
    configured.Init("configured", cSocketAddr("127.0.0.1", 0));
    GetConfig()->SetTextPar("control-access", "none");
    EXPECT_FALSE(AskServiceInfo(configured, "127.0.0.1", traces,
                                "from 127.0.0.1 refused: control messages are switched off"));
    GetConfig()->SetTextPar("control-access", "127.0.0.1 and more");
    traces.texts.clear();
    EXPECT_FALSE(AskServiceInfo(configured, "127.0.0.1", traces, "switched off"));
    EXPECT_TRUE(traces.Saw("\"and\" is no address")) << "the bad word is named";
    GetConfig()->SetTextPar("control-access", "loopback");
    EXPECT_TRUE(AskServiceInfo(configured, "127.0.0.1", traces, "refused"));
    GetConfig()->DeletePar("control-access");
}

TEST(ControlAccess, LoopbackOnlyRefusesAnotherInterfaceInAPrivateNamespace)
{
    std::string out;
    const int rc = orvo_test::RunInChild([] {
        std::string why;
        if (!orvo_test::EnterPrivateNetwork(why)) {
            std::printf("skip: %s\n", why.c_str());
            return 77;
        }
        if (std::system("ip link set lo up && ip addr add 192.0.2.1/24 dev lo") != 0) {
            std::printf("skip: no address 192.0.2.1 in the namespace\n");
            return 77;
        }
        cTraceLevel level;
        cTraceCatcher traces;
        cTestService svc;
        svc.SetControlAccess(cControlAccess::Loopback());
        svc.Init("device", cSocketAddr("0.0.0.0", 0));
        const bool local = AskServiceInfo(svc, "127.0.0.1", traces, "refused");
        const bool remote = AskServiceInfo(
            svc, "192.0.2.1", traces,
            "control message 0x7006 from 192.0.2.1 refused: control access is loopback only");
        std::printf("local=%d remote=%d\n", local, remote);
        return local && !remote ? 0 : 1;
    }, &out, true, 60);
    if (rc == 77)
        GTEST_SKIP() << out;
    EXPECT_EQ(rc, 0) << out;
}

}  // namespace
