// An echo service in a child process and the peers that attack it: many
// connections holding part of a frame, a peer that never reads its answers,
// floods of malformed frames. Shared by the hostile-peer test (stress_test)
// and the memory benchmark (bench/mem_bench), which both drive a good
// client's round trips alongside and read the service's own figures
// (descriptors, heap in use, resident size) through it.
#pragma once

#include <dirent.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "orvo_msgsocket.h"
#include "orvo_service.h"
#include "orvo_time.h"
#include "orvo_trace.h"
#include "test_helpers.h"

namespace hostile {

const unsigned long kEcho = 0x7e0201, kEchoReply = 0x7e0202, kStats = 0x7e0203,
                    kStatsReply = 0x7e0204, kFlood = 0x7e0205, kQuit = 0x7e0206;

struct sStats {
    long fds = -1;
    long heap = -1;         // bytes in use (mallinfo2 uordblks + hblkhd)
    long rss = -1;          // resident bytes
    long clients = -1;      // the sap's connections
};

inline long CountFds()
{
    long n = -1;   // the directory's own descriptor
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(dir))
            n += e->d_name[0] != '.';
        ::closedir(dir);
    }
    return n;
}

inline long ResidentBytes()
{
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * ::sysconf(_SC_PAGESIZE);
}

struct cEchoService : orvo::cService {
    void ThreadMain() override {}
};

// The child's body: an echo service on 127.0.0.1 with a large backlog,
// reporting its port to the parent. kEcho is answered with kEchoReply (same
// tid and record), kStats with its figures, kFlood with "n" answers of
// 100 kB each; kQuit ends it. Exit code 0 when it ended by kQuit.
inline int RunEchoService(int toParent)
{
    cEchoService svc;
    svc.SetSapBacklog(1024);
    svc.Init("echo", orvo::cSocketAddr("127.0.0.1", 0));
    orvo_test::Report(toParent, svc.GetSapAddress().GetPort());
    const std::string pad(100000, 'p');
    orvo::cMsg msg;
    while (svc.GetMessage(msg)) {
        orvo::cChannel* ch = msg.GetChannel();
        const unsigned long type = msg.GetType();
        if (type == kQuit)
            return 0;
        if (ch == nullptr || (type != kEcho && type != kStats && type != kFlood))
            continue;
        if (type == kFlood) {
            orvo::cMsg big(kEchoReply);
            big.GetRecord().AppendDataPar("pad", pad.data(), int(pad.size()));
            for (unsigned i = msg.GetRecord().GetFirstPar("n").GetUInt(); i > 0; --i)
                ch->Send(big);
            continue;
        }
        orvo::cMsg reply(type == kEcho ? kEchoReply : kStatsReply);
        reply.SetTid(msg.GetTid());
        if (type == kEcho) {
            reply.GetRecord() = msg.GetRecord();
        } else {
            const struct mallinfo2 mi = ::mallinfo2();
            orvo::cRecord& r = reply.GetRecord();
            r.AppendUInt64Par("fds", static_cast<unsigned long long>(CountFds()));
            r.AppendUInt64Par("heap", mi.uordblks + mi.hblkhd);
            r.AppendUInt64Par("rss", static_cast<unsigned long long>(ResidentBytes()));
            r.AppendUInt64Par("clients", svc.GetSapSocket()->GetClients().size());
        }
        ch->Send(reply);
    }
    return 1;
}

// Raises the soft descriptor limit towards need (the parent holds every
// hostile connection).
inline void RaiseFdLimit(rlim_t need)
{
    rlimit lim{};
    if (::getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < need) {
        lim.rlim_cur = std::min(need, lim.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &lim);
    }
}

inline int Connect(unsigned short port, int rcvbuf = 0)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (rcvbuf != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    const orvo::cSocketAddr to("127.0.0.1", port);
    if (::connect(fd, to.GetSockAddr(), sizeof(sockaddr_in)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// The frame of msg (kind 1 when it has a tid), or one with packet type 7
// (which no message has) when bad.
inline std::string FrameOf(const orvo::cMsg& m, bool bad = false)
{
    const unsigned char kind = m.GetTid().IsValid() ? 1 : 0;
    std::string payload;
    m.Serialize(kind, payload);
    const uint32_t n = uint32_t(payload.size() + 6);
    return std::string{4, char(bad ? 7 : kind), char(n), char(n >> 8), char(n >> 16), char(n >> 24)} +
           payload;
}

inline bool SendAll(int fd, const std::string& bytes)
{
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

// The good client: one connection that asks and waits for its answers.
class cGoodClient {
public:
    explicit cGoodClient(unsigned short port) : m_fd(Connect(port)) {}
    ~cGoodClient()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    bool IsOpen() const { return m_fd >= 0; }

    // Sends request and waits for the answer of type with its tid; a lost
    // request (the service's queue overflows by design under a flood) is
    // sent again after attemptMs. The answer, or an empty message after
    // totalMs. retries counts the repeats.
    orvo::cMsg Ask(orvo::cMsg request, unsigned long type, int attemptMs = 1000, int totalMs = 20000)
    {
        orvo::cUuid tid;
        tid.Create();
        request.SetTid(tid);
        const std::string frame = FrameOf(request);
        const long long end = orvo::GetMsecClock() + totalMs;
        while (orvo::GetMsecClock() < end) {
            if (!SendAll(m_fd, frame))
                return orvo::cMsg();
            const long long retry = std::min(end, orvo::GetMsecClock() + attemptMs);
            for (;;) {
                orvo::cMsg got = Next(retry);
                if (got.GetType() == 0)
                    break;
                if (got.GetType() == type && got.GetTid() == tid)
                    return got;
            }
            ++retries;
        }
        return orvo::cMsg();
    }

    // Milliseconds of one echo round trip (fractions included), -1 when it
    // failed.
    double RoundTrip()
    {
        orvo::cMsg echo(kEcho);
        echo.GetRecord().AppendTextPar("text", "are you there");
        const auto t0 = std::chrono::steady_clock::now();
        const orvo::cMsg got = Ask(echo, kEchoReply);
        if (got.GetType() != kEchoReply)
            return -1;
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    }

    sStats Stats()
    {
        sStats s;
        const orvo::cMsg got = Ask(orvo::cMsg(kStats), kStatsReply);
        if (got.GetType() != kStatsReply)
            return s;
        const orvo::cRecord& r = got.GetRecord();
        s.fds = long(r.GetFirstPar("fds").GetUInt64());
        s.heap = long(r.GetFirstPar("heap").GetUInt64());
        s.rss = long(r.GetFirstPar("rss").GetUInt64());
        s.clients = long(r.GetFirstPar("clients").GetUInt64());
        return s;
    }

    int retries = 0;

private:
    // The next whole message before the deadline, or an empty one.
    orvo::cMsg Next(long long deadline)
    {
        for (;;) {
            if (m_In.size() >= 6) {
                const uint32_t len = uint8_t(m_In[2]) | uint8_t(m_In[3]) << 8 |
                                     uint8_t(m_In[4]) << 16 | uint32_t(uint8_t(m_In[5])) << 24;
                if (len >= 6 && m_In.size() >= len) {
                    orvo::cMsg m;
                    m.Create(uint8_t(m_In[1]), m_In.data() + 6, int(len - 6), nullptr, nullptr);
                    m_In.erase(0, len);
                    return m;
                }
            }
            const long long left = deadline - orvo::GetMsecClock();
            pollfd p{m_fd, POLLIN, 0};
            if (left <= 0 || ::poll(&p, 1, int(left)) <= 0)
                return orvo::cMsg();
            char buf[65536];
            const ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
            if (n <= 0)
                return orvo::cMsg();
            m_In.append(buf, size_t(n));
        }
    }

    int m_fd;
    std::string m_In;
};

// Connections that each send the first bytes of a frame and then nothing.
inline std::vector<int> OpenPartial(unsigned short port, int count, size_t bytes)
{
    const std::string frame = FrameOf(orvo::cMsg(kEcho)) + std::string(64, 'x');
    std::string head = frame.substr(0, 6);
    head[2] = char(frame.size());   // a frame longer than what is sent
    head += std::string(bytes > 6 ? bytes - 6 : 0, 'y');
    head.resize(bytes);
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) {
        const int fd = Connect(port);
        if (fd < 0)
            break;
        SendAll(fd, head);
        fds.push_back(fd);
    }
    return fds;
}

// A peer that asks for n answers of 100 kB and never reads them.
inline int OpenNonReader(unsigned short port, unsigned n)
{
    const int fd = Connect(port, 4096);
    orvo::cMsg flood(kFlood);
    flood.GetRecord().AppendUIntPar("n", n);
    if (fd >= 0)
        SendAll(fd, FrameOf(flood));
    return fd;
}

// count frames the service cannot decode (packet type 7) over conns
// connections, in bursts of burst frames.
inline void SendMalformed(unsigned short port, int count, int conns, int burst)
{
    std::vector<int> fds;
    for (int i = 0; i < conns; ++i)
        fds.push_back(Connect(port));
    orvo::cMsg junk(kEcho);
    junk.GetRecord().AppendTextPar("junk", "not a message");
    const std::string one = FrameOf(junk, true);
    std::string many;
    for (int i = 0; i < burst; ++i)
        many += one;
    for (int sent = 0, i = 0; sent < count; sent += burst, ++i) {
        SendAll(fds[size_t(i % conns)], many);
        ::usleep(500);
    }
    for (int fd : fds)
        ::close(fd);
}

inline void CloseAll(std::vector<int>& fds)
{
    for (int fd : fds)
        if (fd >= 0)
            ::close(fd);
    fds.clear();
}

}  // namespace hostile
