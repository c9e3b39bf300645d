// Framed sockets: reassembly without sockets, the framing limits, and an echo
// service in another process reached over 127.0.0.1 by a library peer, by
// raw peers that misbehave, by datagrams and by 1100 connections. Raw frames
// are built and parsed here by hand, independently of the code under test.
// Time limits: the echo child ends itself with alarm(); raw peers read with
// SO_RCVTIMEO; this process waits with WaitSyncMsg.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <random>
#include <string>
#include <vector>

#include "orvo_handle.h"
#include "orvo_msgsocket.h"
#include "orvo_init.h"
#include "orvo_service.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

const unsigned long REQ = 0x123001, REP = 0x123002, UNDEC = 0x123003, BIG = 0x123004,
                    BIGRET = 0x123005, STATS = 0x123007, BIGMSG = 0x123008, DONE = 0x123009;
const unsigned kChildSeconds = 120;    // qemu and the sanitizers are slow

std::string Frame(unsigned char type, const std::string& payload, long long declared = -1)
{
    const uint32_t n = declared >= 0 ? uint32_t(declared) : uint32_t(payload.size() + 6);
    return std::string{4, char(type), char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + payload;
}

std::string Payload(const cMsg& m, unsigned char kind = 0)
{
    std::string s;
    m.Serialize(kind, s);
    return s;
}

cMsg Request(unsigned n, bool withTid = false)
{
    cMsg m(REQ);
    cUuid tid;
    if (withTid && tid.Create())
        m.SetTid(tid);
    m.GetRecord().AppendUIntPar("n", n);
    return m;
}

// A message of kind 1 whose frame is exactly total bytes (large totals: the
// data element takes 6 bytes besides its data).
cMsg Sized(const cUuid& tid, int total)
{
    cMsg m(BIGMSG);
    m.SetTid(tid);
    std::string d(size_t(total - 32), '\0');
    for (size_t k = 0; k < d.size(); ++k)
        d[k] = char(k * 7);
    m.GetRecord().AppendDataPar("d", d.data(), int(d.size()));
    return m;
}

// ---- raw peers ----------------------------------------------------------------

int RawSocket(int type, unsigned short connectTo = 0)
{
    int fd = socket(AF_INET, type, 0);
    timeval tv = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    cSocketAddr to("127.0.0.1", connectTo);
    if (connectTo != 0 && connect(fd, to.GetSockAddr(), sizeof(sockaddr_in)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(int fd, const std::string& s)
{
    return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == ssize_t(s.size());
}

bool RecvAll(int fd, std::string& out, size_t n)
{
    out.assign(n, '\0');
    for (size_t got = 0; got < n;) {
        ssize_t r = recv(fd, &out[got], n - got, 0);
        if (r <= 0)
            return false;
        got += size_t(r);
    }
    return true;
}

// One message frame from a stream; false on end of stream, error, time-out.
bool ReadFrame(int fd, cMsg& msg)
{
    std::string h, p;
    if (!RecvAll(fd, h, 6) || h[0] != 4)
        return false;
    const uint32_t n = uint8_t(h[2]) | uint8_t(h[3]) << 8 | uint8_t(h[4]) << 16 | uint32_t(uint8_t(h[5])) << 24;
    msg = cMsg();
    return n >= 6 && n <= 196606 && RecvAll(fd, p, n - 6) && msg.Create(uint8_t(h[1]), p.data(), int(p.size()), nullptr, nullptr) == 1;
}

// Sends a request-like message and reads one message back.
cMsg Ask(int fd, const cMsg& m)
{
    cMsg r;
    EXPECT_TRUE(SendAll(fd, Frame(0, Payload(m))) && ReadFrame(fd, r));
    return r;
}

unsigned Get(const cMsg& m, const char* key)
{
    return m.GetRecord().GetFirstPar(key).GetUInt();
}

// The echo service's counters as "closed clients pending", asked for over fd
// until they read want (at most 5 s); the last answer.
std::string StatsReach(int fd, const std::string& want)
{
    std::string got;
    for (int i = 0; i < 500 && got != want; ++i, usleep(10000)) {
        const cMsg m = Ask(fd, cMsg(STATS));
        got = std::to_string(Get(m, "closed")) + " " + std::to_string(Get(m, "clients")) + " " +
              std::to_string(Get(m, "pending"));
    }
    return got;
}

// ---- the echo service, in a child process ----------------------------------

int EchoLoop(cService& s)
{
    unsigned closed = 0;
    cMsg m;
    while (s.GetMessage(m)) {
        closed += m == MSG_SOCKET_CLOSED;
        cChannel* ch = m.GetChannel();
        cMsg r(REP);
        if (m == REQ) {
            r.SetTid(m.GetTid());
            r.SetRecord(m.GetRecord());
        } else if (m == MSG_UNDECODABLE) {
            r.SetType(UNDEC);
            r.GetRecord().AppendTextPar("indic", m.GetRecord().GetFirstPar("indic").GetString());
        } else if (m == STATS) {
            unsigned pending = 0;
            for (cTcpSocket* c : s.GetSapSocket()->GetClients())
                pending += unsigned(static_cast<cTpktTcpSocket*>(c)->GetRecvQueued());
            r.GetRecord().AppendUIntPar("closed", closed);
            r.GetRecord().AppendUIntPar("clients", unsigned(s.GetSapSocket()->GetClients().size()));
            r.GetRecord().AppendUIntPar("pending", pending);
        } else if (m == BIG) {
            cMsg big = Sized(m.GetTid(), int(Get(m, "total")));
            errno = 0;
            r.SetType(BIGRET);
            r.GetRecord().AppendSIntPar("ret", ch->Send(big));
            r.GetRecord().AppendSIntPar("errno", errno);
        } else if (m == DONE) {
            return 0;
        } else {
            continue;
        }
        ch->Send(r);
    }
    return 2;
}

struct sEcho {
    orvo_test::sChild child;
    unsigned short tcp = 0, udp = 0;
};

sEcho StartEcho(rlim_t nofile = 0)
{
    sEcho e;
    e.child = orvo_test::StartChild([nofile](int toParent) {
        rlimit rl = {nofile, nofile};
        if (nofile != 0)
            setrlimit(RLIMIT_NOFILE, &rl);
        cTestService s;
        s.Init("echo", cSocketAddr("127.0.0.1", 0));
        orvo_test::Report(toParent, s.GetSapAddress().GetPort());
        orvo_test::Report(toParent, s.GetInternalAddress().GetPort());
        return EchoLoop(s);
    }, kChildSeconds);
    e.tcp = orvo_test::Receive(e.child.pipe);
    e.udp = orvo_test::Receive(e.child.pipe);
    return e;
}

// Asks the echo service over the stream fd to end; its exit code.
int Finish(const sEcho& e, int fd = -1)
{
    if (fd >= 0)
        SendAll(fd, Frame(0, Payload(cMsg(DONE))));
    return orvo_test::EndChild(e.child);
}

using tFrames = std::vector<std::pair<int, std::string>>;

void Collect(void* ctx, unsigned char type, const unsigned char* p, int n)
{
    static_cast<tFrames*>(ctx)->emplace_back(type, std::string(reinterpret_cast<const char*>(p), size_t(n)));
}

}  // namespace

TEST(FrameReader, ReassemblesAnyChunkingAndRefusesBadLengths)
{
    tFrames frames;
    std::string stream;
    for (size_t n : {0, 1, 4, 100, 8200, 196600, 3}) {
        frames.emplace_back(n % 5, std::string(n, char('a' + n % 26)));
        stream += Frame(uint8_t(n % 5), frames.back().second);
    }
    std::mt19937 rng(7);
    cFrameReader r;
    for (size_t maxChunk : {1, 5, 7, 8192, 16384, 1 << 20}) {
        tFrames got;
        for (size_t at = 0, n; at < stream.size(); at += n) {
            n = std::min(stream.size() - at, 1 + rng() % maxChunk);
            ASSERT_EQ(r.Feed(stream.data() + at, int(n), &Collect, &got), cFrameReader::FEED_OK);
        }
        EXPECT_EQ(got, frames) << "chunks up to " << maxChunk;
        EXPECT_EQ(r.size(), 0u);
    }

    // Lengths outside 6..196606 break the stream; what came before is kept.
    for (uint32_t bad : {0u, 5u, 196607u, 0xFFFFFFFFu}) {
        tFrames got;
        std::string s = Frame(1, "ok") + Frame(2, "", bad) + Frame(3, "lost");
        EXPECT_EQ(r.Feed(s.data(), int(s.size()), &Collect, &got), cFrameReader::FEED_BROKEN);
        EXPECT_EQ(r.GetBrokenLength(), bad);
        EXPECT_EQ(got, (tFrames{{1, "ok"}}));
        EXPECT_EQ(r.size(), 0u);
    }

    // A handler that clears the reader (its socket closed) ends the feed; a
    // feed from inside a handler is refused.
    std::pair<cFrameReader*, int> ctx{&r, 0};
    auto h = [](void* c, unsigned char, const unsigned char*, int) {
        auto& x = *static_cast<std::pair<cFrameReader*, int>*>(c);
        x.second = x.first->Feed("x", 1, [](void*, unsigned char, const unsigned char*, int) {}, nullptr);
        x.first->Clear();
    };
    std::string s = Frame(0, "a") + Frame(0, "b") + Frame(0, "c").substr(0, 3);
    EXPECT_EQ(r.Feed(s.data(), int(s.size()), h, &ctx), cFrameReader::FEED_OK);
    EXPECT_EQ(ctx.second, cFrameReader::FEED_NESTED);
    EXPECT_EQ(r.size(), 0u);
}

// A peek at what a framed socket without a descriptor keeps queued (nothing
// is written, every frame stays).
struct cPeek : cTpktTcpSocket {
    cPeek() : cTpktTcpSocket(nullptr, nullptr) {}
    std::string Queued() const { return std::string(reinterpret_cast<const char*>(m_SendBuffer.data()), m_SendBuffer.size()); }
};

TEST(TpktTcpSocket, AFrameOfTheBufferSizeIsRefusedAndOneByteLessIsQueuedWhole)
{
    cPeek s;
    const std::string big(196601, 'x');
    errno = 0;
    EXPECT_EQ(s.WritePacket(0, big.data(), 196601, nullptr, 0, nullptr, 0), -1);     // 196607
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(s.GetSendQueued(), 0u);
    EXPECT_EQ(s.WritePacket(2, big.data(), 196597, "abc", 3, nullptr, 0), 196606);
    EXPECT_EQ(s.Queued(), Frame(2, big.substr(0, 196597) + "abc"));
}

TEST(TpktTcpSocket, AFullSendBufferRefusesWithEagainAndCloseEmptiesIt)
{
    cPeek s;
    const std::string big(196600, 'x');
    ASSERT_EQ(s.WritePacket(0, big.data(), int(big.size()), nullptr, 0, nullptr, 0), 196606);
    errno = 0;
    EXPECT_EQ(s.Write("a", 1), -2);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(s.GetSendQueued(), 196606u);
    s.Close();
    EXPECT_EQ(s.GetSendQueued(), 0u);
}

// Free space equal to the frame's total: the strict append leaves out the
// last piece (kept quirk), so the queued frame is short by it.
TEST(TpktTcpSocket, FreeSpaceEqualToTheFrameLeavesOutItsLastPiece)
{
    cPeek s;
    const std::string big(196607 - 20 - 6, 'x');
    ASSERT_EQ(s.WritePacket(0, big.data(), int(big.size()), nullptr, 0, nullptr, 0), 196587);
    EXPECT_EQ(s.WritePacket(1, "hdr4", 4, "0123456789", 10, nullptr, 0), 20);
    EXPECT_EQ(s.Queued().substr(196587), Frame(1, "hdr4", 20));
}

// The refusals of both framed sockets trace in their own words (a stream
// and a datagram socket word them differently).
TEST(TpktSockets, RefusalsTraceTheirOwnTexts)
{
    const cSocketAddr from("127.0.0.2", 4711);
    std::string out;
    const int rc = orvo_test::RunInChild([&from] {
        orvoInit(INFO, OUTPUT_STDOUT, false);
        SetTraceLevel(UnitORVO, INFO);
        const std::string big(196601, 'x');
        const std::string broken = Frame(0, "", 3);
        cPeek tcp;
        cTpktUdpSocket udp(nullptr, nullptr);   // no descriptor either: keeps what is queued
        tcp.WritePacket(0, big.data(), 196601, nullptr, 0, nullptr, 0);
        tcp.WritePacket(0, big.data(), 196600, nullptr, 0, nullptr, 0);
        tcp.WritePacket(0, "abcdefgh", 8, nullptr, 0, nullptr, 0);
        udp.SendTo(from, 0, big.data(), 196600, nullptr, 0, nullptr, 0, nullptr, 0);
        udp.SendTo(from, 0, "abcdefgh", 8, nullptr, 0, nullptr, 0, nullptr, 0);
        tcp.OnRead(broken.data(), int(broken.size()));
        udp.OnReceiveFrom(from, broken.data(), int(broken.size()));
        std::fflush(stdout);
        return 0;
    }, &out);
    ASSERT_EQ(rc, 0);
    for (const char* text :
         {"cTpktTcpSocket::WritePacket error: packet size 196607 to large, support only 191kB",
          "cTpktTcpSocket::WritePacket packetlen=8 buffer overflow (sendb=1, tpkt=14)",
          "cTpktUdpSocket::WritePacket packetlen=8 buffer overflow\n",
          "cTpktTcpSocket::OnRead error: frame length 3 outside 6..196606, stream broken, closing "
          "0.0.0.0:0\n",
          "cTpktUdpSocket::OnReceiveFrom error: frame length 3 outside 6..196606 from "
          "127.0.0.2:4711, buffered bytes dropped\n"})
        EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
}

TEST(MsgSocket, DatagramKindCarriesTidAndStateMachine)
{
    struct cCapture : cMsgUdpSocket {
        cCapture() : cMsgUdpSocket(nullptr, nullptr) { Socket(AF_INET, SOCK_DGRAM, 0), Bind(cSocketAddr("127.0.0.1", 0)); }
        void OnPacketRead(unsigned char type, const void* p, int n) override
        {
            types.push_back(type);
            cMsgUdpSocket::OnPacketRead(type, p, n);
        }
        void OnMsg(cMsg& m) override { msgs.push_back(m); }
        std::vector<int> types;
        std::vector<cMsg> msgs;
    } a, b;
    int statem = 0;
    cStateMachine* sm = reinterpret_cast<cStateMachine*>(&statem);
    const uint32_t handle = HandleCreate(sm, HANDLE_STATEM);
    const cMsg m = Request(0, true);
    for (int kind = 0; kind < 4; ++kind) {
        cMsg k(m);
        k.SetTid(kind & 1 ? m.GetTid() : cUuid());
        k.SetStatem(kind & 2 ? sm : nullptr);
        EXPECT_EQ(a.SendTo(b.GetLocalAddress(), k), int(6 + Payload(k, uint8_t(kind)).size()));
        pollfd p = {b.GetFd(), POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 20000), 1);
        b.OnSelect(SELECT_READ);
        ASSERT_EQ(b.msgs.size(), size_t(kind + 1));
        EXPECT_EQ(b.types.back(), kind);
        EXPECT_EQ(b.msgs.back().GetTid().IsValid(), (kind & 1) != 0);
        EXPECT_EQ(b.msgs.back().GetStatem(), kind & 2 ? sm : nullptr);
        EXPECT_EQ(b.msgs.back().GetChannel(), &b);
        EXPECT_EQ(orvo_test::BytesOf(b.msgs.back().GetRecord()), orvo_test::BytesOf(m.GetRecord()));
    }
    EXPECT_EQ(b.msgs[3].GetTid(), m.GetTid());
    EXPECT_EQ(b.GetRemoteAddress(), a.GetLocalAddress());
    HandleRelease(handle);

    // A frame too large for one datagram is dropped, not left to block the
    // frames behind it.
    const std::string big(70000, 'x');
    errno = 0;
    EXPECT_EQ(a.cTpktUdpSocket::SendTo(b.GetLocalAddress(), 0, big.data(), 70000, nullptr, 0, nullptr, 0, nullptr, 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(a.GetSendQueued(), 0u);
    cMsg again(m);
    EXPECT_GT(a.SendTo(b.GetLocalAddress(), again), 0);
}

TEST(MsgSocket, ExchangeWithServiceInAnotherProcess)
{
    sEcho echo = StartEcho();
    ASSERT_NE(echo.tcp, 0);
    {
        cTestService svc;
        svc.Init("client", cSocketAddr("127.0.0.1", 0));
        cMsgTcpSocket c(&svc, nullptr);
        ASSERT_GT(c.Socket(AF_INET, SOCK_STREAM, 0), 0);
        ASSERT_EQ(c.Connect(cSocketAddr("127.0.0.1", echo.tcp)), 0);

        // The peer announces itself by name; our own 0x4002 goes to it.
        cMsg m = svc.WaitSyncMsg(30000, MSG_SOCKET_CONNECTED);
        ASSERT_EQ(m, MSG_SOCKET_CONNECTED);
        EXPECT_EQ(m.GetRecord().GetFirstPar("peer-name").GetString(), "echo");
        EXPECT_EQ(c.GetPeer().name, "echo");
        int nodelay = 0;
        unsigned len = sizeof nodelay;
        c.GetSockOpt(IPPROTO_TCP, TCP_NODELAY, &nodelay, &len);
        EXPECT_NE(nodelay, 0);

        cMsg req = Request(42, true);
        req.GetRecord().AppendTextPar("text", "hello");
        EXPECT_GT(c.Send(req), 0);
        m = svc.WaitSyncMsg(30000, REP);
        EXPECT_EQ(m.GetTid(), req.GetTid());
        EXPECT_EQ(orvo_test::BytesOf(m.GetRecord()), orvo_test::BytesOf(req.GetRecord()));
        EXPECT_EQ(m.GetChannel(), &c);

        // The largest frame crosses whole; one byte more is refused.
        for (unsigned total : {196606u, 196607u}) {
            cMsg big(BIG);
            big.SetTid(req.GetTid());
            big.GetRecord().AppendUIntPar("total", total);
            c.Send(big);
            if (total == 196606) {
                m = svc.WaitSyncMsg(30000, BIGMSG);
                EXPECT_EQ(26 + m.GetRecord().GetSize(), 196606);
                EXPECT_TRUE(orvo_test::BytesOf(m.GetRecord()) == orvo_test::BytesOf(Sized(req.GetTid(), 196606).GetRecord()));
            }
            m = svc.WaitSyncMsg(30000, BIGRET);
            EXPECT_EQ(m.GetRecord().GetFirstPar("ret").GetSInt() > 0, total == 196606);
            EXPECT_EQ(m.GetRecord().GetFirstPar("errno").GetSInt() == E2BIG, total == 196607);
        }
        cMsg done(DONE);
        c.Send(done);
    }
    EXPECT_EQ(Finish(echo), 0);
}

TEST(MsgSocket, BadPeersCostOnlyTheirOwnConnection)
{
    sEcho echo = StartEcho();
    ASSERT_NE(echo.tcp, 0);
    cMsg m;
    int fds[4];
    for (int& fd : fds) {
        fd = RawSocket(SOCK_STREAM, echo.tcp);
        ASSERT_TRUE(ReadFrame(fd, m));      // the service's announcement
        EXPECT_EQ(m, MSG_SOCKET_CONNECTED);
        EXPECT_EQ(m.GetRecord().GetFirstPar("peer-name").GetString(), "echo");
    }
    const int good = fds[0], shortLength = fds[1], cut = fds[2], stall = fds[3];
    const std::string req = Payload(Request(1)), frame = Frame(0, req);

    // Packet type 7 and a payload under 4 bytes: 0x1002, the stream goes on.
    ASSERT_TRUE(SendAll(good, Frame(7, req) + Frame(0, "ab") + frame));
    ASSERT_TRUE(ReadFrame(good, m));
    EXPECT_EQ(m.GetRecord().GetFirstPar("indic").GetString(),
              "can't create message from buff, ret=-1, count=" + std::to_string(req.size()));
    ASSERT_TRUE(ReadFrame(good, m));
    EXPECT_EQ(m.GetRecord().GetFirstPar("indic").GetString(), "can't create message from buff, ret=-2, count=2");
    ASSERT_TRUE(ReadFrame(good, m));
    EXPECT_EQ(m, REP);

    // A length below 6 ends that connection; one peer leaves mid-frame,
    // one stalls mid-frame. Closed sockets are deleted, the stalled one holds
    // its 10 bytes.
    ASSERT_TRUE(SendAll(shortLength, Frame(0, "", 5) + frame));
    char c;
    EXPECT_LE(recv(shortLength, &c, 1, 0), 0);
    ASSERT_TRUE(SendAll(cut, frame.substr(0, 9)));
    close(cut);
    ASSERT_TRUE(SendAll(stall, frame.substr(0, 10)));
    EXPECT_EQ(StatsReach(good, "2 2 10"), "2 2 10");

    ASSERT_TRUE(SendAll(stall, frame.substr(10)));      // resumes, is answered
    ASSERT_TRUE(ReadFrame(stall, m));
    EXPECT_EQ(m, REP);
    EXPECT_EQ(Finish(echo, good), 0);
    for (int fd : fds)
        close(fd);
}

TEST(MsgSocket, DatagramsReassembleAndSurviveGarbage)
{
    sEcho echo = StartEcho();
    ASSERT_NE(echo.udp, 0);
    int u = RawSocket(SOCK_DGRAM);
    const cSocketAddr to("127.0.0.1", echo.udp);
    auto send = [&](const std::string& d) { sendto(u, d.data(), d.size(), 0, to.GetSockAddr(), sizeof(sockaddr_in)); };
    cMsg withTid = Request(1, true);
    const std::string split = Frame(0, Payload(Request(4)));
    send(Frame(1, Payload(withTid, 1)));
    send(Frame(0, Payload(Request(2))) + Frame(0, Payload(Request(3))));    // two in one
    send(split.substr(0, 7));                                               // one in two
    send(split.substr(7));
    send(Frame(0, "", 3));                                                  // garbage header
    send(Frame(0, Payload(Request(5))));
    for (unsigned want = 1; want <= 5; ++want) {
        char buf[2048];
        ssize_t r = recv(u, buf, sizeof buf, 0);
        cMsg m;
        ASSERT_TRUE(r >= 6 && buf[0] == 4 && (uint8_t(buf[2]) | uint8_t(buf[3]) << 8) == r) << want;
        ASSERT_EQ(m.Create(uint8_t(buf[1]), buf + 6, int(r - 6), nullptr, nullptr), 1);
        EXPECT_EQ(buf[1], want == 1 ? 1 : 0);
        EXPECT_EQ(m, REP);
        EXPECT_EQ(Get(m, "n"), want);
        EXPECT_EQ(m.GetTid(), want == 1 ? withTid.GetTid() : cUuid());
    }
    send(Frame(0, Payload(cMsg(DONE))));
    EXPECT_EQ(Finish(echo), 0);
    close(u);
}

TEST(MsgSocket, ManyConnectionsToOneSapSocket)
{
    // This process holds every connection; the service gets more descriptors
    // than FD_SETSIZE, so it sees connections it must refuse.
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &rl);
    int count = 1100;
    if (rl.rlim_cur < 1200) {
        count = int(rl.rlim_cur) - 100;
        printf("RLIMIT_NOFILE cannot be raised above %lu: %d connections\n", (unsigned long)rl.rlim_cur, count);
    }
    sEcho echo = StartEcho(rl.rlim_cur);
    ASSERT_NE(echo.tcp, 0);
    std::vector<int> held;
    cMsg m;
    for (int i = 0; i < count; ++i) {
        int fd = RawSocket(SOCK_STREAM, echo.tcp);
        ASSERT_GE(fd, 0);
        if (ReadFrame(fd, m) && m == MSG_SOCKET_CONNECTED)
            held.push_back(fd);
        else
            close(fd);      // refused: closed by the service at once
    }
    EXPECT_GE(held.size(), 900u);
    EXPECT_LE(held.size(), size_t(std::min(count, FD_SETSIZE)));

    // In batches: the service's queue holds at most 200 messages and drops
    // them all beyond that.
    size_t answered = 0;
    for (size_t from = 0; from < held.size(); from += 100) {
        const size_t to = std::min(held.size(), from + 100);
        for (size_t i = from; i < to; ++i)
            SendAll(held[i], Frame(0, Payload(Request(unsigned(i)))));
        for (size_t i = from; i < to; ++i)
            answered += ReadFrame(held[i], m) && m == REP && Get(m, "n") == i;
    }
    EXPECT_EQ(answered, held.size());
    const int probe = held[0];
    for (size_t from = 1; from < held.size(); from += 100) {
        for (size_t i = from; i < std::min(held.size(), from + 100); ++i)
            close(held[i]);
        EXPECT_EQ(Ask(probe, Request(0)), REP);
    }
    const std::string alone = std::to_string(held.size() - 1) + " 1 0";
    EXPECT_EQ(StatsReach(probe, alone), alone);
    close(probe);

    // Still running: a new connection is answered.
    int last = RawSocket(SOCK_STREAM, echo.tcp);
    ASSERT_TRUE(ReadFrame(last, m));
    EXPECT_EQ(Ask(last, Request(7)), REP);
    EXPECT_EQ(Finish(echo, last), 0);
    close(last);
}

// ---- sends from several threads -------------------------------------------------

namespace {

// A listening raw socket on 127.0.0.1 with an ephemeral port.
int RawListener(unsigned short& port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    cSocketAddr any("127.0.0.1", 0);
    sockaddr_in local = {};
    socklen_t len = sizeof local;
    if (bind(fd, any.GetSockAddr(), sizeof(sockaddr_in)) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0) {
        close(fd);
        return -1;
    }
    port = ntohs(local.sin_port);
    return fd;
}

// Runs the service's loop until done() or ms passed; a 20 ms auto timer
// bounds every wait.
bool LoopUntil(cService& s, const std::function<bool()>& done, long long ms = 5000)
{
    cTimer tick(&s, true, nullptr);
    tick.Start(20, 0x123fff);
    const long long end = GetMsecClock() + ms;
    while (!done() && GetMsecClock() < end)
        s.ScheduleSelect();
    return done();
}

}  // namespace

// A frame overflow traces; with a trace channel registered that trace sends
// on the channel from the same thread, while another thread's trace sends on
// it too. No lock may be held across those sends (both orders would meet).
TEST(MsgSocketThreads, OverflowTracesWhileAnotherThreadTracesDoNotDeadlock)
{
    const int rc = orvo_test::RunInChild([] {
        orvoInit(ERROR, OUTPUT_NONE, false);
        cService::SignalAsyncSelect(SIGALRM, nullptr, nullptr);   // the alarm ends a hang
        cTestService svc;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
            return 3;
        cMsgTcpSocket channel(&svc, nullptr);    // nobody reads the other end
        channel.Attach(pair[0]);
        RegisterTraceChannel(&channel);
        SetTraceLevel(UnitORVO, INFO);

        cTpktTcpSocket full(nullptr, nullptr);   // no descriptor: keeps what is queued
        const std::string fill(196607 - 6 - 12, 'x');
        if (full.WritePacket(0, fill.data(), int(fill.size()), nullptr, 0, nullptr, 0) < 0)
            return 4;
        std::atomic<bool> done{false};
        std::thread tracer([&done] {
            for (int i = 0; !done; ++i)
                ORVO_TRACE(UnitORVO, INFO, FormatString("other thread %i", i));
        });
        const long long end = GetMsecClock() + 1500;
        for (int i = 0; GetMsecClock() < end; ++i) {
            const std::string piece(size_t(20 + i % 500), 'y');    // a new trace text each time
            if (full.WritePacket(0, piece.data(), int(piece.size()), nullptr, 0, nullptr, 0) != -2)
                return 5;
        }
        done = true;
        tracer.join();
        UnRegisterTraceChannel(&channel);
        return 0;
    }, nullptr, false, 30);
    EXPECT_EQ(rc, 0) << "-1: the child deadlocked and was ended by its alarm";
}

// A broken pipe met by a send from another thread is handed to the owning
// loop: the close message is produced on the loop's thread.
TEST(MsgSocketThreads, BrokenPipeFoundByAnotherThreadClosesOnTheLoopThread)
{
    struct cWhere : cTestService {
        void OnMsg(cMsg& msg) override
        {
            if (msg == MSG_SOCKET_CLOSED)
                closedOn = pthread_self();
            cTestService::OnMsg(msg);
        }
        std::atomic<pthread_t> closedOn{pthread_t()};
    } svc;
    unsigned short port = 0;
    const int listener = RawListener(port);
    ASSERT_GE(listener, 0);
    cMsgTcpSocket client(&svc, nullptr);
    client.Socket(AF_INET, SOCK_STREAM, 0);
    client.Connect(cSocketAddr("127.0.0.1", port));
    ASSERT_TRUE(LoopUntil(svc, [&] { return client.IsConnected(); }));
    const int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    client.EnableRead(false);                 // only a write can find the broken pipe
    linger hard = {1, 0};
    setsockopt(peer, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(peer);                              // reset

    std::atomic<bool> done{false};
    std::thread sender([&] {
        for (int i = 0; i < 400 && !done; ++i) {
            cMsg m = Request(unsigned(i));
            client.Send(m);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const cMsg closed = svc.WaitSyncMsg(5000, MSG_SOCKET_CLOSED);
    done = true;
    sender.join();
    EXPECT_EQ(closed.GetType(), unsigned(MSG_SOCKET_CLOSED));
    EXPECT_TRUE(pthread_equal(svc.closedOn.load(), pthread_self()));
    close(listener);
}

namespace {


// Sends 300-byte messages until `frames` of them found bytes waiting in the
// send buffer, appending each frame to expected. Returns how many did (fewer
// only when a send failed or the socket never filled).
int SendUntilQueued(cMsgTcpSocket& s, int frames, std::string& expected)
{
    int afterFull = 0;
    for (int i = 0; i < 100000 && afterFull < frames; ++i) {
        cUuid tid;
        tid.Create();
        cMsg m = Sized(tid, 300);
        expected += Frame(1, Payload(m, 1));
        if (s.Send(m) <= 0)
            break;
        if (s.GetSendQueued() > 0)
            ++afterFull;
    }
    return afterFull;
}

// Reads n bytes from fd into got on a thread of its own (10 s at most).
std::thread ReadInBackground(int fd, std::string& got, size_t n)
{
    return std::thread([fd, &got, n] {
        timeval tv = {10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        RecvAll(fd, got, n);
    });
}

// Runs the loop until s has nothing left to send while a thread reads n
// bytes at peer; returns what it read.
std::string FlushToPeer(cService& svc, cMsgTcpSocket& s, int peer, size_t n)
{
    std::string got;
    std::thread reader = ReadInBackground(peer, got, n);
    LoopUntil(svc, [&] { return s.GetSendQueued() == 0; });
    reader.join();
    return got;
}

// A framed socket attached to one end of a stream pair whose send buffer is
// small (it fills after a few frames); the test reads at the other end.
class MsgSocketSmallBuffer : public ::testing::Test {
protected:
    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        int small = 4096;
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        s.Attach(pair[0]);
        peer = pair[1];
    }
    void TearDown() override
    {
        if (peer >= 0)
            close(peer);
    }

    cTestService svc;
    cMsgTcpSocket s{&svc, nullptr};
    int peer = -1;
};

}  // namespace

// Small frames go out straight from the sender's stack while nothing waits;
// once the socket is full, the part of a frame it did not take and every
// later frame wait in the send buffer, and the peer still reads the frames
// whole and in order.
TEST_F(MsgSocketSmallBuffer, SmallFramesToAFullSocketArriveWholeAndInOrder)
{
    std::string expected;
    ASSERT_EQ(SendUntilQueued(s, 20, expected), 20);   // the socket filled up

    const std::string got = FlushToPeer(svc, s, peer, expected.size());
    EXPECT_EQ(s.GetSendQueued(), 0u);
    EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size() << " bytes";
}

// A process with one thread sends without taking the frame lock. Frames
// left waiting in the send buffer then, and frames that the process's first
// extra thread sends while the loop flushes them, reach the peer whole, in
// order and none twice. (Run alone, as ctest runs each test, the process
// starts with one thread; within the whole program both halves take the
// lock.)
TEST_F(MsgSocketSmallBuffer, FramesQueuedBeforeTheFirstThreadStartsAndAfterArriveInOrder)
{
    std::string expected;
    ASSERT_EQ(SendUntilQueued(s, 5, expected), 5);

    std::vector<cMsg> later;
    for (int i = 0; i < 300; ++i) {
        cUuid tid;
        tid.Create();
        later.push_back(Sized(tid, 200 + i));
        expected += Frame(1, Payload(later.back(), 1));
    }
    std::atomic<bool> allSent{false};
    std::atomic<int> failed{0};
    std::thread sender([&] {
        for (cMsg& m : later) {
            int rc;
            while ((rc = s.Send(m)) == -2)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (rc <= 0)
                ++failed;
        }
        allSent = true;
    });
    std::string got;
    std::thread reader = ReadInBackground(peer, got, expected.size());
    const bool flushed = LoopUntil(svc, [&] { return allSent && s.GetSendQueued() == 0; }, 10000);
    sender.join();
    reader.join();
    EXPECT_TRUE(flushed);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size() << " bytes";
}

// A socket set up with Attach (neither connected nor accepted by the library)
// still asks for write readiness while bytes wait, so a frame larger than the
// socket takes at once goes out whole.
TEST_F(MsgSocketSmallBuffer, AttachedSocketSendsAFrameTheKernelTakesInPieces)
{
    cUuid tid;
    tid.Create();
    const cMsg big = Sized(tid, 150006);
    cMsg sent(big);
    ASSERT_GT(s.Send(sent), 0);
    ASSERT_GT(s.GetSendQueued(), 0u);         // the kernel did not take it all

    const std::string got = FlushToPeer(svc, s, peer, 150006);
    EXPECT_EQ(s.GetSendQueued(), 0u);
    EXPECT_EQ(got, Frame(1, Payload(big, 1)));
}

// A datagram socket holds nothing back: a frame the kernel did not take
// (here: no descriptor yet) waits in the send buffer and leaves in front of
// the next frame, in the same datagram; a frame left waiting is flushed by
// the loop once the socket can write.
TEST(MsgSocketDatagram, AFrameLeftWaitingLeavesWithTheNextOrOnWritability)
{
    cTestService svc;
    const int peer = RawSocket(SOCK_DGRAM);
    cSocketAddr to("127.0.0.1", 0);
    socklen_t len = sizeof(sockaddr_in);
    ASSERT_EQ(bind(peer, to.GetSockAddr(), len), 0);
    ASSERT_EQ(getsockname(peer, to.GetSockAddr(), &len), 0);
    auto next = [&] {
        char buf[256];
        const ssize_t n = recv(peer, buf, sizeof buf, 0);
        return n < 0 ? std::string("recv failed") : std::string(buf, size_t(n));
    };

    cTpktUdpSocket s(&svc, nullptr);
    EXPECT_EQ(s.SendTo(to, 0, "one", 3, nullptr, 0, nullptr, 0, nullptr, 0), 9);
    EXPECT_EQ(s.GetSendQueued(), 9u);
    ASSERT_GT(s.Socket(AF_INET, SOCK_DGRAM, 0), 0);
    EXPECT_EQ(s.SendTo(to, 1, "two", 3, nullptr, 0, nullptr, 0, nullptr, 0), 18);
    EXPECT_EQ(s.GetSendQueued(), 0u);
    EXPECT_EQ(next(), Frame(0, "one") + Frame(1, "two"));

    cTpktUdpSocket late(&svc, nullptr);
    EXPECT_EQ(late.SendTo(to, 2, "three", 5, nullptr, 0, nullptr, 0, nullptr, 0), 11);
    ASSERT_GT(late.Socket(AF_INET, SOCK_DGRAM, 0), 0);
    EXPECT_TRUE(LoopUntil(svc, [&] { return late.GetSendQueued() == 0; }));
    EXPECT_EQ(next(), Frame(2, "three"));
    close(peer);
}
