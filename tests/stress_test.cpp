// Many threads at once against one service: senders post through the
// internal socket (each from its own service) and send over one framed TCP
// connection owned by another service's loop, while a viewer connection is
// registered as trace channel and snoop subscriber and every sender traces.
// Nothing may be lost or duplicated and nothing may deadlock. A watchdog
// ends the process with a message naming what was missing when the run
// does not finish in time.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_service.h"
#include "orvo_sharedmem.h"
#include "orvo_time.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "hostile_peers.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

const unsigned long kData = 0x7e0001, kReady = 0x7e0002;
const int kInternalSenders = 3, kFramedSenders = 2;
const int kPerSender = 100000;     // at most; each sender sends for kSendMs
const long long kSendMs = 2000;
const int kSenders = kInternalSenders + kFramedSenders;
// Messages a sender may have in flight: all senders together stay below the
// service's queue limit (200), whose overflow empties the queue by design.
const int kWindow = 32;
const int kDeadlineSeconds = 120;  // ThreadSanitizer and qemu are slow

cUnit UnitStress("stress", INFO, OUTPUT_NONE);

std::string FrameOf(const cMsg& m)
{
    std::string payload;
    m.Serialize(0, payload);
    const uint32_t n = uint32_t(payload.size() + 6);
    return std::string{4, 0, char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + payload;
}

// Message types of the frames read from fd until it ends.
void ReadTypes(int fd, std::vector<unsigned long>& types)
{
    std::string buf;
    char chunk[4096];
    for (ssize_t r; (r = recv(fd, chunk, sizeof chunk, 0)) > 0;) {
        buf.append(chunk, size_t(r));
        while (buf.size() >= 6) {
            const uint32_t n = uint8_t(buf[2]) | uint8_t(buf[3]) << 8 | uint8_t(buf[4]) << 16 |
                               uint32_t(uint8_t(buf[5])) << 24;
            if (n < 6 || buf.size() < n)
                break;
            cMsg m;
            if (m.Create(uint8_t(buf[1]), buf.data() + 6, int(n - 6), nullptr, nullptr) == 1)
                types.push_back(m.GetType());
            buf.erase(0, n);
        }
    }
}

struct sTally {
    std::mutex lock;
    std::vector<std::vector<int>> seen = std::vector<std::vector<int>>(kSenders, std::vector<int>(kPerSender, 0));
    std::atomic<int> received[kSenders] = {};
    std::atomic<int> sent[kSenders] = {};
    std::atomic<int> expected{-1};     // known once every sender ended
    std::atomic<int> total{0};
    std::atomic<int> duplicates{0};

    void Note(unsigned sender, unsigned seq)
    {
        if (sender >= unsigned(kSenders) || seq >= unsigned(kPerSender))
            return;
        std::lock_guard<std::mutex> guard(lock);
        if (seen[sender][seq]++ != 0)
            ++duplicates;
        ++received[sender];
        ++total;
    }
    std::string Missing()
    {
        std::lock_guard<std::mutex> guard(lock);
        std::string text;
        for (int s = 0; s < kSenders; ++s)
            text += " sender " + std::to_string(s) + ": " + std::to_string(received[s].load()) + "/" +
                    std::to_string(sent[s].load());
        return text;
    }
};

cMsg Data(int sender, int seq)
{
    cMsg m(kData);
    m.GetRecord().AppendUIntPar("sender", unsigned(sender));
    m.GetRecord().AppendUIntPar("seq", unsigned(seq));
    return m;
}

}  // namespace

TEST(Stress, SendersTracesAndSnoopOnOneServiceLoseAndDuplicateNothing)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    cService::SetStopFlag(false);
    sTally tally;
    std::atomic<bool> ready{false}, clientIdentified{false}, finished{false};
    std::mutex doneLock;
    std::condition_variable doneCv;

    std::thread watchdog([&] {
        std::unique_lock<std::mutex> guard(doneLock);
        if (!doneCv.wait_for(guard, std::chrono::seconds(kDeadlineSeconds), [&] { return finished.load(); })) {
            std::fprintf(stderr, "stress: not finished within %i s (deadlock or lost messages):%s\n",
                         kDeadlineSeconds, tally.Missing().c_str());
            std::fflush(stderr);
            _exit(3);
        }
    });

    cTestService target, client;
    target.Init("target", cSocketAddr("127.0.0.1", 0));
    client.Init("client", cSocketAddr("127.0.0.1", 0));

    // The viewer: trace on and snoop on over a raw connection, then ready.
    int viewer = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(viewer, target.GetSapAddress().GetSockAddr(), sizeof(sockaddr_in)), 0);
    cMsg on(MSG_TRACE_ON);
    on.SetRecord(orvo_test::TraceOnRecord({{"stress", "INFO"}}));
    const std::string hello = FrameOf(on) + FrameOf(cMsg(MSG_SNOOP_ON)) + FrameOf(cMsg(kReady));
    ASSERT_EQ(send(viewer, hello.data(), hello.size(), MSG_NOSIGNAL), ssize_t(hello.size()));
    std::vector<unsigned long> viewed;
    std::thread viewerReader([&] { ReadTypes(viewer, viewed); });

    std::thread targetLoop([&] {
        cTimer recheck(&target, true, nullptr);    // notices the end when nothing more comes
        recheck.Start(50, 0x7e0003);
        cMsg msg;
        while (target.GetMessage(msg)) {
            if (msg == kReady)
                ready = true;
            else if (msg == kData)
                tally.Note(msg.GetRecord().GetFirstPar("sender").GetUInt(),
                           msg.GetRecord().GetFirstPar("seq").GetUInt());
            if (tally.total == tally.expected)
                cService::SetStopFlag(true);
        }
    });

    cMsgTcpSocket framed(&client, nullptr);
    framed.Socket(AF_INET, SOCK_STREAM, 0);
    framed.Connect(target.GetSapAddress());
    std::thread clientLoop([&] {
        cMsg msg;
        while (client.GetMessage(msg)) {
            if (msg == MSG_SOCKET_CONNECTED)
                clientIdentified = true;    // the target announced itself
        }
    });
    while (!ready || !clientIdentified)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    std::vector<std::thread> senders;
    for (int s = 0; s < kInternalSenders; ++s) {
        senders.emplace_back([&, s] {
            cTestService own;
            own.Init("sender", cSocketAddr("127.0.0.1", 0));
            const long long end = GetMsecClock() + kSendMs;
            for (int seq = 0; seq < kPerSender && GetMsecClock() < end; ++seq) {
                while (seq - tally.received[s] >= kWindow)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                cMsg m = Data(s, seq);
                own.SendToInternal(&target, m);
                ++tally.sent[s];
                if (seq % 16 == 0)
                    ORVO_TRACE(&UnitStress, INFO, FormatString("internal sender %i at %i", s, seq));
            }
        });
    }
    for (int s = kInternalSenders; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            const long long end = GetMsecClock() + kSendMs;
            for (int seq = 0; seq < kPerSender && GetMsecClock() < end; ++seq) {
                while (seq - tally.received[s] >= kWindow)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                cMsg m = Data(s, seq);
                while (framed.Send(m) == -2)     // send buffer full: try again
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                ++tally.sent[s];
                if (seq % 16 == 0)
                    ORVO_TRACE(&UnitStress, INFO, FormatString("framed sender %i at %i", s, seq));
            }
        });
    }
    for (std::thread& t : senders)
        t.join();
    int sent = 0;
    for (const auto& n : tally.sent)
        sent += n;
    tally.expected = sent;
    targetLoop.join();
    clientLoop.join();
    {
        std::lock_guard<std::mutex> guard(doneLock);
        finished = true;
    }
    doneCv.notify_all();
    watchdog.join();

    EXPECT_EQ(tally.total.load(), sent) << tally.Missing();
    EXPECT_GT(sent, kSenders);
    EXPECT_EQ(tally.duplicates.load(), 0);

    framed.Close();
    client.DeInit();
    target.DeInit();                      // closes the viewer's connection
    viewerReader.join();
    close(viewer);
    cService::SetStopFlag(false);
    // The viewer saw both kinds of copies while the senders ran.
    EXPECT_NE(std::count(viewed.begin(), viewed.end(), MSG_TRACE_OUTPUT), 0);
    EXPECT_NE(std::count(viewed.begin(), viewed.end(), MSG_SNOOP_REPORT), 0);
}

// Hostile peers against an echo service in a child process: a flood of
// undecodable frames, a peer that never reads its answers, a thousand
// connections that each hold one byte of a frame, and more connections than
// the descriptor table takes. The good client's round trips go on
// throughout, the table's refusals are traced once, and when the peers
// leave the service's descriptors and heap return to (near) their start.
TEST(Stress, HostilePeersLeaveTheServiceWorkingAndItsMemoryReturns)
{
    hostile::RaiseFdLimit(4096);
    char logPath[] = "/tmp/orvo-hostile-XXXXXX";
    const int logFd = ::mkstemp(logPath);
    ASSERT_GE(logFd, 0);
    ::close(logFd);
    const orvo_test::sChild child = orvo_test::StartChild([&logPath](int toParent) {
        if (std::freopen(logPath, "w", stdout) == nullptr)
            return 2;
        SetTraceLevel(UnitORVO, ERROR);
        SetTraceOut(UnitORVO, OUTPUT_STDOUT);
        // The first trace line opens the shared oscillator cell; opened now
        // it is part of the start's descriptors, not one more when the
        // table is full.
        (void)GetOSC();
        return hostile::RunEchoService(toParent);
    }, 180);
    const unsigned short port = orvo_test::Receive(child.pipe);
    ASSERT_NE(port, 0);

    hostile::cGoodClient good(port);
    ASSERT_TRUE(good.IsOpen());
    ASSERT_GT(good.RoundTrip(), 0);
    const hostile::sStats start = good.Stats();
    ASSERT_GT(start.fds, 0);

    const int deaf = hostile::OpenNonReader(port, 60);
    hostile::SendMalformed(port, 5000, 10, 50);
    EXPECT_GT(good.RoundTrip(), 0) << "after the malformed frames";

    std::vector<int> partial = hostile::OpenPartial(port, 1000, 1);
    EXPECT_EQ(partial.size(), 1000u);
    // Until the service took them all (it accepts one per readiness).
    auto settle = [&good](long least) {
        hostile::sStats s = good.Stats(), before;
        for (const long long until = GetMsecClock() + 30000;
             GetMsecClock() < until && (s.clients < least || s.clients != before.clients);) {
            ::usleep(200 * 1000);
            before = s;
            s = good.Stats();
        }
        return s;
    };
    EXPECT_GE(settle(1000).clients, 1000);
    EXPECT_GT(good.RoundTrip(), 0) << "with a thousand unfinished frames";
    // Beyond the table: refused, the rest undisturbed.
    std::vector<int> extra = hostile::OpenPartial(port, 60, 1);
    const hostile::sStats busy = settle(1000);
    EXPECT_GT(good.RoundTrip(), 0) << "with the table full";
    EXPECT_LE(busy.fds, 1024);
    EXPECT_LT(busy.heap - start.heap, 20l << 20) << "a thousand partial frames cost little";

    hostile::CloseAll(partial);
    hostile::CloseAll(extra);
    ::close(deaf);
    // The peers' closes arrive; the figures settle near the start.
    hostile::sStats end;
    for (const long long until = GetMsecClock() + 30000; GetMsecClock() < until;) {
        end = good.Stats();
        if (end.clients == start.clients && end.fds <= start.fds + 1 &&
            end.heap <= start.heap + start.heap / 10 + (256 << 10))
            break;
        ::usleep(100 * 1000);
    }
    EXPECT_EQ(end.clients, start.clients);
    EXPECT_LE(end.fds, start.fds + 1);
    EXPECT_LE(end.heap, start.heap + start.heap / 10 + (256 << 10))
        << "heap in use at start " << start.heap << ", at the end " << end.heap;
    // A new connection is taken again.
    hostile::cGoodClient later(port);
    EXPECT_GT(later.RoundTrip(), 0);

    ASSERT_TRUE(hostile::SendAll(hostile::Connect(port), hostile::FrameOf(cMsg(hostile::kQuit))));
    EXPECT_EQ(orvo_test::EndChild(child), 0);
    std::string log;
    if (FILE* f = std::fopen(logPath, "r")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
            log.append(buf, n);
        std::fclose(f);
    }
    ::unlink(logPath);
    size_t refusals = 0;
    for (size_t at = 0; (at = log.find("refusing new connections", at)) != std::string::npos; ++at)
        ++refusals;
    EXPECT_EQ(refusals, 1u) << log.substr(0, 2000);
}
