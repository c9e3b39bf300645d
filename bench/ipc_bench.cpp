// ipc_bench.cpp - what a message between two service processes costs: the
// request/reply round trip and the one-way throughput of liborvo's sap
// connections (cMsgTcpSocket, both ends driven by cService loops), side by
// side in the same run with the floor (the same frame bytes over a plain
// blocking TCP socket) and with ZeroMQ (REQ/REP, PUSH/PULL) carrying the same
// bytes. Then the resident memory of a service process, idle and with 100
// connected clients.
//
// Every server is a forked child on 127.0.0.1; the clients run in this
// process. The round trips of the transports are measured in interleaved
// rounds (a burst of load from elsewhere hits every transport alike), and the
// ratios printed at the end come from this one run.
//
// Time limits: every child ends itself with alarm(), every blocking read of
// this process has a time-out (SO_RCVTIMEO, ZMQ_RCVTIMEO, poll), and this
// process ends itself with alarm() too; lost messages or a dead peer stop the
// run with exit status 1.
//
// Options (for profiling):
//   --rr=<n>        round trips per transport (default 20000)
//   --oneway=<m>    one-way messages per transport (default 200000)
//   --orvo-only     only liborvo's part (no floor, no ZeroMQ, no memory),
//                   e.g. under `strace -f -c` or `valgrind --tool=callgrind`
//   --placement=same|apart|free
//                   where the processes run: all on one CPU (default; the
//                   device has one core), clients on one CPU and servers on
//                   another, or wherever the scheduler puts them.
//
// Placement matters more than anything else here: on this virtual machine a
// wake-up on another, idle CPU costs some 25 microseconds, a wake-up on the
// same CPU a few. Left to the scheduler, each pair of processes lands one way
// or the other by chance, and every transport's round trip switches between
// two levels from run to run; pinning makes the ratios comparable.
#include <fcntl.h>
#include <sched.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_msgsocket.h"
#include "orvo_record.h"
#include "orvo_service.h"
#include "orvo_time.h"

using namespace orvo;

namespace {

// ---------------------------------------------------------------------------
// Settings

const unsigned long kReq = 0x5A0001, kRep = 0x5A0002, kData = 0x5A0003;
const unsigned kChildSeconds = 90;     // a child ends itself after this
const unsigned kRunSeconds = 110;      // and so does the whole run
const int kWaitMs = 10000;             // longest wait for one answer or report
const int kRounds = 5;                 // interleaved rounds of each measurement
const int kWarmup = 500;               // untimed round trips per transport
const int kClients = 100;              // connections of the memory measurement
const int kTids = 64;                  // distinct transaction ids, used in turn

enum ePlacement { PLACE_SAME, PLACE_APART, PLACE_FREE };

struct sOptions {
    int rr = 20000;
    int oneway = 200000;
    bool orvoOnly = false;
    ePlacement placement = PLACE_SAME;
};

// CPU every server child pins itself to; -1: inherit this process's mask.
int gServerCpu = -1;

bool PinTo(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return ::sched_setaffinity(0, sizeof set, &set) == 0;
}

// Pins this process (and so every child it forks) as the placement asks.
// The first two CPUs this process may use are taken; false when "apart"
// finds only one.
bool ApplyPlacement(ePlacement placement)
{
    if (placement == PLACE_FREE)
        return true;
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        return false;
    int cpus[2] = {-1, -1};
    for (int c = 0, found = 0; c < CPU_SETSIZE && found < 2; ++c)
        if (CPU_ISSET(c, &allowed))
            cpus[found++] = c;
    if (placement == PLACE_APART) {
        if (cpus[1] < 0)
            return false;
        gServerCpu = cpus[1];
    }
    return PinTo(cpus[0]);
}

const char* PlacementText(ePlacement placement)
{
    switch (placement) {
    case PLACE_SAME:
        return "all processes on one CPU";
    case PLACE_APART:
        return "clients on one CPU, servers on another";
    default:
        return "placed by the scheduler";
    }
}

const cSocketAddr kLoopback("127.0.0.1", 0);

class cBenchService : public cService {
public:
    void ThreadMain() override {}
};

uint64_t NowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// ---------------------------------------------------------------------------
// The message every transport carries: type, tid and a record of two small
// fields. The spare header byte (frame offset 9) marks the last message of a
// one-way batch, so every sink knows when to report.

cMsg MakeMsg(unsigned long type, const cUuid& tid)
{
    cMsg m(type);
    m.SetTid(tid);
    m.GetRecord().AppendUIntPar("id", 17);
    m.GetRecord().AppendUIntPar("value", 230415);
    return m;
}

// The frame bytes of m exactly as cMsgTcpSocket sends them (kind 1: tid).
std::string FrameOf(const cMsg& m)
{
    std::string payload;
    m.Serialize(1, payload);
    const uint32_t n = uint32_t(payload.size()) + kFrameHeaderSize;
    std::string f{char(kFrameVersion), 1, char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
    return f + payload;
}

const size_t kMarkOffset = kFrameHeaderSize + 3;

uint32_t FrameLength(const unsigned char* p)
{
    return uint32_t(p[2]) | uint32_t(p[3]) << 8 | uint32_t(p[4]) << 16 | uint32_t(p[5]) << 24;
}

// ---------------------------------------------------------------------------
// Child processes. Each reports its port (uint16) first, then whatever its
// role reports (uint32 values).

struct sChild {
    pid_t pid = -1;
    int fd = -1;          // read end of the child's pipe
    uint16_t port = 0;
};

bool WriteAll(int fd, const void* p, size_t n)
{
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t w = ::write(fd, c, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        c += w;
        n -= size_t(w);
    }
    return true;
}

// Reads exactly n bytes from the pipe within ms; false on time-out or end.
bool ReadPipe(int fd, void* p, size_t n, int ms)
{
    char* c = static_cast<char*>(p);
    const uint64_t end = NowNs() + uint64_t(ms) * 1000000u;
    while (n > 0) {
        const uint64_t now = NowNs();
        if (now >= end)
            return false;
        pollfd pfd{fd, POLLIN, 0};
        int r = ::poll(&pfd, 1, int((end - now) / 1000000u) + 1);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        ssize_t got = ::read(fd, c, n);
        if (got <= 0)
            return false;
        c += got;
        n -= size_t(got);
    }
    return true;
}

void Report(int fd, uint32_t value) { WriteAll(fd, &value, sizeof value); }

// Children still running; a failed run kills them (see Fail).
std::vector<pid_t> gChildren;

sChild Spawn(int (*body)(int toParent))
{
    sChild child;
    int fds[2];
    if (::pipe(fds) != 0)
        return child;
    std::fflush(stdout);
    child.pid = ::fork();
    if (child.pid == 0) {
        ::close(fds[0]);
        ::alarm(kChildSeconds);
        if (gServerCpu >= 0 && !PinTo(gServerCpu))
            ::_exit(3);
        ::_exit(body(fds[1]));
    }
    ::close(fds[1]);
    child.fd = fds[0];
    if (child.pid > 0)
        gChildren.push_back(child.pid);
    if (child.pid < 0 || !ReadPipe(child.fd, &child.port, sizeof child.port, kWaitMs))
        child.port = 0;
    return child;
}

// Waits up to 5 s for the child to end, then kills it. True when it ended by
// itself with status 0.
bool Reap(sChild& child)
{
    if (child.fd >= 0)
        ::close(child.fd);
    child.fd = -1;
    if (child.pid <= 0)
        return false;
    int status = 0;
    const uint64_t end = NowNs() + 5000000000ull;
    pid_t r;
    while ((r = ::waitpid(child.pid, &status, WNOHANG)) == 0 && NowNs() < end)
        ::usleep(2000);
    if (r == 0) {
        ::kill(child.pid, SIGKILL);
        ::waitpid(child.pid, &status, 0);
    }
    gChildren.erase(std::remove(gChildren.begin(), gChildren.end(), child.pid), gChildren.end());
    child.pid = -1;
    if (r == 0)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// ---- liborvo servers -------------------------------------------------------

// Starts s on 127.0.0.1 under name and reports its sap port through fd.
void StartService(cService& s, const char* name, int fd)
{
    s.Init(name, kLoopback);
    const uint16_t port = s.GetSapAddress().GetPort();
    WriteAll(fd, &port, sizeof port);
}

// Answers each request with a reply of the same tid and record; ends when
// its client leaves.
int OrvoEcho(int toParent)
{
    cBenchService s;
    StartService(s, "ipc-echo", toParent);
    int rc = 0;
    cMsg m;
    while (s.GetMessage(m)) {
        if (m.GetType() == kReq) {
            cMsg reply(kRep);
            reply.SetTid(m.GetTid());
            reply.SetRecord(m.GetRecord());
            if (m.GetChannel()->Send(reply) < 0)
                rc = 2;
        } else if (m.GetType() == MSG_SOCKET_CLOSED) {
            cService::SetStopFlag(true);
        }
    }
    return rc;
}

// Counts the data messages and reports the count at the end of each batch.
int OrvoSink(int toParent)
{
    cBenchService s;
    StartService(s, "ipc-sink", toParent);
    uint32_t count = 0;
    cMsg m;
    while (s.GetMessage(m)) {
        if (m.GetType() == kData) {
            ++count;
            if (m.GetUnused() == 1) {
                Report(toParent, count);
                count = 0;
            }
        } else if (m.GetType() == MSG_SOCKET_CLOSED) {
            cService::SetStopFlag(true);
        }
    }
    return 0;
}

// ---- plain TCP servers -----------------------------------------------------

void NoDelay(int fd)
{
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void RecvTimeout(int fd, int ms)
{
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Listens on 127.0.0.1, reports the port and accepts one connection within
// the wait time; -1 on failure.
int AcceptOne(int toParent)
{
    int ls = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (ls < 0 || ::bind(ls, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(ls, 1) != 0 || ::getsockname(ls, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return -1;
    const uint16_t port = ntohs(a.sin_port);
    WriteAll(toParent, &port, sizeof port);
    pollfd pfd{ls, POLLIN, 0};
    int fd = ::poll(&pfd, 1, kWaitMs) == 1 ? ::accept(ls, nullptr, nullptr) : -1;
    ::close(ls);
    if (fd >= 0) {
        NoDelay(fd);
        RecvTimeout(fd, 30000);
    }
    return fd;
}

// Cuts the stream into frames; fn(frame, length) for each. Returns false on
// end of stream, error or a broken length.
template <class F>
bool ReadFrames(int fd, F fn)
{
    std::vector<unsigned char> buf(size_t(cChannel::kRecvBufferSize));
    size_t fill = 0;
    for (;;) {
        ssize_t got = ::recv(fd, buf.data() + fill, buf.size() - fill, 0);
        if (got <= 0)
            return false;
        fill += size_t(got);
        size_t at = 0;
        while (fill - at >= size_t(kFrameHeaderSize)) {
            const uint32_t n = FrameLength(&buf[at]);
            if (n < uint32_t(kFrameHeaderSize) || n > buf.size())
                return false;
            if (fill - at < n)
                break;
            if (!fn(&buf[at], n))
                return true;
            at += n;
        }
        std::memmove(buf.data(), buf.data() + at, fill - at);
        fill -= at;
    }
}

// Sends every frame back with one send().
int RawEcho(int toParent)
{
    int fd = AcceptOne(toParent);
    if (fd < 0)
        return 2;
    ReadFrames(fd, [fd](const unsigned char* f, uint32_t n) {
        return ::send(fd, f, n, MSG_NOSIGNAL) == ssize_t(n);
    });
    ::close(fd);
    return 0;
}

// The idle descriptors a service's loop waits on besides its connections: a
// listening TCP socket (the sap), a bound UDP socket (the internal socket)
// and an eventfd (the loop's wake-up). Nothing ever arrives on them.
std::vector<int> IdleDescriptors()
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int udp = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (listener < 0 || udp < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(listener, 5) != 0 || ::bind(udp, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        return {};
    return {listener, udp, ::eventfd(0, 0)};
}

// Waits until fd is readable, with the idle descriptors in the same set.
bool SelectRead(int fd, const std::vector<int>& idle, int seconds)
{
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fd, &rd);
    int highest = fd;
    for (int d : idle) {
        FD_SET(d, &rd);
        highest = std::max(highest, d);
    }
    timeval tv{seconds, 0};
    return ::select(highest + 1, &rd, nullptr, nullptr, &tv) > 0 && FD_ISSET(fd, &rd);
}

// The same echo driven by a bare select() loop: select, recv, one send() per
// frame. What a minimal select-based design costs on this machine, alone and
// with a service's idle descriptors in its select set.
int SelectEchoWith(int toParent, bool withIdle)
{
    int fd = AcceptOne(toParent);
    const std::vector<int> idle = withIdle ? IdleDescriptors() : std::vector<int>();
    if (fd < 0 || fd >= FD_SETSIZE || (withIdle && idle.size() != 3))
        return 2;
    std::vector<unsigned char> buf(size_t(cChannel::kRecvBufferSize));
    size_t fill = 0;
    while (SelectRead(fd, idle, 30)) {
        ssize_t got = ::recv(fd, buf.data() + fill, buf.size() - fill, 0);
        if (got <= 0)
            break;
        fill += size_t(got);
        size_t at = 0;
        while (fill - at >= size_t(kFrameHeaderSize)) {
            const uint32_t n = FrameLength(&buf[at]);
            if (n < uint32_t(kFrameHeaderSize) || n > buf.size() || fill - at < n)
                break;
            if (::send(fd, &buf[at], n, MSG_NOSIGNAL) != ssize_t(n))
                break;
            at += n;
        }
        std::memmove(buf.data(), buf.data() + at, fill - at);
        fill -= at;
    }
    ::close(fd);
    return 0;
}

int SelectEcho(int toParent) { return SelectEchoWith(toParent, false); }
int SelectEchoIdle(int toParent) { return SelectEchoWith(toParent, true); }

int RawSink(int toParent)
{
    int fd = AcceptOne(toParent);
    if (fd < 0)
        return 2;
    uint32_t count = 0;
    ReadFrames(fd, [&](const unsigned char* f, uint32_t n) {
        ++count;
        if (n > kMarkOffset && f[kMarkOffset] == 1) {
            Report(toParent, count);
            count = 0;
        }
        return true;
    });
    ::close(fd);
    return 0;
}

// ---- ZeroMQ servers --------------------------------------------------------

// Binds a socket of type to 127.0.0.1 on a port the system picks and reports
// it; null on failure.
void* ZmqBind(void* ctx, int type, int toParent)
{
    void* s = zmq_socket(ctx, type);
    int timeout = 30000, linger = 0;
    char endpoint[128] = {};
    size_t len = sizeof endpoint - 1;
    if (s == nullptr || zmq_setsockopt(s, ZMQ_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
        zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger) != 0 ||
        zmq_bind(s, "tcp://127.0.0.1:*") != 0 ||
        zmq_getsockopt(s, ZMQ_LAST_ENDPOINT, endpoint, &len) != 0)
        return nullptr;
    const char* colon = std::strrchr(endpoint, ':');
    const uint16_t port = colon != nullptr ? uint16_t(std::atoi(colon + 1)) : 0;
    WriteAll(toParent, &port, sizeof port);
    return s;
}

// A one-byte message ends the zmq servers.
int ZmqRep(int toParent)
{
    void* ctx = zmq_ctx_new();
    void* s = ZmqBind(ctx, ZMQ_REP, toParent);
    if (s == nullptr)
        return 2;
    unsigned char buf[256];
    for (;;) {
        int n = zmq_recv(s, buf, sizeof buf, 0);
        if (n < 0 || zmq_send(s, buf, size_t(std::min<int>(n, sizeof buf)), 0) < 0 || n == 1)
            break;
    }
    zmq_close(s);
    zmq_ctx_term(ctx);
    return 0;
}

int ZmqPull(int toParent)
{
    void* ctx = zmq_ctx_new();
    void* s = ZmqBind(ctx, ZMQ_PULL, toParent);
    if (s == nullptr)
        return 2;
    unsigned char buf[256];
    uint32_t count = 0;
    for (;;) {
        int n = zmq_recv(s, buf, sizeof buf, 0);
        if (n <= 1)
            break;
        ++count;
        if (size_t(n) > kMarkOffset && buf[kMarkOffset] == 1) {
            Report(toParent, count);
            count = 0;
        }
    }
    zmq_close(s);
    zmq_ctx_term(ctx);
    return 0;
}

// ---------------------------------------------------------------------------
// Clients (this process)

cMsgTcpSocket* OrvoConnect(cService& svc, uint16_t port)
{
    cMsgTcpSocket* c = new cMsgTcpSocket(&svc, nullptr);
    c->Socket(AF_INET, SOCK_STREAM, 0);
    c->Connect(cSocketAddr("127.0.0.1", port));
    if (svc.WaitSyncMsg(kWaitMs, MSG_SOCKET_CONNECTED, MSG_SOCKET_CONNECT_FAILED,
                        MSG_SOCKET_CLOSED).GetType() == MSG_SOCKET_CONNECTED)
        return c;
    delete c;
    return nullptr;
}

int RawConnect(uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    NoDelay(fd);
    RecvTimeout(fd, kWaitMs);
    return fd;
}

bool SendAll(int fd, const void* p, size_t n)
{
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t w = ::send(fd, c, n, MSG_NOSIGNAL);
        if (w <= 0)
            return false;
        c += w;
        n -= size_t(w);
    }
    return true;
}

bool RecvAll(int fd, void* p, size_t n)
{
    char* c = static_cast<char*>(p);
    while (n > 0) {
        ssize_t r = ::recv(fd, c, n, 0);
        if (r <= 0)
            return false;
        c += r;
        n -= size_t(r);
    }
    return true;
}

// One whole frame from a blocking stream (header and payload).
bool RecvFrame(int fd, std::string& frame)
{
    unsigned char h[kFrameHeaderSize];
    if (!RecvAll(fd, h, sizeof h))
        return false;
    const uint32_t n = FrameLength(h);
    if (n < uint32_t(kFrameHeaderSize) || n > uint32_t(kFrameMaxSize))
        return false;
    frame.assign(reinterpret_cast<const char*>(h), sizeof h);
    frame.resize(n);
    return RecvAll(fd, &frame[kFrameHeaderSize], n - kFrameHeaderSize);
}

void* ZmqConnect(void* ctx, int type, uint16_t port)
{
    void* s = zmq_socket(ctx, type);
    int timeout = kWaitMs, linger = 0;
    char endpoint[64];
    std::snprintf(endpoint, sizeof endpoint, "tcp://127.0.0.1:%u", unsigned(port));
    if (s == nullptr || zmq_setsockopt(s, ZMQ_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
        zmq_setsockopt(s, ZMQ_SNDTIMEO, &timeout, sizeof timeout) != 0 ||
        zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger) != 0 || zmq_connect(s, endpoint) != 0)
        return nullptr;
    return s;
}

// ---- round trips: n timed exchanges appended to out (microseconds) ---------

// A client service's own loop: send, then GetMessage until the reply with
// the request's tid comes.
bool RrOrvo(cService& svc, cMsgTcpSocket* c, const std::vector<cUuid>& tids, int n,
            std::vector<double>* out)
{
    cMsg req = MakeMsg(kReq, tids[0]);
    cMsg m;
    for (int i = 0; i < n; ++i) {
        const cUuid& tid = tids[size_t(i) % tids.size()];
        req.SetTid(tid);
        const uint64_t t0 = NowNs();
        if (c->Send(req) < 0)
            return false;
        for (;;) {
            if (!svc.GetMessage(m) || m.GetType() == MSG_SOCKET_CLOSED)
                return false;
            if (m.GetType() == kRep)
                break;
        }
        const uint64_t t1 = NowNs();
        if (!(m.GetTid() == tid) || m.GetRecord().GetFirstPar("id").GetUInt() != 17)
            return false;
        if (out != nullptr)
            out->push_back(double(t1 - t0) / 1000.0);
    }
    return true;
}

// The library's synchronous request: SendSyncMsg (a time-out timer per call).
bool RrOrvoSync(cService& svc, cMsgTcpSocket* c, const std::vector<cUuid>& tids, int n,
                std::vector<double>* out)
{
    cMsg req = MakeMsg(kReq, tids[0]);
    for (int i = 0; i < n; ++i) {
        const cUuid& tid = tids[size_t(i) % tids.size()];
        req.SetTid(tid);
        const uint64_t t0 = NowNs();
        cMsg m = svc.SendSyncMsg(*c, req, kWaitMs, kRep);
        const uint64_t t1 = NowNs();
        if (m.GetType() != kRep || !(m.GetTid() == tid))
            return false;
        if (out != nullptr)
            out->push_back(double(t1 - t0) / 1000.0);
    }
    return true;
}

// n timed exchanges: exchange(reply) sends frame and fills reply with the
// echo (false ends the run); every echo must equal the frame.
template <class F>
bool TimeEchoes(const std::string& frame, int n, std::vector<double>* out, F exchange)
{
    std::string reply(frame.size(), '\0');
    for (int i = 0; i < n; ++i) {
        const uint64_t t0 = NowNs();
        if (!exchange(reply))
            return false;
        const uint64_t t1 = NowNs();
        if (reply != frame)
            return false;
        if (out != nullptr)
            out->push_back(double(t1 - t0) / 1000.0);
    }
    return true;
}

bool RrRaw(int fd, const std::string& frame, int n, std::vector<double>* out)
{
    return TimeEchoes(frame, n, out, [&](std::string& reply) {
        return ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == ssize_t(frame.size()) &&
               RecvAll(fd, &reply[0], reply.size());
    });
}

// Client side of the bare select loop: send, select until readable, recv
// until the whole reply is there.
bool RrSelect(int fd, const std::vector<int>& idle, const std::string& frame, int n,
              std::vector<double>* out)
{
    return TimeEchoes(frame, n, out, [&](std::string& reply) {
        if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != ssize_t(frame.size()))
            return false;
        for (size_t got = 0; got < reply.size();) {
            if (!SelectRead(fd, idle, kWaitMs / 1000))
                return false;
            const ssize_t r = ::recv(fd, &reply[got], reply.size() - got, MSG_DONTWAIT);
            if (r <= 0)
                return false;
            got += size_t(r);
        }
        return true;
    });
}

bool RrZmq(void* s, const std::string& frame, int n, std::vector<double>* out)
{
    return TimeEchoes(frame, n, out, [&](std::string& reply) {
        return zmq_send(s, frame.data(), frame.size(), 0) == int(frame.size()) &&
               zmq_recv(s, &reply[0], reply.size(), 0) == int(frame.size());
    });
}

// ---- one way: count messages, the last one marked; the time until the sink
// reports that it counted them all, in seconds (negative on failure) -------

// Waits for the sink's count of this batch; the time it arrived.
double SinkDone(int reportFd, int count, uint64_t t0)
{
    uint32_t got = 0;
    if (!ReadPipe(reportFd, &got, sizeof got, kWaitMs))
        return -1;
    const uint64_t t1 = NowNs();
    if (got != uint32_t(count)) {
        std::fprintf(stderr, "ipc_bench: sink counted %u of %d messages\n", got, count);
        return -1;
    }
    return double(t1 - t0) / 1e9;
}

// Sends as fast as the framework lets it: Send queues the frame and writes
// out what the descriptor takes; when the socket's send buffer is full
// (-2) the loop runs until writability flushes it.
double OwOrvo(cService& svc, cMsgTcpSocket* c, const cUuid& tid, int count, int reportFd)
{
    cMsg d = MakeMsg(kData, tid);
    const uint64_t t0 = NowNs();
    const uint64_t deadline = t0 + uint64_t(kWaitMs) * 1000000u;
    for (int i = 0; i < count; ++i) {
        d.SetUnused(i == count - 1 ? 1 : 0);
        int r;
        while ((r = c->Send(d)) == -2) {
            if (NowNs() > deadline)
                return -1;
            svc.ScheduleSelect();
        }
        if (r < 0)
            return -1;
    }
    while (c->GetSendQueued() > 0) {
        if (NowNs() > deadline)
            return -1;
        svc.ScheduleSelect();
    }
    return SinkDone(reportFd, count, t0);
}

double OwRaw(int fd, const std::string& frame, const std::string& last, int count, int reportFd)
{
    const uint64_t t0 = NowNs();
    for (int i = 0; i < count; ++i) {
        const std::string& f = i == count - 1 ? last : frame;
        if (!SendAll(fd, f.data(), f.size()))
            return -1;
    }
    return SinkDone(reportFd, count, t0);
}

double OwZmq(void* s, const std::string& frame, const std::string& last, int count, int reportFd)
{
    const uint64_t t0 = NowNs();
    for (int i = 0; i < count; ++i) {
        const std::string& f = i == count - 1 ? last : frame;
        if (zmq_send(s, f.data(), f.size(), 0) != int(f.size()))
            return -1;
    }
    return SinkDone(reportFd, count, t0);
}

// ---------------------------------------------------------------------------
// Resident memory of a service process. The process is this program again
// (exec), so it holds nothing of the benchmark's own state.

struct sRss {
    long rss = -1;    // VmRSS, kB
    long anon = -1;   // RssAnon, kB
    long size = -1;   // VmSize, kB
};

sRss ReadRss(pid_t pid)
{
    sRss r;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/status", int(pid));
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return r;
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, "VmRSS:", 6) == 0)
            r.rss = std::atol(line + 6);
        else if (std::strncmp(line, "RssAnon:", 8) == 0)
            r.anon = std::atol(line + 8);
        else if (std::strncmp(line, "VmSize:", 7) == 0)
            r.size = std::atol(line + 7);
    }
    std::fclose(f);
    return r;
}

// The exec'd process: "bare" only initialises the library and waits;
// "service" runs a service on 127.0.0.1 that answers requests. Both report
// their port (1 for bare) through fd and end on SIGTERM.
int RssProcess(int fd, bool service)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    cService::SignalAsyncSelect(SIGALRM, nullptr, nullptr);
    ::alarm(kChildSeconds);
    if (!service) {
        cService::SignalAsyncSelect(SIGTERM, nullptr, nullptr);
        const uint16_t one = 1;
        WriteAll(fd, &one, sizeof one);
        for (;;)
            ::pause();
    }
    cBenchService s;
    StartService(s, "ipc-rss", fd);
    cMsg m;
    while (s.GetMessage(m)) {
        if (m.GetType() == kReq) {
            cMsg reply(kRep);
            reply.SetTid(m.GetTid());
            reply.SetRecord(m.GetRecord());
            m.GetChannel()->Send(reply);
        }
    }
    return 0;
}

sChild SpawnRss(const char* mode)
{
    sChild child;
    int fds[2];
    if (::pipe(fds) != 0)
        return child;
    std::fflush(stdout);
    child.pid = ::fork();
    if (child.pid == 0) {
        ::close(fds[0]);
        char fdText[16];
        std::snprintf(fdText, sizeof fdText, "%d", fds[1]);
        ::execl("/proc/self/exe", "ipc_bench", "--rss-process", fdText, mode, nullptr);
        ::_exit(127);
    }
    ::close(fds[1]);
    child.fd = fds[0];
    if (child.pid > 0)
        gChildren.push_back(child.pid);
    if (child.pid < 0 || !ReadPipe(child.fd, &child.port, sizeof child.port, kWaitMs))
        child.port = 0;
    return child;
}

struct sMemory {
    sRss bare, idle, loaded;
    bool ok = false;
};

// Bare process, idle service, service with kClients connections that each
// made one request.
sMemory MeasureMemory(const std::string& request)
{
    sMemory mem;
    sChild bare = SpawnRss("bare");
    if (bare.port != 0) {
        ::usleep(100000);
        mem.bare = ReadRss(bare.pid);
    }
    if (bare.pid > 0)
        ::kill(bare.pid, SIGTERM);
    Reap(bare);

    sChild svc = SpawnRss("service");
    if (svc.port == 0) {
        Reap(svc);
        return mem;
    }
    ::usleep(100000);
    mem.idle = ReadRss(svc.pid);
    std::vector<int> clients;
    bool ok = true;
    std::string frame;
    for (int i = 0; i < kClients && ok; ++i) {
        // One at a time: the sap listens with a backlog of 5, and each
        // connection is complete once the service announced itself.
        int fd = RawConnect(svc.port);
        ok = fd >= 0;
        if (!ok)
            break;
        clients.push_back(fd);
        ok = RecvFrame(fd, frame) && SendAll(fd, request.data(), request.size()) &&
             RecvFrame(fd, frame) && frame.size() == request.size();
    }
    if (ok) {
        ::usleep(100000);
        mem.loaded = ReadRss(svc.pid);
    }
    for (int fd : clients)
        ::close(fd);
    ::kill(svc.pid, SIGTERM);
    mem.ok = ok && Reap(svc);
    return mem;
}

// ---------------------------------------------------------------------------
// Statistics and output

struct sStats {
    double median = 0, p99 = 0, mean = 0;
};

sStats Stats(std::vector<double> v)
{
    sStats s;
    if (v.empty())
        return s;
    std::sort(v.begin(), v.end());
    s.median = v[v.size() / 2];
    s.p99 = v[size_t(0.99 * double(v.size() - 1))];
    double sum = 0;
    for (double x : v)
        sum += x;
    s.mean = sum / double(v.size());
    return s;
}

int ParseCount(const char* text, int fallback)
{
    const int n = std::atoi(text);
    return n >= kRounds ? n : fallback;
}

int Fail(const char* what)
{
    std::fprintf(stderr, "ipc_bench: %s failed\n", what);
    std::fflush(stderr);
    for (pid_t pid : gChildren) {
        if (pid <= 0)
            continue;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--rss-process") == 0)
        return RssProcess(std::atoi(argv[2]), std::strcmp(argv[3], "service") == 0);

    sOptions opt;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rr=", 5) == 0)
            opt.rr = ParseCount(argv[i] + 5, opt.rr);
        else if (std::strncmp(argv[i], "--oneway=", 9) == 0)
            opt.oneway = ParseCount(argv[i] + 9, opt.oneway);
        else if (std::strcmp(argv[i], "--orvo-only") == 0)
            opt.orvoOnly = true;
        else if (std::strcmp(argv[i], "--placement=same") == 0)
            opt.placement = PLACE_SAME;
        else if (std::strcmp(argv[i], "--placement=apart") == 0)
            opt.placement = PLACE_APART;
        else if (std::strcmp(argv[i], "--placement=free") == 0)
            opt.placement = PLACE_FREE;
        else {
            std::fprintf(stderr,
                         "usage: %s [--rr=<n>] [--oneway=<m>] [--orvo-only] "
                         "[--placement=same|apart|free]\n",
                         argv[0]);
            return 2;
        }
    }
    if (!ApplyPlacement(opt.placement)) {
        std::fprintf(stderr, "ipc_bench: cannot place the processes (%s)\n",
                     PlacementText(opt.placement));
        return 2;
    }

    orvoInit(ERROR, OUTPUT_NONE, false);
    // The run ends itself should anything hang (the library's own SIGALRM
    // handler only prints).
    cService::SignalAsyncSelect(SIGALRM, nullptr, nullptr);
    ::alarm(kRunSeconds);
    const uint64_t runStart = NowNs();

    std::vector<cUuid> tids(kTids);
    for (cUuid& t : tids)
        t.Create();
    const std::string frame = FrameOf(MakeMsg(kReq, tids[0]));
    cMsg lastMsg = MakeMsg(kData, tids[0]);
    const std::string dataFrame = FrameOf(lastMsg);
    lastMsg.SetUnused(1);
    const std::string lastFrame = FrameOf(lastMsg);

    // Memory first, while this process holds no connection a child could
    // inherit.
    sMemory mem;
    if (!opt.orvoOnly) {
        mem = MeasureMemory(frame);
        if (!mem.ok)
            return Fail("memory measurement");
    }

    // Every server before any connection of this process exists.
    sChild orvoEcho = Spawn(OrvoEcho), orvoSink = Spawn(OrvoSink);
    sChild rawEcho, rawSink, selEcho, selIdleEcho, zmqRep, zmqPull;
    if (!opt.orvoOnly) {
        rawEcho = Spawn(RawEcho);
        selEcho = Spawn(SelectEcho);
        selIdleEcho = Spawn(SelectEchoIdle);
        rawSink = Spawn(RawSink);
        zmqRep = Spawn(ZmqRep);
        zmqPull = Spawn(ZmqPull);
    }
    for (sChild* c : {&orvoEcho, &orvoSink, &rawEcho, &rawSink, &selEcho, &selIdleEcho, &zmqRep, &zmqPull})
        if (c->port == 0 && (c == &orvoEcho || c == &orvoSink || !opt.orvoOnly))
            return Fail("starting a server");

    cBenchService svc;
    svc.Init("ipc-bench", kLoopback);
    cMsgTcpSocket* orvoRr = OrvoConnect(svc, orvoEcho.port);
    if (orvoRr == nullptr)
        return Fail("connecting the liborvo client");
    for (cMsg m; svc.GetQueueSize() > 0 && svc.GetMessage(m);) {
    }
    int rawRr = -1, rawOw = -1, selRr = -1, selIdleRr = -1;
    std::vector<int> idle;   // this process's idle descriptors for the select client
    void* zctx = nullptr;
    void* zReq = nullptr;
    void* zPush = nullptr;
    if (!opt.orvoOnly) {
        rawRr = RawConnect(rawEcho.port);
        rawOw = RawConnect(rawSink.port);
        selRr = RawConnect(selEcho.port);
        selIdleRr = RawConnect(selIdleEcho.port);
        idle = IdleDescriptors();
        zctx = zmq_ctx_new();
        zReq = ZmqConnect(zctx, ZMQ_REQ, zmqRep.port);
        zPush = ZmqConnect(zctx, ZMQ_PUSH, zmqPull.port);
        if (rawRr < 0 || rawOw < 0 || selRr < 0 || selRr >= FD_SETSIZE ||
            selIdleRr < 0 || selIdleRr >= FD_SETSIZE || idle.size() != 3 || zReq == nullptr || zPush == nullptr)
            return Fail("connecting the peer clients");
    }

    // ---- round trips -------------------------------------------------------
    enum { ORVO, ORVO_SYNC, TCP, SELECT, SELECT_IDLE, ZMQ, kRrCount };
    const char* rrNames[kRrCount] = {"liborvo services (GetMessage loops)",
                                     "liborvo, client uses SendSyncMsg",
                                     "plain TCP, blocking send/recv (floor)",
                                     "bare select() loops, same frames",
                                     "  the same, 3 idle descriptors per side",
                                     "ZeroMQ REQ/REP"};
    std::vector<double> rr[kRrCount];
    const int rrKinds = opt.orvoOnly ? 2 : kRrCount;
    auto roundTrips = [&](int kind, int n, std::vector<double>* out) {
        switch (kind) {
        case ORVO:
            return RrOrvo(svc, orvoRr, tids, n, out);
        case ORVO_SYNC:
            return RrOrvoSync(svc, orvoRr, tids, n, out);
        case TCP:
            return RrRaw(rawRr, frame, n, out);
        case SELECT:
            return RrSelect(selRr, {}, frame, n, out);
        case SELECT_IDLE:
            return RrSelect(selIdleRr, idle, frame, n, out);
        default:
            return RrZmq(zReq, frame, n, out);
        }
    };
    for (int k = 0; k < rrKinds; ++k)
        if (!roundTrips(k, kWarmup, nullptr))
            return Fail(rrNames[k]);
    for (int round = 0; round < kRounds; ++round) {
        for (int j = 0; j < rrKinds; ++j) {
            const int k = (round + j) % rrKinds;
            rr[k].reserve(size_t(opt.rr));
            if (!roundTrips(k, opt.rr / kRounds, &rr[k]))
                return Fail(rrNames[k]);
        }
    }

    // ---- one way -----------------------------------------------------------
    // The sink is connected only now, so that during the round trips the
    // client service waits on its three idle descriptors and one connection,
    // like the select client it is compared with.
    cMsgTcpSocket* orvoOw = OrvoConnect(svc, orvoSink.port);
    if (orvoOw == nullptr)
        return Fail("connecting the liborvo sink");
    for (cMsg m; svc.GetQueueSize() > 0 && svc.GetMessage(m);) {
    }
    enum { OW_ORVO, OW_TCP, OW_ZMQ, kOwCount };
    const char* owNames[kOwCount] = {"liborvo service -> service", "bare stream, one send() per frame (floor)",
                                     "ZeroMQ PUSH/PULL"};
    double owSeconds[kOwCount] = {0, 0, 0};
    long long owMessages[kOwCount] = {0, 0, 0};
    const int owKinds = opt.orvoOnly ? 1 : kOwCount;
    auto oneWay = [&](int kind, int count) {
        switch (kind) {
        case OW_ORVO:
            return OwOrvo(svc, orvoOw, tids[0], count, orvoSink.fd);
        case OW_TCP:
            return OwRaw(rawOw, dataFrame, lastFrame, count, rawSink.fd);
        default:
            return OwZmq(zPush, dataFrame, lastFrame, count, zmqPull.fd);
        }
    };
    for (int k = 0; k < owKinds; ++k)
        if (oneWay(k, std::max(kRounds, opt.oneway / 40)) < 0)
            return Fail(owNames[k]);
    for (int round = 0; round < kRounds; ++round) {
        for (int j = 0; j < owKinds; ++j) {
            const int k = (round + j) % owKinds;
            const double s = oneWay(k, opt.oneway / kRounds);
            if (s < 0)
                return Fail(owNames[k]);
            owSeconds[k] += s;
            owMessages[k] += opt.oneway / kRounds;
        }
    }

    // ---- tear down: every server ends when its client leaves -------------
    orvoRr->Close();
    orvoOw->Close();
    delete orvoRr;
    delete orvoOw;
    svc.DeInit();
    if (!opt.orvoOnly) {
        ::close(rawRr);
        ::close(rawOw);
        ::close(selRr);
        ::close(selIdleRr);
        for (int d : idle)
            ::close(d);
        const char quit = 'q';
        char ack;
        zmq_send(zReq, &quit, 1, 0);
        zmq_recv(zReq, &ack, 1, 0);
        zmq_send(zPush, &quit, 1, 0);
        zmq_close(zReq);
        zmq_close(zPush);
        zmq_ctx_term(zctx);
    }
    bool clean = true;
    for (sChild* c : {&orvoEcho, &orvoSink, &rawEcho, &rawSink, &selEcho, &selIdleEcho, &zmqRep, &zmqPull})
        if (c->pid > 0)
            clean = Reap(*c) && clean;

    // ---- report ------------------------------------------------------------
    std::printf("ipc_bench: two processes on 127.0.0.1, %s; frame of %zu bytes (payload %zu: "
                "type, tid, record of two uint fields)\n\n",
                PlacementText(opt.placement), frame.size(), frame.size() - kFrameHeaderSize);
    std::printf("Round trip, %d per transport in %d interleaved rounds (microseconds)\n", opt.rr,
                kRounds);
    std::printf("  %-40s %9s %9s %9s\n", "transport", "median", "p99", "mean");
    sStats st[kRrCount];
    for (int k = 0; k < rrKinds; ++k) {
        st[k] = Stats(rr[k]);
        std::printf("  %-40s %9.1f %9.1f %9.1f\n", rrNames[k], st[k].median, st[k].p99, st[k].mean);
    }
    std::printf("\nOne way, %d messages per transport in %d interleaved rounds\n", opt.oneway,
                kRounds);
    std::printf("  %-42s %12s %9s\n", "transport", "messages/s", "ns/msg");
    double rate[kOwCount] = {0, 0, 0};
    for (int k = 0; k < owKinds; ++k) {
        rate[k] = double(owMessages[k]) / owSeconds[k];
        std::printf("  %-42s %12.0f %9.0f\n", owNames[k], rate[k], 1e9 / rate[k]);
    }
    if (!opt.orvoOnly) {
        std::printf("\nResident memory of a service process (kB)\n");
        std::printf("  %-42s %8s %8s %8s\n", "process", "VmRSS", "RssAnon", "VmSize");
        std::printf("  %-42s %8ld %8ld %8ld\n", "library initialised, no service", mem.bare.rss,
                    mem.bare.anon, mem.bare.size);
        std::printf("  %-42s %8ld %8ld %8ld\n", "idle service", mem.idle.rss, mem.idle.anon,
                    mem.idle.size);
        std::printf("  %-42s %8ld %8ld %8ld\n", "service with 100 connected clients",
                    mem.loaded.rss, mem.loaded.anon, mem.loaded.size);
        std::printf("  %-42s %8.1f %8.1f %8.1f\n", "per connected client",
                    double(mem.loaded.rss - mem.idle.rss) / kClients,
                    double(mem.loaded.anon - mem.idle.anon) / kClients,
                    double(mem.loaded.size - mem.idle.size) / kClients);

        const double vsTcp = st[ORVO].median / st[TCP].median;
        const double vsZmq = st[ORVO].median / st[ZMQ].median;
        const double owVsTcp = rate[OW_ORVO] / rate[OW_TCP];
        std::printf("\nRatios (this run)\n");
        std::printf("  round trip median, liborvo / plain TCP      %6.2f  (goal <= 1.30: %s)\n", vsTcp,
                    vsTcp <= 1.30 ? "met" : "NOT met");
        std::printf("  round trip median, liborvo / ZeroMQ REQ/REP %6.2f  (goal <= 0.33: %s)\n", vsZmq,
                    vsZmq <= 1.0 / 3.0 ? "met" : "NOT met");
        std::printf("  round trip median, bare select / plain TCP  %6.2f\n",
                    st[SELECT].median / st[TCP].median);
        std::printf("  round trip median, select + idle / plain TCP %5.2f\n",
                    st[SELECT_IDLE].median / st[TCP].median);
        std::printf("  round trip median, bare select / ZeroMQ     %6.2f\n",
                    st[SELECT].median / st[ZMQ].median);
        std::printf("  round trip median, ZeroMQ / plain TCP       %6.2f\n",
                    st[ZMQ].median / st[TCP].median);
        std::printf("  round trip median, SendSyncMsg / plain TCP  %6.2f\n",
                    st[ORVO_SYNC].median / st[TCP].median);
        std::printf("  round trip p99, liborvo / plain TCP         %6.2f\n", st[ORVO].p99 / st[TCP].p99);
        // The loop's own cost: liborvo against a select loop that waits on the
        // same idle descriptors a service has; and the synchronous request
        // call against the plain GetMessage loop.
        const double loopCost = st[ORVO].median / st[SELECT_IDLE].median;
        const double syncCost = st[ORVO_SYNC].median / st[ORVO].median;
        std::printf("  round trip median, liborvo / select + idle  %6.2f  (goal <= 1.05: %s)\n",
                    loopCost, loopCost <= 1.05 ? "met" : "NOT met");
        std::printf("  round trip median, SendSyncMsg / GetMessage %6.2f  (goal <= 1.10: %s)\n",
                    syncCost, syncCost <= 1.10 ? "met" : "NOT met");
        std::printf("  one way, liborvo / bare stream              %6.2f  (goal >= 0.80: %s)\n",
                    owVsTcp, owVsTcp >= 0.8 ? "met" : "NOT met");
        std::printf("  one way, ZeroMQ PUSH/PULL / bare stream     %6.2f\n", rate[OW_ZMQ] / rate[OW_TCP]);
        std::printf("  one way, liborvo / ZeroMQ PUSH/PULL         %6.2f\n", rate[OW_ORVO] / rate[OW_ZMQ]);
    }
    std::printf("\n(run took %.1f s)\n", double(NowNs() - runStart) / 1e9);
    if (!clean)
        return Fail("ending the servers");
    return 0;
}
