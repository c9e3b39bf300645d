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
#include "orvo_time.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
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
