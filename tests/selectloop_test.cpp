// The service loop's dispatch rules, whichever kernel wait the build uses
// (epoll, or select with ORVO_SELECT_WAIT): table order, write interest
// switched across passes, exception readiness, descriptors the kernel
// cannot watch or that were closed behind the loop's back.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvo_channel.h"
#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_msgtypes.h"
#include "orvo_service.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

// (channel name, events) of every OnSelect, in call order.
using tLog = std::vector<std::pair<std::string, int>>;

// Records each OnSelect and drains what it can read, so a level-triggered
// wait does not report the same bytes again.
class cProbe : public cChannel {
public:
    cProbe(cService* service, tLog& log, std::string name)
        : cChannel(service, nullptr), m_Log(log), m_Name(std::move(name)) {}
    ~cProbe() override { cChannel::Close(); }
    void OnSelect(int events) override
    {
        m_Log.emplace_back(m_Name, events);
        char buf[64];
        if (events & SELECT_READ)
            while (::recv(m_fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {}
    }
    void OnClose() override {}
    int OnRead(const void*, int size) override { return size; }
    void OnWrite() override {}
    int rawWrite(const void*, int size) override { return size; }
    int rawRead(void* b, int n) override { return static_cast<int>(::read(m_fd, b, n)); }
    int Send(cMsg&) override { return 1; }

private:
    tLog& m_Log;
    std::string m_Name;
};

// Bounds a pass that has nothing else to wake it.
class cBound : public cTimer {
public:
    explicit cBound(cService* s) : cTimer(s, false, nullptr) {}
    void OnExec() override {}
};

struct sPair {
    int fd[2] = {-1, -1};
    sPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
    ~sPair()
    {
        for (int f : fd)
            if (f >= 0)
                ::close(f);
    }
    void Poke() const { EXPECT_EQ(::write(fd[1], "x", 1), 1); }
};

class SelectLoop : public testing::Test {
protected:
    static void SetUpTestSuite() { orvoInit(ERROR, OUTPUT_NONE, false); }
    void TearDown() override
    {
        SetTraceLevel(UnitORVO, ERROR);
        SetTraceOut(UnitORVO, OUTPUT_NONE);
    }
    // One pass that ends after at most ms even when nothing is ready.
    static void Pass(cService& svc, unsigned long ms = 50)
    {
        cBound bound(&svc);
        svc.TimerAsyncSelect(&bound, ms);
        svc.ScheduleSelect();
        svc.TimerAsyncSelect(&bound, 0);
    }
};

// Several descriptors ready in one pass reach their channels in table order
// (registration order with free entries reused from the back), not in
// descriptor order or the order the kernel reports them.
TEST_F(SelectLoop, ReadyDescriptorsAreHandedOnInTableOrder)
{
    cTestService svc;
    tLog log;
    sPair p[5];
    cProbe a(&svc, log, "a"), b(&svc, log, "b"), c(&svc, log, "c"), d(&svc, log, "d"),
        e(&svc, log, "e");
    d.Attach(::dup(p[3].fd[0]));   // entry 0
    b.Attach(::dup(p[1].fd[0]));   // entry 1, freed below and reused by e
    a.Attach(::dup(p[0].fd[0]));   // entry 2
    c.Attach(::dup(p[2].fd[0]));   // entry 3
    ASSERT_EQ(svc.ChannelAsyncSelect(b.GetFd(), 0, nullptr, nullptr), 1);
    e.Attach(::dup(p[4].fd[0]));
    Pass(svc);   // the kernel now watches all of them
    EXPECT_TRUE(log.empty());

    for (int i : {0, 2, 4, 3})
        p[i].Poke();
    svc.ScheduleSelect();
    EXPECT_EQ(log, (tLog{{"d", SELECT_READ}, {"e", SELECT_READ}, {"a", SELECT_READ},
                         {"c", SELECT_READ}}));
    for (cProbe* ch : {&a, &b, &c, &d, &e})
        if (ch->GetFd() >= 0)
            ::close(ch->GetFd());
}

// Write interest goes on and off with the registration, pass by pass; on
// and off again between two passes it is as if it never was.
TEST_F(SelectLoop, WriteInterestFollowsTheRegistrationAcrossPasses)
{
    cTestService svc;
    tLog log;
    sPair p;
    cProbe ch(&svc, log, "w");
    const int fd = p.fd[0];
    ch.Attach(fd);
    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_READ | SELECT_WRITE, &ch, nullptr), 1);
    Pass(svc);
    EXPECT_EQ(log, (tLog{{"w", SELECT_WRITE}}));

    log.clear();
    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_READ, &ch, nullptr), 1);
    Pass(svc);
    EXPECT_TRUE(log.empty());
    p.Poke();
    Pass(svc);
    EXPECT_EQ(log, (tLog{{"w", SELECT_READ}}));

    log.clear();
    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_READ | SELECT_WRITE, &ch, nullptr), 1);
    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_READ, &ch, nullptr), 1);
    Pass(svc);
    EXPECT_TRUE(log.empty());

    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_WRITE, &ch, nullptr), 1);
    p.Poke();   // readable, but only writing is asked for now
    Pass(svc);
    EXPECT_EQ(log, (tLog{{"w", SELECT_WRITE}}));
    EXPECT_EQ(svc.GetSelectEvents(fd), SELECT_WRITE);
    ch.Dettach();
}

// A write asked for on another thread reaches the loop by its next pass,
// also for a channel that had no registration; a channel deleted before
// that pass takes its request with it and is never called.
TEST_F(SelectLoop, WriteAskedOnAnotherThreadIsAddedByTheNextPass)
{
    cTestService svc;
    tLog log;
    sPair p;
    Pass(svc);   // this thread is the loop thread now
    cProbe ch(&svc, log, "w");
    ch.Attach(p.fd[0]);
    ch.EnableRead(false);
    ASSERT_EQ(svc.GetSelectEvents(p.fd[0]), 0);
    std::thread([&ch] { EXPECT_EQ(ch.Write("x", 1), 1); }).join();
    Pass(svc);
    EXPECT_EQ(log, (tLog{{"w", SELECT_WRITE}}));
    EXPECT_EQ(svc.GetSelectEvents(p.fd[0]), SELECT_WRITE);
    ch.Dettach();

    log.clear();
    sPair q;
    cProbe* gone = new cProbe(&svc, log, "gone");
    gone->Attach(q.fd[0]);
    gone->EnableRead(false);
    std::thread([gone] { EXPECT_EQ(gone->Write("x", 1), 1); }).join();
    delete gone;
    cProbe next(&svc, log, "next");   // the same descriptor, nothing to write
    next.Attach(q.fd[0]);
    next.EnableRead(false);
    Pass(svc);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(svc.GetSelectEvents(q.fd[0]), 0);
    next.Dettach();
}

// Urgent TCP data is exception readiness: a channel registered for it alone
// is called with no read or write bit.
TEST_F(SelectLoop, ExceptionReadinessReachesTheChannelAsOnSelectZero)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    const int client = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const int server = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(server, 0);

    cTestService svc;
    tLog log;
    cProbe ch(&svc, log, "x");
    ch.Attach(server);
    ASSERT_EQ(svc.ChannelAsyncSelect(server, SELECT_EXCEPT, &ch, nullptr), 1);
    EXPECT_EQ(svc.GetSelectEvents(server), SELECT_EXCEPT);
    Pass(svc);
    EXPECT_TRUE(log.empty());
    ASSERT_EQ(::send(client, "u", 1, MSG_OOB), 1);
    for (int i = 0; i < 100 && log.empty(); ++i)
        Pass(svc);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), (std::pair<std::string, int>{"x", 0}));
    ch.Dettach();
    for (int fd : {server, client, listener})
        ::close(fd);
}

// A registered descriptor the loop already waited on, closed without being
// unregistered: the pass fails as a select on it would, the whole table is
// unregistered and the service gets 0x1003. So in an idle loop (passes ended
// by a timer) and in busy ones whose wait returns at once on every pass: an
// always-ready regular file (no wait at all under epoll) and an
// always-writable socket (readiness on every pass). Bounded in wall time, not
// in passes: epoll checks for closed descriptors about once a second.
TEST_F(SelectLoop, DescriptorClosedBehindTheLoopsBackEndsInTheSelectError)
{
    enum eBusy { kIdle, kRegularFile, kWritableSocket };
    for (const eBusy busy : {kIdle, kRegularFile, kWritableSocket}) {
        SCOPED_TRACE(busy == kIdle ? "idle" : busy == kRegularFile ? "regular file" : "writable socket");
        cTestService svc;
        tLog log;
        sPair keep, gone;
        cProbe other(&svc, log, "other"), closed(&svc, log, "closed");
        int otherFd;
        if (busy == kRegularFile) {
            char name[] = "/tmp/orvo-selectloop-XXXXXX";
            otherFd = ::mkstemp(name);
            ASSERT_GE(otherFd, 0);
            ::unlink(name);
        } else {
            otherFd = ::dup(keep.fd[0]);
        }
        other.Attach(otherFd);
        if (busy != kIdle) {
            ASSERT_EQ(svc.ChannelAsyncSelect(otherFd, SELECT_READ | SELECT_WRITE, &other, nullptr), 1);
        }
        const int fd = gone.fd[0];
        gone.fd[0] = -1;   // the test closes it, behind the loop's back
        closed.Attach(fd);
        Pass(svc);
        ASSERT_EQ(svc.GetQueueSize(), 0u);
        EXPECT_EQ(log.empty(), busy == kIdle);

        SetTraceOut(UnitORVO, OUTPUT_STDOUT);
        testing::internal::CaptureStdout();   // opens a file: before the close
        ::close(fd);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        unsigned long passes = 0;
        while (svc.GetQueueSize() == 0 && std::chrono::steady_clock::now() < until) {
            log.clear();
            if (busy == kIdle)
                Pass(svc);
            else
                svc.ScheduleSelect();   // returns at once
            ++passes;
        }
        const std::string out = testing::internal::GetCapturedStdout();
        SetTraceOut(UnitORVO, OUTPUT_NONE);
        EXPECT_NE(out.find("select() error, retval=-1"), std::string::npos) << passes << " passes: " << out;
        EXPECT_EQ(svc.GetSelectEvents(otherFd), 0);
        EXPECT_EQ(svc.GetSelectEvents(fd), 0);
        ASSERT_EQ(svc.GetQueueSize(), 1u) << passes << " passes";   // GetMessage would wait
        cMsg msg;
        ASSERT_TRUE(svc.GetMessage(msg));
        EXPECT_EQ(msg.GetType(), static_cast<unsigned long>(MSG_SELECT_FAILED));
        ::close(otherFd);
        other.Dettach();
        closed.Dettach();
    }
}

// A regular file cannot be waited on by epoll; select always finds it ready,
// and so does the loop.
TEST_F(SelectLoop, RegularFileIsAlwaysReady)
{
    char name[] = "/tmp/orvo-selectloop-XXXXXX";
    const int fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ::unlink(name);
    cTestService svc;
    tLog log;
    cProbe ch(&svc, log, "file");
    ch.Attach(fd);
    ASSERT_EQ(svc.ChannelAsyncSelect(fd, SELECT_READ | SELECT_WRITE, &ch, nullptr), 1);
    svc.ScheduleSelect();   // returns at once
    svc.ScheduleSelect();
    EXPECT_EQ(log, (tLog{{"file", SELECT_READ | SELECT_WRITE}, {"file", SELECT_READ | SELECT_WRITE}}));
    ch.Dettach();
    ::close(fd);
}

// A descriptor at or above 1024 is refused and the loop keeps serving the
// others.
TEST_F(SelectLoop, DescriptorAtTheTableLimitIsRefusedAndTheRestStillServed)
{
    cTestService svc;
    tLog log;
    sPair p;
    cProbe small(&svc, log, "small"), big(&svc, log, "big");
    small.Attach(::dup(p.fd[0]));
    const int high = ::fcntl(p.fd[0], F_DUPFD, cService::kMaxSelect);
    if (high < 0)
        GTEST_SKIP() << "no descriptor at " << static_cast<int>(cService::kMaxSelect) << " (limit too low)";
    SetTraceOut(UnitORVO, OUTPUT_STDOUT);
    testing::internal::CaptureStdout();
    EXPECT_EQ(svc.ChannelAsyncSelect(high, SELECT_READ, &big, nullptr), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("refused"), std::string::npos) << out;
    EXPECT_EQ(svc.GetSelectEvents(high), 0);
    p.Poke();
    Pass(svc);
    EXPECT_EQ(log, (tLog{{"small", SELECT_READ}}));
    ::close(high);
    ::close(small.GetFd());
    small.Dettach();
}

}  // namespace
