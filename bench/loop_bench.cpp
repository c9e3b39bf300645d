// loop_bench.cpp - what idle connections cost a service loop: the median
// request/reply round trip of one active client while 0, 100, 500 and 900
// other connections to the same server stay idle, for
//   - a bare epoll echo loop (level-triggered, one epoll_wait per pass),
//   - a bare select echo loop (every connection in the read set),
//   - a liborvo service (cService + its sap socket's cMsgTcpSocket
//     connections, echoing with Send from the GetMessage loop),
// all in the same run, servers as forked children, every process pinned to
// one CPU (the device has one core; see ipc_bench for why pinning matters).
// The points are measured in interleaved rounds, so a burst of load from
// elsewhere hits every server alike.
//
// Each connection, idle ones included, makes one round trip when it is set
// up, so the server has accepted and registered all of them before the
// timing starts. The client closes the active connection first; each server
// ends at the first end of stream it sees.
//
// Options: --rr=<n> round trips per point (default 5000), --rounds=<r>
// (default 3), --idle=<a,b,...> (default 0,100,500,900).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_msgsocket.h"
#include "orvo_service.h"

using namespace orvo;

namespace {

const unsigned long kReq = 0x5A0101, kRep = 0x5A0102;
const unsigned kChildSeconds = 120;
const int kWaitMs = 10000;
const int kWarmup = 300;

uint64_t NowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

void Fail(const char* what)
{
    std::fprintf(stderr, "loop_bench: %s\n", what);
    std::exit(1);
}

// The request: a message of kReq whose frame is 64 bytes.
std::string RequestFrame()
{
    cMsg m(kReq);
    cUuid tid;
    tid.Create();
    m.SetTid(tid);
    std::string payload;
    m.GetRecord().AppendTextPar("p", std::string(30, 'x'), 0);
    m.Serialize(1, payload);
    const uint32_t n = uint32_t(payload.size()) + kFrameHeaderSize;
    std::string f{char(kFrameVersion), 1, char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
    return f + payload;
}

uint32_t FrameLength(const unsigned char* p)
{
    return uint32_t(p[2]) | uint32_t(p[3]) << 8 | uint32_t(p[4]) << 16 | uint32_t(p[5]) << 24;
}

int Listen(uint16_t& port)
{
    const int ls = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (ls < 0 || ::bind(ls, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(ls, 1024) != 0 || ::getsockname(ls, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return -1;
    port = ntohs(a.sin_port);
    return ls;
}

// ---- servers ----------------------------------------------------------------

// Per-connection input of the bare loops: echoes every whole frame; false at
// end of stream or error.
struct sConn {
    std::vector<unsigned char> buf = std::vector<unsigned char>(8192);
    size_t fill = 0;
};

bool EchoFrames(int fd, sConn& c)
{
    const ssize_t got = ::recv(fd, c.buf.data() + c.fill, c.buf.size() - c.fill, 0);
    if (got <= 0)
        return got < 0 && errno == EAGAIN;
    c.fill += size_t(got);
    size_t at = 0;
    while (c.fill - at >= size_t(kFrameHeaderSize)) {
        const uint32_t n = FrameLength(&c.buf[at]);
        if (n < uint32_t(kFrameHeaderSize) || n > c.buf.size())
            return false;
        if (c.fill - at < n)
            break;
        if (::send(fd, &c.buf[at], n, MSG_NOSIGNAL) != ssize_t(n))
            return false;
        at += n;
    }
    std::memmove(c.buf.data(), c.buf.data() + at, c.fill - at);
    c.fill -= at;
    return true;
}

void Prepare(int fd)
{
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int EpollServer(int ls)
{
    const int ep = ::epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = ls;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, ls, &ev);
    std::map<int, sConn> conns;
    std::vector<epoll_event> ready(64);
    for (;;) {
        const int n = ::epoll_wait(ep, ready.data(), int(ready.size()), 30000);
        if (n <= 0)
            return 2;
        for (int i = 0; i < n; ++i) {
            const int fd = ready[i].data.fd;
            if (fd == ls) {
                const int c = ::accept(ls, nullptr, nullptr);
                if (c < 0)
                    continue;
                Prepare(c);
                conns[c];
                ev.data.fd = c;
                ::epoll_ctl(ep, EPOLL_CTL_ADD, c, &ev);
            } else if (!EchoFrames(fd, conns[fd])) {
                return 0;
            }
        }
    }
}

int SelectServer(int ls)
{
    std::map<int, sConn> conns;
    fd_set all;
    FD_ZERO(&all);
    FD_SET(ls, &all);
    int highest = ls;
    for (;;) {
        fd_set rd = all;
        timeval tv{30, 0};
        if (::select(highest + 1, &rd, nullptr, nullptr, &tv) <= 0)
            return 2;
        for (int fd = 0; fd <= highest; ++fd) {
            if (!FD_ISSET(fd, &rd))
                continue;
            if (fd == ls) {
                const int c = ::accept(ls, nullptr, nullptr);
                if (c < 0 || c >= FD_SETSIZE)
                    return 2;
                Prepare(c);
                conns[c];
                FD_SET(c, &all);
                highest = std::max(highest, c);
            } else if (!EchoFrames(fd, conns[fd])) {
                return 0;
            }
        }
    }
}

class cEchoService : public cService {
public:
    void ThreadMain() override {}
};

int RunOrvo(int toParent)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    cEchoService s;
    s.Init("loop-echo", cSocketAddr("127.0.0.1", 0));
    const uint16_t port = s.GetSapAddress().GetPort();
    if (::write(toParent, &port, sizeof port) != sizeof port)
        return 2;
    cMsg m;
    while (s.GetMessage(m)) {
        if (m.GetType() == kReq) {
            cMsg reply(kRep);
            reply.SetTid(m.GetTid());
            reply.SetRecord(m.GetRecord());
            m.GetChannel()->Send(reply);
        } else if (m.GetType() == MSG_SOCKET_CLOSED) {
            cService::SetStopFlag(true);
        }
    }
    return 0;
}

enum eKind { KIND_EPOLL, KIND_SELECT, KIND_ORVO, KIND_COUNT };
const char* const kKindName[KIND_COUNT] = {"epoll echo loop", "select echo loop", "liborvo service"};

struct sChild {
    pid_t pid = -1;
    uint16_t port = 0;
};

sChild Spawn(eKind kind)
{
    int fds[2];
    if (::pipe(fds) != 0)
        Fail("pipe");
    std::fflush(stdout);
    sChild child;
    child.pid = ::fork();
    if (child.pid == 0) {
        ::close(fds[0]);
        ::alarm(kChildSeconds);
        if (kind == KIND_ORVO)
            ::_exit(RunOrvo(fds[1]));
        uint16_t port = 0;
        const int ls = Listen(port);
        if (ls < 0 || ::write(fds[1], &port, sizeof port) != sizeof port)
            ::_exit(2);
        ::_exit(kind == KIND_EPOLL ? EpollServer(ls) : SelectServer(ls));
    }
    ::close(fds[1]);
    pollfd pfd{fds[0], POLLIN, 0};
    if (child.pid < 0 || ::poll(&pfd, 1, kWaitMs) != 1 ||
        ::read(fds[0], &child.port, sizeof child.port) != sizeof child.port)
        Fail("server did not start");
    ::close(fds[0]);
    return child;
}

// ---- client -------------------------------------------------------------------

int Connect(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        Fail("connect");
    Prepare(fd);
    timeval tv{kWaitMs / 1000, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

bool RecvAll(int fd, unsigned char* p, size_t n)
{
    while (n > 0) {
        const ssize_t r = ::recv(fd, p, n, 0);
        if (r <= 0)
            return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

// One request and its reply (a frame of the same length). Other frames
// (the service's peer identification after the accept) are skipped.
bool RoundTrip(int fd, const std::string& frame, std::vector<unsigned char>& reply)
{
    if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != ssize_t(frame.size()))
        return false;
    for (;;) {
        if (!RecvAll(fd, reply.data(), size_t(kFrameHeaderSize)))
            return false;
        const uint32_t n = FrameLength(reply.data());
        if (n < uint32_t(kFrameHeaderSize) || n > 8192)
            return false;
        if (reply.size() < n)
            reply.resize(n);
        if (!RecvAll(fd, reply.data() + kFrameHeaderSize, n - size_t(kFrameHeaderSize)))
            return false;
        if (n == frame.size())
            return true;
    }
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// Median round trip in microseconds with idle connections besides the
// active one.
double Measure(eKind kind, int idle, int rr, const std::string& frame)
{
    sChild server = Spawn(kind);
    std::vector<unsigned char> reply(frame.size());
    std::vector<int> idleFds;
    for (int i = 0; i < idle; ++i) {
        idleFds.push_back(Connect(server.port));
        if (!RoundTrip(idleFds.back(), frame, reply))
            Fail("no reply on an idle connection's first round trip");
    }
    const int active = Connect(server.port);
    for (int i = 0; i < kWarmup; ++i)
        if (!RoundTrip(active, frame, reply))
            Fail("no reply during warm-up");
    std::vector<double> us;
    us.reserve(size_t(rr));
    for (int i = 0; i < rr; ++i) {
        const uint64_t t0 = NowNs();
        if (!RoundTrip(active, frame, reply))
            Fail("no reply");
        us.push_back(double(NowNs() - t0) / 1000.0);
    }
    ::close(active);
    for (int fd : idleFds)
        ::close(fd);
    int status = 0;
    ::waitpid(server.pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        Fail("server failed");
    return Median(us);
}

}  // namespace

int main(int argc, char** argv)
{
    int rr = 5000, rounds = 3;
    std::vector<int> idles = {0, 100, 500, 900};
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rr=", 5) == 0) {
            rr = std::max(1, std::atoi(argv[i] + 5));
        } else if (std::strncmp(argv[i], "--rounds=", 9) == 0) {
            rounds = std::max(1, std::atoi(argv[i] + 9));
        } else if (std::strncmp(argv[i], "--idle=", 7) == 0) {
            idles.clear();
            for (const char* p = argv[i] + 7; *p != '\0';) {
                idles.push_back(std::atoi(p));
                p = std::strchr(p, ',');
                if (p == nullptr)
                    break;
                ++p;
            }
        } else {
            std::fprintf(stderr, "usage: loop_bench [--rr=N] [--rounds=R] [--idle=a,b,...]\n");
            return 2;
        }
    }
    for (int n : idles)
        if (n < 0 || n > 900)
            Fail("idle connections must lie in 0..900 (select servers stop below 1024 descriptors)");
    rlimit lim;
    if (::getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < 1024) {
        lim.rlim_cur = std::min<rlim_t>(1024, lim.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &lim);
    }
    ::signal(SIGPIPE, SIG_IGN);
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &allowed)) {
                cpu_set_t one;
                CPU_ZERO(&one);
                CPU_SET(c, &one);
                ::sched_setaffinity(0, sizeof one, &one);
                break;
            }
    }
    orvoInit(ERROR, OUTPUT_NONE, false);
    const std::string frame = RequestFrame();

    // results[kind][idle index]: the medians of the rounds.
    std::vector<std::vector<std::vector<double>>> results(
        KIND_COUNT, std::vector<std::vector<double>>(idles.size()));
    for (int r = 0; r < rounds; ++r)
        for (size_t i = 0; i < idles.size(); ++i)
            for (int k = 0; k < KIND_COUNT; ++k)
                results[size_t(k)][i].push_back(Measure(eKind(k), idles[i], rr, frame));

    std::printf("loop_bench: median round trip of a %zu-byte request, one active client, all "
                "processes on one CPU, %d round trips x %d rounds (median of the rounds)\n\n",
                frame.size(), rr, rounds);
    std::printf("| idle connections |");
    for (int k = 0; k < KIND_COUNT; ++k)
        std::printf(" %s |", kKindName[k]);
    std::printf("\n|---:|---:|---:|---:|\n");
    std::vector<std::vector<double>> med(KIND_COUNT, std::vector<double>(idles.size()));
    for (size_t i = 0; i < idles.size(); ++i) {
        std::printf("| %d |", idles[i]);
        for (int k = 0; k < KIND_COUNT; ++k) {
            med[size_t(k)][i] = Median(results[size_t(k)][i]);
            std::printf(" %.1f us |", med[size_t(k)][i]);
        }
        std::printf("\n");
    }
    const double floor = med[KIND_EPOLL][0];
    std::printf("\nliborvo / epoll loop with 0 idle:");
    for (size_t i = 0; i < idles.size(); ++i)
        std::printf(" %d idle %.2fx;", idles[i], med[KIND_ORVO][i] / floor);
    std::printf("\n");
    return 0;
}
