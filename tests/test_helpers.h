// Helpers shared by the unit tests: a service the test drives itself, a state
// machine that keeps its messages, record bytes, the assertion text as a
// pattern, and child process runners.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "orvo_record.h"
#include "orvo_service.h"
#include "orvo_statem.h"

namespace orvo_test {

// A TCP socket listening on 127.0.0.1 at a port the system picked: the port
// another program then finds taken. Returns the descriptor (-1 on failure)
// and sets port.
inline int ListenOnLoopback(unsigned short& port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 1) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    port = ntohs(a.sin_port);
    return fd;
}

// A service without a thread of its own: the test calls its loop functions.
struct cTestService : orvo::cService {
    void ThreadMain() override {}
};

// Keeps every message handed to it, and its type.
struct cKeepSm : orvo::cStateMachine {
    explicit cKeepSm(orvo::cService* s) : orvo::cStateMachine(s, "keep") {}
    int state_init(orvo::cMsg& msg) override
    {
        got.push_back(msg);
        types.push_back(msg.GetType());
        return 0;
    }
    std::vector<orvo::cMsg> got;
    std::vector<unsigned long> types;
};

// The record of a trace-on request (0x7000) setting each unit name to level.
inline orvo::cRecord TraceOnRecord(std::initializer_list<std::pair<const char*, const char*>> levels)
{
    orvo::cRecord on, units;
    for (const auto& l : levels) {
        orvo::cRecord unit;
        unit.AppendTextPar("name", l.first, 0);
        unit.AppendTextPar("level", l.second, 0);
        units.AppendRecordPar("u", unit, 0);
    }
    on.AppendRecordPar("units", units, 0);
    return on;
}

// The bytes of a record or list, empty when it has none.
template <class T>
std::string BytesOf(const T& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

// The start of the line a failed ORVO_ASSERT(expr) prints in family, as a
// regular expression.
inline std::string AssertRe(const char* expr, const char* family)
{
    std::string re = "orvo assertion failed: ";
    for (const char* p = expr; *p != 0; ++p) {
        if (std::strchr("()[]{}*+?.|^$\\", *p) != nullptr)
            re += '\\';
        re += *p;
    }
    return re + " \\(" + family + ": ";
}

// Runs body in a forked child and returns its exit code (-1 when it did not
// exit, e.g. killed by the alarm after seconds when that is not 0). With out,
// the child's standard output (and error, with withStderr) is collected there.
inline int RunInChild(const std::function<int()>& body, std::string* out = nullptr,
                      bool withStderr = false, unsigned seconds = 0)
{
    int fds[2] = {-1, -1};
    if (out != nullptr && pipe(fds) != 0)
        return -1;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (seconds != 0)
            alarm(seconds);
        if (out != nullptr) {
            close(fds[0]);
            dup2(fds[1], 1);
            if (withStderr)
                dup2(fds[1], 2);
        }
        const int rc = body();
        std::fflush(nullptr);
        _exit(rc);
    }
    if (out != nullptr) {
        close(fds[1]);
        char buf[512];
        for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
            out->append(buf, static_cast<size_t>(n));
        close(fds[0]);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child forked to run body(toParent) alongside the test, ended by
// alarm(seconds) at the latest (SIGALRM back at its default action); pipe
// is the read end of what the child writes to toParent.
struct sChild {
    pid_t pid = -1;
    int pipe = -1;
};

inline sChild StartChild(const std::function<int(int toParent)>& body, unsigned seconds)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {};
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        orvo::cService::SignalAsyncSelect(SIGALRM, nullptr, nullptr);
        alarm(seconds);
        const int rc = body(fds[1]);
        std::fflush(nullptr);
        _exit(rc);
    }
    close(fds[1]);
    return {pid, fds[0]};
}

// Waits for the child; its exit code, -1 when it did not exit.
inline int EndChild(const sChild& child)
{
    close(child.pipe);
    int status = 0;
    if (child.pid < 0 || waitpid(child.pid, &status, 0) != child.pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A 16-bit value (a port) from a child to its parent; 0 when none came.
inline void Report(int fd, uint16_t value) { (void)!write(fd, &value, sizeof value); }
inline uint16_t Receive(int fd)
{
    uint16_t value = 0;
    return read(fd, &value, sizeof value) == sizeof value ? value : 0;
}

// Waits up to ms for a message of type from channel ch (any channel when
// null); messages of that type from other channels go back in the queue.
// 0x2015 on time-out.
inline orvo::cMsg AwaitFrom(orvo::cService& svc, unsigned long type, orvo::cChannel* ch = nullptr,
                            unsigned long ms = 20000)
{
    std::vector<orvo::cMsg> other;
    orvo::cMsg m;
    for (;;) {
        m = svc.WaitSyncMsg(ms, type);
        if (m != type || ch == nullptr || m.GetChannel() == ch)
            break;
        other.push_back(m);
    }
    for (orvo::cMsg& o : other)
        svc.OnMsg(o);
    return m;
}

// n distinct TCP ports of 127.0.0.1 that were free a moment ago (each bound
// to port 0 and read back, all closed once every one is picked, so the kernel
// cannot hand one out twice); another process may take them meanwhile.
inline std::vector<unsigned short> FreeLoopbackPorts(size_t n)
{
    std::vector<int> fds;
    std::vector<unsigned short> ports;
    for (size_t i = 0; i < n; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        orvo::cSocketAddr a("127.0.0.1", 0);
        socklen_t len = sizeof(sockaddr_in);
        bind(fd, a.GetSockAddr(), len);
        getsockname(fd, a.GetSockAddr(), &len);
        fds.push_back(fd);
        ports.push_back(a.GetPort());
    }
    for (int fd : fds)
        close(fd);
    return ports;
}

// One such port; called one after another it may give the same port again.
inline unsigned short FreeLoopbackPort()
{
    return FreeLoopbackPorts(1)[0];
}

// Moves the calling process into a network namespace of its own (only a
// loopback interface, down). False, with why, where the machine does not
// allow it.
inline bool EnterPrivateNetwork(std::string& why)
{
    if (unshare(CLONE_NEWNET) == 0)
        return true;
    why = std::string("no private network namespace here (unshare: ") + std::strerror(errno) + ")";
    return false;
}

}  // namespace orvo_test
