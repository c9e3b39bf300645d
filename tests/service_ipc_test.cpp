// Services over real sockets: two processes through the sap socket, a
// thread service and its parent through the internal sockets, a stop message
// from outside, traces to the main service. Each child runs under a time
// limit; each test ends by checking that every descriptor the services
// opened was closed again.
#include <gtest/gtest.h>

#include <dirent.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgthread.h"
#include "orvo_record.h"
#include "orvo_service.h"
#include "orvo_sharedmem.h"
#include "orvo_statem.h"
#include "orvo_time.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cKeepSm;
using orvo_test::cTestService;
using orvo_test::Receive;
using orvo_test::Report;
using orvo_test::sChild;

namespace {

const int kOk = 0, kLeak = 90, kWrong = 91;   // child exit codes
const unsigned kChildSeconds = 60;            // generous: sanitizers, qemu
const unsigned long kWaitMs = 20000;

int CountFds()
{
    int n = -1;   // the directory's own descriptor
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(dir))
            n += e->d_name[0] != '.';
        ::closedir(dir);
    }
    return n;
}

const cSocketAddr kLoopback("127.0.0.1", 0);

// A child under a time limit whose exit code turns into kLeak when its
// descriptor count changed.
sChild Fork(const std::function<int(int toParent)>& body)
{
    return orvo_test::StartChild([&body](int toParent) {
        const int before = CountFds();
        const int rc = body(toParent);
        return rc == kOk && CountFds() != before ? kLeak : rc;
    }, kChildSeconds);
}

// Echoes any message to its parent as 0x201 ("n" doubled) and ends on 0x202
// or when its loop ends.
class cEchoThread : public cMsgThread {
public:
    explicit cEchoThread(cService* parent, cStateMachine* sm = nullptr) : cMsgThread(parent, sm, "echo") {}
    ~cEchoThread() override
    {
        Terminate();
        Join();
    }
    void ThreadMain() override
    {
        cMsg msg;
        while (GetMessage(msg) && msg.GetType() != 0x202) {
            cMsg reply(0x201);
            reply.SetTid(msg.GetTid());
            reply.GetRecord().AppendUIntPar("n", msg.GetRecord().GetFirstPar("n").GetUInt() * 2, 0);
            SendToParent(reply);
        }
    }
};

// The child side: service "svcB" on 127.0.0.1, with a thread service,
// reports its port; answers 0x100 with 0x101 (same tid, "echo" and "n"+1),
// traces on 0x300 before answering 0x301, answers 0x302 with 0x303. A stop
// message must end it and its thread (by itself, not by cancellation); when
// its client leaves first, it ends with kWrong.
int EchoService(int toParent)
{
    cTestService b;
    b.Init("svcB", kLoopback);
    cEchoThread loop(&b);
    loop.Start();
    Report(toParent, b.GetSapAddress().GetPort());
    bool stopSeen = false;
    cMsg msg;
    while (b.GetMessage(msg)) {
        const cRecord& r = msg.GetRecord();
        cMsg reply;
        reply.SetTid(msg.GetTid());
        switch (msg.GetType()) {
        case 0x100:
            reply.SetType(0x101);
            reply.GetRecord().AppendTextPar("echo", r.GetFirstPar("text").GetString(), 0);
            reply.GetRecord().AppendUIntPar("n", r.GetFirstPar("n").GetUInt() + 1, 0);
            break;
        case 0x300:
            ORVO_TRACE(UnitORVO, INFO, "traced by B");
            reply.SetType(0x301);
            break;
        case 0x302:
            reply.SetType(0x303);
            break;
        case 0x4001:   // the sap socket accepted the client
        case 0x4002:
            continue;
        case 0x4003:
            cService::SetStopFlag(true);
            continue;
        case 0x1006:
            stopSeen = true;
            continue;
        default:
            return kWrong;
        }
        msg.GetChannel()->Send(reply);
    }
    loop.Join();
    return stopSeen ? kOk : kWrong;
}

class ServiceIpc : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        orvoInit(ERROR, OUTPUT_NONE, false);
        GetOSC();   // the operating-seconds cell every trace reads keeps its descriptor
    }
    void SetUp() override { m_Fds = CountFds(); }
    void TearDown() override
    {
        cService::SetStopFlag(false);
        EXPECT_EQ(CountFds(), m_Fds) << "descriptors left open";
    }
    int m_Fds = 0;
};

}  // namespace

TEST_F(ServiceIpc, TwoProcessesTalkThroughTheSapIncludingControlAndStopMessages)
{
    sChild child = Fork(EchoService);
    const uint16_t port = Receive(child.pipe);
    ASSERT_NE(port, 0);
    cTestService a;
    a.Init("svcA", kLoopback);
    {
        cMsgTcpSocket client(&a, nullptr);
        client.Socket(AF_INET, SOCK_STREAM, 0);
        client.Connect(cSocketAddr("127.0.0.1", port));
        ASSERT_EQ(a.WaitSyncMsg(kWaitMs, 0x4002, 0x4000, 0x4003).GetType(), 0x4002u);
        EXPECT_EQ(client.GetPeer().name, "svcB");   // from the peer's 0x4002
        auto tell = [&](unsigned long type, const cRecord& rec = cRecord()) {
            cMsg msg(type);
            msg.SetRecord(rec);
            return client.Send(msg);
        };
        // Sends type (with rec and tid), waits for replyType; what arrived before
        // the reply lands in before, in arrival order.
        std::vector<cMsg> before;
        auto ask = [&](unsigned long type, unsigned long replyType, const cRecord& rec = cRecord(),
                       const cUuid& tid = cUuid()) {
            cMsg msg(type);
            msg.SetRecord(rec);
            msg.SetTid(tid);
            cMsg reply = a.SendSyncMsg(client, msg, kWaitMs, replyType);
            before.clear();
            for (cMsg m; a.GetQueueSize() > 0 && a.GetMessage(m);)
                before.push_back(m);
            std::reverse(before.begin(), before.end());   // set aside: came back reversed
            return reply;
        };

        // Request and reply, tid and record intact both ways.
        cUuid tid;
        tid.Create();
        cRecord rec;
        rec.AppendTextPar("text", "hello over tcp", 0);
        rec.AppendUIntPar("n", 41, 0);
        cMsg reply = ask(0x100, 0x101, rec, tid);
        ASSERT_EQ(reply.GetType(), 0x101u);
        EXPECT_EQ(reply.GetTid(), tid);
        EXPECT_EQ(reply.GetRecord().GetFirstPar("echo").GetString(), "hello over tcp");
        EXPECT_EQ(reply.GetRecord().GetFirstPar("n").GetUInt(), 42u);
        EXPECT_FALSE(ask(0x100, 0x101, rec).GetTid().IsValid());

        // Service information.
        cMsg info = ask(0x7006, 0x7007, cRecord(), tid);
        ASSERT_EQ(info.GetType(), 0x7007u);
        EXPECT_EQ(info.GetTid(), tid);
        const cRecord& r = info.GetRecord();
        EXPECT_EQ(r.GetFirstPar("name").GetString(), "svcB");
        EXPECT_EQ(r.GetFirstPar("sap").GetString(), FormatString("127.0.0.1:%u", port));
        cUuid id;
        EXPECT_TRUE(r.GetFirstPar("service-id").GetUuid(id));
        EXPECT_EQ(id, client.GetPeer().id);
        EXPECT_TRUE(r.GetFirstPar("config").IsValid());
        EXPECT_EQ(r.GetFirstParByPath("units.UnitORVO.level", ".").GetString(), "ERROR");

        // Trace on: B's INFO trace reaches the client ahead of B's answer; off:
        // nothing but the answer.
        tell(0x7000, orvo_test::TraceOnRecord({{"UnitORVO", "DEBUG"}}));   // consumed by B's loop: no answer
        EXPECT_EQ(ask(0x300, 0x301).GetType(), 0x301u);
        ASSERT_EQ(before.size(), 1u);
        EXPECT_EQ(before[0].GetType(), 0x7002u);
        EXPECT_EQ(before[0].GetRecord().GetFirstPar("txt").GetString(), "traced by B");
        tell(0x7001);
        EXPECT_EQ(ask(0x300, 0x301).GetType(), 0x301u);
        EXPECT_TRUE(before.empty());

        // Snoop: the request as received (dir 1), the answer as sent (dir 0).
        tell(0x7003);
        EXPECT_EQ(ask(0x302, 0x303).GetType(), 0x303u);
        ASSERT_EQ(before.size(), 2u);
        EXPECT_EQ(before[0].GetType(), 0x7005u);
        EXPECT_EQ(before[0].GetRecord().GetFirstPar("dir").GetUInt(), 1u);
        EXPECT_EQ(before[0].GetRecord().GetFirstPar("msg-type").GetUInt(), 0x302u);
        EXPECT_EQ(before[0].GetRecord().GetFirstPar("peer-name").GetString(), "svcA");
        EXPECT_EQ(before[1].GetRecord().GetFirstPar("dir").GetUInt(), 0u);
        EXPECT_EQ(before[1].GetRecord().GetFirstPar("msg-type").GetUInt(), 0x303u);
        tell(0x7004);
        EXPECT_EQ(ask(0x302, 0x303).GetType(), 0x303u);
        ASSERT_EQ(before.size(), 1u);   // the snoop-off request itself, then silence
        EXPECT_EQ(before[0].GetRecord().GetFirstPar("msg-type").GetUInt(), 0x7004u);

        // A stop message ends every service of the peer's process; the
        // client sees the peer leave.
        EXPECT_GT(tell(0x1006), 0);
        EXPECT_EQ(a.WaitSyncMsg(kWaitMs, 0x4003).GetType(), 0x4003u);
        client.Close();
    }
    a.DeInit();
    EXPECT_EQ(orvo_test::EndChild(child), kOk);
}

TEST_F(ServiceIpc, ThreadServiceAndParentTalkThroughInternalSockets)
{
    cTestService parent;
    parent.Init("parent", kLoopback);
    {
        cEchoThread echo(&parent);
        EXPECT_NE(echo.GetInternalAddress().GetPort(), 0);
        ASSERT_EQ(echo.Start(), 0);
        EXPECT_EQ(echo.Start(), EBUSY);
        cUuid tid;
        tid.Create();
        for (unsigned n = 1; n <= 3; ++n) {
            cMsg req(0x200);
            req.SetTid(tid);
            req.GetRecord().AppendUIntPar("n", n, 0);
            EXPECT_GT(parent.SendToInternal(&echo, req), 0);
            cMsg reply = parent.WaitSyncMsg(kWaitMs, 0x201);
            ASSERT_EQ(reply.GetType(), 0x201u);
            EXPECT_EQ(reply.GetTid(), tid);
            EXPECT_EQ(reply.GetRecord().GetFirstPar("n").GetUInt(), 2 * n);
        }
        cMsg end(0x202);
        parent.SendToInternal(&echo, end);
        echo.Join();
        EXPECT_FALSE(echo.IsRunning());
    }

    // To a parent state machine: the token crosses the datagram socket and
    // the reply goes straight to the machine, never into the queue.
    cKeepSm sm(&parent);
    {
        cEchoThread echo(&parent, &sm);
        ASSERT_EQ(echo.Start(), 0);
        cMsg req(0x200);
        req.GetRecord().AppendUIntPar("n", 21, 0);
        parent.SendToInternal(&echo, req);
        const long long end = GetMsecClock() + static_cast<long long>(kWaitMs);
        while (sm.got.empty() && GetMsecClock() < end)
            parent.ScheduleSelect();
        ASSERT_EQ(sm.got.size(), 1u);
        EXPECT_EQ(sm.got[0].GetRecord().GetFirstPar("n").GetUInt(), 42u);
        EXPECT_EQ(parent.GetQueueSize(), 0u);
        // The destructor cancels the thread waiting in its select.
    }
    parent.DeInit();
}

TEST_F(ServiceIpc, TracesOfAServiceUnitArriveAtTheMainService)
{
    cTestService main;
    main.Init("main", kLoopback);
    EXPECT_EQ(mMainService, &main);
    SetTraceLevel(UnitORVO, INFO);
    SetTraceOut(UnitORVO, OUTPUT_SERVICE);
    ORVO_TRACE(UnitORVO, INFO, "to the main service");
    std::thread worker([] { ORVO_TRACE(UnitORVO, WARNING, "from a worker"); });
    worker.join();
    SetTraceOut(UnitORVO, OUTPUT_NONE);
    SetTraceLevel(UnitORVO, ERROR);

    cMsg first = main.WaitSyncMsg(kWaitMs, 0x1007);
    cMsg second = main.WaitSyncMsg(kWaitMs, 0x1007);
    const cRecord& r = first.GetRecord();
    EXPECT_EQ(r.GetFirstPar("txt").GetString(), "to the main service");
    EXPECT_EQ(r.GetFirstPar("name").GetString(), "main");
    EXPECT_EQ(r.GetFirstPar("level").GetString(), "INFO");
    cUuid id;
    r.GetFirstPar("service-id").GetUuid(id);
    EXPECT_EQ(id, main.GetServiceId());
    EXPECT_EQ(second.GetRecord().GetFirstPar("txt").GetString(), "from a worker");
}

namespace {

// Non-blocking connects to addr; after the kernel had time, how many of them
// are established (the service's loop does not run, so only those the
// listen backlog holds complete).
int EstablishedOf(const cSocketAddr& addr, int tries)
{
    std::vector<int> fds;
    for (int i = 0; i < tries; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        (void)::connect(fd, addr.GetSockAddr(), sizeof(sockaddr_in));
        fds.push_back(fd);
    }
    ::usleep(300 * 1000);
    int established = 0;
    for (int fd : fds) {
        tcp_info info{};
        socklen_t len = sizeof info;
        if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 && info.tcpi_state == TCP_ESTABLISHED)
            ++established;
        ::close(fd);
    }
    return established;
}

}  // namespace

TEST_F(ServiceIpc, SapBacklogDefaultsToFiveAndFollowsTheCallOrTheConfiguration)
{
    // The kernel completes backlog + 1 connections nobody accepts yet.
    struct {
        int call;
        unsigned config;
        int backlog;
    } cases[] = {{0, 0, 5}, {2, 0, 2}, {0, 9, 9}, {3, 9, 3}};
    for (const auto& c : cases) {
        if (c.config != 0)
            GetConfig()->SetUIntPar("sap-backlog", c.config);
        cTestService svc;
        svc.SetSapBacklog(c.call);
        svc.Init("backlog", kLoopback);
        GetConfig()->DeletePar("sap-backlog");
        EXPECT_EQ(svc.GetSapSocket()->GetBacklog(), c.backlog);
        EXPECT_EQ(EstablishedOf(svc.GetSapAddress(), c.backlog + 6), c.backlog + 1)
            << "call " << c.call << ", configuration " << c.config;
    }
}

TEST_F(ServiceIpc, IdleLimitClosesConnectionsThatOweProgressOnly)
{
    cTestService svc;
    svc.SetIdleTimeout(300);
    svc.Init("idle", kLoopback);
    const cSocketAddr sap = svc.GetSapAddress();
    auto connectTo = [&sap](int rcvbuf) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (rcvbuf != 0)
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        EXPECT_EQ(::connect(fd, sap.GetSockAddr(), sizeof(sockaddr_in)), 0);
        return fd;
    };
    auto frameOf = [](unsigned long type) {
        std::string payload;
        cMsg(type).Serialize(0, payload);
        const uint32_t n = uint32_t(payload.size() + 6);
        return std::string{4, 0, char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + payload;
    };
    const std::string hello = frameOf(0x7e0101), nonReader = frameOf(0x7e0102);

    const long long connected = GetMsecClock();
    const int partial = connectTo(0);           // one byte of a frame, then nothing
    ASSERT_EQ(::send(partial, hello.data(), 1, 0), 1);
    const int silent = connectTo(0);            // nothing at all
    const int quiet = connectTo(0);             // a whole frame, then quiet: owes nothing
    ASSERT_EQ(::send(quiet, hello.data(), hello.size(), 0), ssize_t(hello.size()));
    const int deaf = connectTo(4096);           // never reads what it asked for
    ASSERT_EQ(::send(deaf, nonReader.data(), nonReader.size(), 0), ssize_t(nonReader.size()));

    // Answers for the non-reader until they wait in its send buffer.
    cMsg asked = svc.WaitSyncMsg(kWaitMs, 0x7e0102);
    ASSERT_EQ(asked.GetType(), 0x7e0102u);
    cMsgTcpSocket* toDeaf = static_cast<cMsgTcpSocket*>(asked.GetChannel());
    cMsg big(0x7e0103);
    big.GetRecord().AppendDataPar("pad", std::string(100000, 'p').data(), 100000);
    for (int i = 0; i < 200 && toDeaf->GetSendQueued() == 0; ++i)
        toDeaf->Send(big);
    ASSERT_GT(toDeaf->GetSendQueued(), 0u);

    // Three closes within the limit and its sweep, the quiet one stays.
    std::vector<cChannel*> closed;
    const long long start = GetMsecClock();
    while (closed.size() < 3 && GetMsecClock() - start < (long long)kWaitMs) {
        cMsg m = svc.WaitSyncMsg(100, MSG_SOCKET_CLOSED);
        if (m == MSG_SOCKET_CLOSED)
            closed.push_back(m.GetChannel());
    }
    EXPECT_EQ(closed.size(), 3u);
    EXPECT_GE(GetMsecClock() - connected, 280) << "not before the limit";
    svc.WaitSyncMsg(500, MSG_SOCKET_CLOSED);   // a further 500 ms: nobody else goes
    EXPECT_EQ(svc.GetSapSocket()->GetClients().size(), 1u);

    char buf[4096];
    for (int fd : {partial, silent}) {   // the service's announcement, then the end
        ssize_t n;
        while ((n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
        }
        EXPECT_EQ(n, 0) << "closed by the service";
    }
    // The quiet one still talks.
    ASSERT_EQ(::send(quiet, hello.data(), hello.size(), 0), ssize_t(hello.size()));
    EXPECT_EQ(svc.WaitSyncMsg(kWaitMs, 0x7e0101).GetType(), 0x7e0101u);
    for (int fd : {partial, silent, quiet, deaf})
        ::close(fd);
}
