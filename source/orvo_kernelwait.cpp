#define ORVO_SOURCE "orvo_kernelwait"
// The kernel side of a service's wait; see orvo_kernelwait.h.
#include "orvo_kernelwait.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "orvo_channel.h"
#include "orvo_selectloop.h"

namespace orvo {

#ifndef ORVO_SELECT_WAIT

// ---- epoll ------------------------------------------------------------------------

namespace {

// A thread cancelled while blocked in epoll_wait on armhf ends without
// unwinding (its cleanup handlers and destructors do not run, so a
// cMsgThread's destructor waits for it forever); blocked in poll it unwinds.
// There the wait blocks in poll on the instance and collects with a
// non-blocking epoll_wait: one more system call per pass that sleeps.
#if defined(__arm__)
constexpr bool kBlockInPoll = true;
#else
constexpr bool kBlockInPoll = false;
#endif

int TableEvents(const cKernelWait::sTable& table, int fd)
{
    return table.eventsOf(table.ctx, fd);
}

uint32_t ToEpoll(int events)
{
    return ((events & SELECT_READ) ? EPOLLIN : 0u) | ((events & SELECT_WRITE) ? EPOLLOUT : 0u) |
           ((events & SELECT_EXCEPT) ? EPOLLPRI : 0u);
}

// How often, at most this many ms apart in wall time, a loop that keeps
// passing checks that its descriptors are still open.
constexpr int64_t kOpenCheckMs = 1000;

// A monotonic clock good to a few ms: read on every pass, so the coarse one
// (no hardware read, a vDSO call on the platforms this builds for).
int64_t CoarseMs()
{
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// What select would have reported for a descriptor registered for wanted:
// readable also on hang-up and error, writable also on error, exception on
// priority data only.
int FromEpoll(uint32_t ev, int wanted)
{
    int events = 0;
    if ((wanted & SELECT_READ) &&
        (ev & (EPOLLIN | EPOLLRDNORM | EPOLLRDBAND | EPOLLHUP | EPOLLERR)))
        events |= SELECT_READ;
    if ((wanted & SELECT_WRITE) && (ev & (EPOLLOUT | EPOLLWRNORM | EPOLLWRBAND | EPOLLERR)))
        events |= SELECT_WRITE;
    if ((wanted & SELECT_EXCEPT) && (ev & EPOLLPRI))
        events |= SELECT_EXCEPT;
    return events;
}

}  // namespace

cKernelWait::cKernelWait() : m_Events(FD_SETSIZE + 1)
{
    m_Dirty.reserve(FD_SETSIZE);
    m_Ready.reserve(FD_SETSIZE);
}

cKernelWait::~cKernelWait()
{
    Close();
}

const char* cKernelWait::Kind()
{
    return "epoll";
}

bool cKernelWait::Open()
{
    m_EpollFd = ::epoll_create1(EPOLL_CLOEXEC);
    m_ForkGeneration = loop::ForkGeneration();
    m_LastOpenCheck = CoarseMs();
    return m_EpollFd >= 0;
}

void cKernelWait::Close()
{
    if (m_EpollFd >= 0)
        ::close(m_EpollFd);
    m_EpollFd = -1;
    m_WakeIn = -1;
    std::memset(m_State, 0, sizeof m_State);
    m_Dirty.clear();
    m_Always.clear();
}

void cKernelWait::Reset()
{
    // Dropping the instance drops every registration at once. The new one
    // is made now, not at the next wait: by then a registered descriptor may
    // have been closed behind the loop's back, and the instance would take
    // its number.
    Close();
    Open();
}

void cKernelWait::MarkDirty(int fd, bool newOwner)
{
    uint8_t& state = m_State[fd];
    if (!(state & kDirty)) {
        state |= kDirty;
        m_Dirty.push_back(fd);
    }
    if (newOwner)
        state |= kNewOwner;
}

bool cKernelWait::Sync(const sTable& table, int wake)
{
    // A forked child shares its parent's instance: changing it would change
    // the parent's interest. The child gets its own.
    if (m_EpollFd >= 0 && m_ForkGeneration != loop::ForkGeneration())
        Close();
    if (m_EpollFd < 0) {
        Close();
        if (!Open())
            return false;
        for (int fd = 0; fd <= table.highest; ++fd)
            if (TableEvents(table, fd) != 0)
                MarkDirty(fd, true);
    }
    if (wake != m_WakeIn) {
        if (m_WakeIn >= 0)
            ::epoll_ctl(m_EpollFd, EPOLL_CTL_DEL, m_WakeIn, nullptr);
        if (wake >= 0) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.fd = wake;
            ::epoll_ctl(m_EpollFd, EPOLL_CTL_ADD, wake, &ev);
        }
        m_WakeIn = wake;
    }
    bool ok = true;
    for (const int fd : m_Dirty)
        if (!Apply(fd, TableEvents(table, fd)))
            ok = false;
    m_Dirty.clear();
    if (!ok)
        errno = EBADF;
    return ok;
}

bool cKernelWait::Apply(int fd, int wanted)
{
    uint8_t& state = m_State[fd];
    int had = state & kEventBits;
    const bool renew = (state & kNewOwner) != 0;
    if (state & kAlways) {
        if (wanted != 0 && !renew) {
            state = static_cast<uint8_t>(kAlways | wanted);
            return true;
        }
        m_Always.erase(std::remove(m_Always.begin(), m_Always.end(), fd), m_Always.end());
        had = 0;
    }
    state = static_cast<uint8_t>(had);
    if (wanted == had && !renew)
        return true;
    if (wanted == 0) {
        // A descriptor that was closed has left the instance by itself
        // (EBADF or ENOENT here then): nothing to report.
        ::epoll_ctl(m_EpollFd, EPOLL_CTL_DEL, fd, nullptr);
        state = 0;
        return true;
    }
    epoll_event ev{};
    ev.events = ToEpoll(wanted);
    ev.data.fd = fd;
    int op = had != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    int result = ::epoll_ctl(m_EpollFd, op, fd, &ev);
    // ENOENT: the descriptor was closed and its number reused, which took
    // the old file out of the instance; EEXIST: the file is still in.
    if (result < 0 && (errno == ENOENT || errno == EEXIST)) {
        op = errno == ENOENT ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        result = ::epoll_ctl(m_EpollFd, op, fd, &ev);
    }
    if (result == 0) {
        state = static_cast<uint8_t>(wanted);
        return true;
    }
    if (errno == EPERM) {
        // Files epoll cannot watch (regular files) are always ready to
        // select; they stay so here.
        state = static_cast<uint8_t>(kAlways | wanted);
        m_Always.push_back(fd);
        return true;
    }
    state = 0;
    return errno != EBADF;
}

void cKernelWait::Park(int fd)
{
    ::epoll_ctl(m_EpollFd, EPOLL_CTL_DEL, fd, nullptr);
    m_State[fd] = static_cast<uint8_t>(m_State[fd] & ~kEventBits);
}

bool cKernelWait::AllOpen() const
{
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        if ((m_State[fd] & (kEventBits | kAlways)) != 0 && ::fcntl(fd, F_GETFD) < 0 &&
            errno == EBADF)
            return false;
    return true;
}

bool cKernelWait::BlockUntilReady(int timeout) const
{
    if (!kBlockInPoll || timeout == 0)
        return true;
    // The instance is readable when any descriptor in it is ready.
    pollfd p{m_EpollFd, POLLIN, 0};
    return ::poll(&p, 1, timeout) >= 0;
}

int cKernelWait::Wait(unsigned long ms, int wake, bool& wokeUp)
{
    m_Ready.clear();
    wokeUp = false;
    const int timeout = m_Always.empty() ? static_cast<int>(ms) : 0;
    if (!BlockUntilReady(timeout))
        return -1;
    const int n = ::epoll_wait(m_EpollFd, m_Events.data(), static_cast<int>(m_Events.size()),
                               kBlockInPoll ? 0 : timeout);
    if (n < 0)
        return -1;
    for (int i = 0; i < n; ++i) {
        const int fd = m_Events[i].data.fd;
        if (fd == wake) {
            wokeUp = true;
            continue;
        }
        if (fd < 0 || fd >= FD_SETSIZE)
            continue;
        const int events = FromEpoll(m_Events[i].events, m_State[fd] & kEventBits);
        if (events == 0) {
            Park(fd);
            continue;
        }
        m_Ready.push_back(sReady{fd, events, -1});
    }
    for (const int fd : m_Always)
        m_Ready.push_back(sReady{fd, m_State[fd] & (SELECT_READ | SELECT_WRITE), -1});
    // epoll forgets a closed descriptor without a word, where select fails
    // with EBADF. The first pass that ends a second or more after the last
    // check, whatever the wait returned, checks that the descriptors it
    // watches are still open: a loop that keeps passing (traffic on every
    // pass, an always-ready regular file) reports a descriptor closed behind
    // its back within about a second, an idle one when its wait ends (at
    // once when the registration changed: epoll_ctl reports EBADF in Sync).
    const int64_t now = CoarseMs();
    if (now - m_LastOpenCheck >= kOpenCheckMs) {
        m_LastOpenCheck = now;
        if (!AllOpen()) {
            errno = EBADF;
            return -1;
        }
    }
    return static_cast<int>(m_Ready.size());
}

#else

// ---- select -----------------------------------------------------------------------

namespace {

// Copies the words of a set that hold descriptors 0 to top. Returns whether
// any descriptor is in the set.
inline bool CopyWords(fd_set& to, const fd_set& from, int top)
{
    __fd_mask any = __FDS_BITS(&to)[0] = __FDS_BITS(&from)[0];
    for (int w = 1; w <= top / NFDBITS; ++w)
        any |= __FDS_BITS(&to)[w] = __FDS_BITS(&from)[w];
    return any != 0;
}

inline void ZeroWords(fd_set& set, int top)
{
    for (int w = 0; w <= top / NFDBITS; ++w)
        __FDS_BITS(&set)[w] = 0;
}

}  // namespace

cKernelWait::cKernelWait()
{
    m_Ready.reserve(FD_SETSIZE);
    m_Dirty.reserve(FD_SETSIZE);
    Reset();
}

cKernelWait::~cKernelWait() = default;

const char* cKernelWait::Kind()
{
    return "select";
}

void cKernelWait::Reset()
{
    FD_ZERO(&m_WatchRead);
    FD_ZERO(&m_WatchWrite);
    FD_ZERO(&m_WatchExcept);
    std::memset(m_Marked, 0, sizeof m_Marked);
    m_Dirty.clear();
}

void cKernelWait::MarkDirty(int fd, bool)
{
    if (!m_Marked[fd]) {
        m_Marked[fd] = 1;
        m_Dirty.push_back(fd);
    }
}

bool cKernelWait::Sync(const sTable& table, int wake)
{
    for (const int fd : m_Dirty) {
        const int events = table.eventsOf(table.ctx, fd);
        if (events & SELECT_READ)
            FD_SET(fd, &m_WatchRead);
        else
            FD_CLR(fd, &m_WatchRead);
        if (events & SELECT_WRITE)
            FD_SET(fd, &m_WatchWrite);
        else
            FD_CLR(fd, &m_WatchWrite);
        if (events & SELECT_EXCEPT)
            FD_SET(fd, &m_WatchExcept);
        else
            FD_CLR(fd, &m_WatchExcept);
        m_Marked[fd] = 0;
    }
    m_Dirty.clear();
    // Only the words up to the highest descriptor are copied: select reads
    // no further.
    m_Highest = table.highest;
    m_Top = std::max(std::max(m_Highest, wake), 0);
    if (m_Highest < 0) {
        ZeroWords(m_Read, m_Top);
        ZeroWords(m_Write, m_Top);
        ZeroWords(m_Except, m_Top);
        m_WaitWrite = m_WaitExcept = false;
    } else {
        CopyWords(m_Read, m_WatchRead, m_Top);
        m_WaitWrite = CopyWords(m_Write, m_WatchWrite, m_Top);
        m_WaitExcept = CopyWords(m_Except, m_WatchExcept, m_Top);
    }
    if (wake >= 0)
        FD_SET(wake, &m_Read);
    return true;
}

int cKernelWait::Wait(unsigned long ms, int wake, bool& wokeUp)
{
    m_Ready.clear();
    wokeUp = false;
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    // An empty set is passed as none: the kernel then neither copies it in
    // nor back.
    const int n = ::select(std::max(m_Highest, wake) + 1, &m_Read, m_WaitWrite ? &m_Write : nullptr,
                           m_WaitExcept ? &m_Except : nullptr, &tv);
    if (n <= 0)
        return n;
    if (wake >= 0 && FD_ISSET(wake, &m_Read)) {
        wokeUp = true;
        FD_CLR(wake, &m_Read);
    }
    if (!m_WaitWrite)
        ZeroWords(m_Write, m_Top);
    if (!m_WaitExcept)
        ZeroWords(m_Except, m_Top);
    for (int w = 0; w <= m_Top / NFDBITS; ++w) {
        unsigned long bits = static_cast<unsigned long>(__FDS_BITS(&m_Read)[w] | __FDS_BITS(&m_Write)[w] |
                                                        __FDS_BITS(&m_Except)[w]);
        while (bits != 0) {
            const int fd = w * NFDBITS + __builtin_ctzl(bits);
            bits &= bits - 1;
            const int events = (FD_ISSET(fd, &m_Read) ? SELECT_READ : 0) |
                               (FD_ISSET(fd, &m_Write) ? SELECT_WRITE : 0) |
                               (FD_ISSET(fd, &m_Except) ? SELECT_EXCEPT : 0);
            m_Ready.push_back(sReady{fd, events, -1});
        }
    }
    return static_cast<int>(m_Ready.size());
}

#endif

}  // namespace orvo
