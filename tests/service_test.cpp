// cService inside one process: queue limit, state-machine delivery, timer
// list, select hygiene, signals, stop flag, WaitSyncMsg, deferred deletion
// and the control lists. Sockets between processes: service_ipc_test.cpp.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "orvo_channel.h"
#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_msgtypes.h"
#include "orvo_record.h"
#include "orvo_service.h"
#include "orvo_msgqueue.h"
#include "orvo_statem.h"
#include "orvo_time.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cKeepSm;
using orvo_test::cTestService;

namespace {

// A channel over a socket-pair end that keeps what is sent on it, counts
// the reads that brought data and runs onRead (once) at the first.
class cSink : public cChannel {
public:
    explicit cSink(cService* service, bool* deleted = nullptr)
        : cChannel(service, nullptr), m_pDeleted(deleted) {}
    ~cSink() override
    {
        if (m_pDeleted)
            *m_pDeleted = true;
        cSink::Close();
    }
    void OnClose() override
    {
        cMsg msg(MSG_SOCKET_CLOSED, this, nullptr);
        OnMsg(msg);
    }
    int OnRead(const void*, int size) override
    {
        ++reads;
        if (onRead) {
            auto action = onRead;
            onRead = nullptr;
            action();
        }
        return size;
    }
    void OnWrite() override {}
    void Close() override
    {
        if (m_fd > 0)
            ::close(m_fd);
        cChannel::Close();
    }
    int rawWrite(const void*, int size) override { return size; }
    int rawRead(void* b, int n) override { return static_cast<int>(::read(m_fd, b, n)); }
    int Send(cMsg& msg) override
    {
        sent.push_back(msg);
        flagAtSend.push_back(GetWriteReadyMsg());
        return 1;
    }
    void Reset()
    {
        sent.clear();
        flagAtSend.clear();
    }
    std::vector<cMsg> sent;
    std::vector<unsigned char> flagAtSend;
    int reads = 0;
    std::function<void()> onRead;

private:
    bool* m_pDeleted;
};

// Records its expiries in gFired and runs onExec instead of sending.
std::vector<cTimer*> gFired;
class cMarkTimer : public cTimer {
public:
    explicit cMarkTimer(cService* s) : cTimer(s, false, nullptr) {}
    void OnExec() override
    {
        gFired.push_back(this);
        if (onExec)
            onExec();
    }
    std::function<void()> onExec;
};

class Service : public testing::Test {
protected:
    static void SetUpTestSuite() { orvoInit(ERROR, OUTPUT_NONE, false); }
    void SetUp() override { gFired.clear(); }
    void TearDown() override
    {
        SetTraceLevel(UnitORVO, ERROR);
        SetTraceOut(UnitORVO, OUTPUT_NONE);
        cService::SetStopFlag(false);
    }
    static unsigned long Take(cService& svc)
    {
        cMsg msg;
        EXPECT_TRUE(svc.GetMessage(msg));
        return msg.GetType();
    }
    static void Post(cService& svc, unsigned long type, cChannel* ch = nullptr)
    {
        cMsg msg(type, ch, nullptr);
        svc.OnMsg(msg);
    }
    // What the library traces to standard output while action runs.
    static std::string Traced(const std::function<void()>& action)
    {
        SetTraceOut(UnitORVO, OUTPUT_STDOUT);
        testing::internal::CaptureStdout();
        action();
        return testing::internal::GetCapturedStdout();
    }
};

}  // namespace

TEST_F(Service, QueueIsFifoAndTheMessageAboveTheLimitEmptiesIt)
{
    cTestService svc;
    for (unsigned long i = 1; i <= 200; ++i)
        Post(svc, 0x100000 + i);
    EXPECT_EQ(Take(svc), 0x100001u);
    EXPECT_EQ(Take(svc), 0x100002u);
    Post(svc, 0x200001);
    Post(svc, 0x200002);
    std::string out = Traced([&] { Post(svc, 0x2000AA); });   // the 201st
    EXPECT_EQ(svc.GetQueueSize(), 0u);   // all of them, not only the excess
    EXPECT_NE(out.find("cService::m_msgQ overload; msg={type="), std::string::npos) << out;
    EXPECT_NE(out.find("(0x2000AA)"), std::string::npos) << out;

    // Below ERROR the queue is emptied silently.
    SetTraceLevel(UnitORVO, FATAL);
    EXPECT_EQ(Traced([&] {
                  for (unsigned long i = 1; i <= 201; ++i)
                      Post(svc, 0x300000 + i);
              }),
              "");
    EXPECT_EQ(svc.GetQueueSize(), 0u);
}

TEST_F(Service, MessagesForStateMachinesBypassTheQueue)
{
    cTestService svc;
    cKeepSm sm(&svc);
    cMsg msg(0x5000, nullptr, &sm);
    svc.OnMsg(msg);
    EXPECT_EQ(sm.types, std::vector<unsigned long>{0x5000});
    EXPECT_EQ(svc.GetQueueSize(), 0u);

    // 0x3004 carries a message in record form; its handle resolves again.
    cMsg wrapped(MSG_IN_RECORD);
    cMsg(0x5002, nullptr, &sm).ToRecord(wrapped.GetRecord());
    svc.OnMsg(wrapped);
    EXPECT_EQ(sm.types.back(), 0x5002u);

    // A message that outlives its machine is dropped, not queued, and the
    // machine is never touched (the sanitizer build would see it).
    cStateMachine* gone = new cKeepSm(&svc);
    cMsg stale(0x5001, nullptr, gone);
    delete gone;
    svc.OnMsg(stale);
    EXPECT_EQ(svc.GetQueueSize(), 0u);
}

TEST_F(Service, IdleTimeIsTheNearestTimerCappedAtAMinute)
{
    cTestService svc;
    cMarkTimer a(&svc), b(&svc);
    EXPECT_EQ(svc.ScheduleGetIdleTimeMs(), 60000u);
    svc.TimerAsyncSelect(&a, 100000);
    EXPECT_EQ(svc.ScheduleGetIdleTimeMs(), 60000u);   // capped
    svc.TimerAsyncSelect(&b, 30000);
    const uint64_t armed40 = GetMsecClock();
    svc.TimerAsyncSelect(&b, 40000);                  // a second entry
    EXPECT_GE(b.GetDue(), armed40 + 40000);           // the timer keeps the latest due time
    EXPECT_LE(b.GetDue(), static_cast<uint64_t>(GetMsecClock()) + 40000);
    EXPECT_LE(svc.ScheduleGetIdleTimeMs(), 30000u);
    EXPECT_GT(svc.ScheduleGetIdleTimeMs(), 20000u);
    svc.TimerAsyncSelect(&b, 0);                      // removes both
    EXPECT_EQ(svc.GetTimerCount(), 1u);
    svc.TimerAsyncSelect(&a, 0);
}

// Without channels the loop sleeps until the nearest timer; due order, equal
// time-outs in arming order.
TEST_F(Service, TimersFireInDueOrderAndTiesInArmingOrder)
{
    cTestService svc;
    cMarkTimer x(&svc), y(&svc), z(&svc);
    const long long start = GetMsecClock();
    svc.TimerAsyncSelect(&x, 60);
    svc.TimerAsyncSelect(&y, 60);
    svc.TimerAsyncSelect(&z, 20);
    while (svc.GetTimerCount() > 0)
        svc.ScheduleSelect();
    EXPECT_GE(GetMsecClock() - start, 60);
    EXPECT_EQ(gFired, (std::vector<cTimer*>{&z, &x, &y}));
}

// A timer fired in a scan may stop another due one and re-arm itself.
TEST_F(Service, AFiringTimerMayStopAnotherAndRearmItself)
{
    cTestService svc;
    cMarkTimer a(&svc), b(&svc);
    a.onExec = [&] {
        svc.TimerAsyncSelect(&b, 0);
        svc.TimerAsyncSelect(&a, 100000);
    };
    svc.TimerAsyncSelect(&a, 1);
    svc.TimerAsyncSelect(&b, 2);
    const long long armed = GetMsecClock();
    while (GetMsecClock() < armed + 3)
        ::usleep(1000);
    svc.ScanTimers();
    EXPECT_EQ(gFired, std::vector<cTimer*>{&a});
    EXPECT_EQ(svc.GetTimerCount(), 1u);
    svc.DeInit();
    EXPECT_EQ(svc.GetTimerCount(), 0u);
}

TEST_F(Service, SelectOnAClosedDescriptorUnregistersEverythingAndReports)
{
    cTestService svc;
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    {
        // EBADF: a descriptor closed behind the loop's back.
        cSink ch(&svc);
        ch.Attach(sv[0]);
        const std::string out = Traced([&] {   // the capture opens a file: before the close
            ::close(sv[0]);
            svc.ScheduleSelect();
        });
        EXPECT_NE(out.find("select() error, retval=-1"), std::string::npos) << out;
        EXPECT_EQ(svc.GetSelectEvents(sv[0]), 0);   // the whole table unregistered
        EXPECT_EQ(Take(svc), MSG_SELECT_FAILED);
        ch.Dettach();
    }
    ::close(sv[1]);
}

// A descriptor at FD_SETSIZE never enters a set; its channel is closed.
TEST_F(Service, DescriptorsFromFdSetsizeOnAreRefusedAndClosed)
{
    cTestService svc;
    rlimit lim, saved;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    lim = saved;
    if (lim.rlim_cur <= FD_SETSIZE + 8) {
        if (lim.rlim_max <= FD_SETSIZE + 8)
            GTEST_SKIP() << "descriptor limit " << lim.rlim_max << " does not reach FD_SETSIZE";
        lim.rlim_cur = FD_SETSIZE + 8;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lim), 0);
    }
    const int big = ::fcntl(1, F_DUPFD, FD_SETSIZE);
    ASSERT_GE(big, FD_SETSIZE);
    cSink ch(&svc);
    ch.Attach(big);
    EXPECT_EQ(ch.GetFd(), -1);
    EXPECT_EQ(::fcntl(big, F_GETFD), -1);   // closed
    ::setrlimit(RLIMIT_NOFILE, &saved);
}

TEST_F(Service, ReadinessGoesOnlyToTheChannelsSelectSawIt)
{
    cTestService svc;
    int a[2], b[2], c[2];
    for (int* sp : {a, b, c}) {   // every pair with a byte to read
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
        ASSERT_EQ(::write(sp[1], "x", 1), 1);
    }
    cSink first(&svc), second(&svc), third(&svc);
    first.Attach(a[0]);
    second.Attach(b[0]);
    const int reused = b[0];

    // The first handler closes the second channel and puts a new one on the
    // descriptor number select reported ready: neither of them gets that
    // readiness; the new channel is served from the next pass on.
    first.onRead = [&] {
        second.Close();
        ASSERT_EQ(::dup2(c[0], reused), reused);
        third.Attach(reused);
    };
    svc.ScheduleSelect();
    EXPECT_EQ(first.reads, 1);
    EXPECT_EQ(second.reads, 0);
    EXPECT_EQ(third.reads, 0);
    svc.ScheduleSelect();
    EXPECT_EQ(third.reads, 1);
    EXPECT_EQ(first.reads, 1);
    for (int fd : {a[1], b[1], c[0], c[1]})
        ::close(fd);
}

TEST_F(Service, SignalsRunHandlersOnTheLoopThread)
{
    static cService* seen = nullptr;
    static void* seenCtx = nullptr;
    auto handler = [](cService* s, int, void* ctx) {
        seen = s;
        seenCtx = ctx;
    };
    EXPECT_EQ(cService::SignalAsyncSelect(0, handler, nullptr), -1);
    EXPECT_EQ(cService::SignalAsyncSelect(66, handler, nullptr), -1);
    EXPECT_EQ(cService::SignalAsyncSelect(SIGINT, handler, nullptr), -1);   // no replacement
    int ctx = 0;
    ASSERT_EQ(cService::SignalAsyncSelect(SIGUSR1, handler, &ctx), 0);

    cTestService svc;
    ::kill(::getpid(), SIGUSR1);
    EXPECT_EQ(seen, nullptr);                 // only marked so far
    svc.ScheduleSelect();
    EXPECT_EQ(seen, &svc);
    EXPECT_EQ(seenCtx, &ctx);
    EXPECT_EQ(cService::SignalAsyncSelect(SIGUSR1, nullptr, nullptr), 0);

    // SIGTERM and SIGINT from another thread while the loop waits without a
    // time-out: their message, then the loop ends.
    for (int sig : {SIGTERM, SIGINT}) {
        std::thread killer([sig] { ::kill(::getpid(), sig); });
        EXPECT_EQ(Take(svc), sig == SIGTERM ? MSG_TERMINATE_REQUEST : MSG_INTERRUPT_REQUEST);
        killer.join();
        EXPECT_TRUE(cService::GetStopFlag());
        cMsg msg;
        EXPECT_FALSE(svc.GetMessage(msg));
        cService::SetStopFlag(false);
    }
}

TEST_F(Service, StopMessageEndsEveryServiceOfTheProcess)
{
    cTestService a, b;
    std::thread loop([&] {
        cMsg msg;
        while (b.GetMessage(msg)) {
        }
    });
    Post(a, MSG_STOP);
    Post(a, 0x1234);
    EXPECT_EQ(Take(a), MSG_STOP);
    loop.join();                              // b was waiting in select
    EXPECT_EQ(Take(a), 0x1234u);              // the rest of a's queue still comes
    cMsg msg;
    EXPECT_FALSE(a.GetMessage(msg));
}

TEST_F(Service, WaitSyncMsgPutsSetAsideMessagesBackInReverse)
{
    cTestService svc;
    for (unsigned long type : {0x101ul, 0x102ul, 0x103ul, 0x200ul, 0x104ul})
        Post(svc, type);
    EXPECT_EQ(svc.WaitSyncMsg(5000, 0x300, 0x200, 0x400).GetType(), 0x200u);
    EXPECT_EQ(svc.GetTimerCount(), 0u);
    std::vector<unsigned long> order;
    while (svc.GetQueueSize() > 0)
        order.push_back(Take(svc));
    EXPECT_EQ(order, (std::vector<unsigned long>{0x104, 0x103, 0x102, 0x101}));

    const long long start = GetMsecClock();
    EXPECT_EQ(svc.WaitSyncMsg(30, 0x300).GetType(), 0x2015u);   // time-out
    EXPECT_GE(GetMsecClock() - start, 30);
    cService::SetStopFlag(true);
    EXPECT_EQ(svc.WaitSyncMsg(60000, 0x300).GetType(), 0u);     // stopping
}

TEST_F(Service, ClosedChannelIsDeletedOnlyAfterItsCloseMessage)
{
    cTestService svc;
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    bool deleted = false;
    cSink* ch = new cSink(&svc, &deleted);
    ch->SetDeleteAfterClose(true);
    ch->Attach(sv[0]);
    ::close(sv[1]);
    // The end of stream is seen inside the loop, where the channel closes
    // itself; it survives until the program has handled its 0x4003.
    cMsg msg;
    ASSERT_TRUE(svc.GetMessage(msg));
    ASSERT_EQ(msg.GetType(), MSG_SOCKET_CLOSED);
    EXPECT_EQ(msg.GetChannel(), ch);
    EXPECT_FALSE(deleted);
    Post(svc, 0x777);
    EXPECT_EQ(Take(svc), 0x777u);
    EXPECT_TRUE(deleted);

    // Without the mark it stays the program's.
    bool kept = false;
    cSink own(&svc, &kept);
    Post(svc, MSG_SOCKET_CLOSED, &own);
    Post(svc, 0x777);
    Take(svc);
    Take(svc);
    EXPECT_FALSE(kept);
}

// The request/answer exchange runs over a real socket in service_ipc_test;
// here the details a peer cannot see.
TEST_F(Service, ControlMessagesKeepTheListsInStep)
{
    cTestService svc;
    cSink ch(&svc);
    auto run = [&](unsigned long type, const cRecord& rec) {
        cMsg msg(type, &ch, nullptr);
        msg.SetRecord(rec);
        svc.OnMsg(msg);
        Post(svc, 0xABC);
        std::vector<unsigned long> seen;
        while (seen.empty() || seen.back() != 0xABC)
            seen.push_back(Take(svc));
        return seen;
    };

    // Unknown unit names get an empty map entry that listings skip; trace
    // sends clear the channel's write-ready flag.
    const cRecord on = orvo_test::TraceOnRecord({{"UnitORVO", "DEBUG"}, {"NoSuchUnit", "INFO"}});
    EXPECT_EQ(run(MSG_TRACE_ON, on), std::vector<unsigned long>{0xABC});
    EXPECT_EQ(UnitORVO->GetLevel(), DEBUG);
    ORVO_TRACE(UnitORVO, INFO, "trace to channel");
    ASSERT_EQ(ch.sent.size(), 1u);
    EXPECT_EQ(ch.sent[0].GetRecord().GetFirstPar("txt").GetString(), "trace to channel");
    EXPECT_EQ(ch.flagAtSend[0], 0);
    ch.Reset();
    run(MSG_SERVICE_INFO_REQUEST, cRecord());
    cRecord listed;
    ASSERT_TRUE(ch.sent.at(0).GetRecord().GetFirstPar("units").GetRecord(listed));
    EXPECT_TRUE(listed.GetFirstPar("UnitORVO").IsValid());
    EXPECT_FALSE(listed.GetFirstPar("NoSuchUnit").IsValid());
    // Made-up names fill at most 256 empty entries; real units still work.
    cRecord many, names;
    for (int i = 0; i <= 1000; ++i) {
        cRecord unit;
        unit.AppendTextPar("name", i < 1000 ? "made-up-" + std::to_string(i) : std::string("UnitORVO"), 0);
        unit.AppendTextPar("level", i < 1000 ? "ALL" : "WARNING", 0);
        names.AppendRecordPar("u", unit, 0);
    }
    many.AppendRecordPar("units", names, 0);
    const size_t before = mUnits->size();
    run(MSG_TRACE_ON, many);
    EXPECT_LE(mUnits->size(), before + 256);
    EXPECT_GT(mUnits->size(), before);
    EXPECT_EQ(UnitORVO->GetLevel(), WARNING);

    // Snoop: the report's keys in order; data messages are not reported.
    cUuid peerId;
    peerId.Create();
    cRecord peer;
    peer.AppendTextPar("peer-name", "remote", 0);
    peer.AppendUuidPar("peer-id", peerId, 0);
    run(MSG_SOCKET_CONNECTED, peer);
    EXPECT_EQ(ch.GetPeer().id, peerId);
    run(MSG_SNOOP_ON, cRecord());
    ch.Reset();
    run(MSG_SOCKET_DATA, cRecord());
    ASSERT_EQ(ch.sent.size(), 1u);   // the marker only
    EXPECT_EQ(ch.sent[0].GetRecord().GetFirstPar("peer-name").GetString(), "internal");
    ch.Reset();
    run(0x555, cRecord());
    ASSERT_EQ(ch.sent.size(), 2u);
    const cRecord& rep = ch.sent[0].GetRecord();
    std::vector<std::string> keys;
    for (cRecordPar par = rep.GetFirstPar(); par.IsValid(); rep.SeekNextPar(par))
        keys.push_back(par.GetName());
    EXPECT_EQ(keys, (std::vector<std::string>{"name", "service-id", "dir", "peer-name", "peer-id",
                                              "time", "msg-type", "msg-record", "msg-tid"}));
    EXPECT_EQ(rep.GetFirstPar("peer-name").GetString(), "remote");
    EXPECT_EQ(rep.GetFirstPar("msg-type").GetUInt(), 0x555u);

    // Closing takes the channel off both lists; the program still gets it.
    EXPECT_EQ(run(MSG_SOCKET_CLOSED, cRecord()), (std::vector<unsigned long>{MSG_SOCKET_CLOSED, 0xABC}));
    ch.Reset();
    ORVO_TRACE(UnitORVO, INFO, "after close");
    Post(svc, 0x1);
    Take(svc);
    EXPECT_TRUE(ch.sent.empty());
}

// ---- Loops on several threads -------------------------------------------------

// The stop flag keeps the wake-up descriptor readable for every loop; a wait
// that starts after the stop must still wait for its timer, not spin.
TEST_F(Service, AWaitThatStartsAfterTheStopStillWaitsForItsTimer)
{
    cTestService svc;
    cMarkTimer timer(&svc);
    cService::SetStopFlag(true);
    timer.Start(200, 0x123);
    const long long start = GetMsecClock();
    svc.ScheduleSelect();
    EXPECT_GE(GetMsecClock() - start, 150);
    EXPECT_EQ(gFired, std::vector<cTimer*>{&timer});
}

// select() interrupted by a signal the library does not catch is an error:
// traced and reported to the service as 0x1003.
TEST_F(Service, SelectInterruptedByAForeignSignalReportsTheError)
{
    struct sigaction sa = {}, old = {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR2, &sa, &old), 0);
    cTestService svc;
    cMarkTimer bound(&svc);
    bound.Start(5000, 0x123);
    const pthread_t loop = pthread_self();
    std::thread interrupter([loop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pthread_kill(loop, SIGUSR2);
    });
    SetTraceLevel(UnitORVO, FATAL);
    const std::string traced = Traced([&] { svc.ScheduleSelect(); });
    interrupter.join();
    sigaction(SIGUSR2, &old, nullptr);
    EXPECT_NE(traced.find("select() error, retval=-1"), std::string::npos) << traced;
    ASSERT_EQ(svc.GetQueueSize(), 1u);
    EXPECT_EQ(Take(svc), MSG_SELECT_FAILED);
    EXPECT_TRUE(gFired.empty());
}

// Every loop thread wakes for a signal; exactly one of them runs its handler.
TEST_F(Service, ASignalSeenByTwoLoopsRunsItsHandlerOnce)
{
    static std::atomic<int> runs{0};
    ASSERT_EQ(cService::SignalAsyncSelect(SIGUSR1, [](cService*, int, void*) { ++runs; }, nullptr), 0);
    runs = 0;
    std::atomic<bool> done{false};
    auto loop = [&done] {
        struct cTick : cTimer {
            explicit cTick(cService* s) : cTimer(s, false, nullptr) {}
            void OnExec() override {}
        };
        cTestService svc;
        cTick tick(&svc);
        while (!done) {
            tick.Start(5, 0x1);
            svc.ScheduleSelect();
        }
    };
    std::thread a(loop), b(loop);
    const int kRaises = 50;
    for (int i = 1; i <= kRaises; ++i) {
        ::kill(::getpid(), SIGUSR1);
        for (int wait = 0; runs < i && wait < 2000; ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    done = true;
    a.join();
    b.join();
    cService::SignalAsyncSelect(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(runs.load(), kRaises);
}

// Posting to a service from another thread while that service closes and
// reopens its sockets: the sender never touches a deleted socket, and once
// the target is up again the next post arrives.
TEST_F(Service, SendToInternalMeetsTheTargetsDeInit)
{
    cTestService sender, target;
    sender.Init("sender", cSocketAddr("127.0.0.1", 0));
    target.Init("target", cSocketAddr("127.0.0.1", 0));
    std::atomic<bool> done{false};
    std::thread poster([&] {
        while (!done) {
            cMsg msg(0x5555);
            sender.SendToInternal(&target, msg);
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    });
    for (int i = 0; i < 100; ++i) {
        target.DeInit();
        target.Init("target", cSocketAddr("127.0.0.1", 0));
    }
    done = true;
    poster.join();
    cMsg last(0x5556);
    ASSERT_GT(sender.SendToInternal(&target, last), 0);
    EXPECT_EQ(target.WaitSyncMsg(5000, 0x5556).GetType(), 0x5556u);
}

// The queue's ring: first in, first out while it wraps around and grows
// (the oldest message sits in the middle of the slots when it grows).
TEST(MsgQueue, KeepsFifoOrderWhileWrappingAndGrowing)
{
    cMsgQueue q;
    unsigned long next = 1;
    for (unsigned long type = 1; type <= 1000; ++type) {
        q.push_front(cMsg(type));
        if (type % 3 != 0) {
            ASSERT_EQ(q.back().GetType(), next++);
            q.pop_back();
        }
    }
    EXPECT_EQ(q.size(), 333u);
    EXPECT_EQ(q.capacity(), 512u);
    for (size_t i = 0; i < q.size(); ++i)
        ASSERT_EQ(q.at(i).GetType(), 1000 - i) << i;   // at(0) is the newest
    cMsg taken;
    while (!q.empty()) {
        q.take_back(taken);
        ASSERT_EQ(taken.GetType(), next++);
    }
    EXPECT_EQ(next, 1001u);
}

// Removing from the middle keeps the order of the rest, and a slot that is
// left lets go of its record at once.
TEST(MsgQueue, EraseAndRemoveIfKeepOrderAndReleaseRecords)
{
    cMsgQueue q;
    cMsg big(0x100);
    big.GetRecord().AppendTextPar("text", std::string(4000, 'x'));
    for (unsigned long type = 1; type <= 6; ++type) {   // wraps: two taken first
        q.push_front(cMsg(type));
        if (type <= 2)
            q.pop_back();
    }
    for (unsigned long type = 7; type <= 10; ++type) {
        cMsg m(type);
        if (type % 2 == 0)
            m.SetRecord(big.GetRecord());
        q.push_front(m);
    }
    EXPECT_EQ(big.GetRecord().GetMemBuffer().GetRefCount(), 3);

    q.erase(q.size() - 1);                  // the oldest (3)
    q.erase(0);                             // the newest (10, holds the record)
    EXPECT_EQ(q.remove_if([](const cMsg& m) { return m.GetType() == 5 || m.GetType() == 8; }), 2u);
    std::vector<unsigned long> order;
    while (!q.empty()) {
        order.push_back(q.back().GetType());
        q.pop_back();
    }
    EXPECT_EQ(order, (std::vector<unsigned long>{4, 6, 7, 9}));
    // Every queued copy of the record was let go: big is its only holder.
    EXPECT_EQ(big.GetRecord().GetMemBuffer().GetRefCount(), 1);
}
