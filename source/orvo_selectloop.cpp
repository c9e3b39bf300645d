#define ORVO_SOURCE "orvo_selectloop"
// The select loop of cService: the select table, the armed timers, the
// signal table and the wake-up descriptor. It knows channels and timers
// only; the queue, the service's own sockets and the control messages are
// in orvo_service.cpp.
#include "orvo_selectloop.h"
#include "orvo_kernelwait.h"
#include "orvo_threadid.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>

#include "orvo_channel.h"
#include "orvo_msgtypes.h"
#include "orvo_timer.h"
#include "orvo_trace.h"

namespace orvo {

// Signals: the catcher only marks; the handlers run on a loop thread. Index
// 65 exists because SignalAsyncSelect accepts signal numbers up to 65.
struct sSignalEntry {
    // Atomic (lock-free, so the catcher may set it): of the loops that see a
    // signal, exactly one takes the mark and runs the handler.
    std::atomic<int> pending;
    tSignalHandler handler;
    void* ctx;
};
sSignalEntry mvSignal[66];
std::atomic<int> mHasSignal{0};

namespace {

const unsigned long kMaxIdleMs = 60000;
const int kMaxSignal = 64;

// The process-wide stop flag.
std::atomic<bool> gStop(false);

// One eventfd that wakes every service's select: the signal catcher writes
// to it (a signal may arrive just before a thread enters select, or be
// delivered to another thread), and so does setting the stop flag (the
// other services' loops are blocked in their own selects). It is drained
// only while the process is not stopping, so that every loop sees the stop.
std::atomic<int> gWakeFd(-1);

// A forked child would share the counter with its parent, and either could
// swallow the other's wake-up; the child gets its own at the same number.
std::atomic<unsigned> gForkGeneration(0);

void RenewWakeFdInChild()
{
    gForkGeneration.fetch_add(1);
    const int old = gWakeFd.load();
    if (old < 0)
        return;
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0 || ::dup3(fd, old, O_CLOEXEC) < 0)
        gWakeFd.store(-1);
    if (fd >= 0)
        ::close(fd);
}

void OpenWakeFd()
{
    if (gWakeFd.load() >= 0)
        return;
    static std::once_flag atfork;
    std::call_once(atfork, [] { ::pthread_atfork(nullptr, nullptr, &RenewWakeFdInChild); });
    int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0)
        return;
    if (fd >= FD_SETSIZE) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService: wake descriptor %i >= FD_SETSIZE refused", fd));
        ::close(fd);
        return;
    }
    int expected = -1;
    if (!gWakeFd.compare_exchange_strong(expected, fd))
        ::close(fd);
}

void WakeAll()
{
    int fd = gWakeFd.load();
    if (fd >= 0) {
        uint64_t one = 1;
        ssize_t n = ::write(fd, &one, sizeof one);
        (void)n;
    }
}

void DrainWake()
{
    int fd = gWakeFd.load();
    if (fd >= 0) {
        uint64_t value;
        ssize_t n = ::read(fd, &value, sizeof value);
        (void)n;
    }
}

void SignalCatcher(int sig)
{
    const int saved = errno;
    if (sig > 0 && sig <= 65)
        mvSignal[sig].pending.store(1);
    mHasSignal.store(1);
    WakeAll();
    errno = saved;
}

}  // namespace

namespace loop {

void EnsureWakeFd()
{
    OpenWakeFd();
}

void Wake()
{
    WakeAll();
}

unsigned ForkGeneration()
{
    return gForkGeneration.load(std::memory_order_relaxed);
}

void ClearSignalTable()
{
    for (int i = 0; i <= 65; ++i) {
        mvSignal[i].pending.store(0);
        mvSignal[i].handler = nullptr;
        mvSignal[i].ctx = nullptr;
    }
    mHasSignal.store(0);
}

}  // namespace loop

int cService::SignalAsyncSelect(int sig, tSignalHandler handler, void* ctx)
{
    if (sig < 1 || sig > 65)
        return -1;
    if (mvSignal[sig].handler != nullptr && handler != nullptr)
        return -1;
    mvSignal[sig].handler = handler;
    mvSignal[sig].ctx = ctx;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    // No SA_RESETHAND: the catcher stays installed. No SA_RESTART either, so
    // a blocking call of the program sees EINTR as it would without us.
    sa.sa_handler = handler != nullptr ? &SignalCatcher : SIG_DFL;
    ::sigaction(sig, &sa, nullptr);
    return 0;
}

bool cService::GetStopFlag()
{
    return gStop.load();
}

void cService::SetStopFlag(bool on)
{
    gStop.store(on);
    if (on)
        WakeAll();
    else
        DrainWake();
}

// ---- Select table ---------------------------------------------------------------

void cService::ClearSelectTable()
{
    m_SelectCount = 0;
    m_SelectHighest = 0;
    EmptySelectTable();
}

void cService::EmptySelectTable()
{
    FD_ZERO(&m_ReadSet);
    FD_ZERO(&m_WriteSet);
    FD_ZERO(&m_ExceptSet);
    std::memset(m_Select, 0, sizeof m_Select);
    std::fill(std::begin(m_SlotOfFd), std::end(m_SlotOfFd), int16_t(-1));
    for (std::atomic<uintptr_t>& as : m_RegisteredAs)
        as.store(0, std::memory_order_relaxed);
    if (m_pWait)
        m_pWait->Reset();
}

static_assert(alignof(cChannel) >= 4, "m_RegisteredAs keeps two event bits in a channel's address");

void cService::MirrorLocked(int fd)
{
    const int index = m_SlotOfFd[fd];
    uintptr_t as = 0;
    const int events = GetEventsLocked(fd);
    if (index >= 0 && m_Select[index].fd == fd && m_Select[index].channel != nullptr &&
        m_Select[index].ctx == nullptr && (events & SELECT_EXCEPT) == 0)
        as = reinterpret_cast<uintptr_t>(m_Select[index].channel) | static_cast<uintptr_t>(events);
    m_RegisteredAs[fd].store(as, std::memory_order_relaxed);
}

void cService::UnregisterAll()
{
    std::lock_guard<std::mutex> lock(m_TableLock);
    EmptySelectTable();
}

ORVO_HOT int cService::ChannelAsyncSelect(int fd, int events, cChannel* channel, void* ctx)
{
    return Register(fd, events, channel, ctx, false);
}

ORVO_HOT int cService::Register(int fd, int events, cChannel* channel, void* ctx, bool merge)
{
    ORVO_ASSERT(fd>=0);
    const bool reg = events != 0 && channel != nullptr;
    if (fd >= kMaxSelect) {
        // Never put into an fd_set: that would write past its end.
        if (!reg)
            return 1;
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::ChannelAsyncSelect: descriptor %i >= FD_SETSIZE (%i) "
                                "refused, channel closed",
                                fd, static_cast<int>(kMaxSelect)));
        if (channel->GetFd() == fd)
            channel->Close();
        return -1;
    }

    std::unique_lock<std::mutex> lock(m_TableLock);
    int index = m_SlotOfFd[fd];
    if (index >= 0 && (m_Select[index].fd != fd || m_Select[index].channel == nullptr))
        index = -1;
    if (index < 0 && reg) {
        for (int i = m_SelectCount - 1; i >= 0; --i) {
            if (m_Select[i].channel == nullptr) {
                index = i;
                break;
            }
        }
        if (index < 0) {
            if (m_SelectCount >= kMaxSelect) {
                lock.unlock();
                ORVO_TRACE(UnitORVO, ERROR,
                           FormatString("cService::ChannelAsyncSelect: table full, descriptor %i "
                                        "refused", fd));
                return -1;
            }
            index = m_SelectCount++;
        }
    }

    // Write pending may have been set by a sender of another thread since
    // the caller computed events; its request must not be lost here.
    if (reg && channel->GetFd() == fd && channel->IsWritePending())
        events |= SELECT_WRITE;
    const int before = GetEventsLocked(fd);
    if (merge && index >= 0 && m_Select[index].channel == channel)
        events |= before;
    bool newOwner = false;
    if (reg) {
        sSelectEntry& e = m_Select[index];
        // A new owner of the entry: the pass that is running must not hand
        // it readiness that was seen for the previous owner.
        if (e.channel != channel || e.fd != fd) {
            e.seq = ++m_SelectSeq;
            newOwner = true;
        }
        e.fd = fd;
        e.channel = channel;
        e.ctx = ctx;
        m_SlotOfFd[fd] = static_cast<int16_t>(index);
        if (fd > m_SelectHighest)
            m_SelectHighest = fd;
    } else if (index >= 0) {
        std::memset(&m_Select[index], 0, sizeof m_Select[index]);
        m_SlotOfFd[fd] = -1;
    }

    if (reg && (events & SELECT_READ))
        FD_SET(fd, &m_ReadSet);
    else
        FD_CLR(fd, &m_ReadSet);
    if (reg && (events & SELECT_WRITE))
        FD_SET(fd, &m_WriteSet);
    else
        FD_CLR(fd, &m_WriteSet);
    if (reg && (events & SELECT_EXCEPT))
        FD_SET(fd, &m_ExceptSet);
    else
        FD_CLR(fd, &m_ExceptSet);
    MirrorLocked(fd);
    // The kernel learns of it at the start of the next pass.
    if (newOwner || GetEventsLocked(fd) != before)
        m_pWait->MarkDirty(fd, newOwner);
    return 1;
}

ORVO_HOT int cService::ChannelAsyncSelect(cChannel* channel, int events, void* ctx)
{
    if (channel == nullptr || channel->GetFd() < 0)
        return 0;
    return ChannelAsyncSelect(channel->GetFd(), events, channel, ctx);
}

int cService::GetSelectEvents(int fd) const
{
    if (fd < 0 || fd >= kMaxSelect)
        return 0;
    std::lock_guard<std::mutex> lock(m_TableLock);
    return GetEventsLocked(fd);
}

int cService::GetEventsLocked(int fd) const
{
    return (FD_ISSET(fd, &m_ReadSet) ? SELECT_READ : 0) |
           (FD_ISSET(fd, &m_WriteSet) ? SELECT_WRITE : 0) |
           (FD_ISSET(fd, &m_ExceptSet) ? SELECT_EXCEPT : 0);
}

void cService::AddWriteInterest(cChannel* channel, bool wakeLoop)
{
    const int fd = channel != nullptr ? channel->GetFd() : -1;
    // A descriptor the table cannot hold was refused (and its channel
    // closed) on the loop thread already.
    if (fd < 0 || fd >= kMaxSelect || !channel->IsEnabled())
        return;
    // Added to what the channel has registered (a channel that reads nothing
    // may have no entry yet).
    Register(fd, SELECT_WRITE, channel, nullptr, true);
    if (wakeLoop)
        WakeAll();
}

ORVO_HOT bool cService::IsLoopThread() const
{
    const pid_t loop = m_LoopThread.load(std::memory_order_relaxed);
    return loop == 0 || loop == threadid::Current();
}

void cService::ForgetChannel(cChannel* channel)
{
    std::lock_guard<std::mutex> lock(m_TableLock);
    for (int i = 0; i < m_SelectCount; ++i) {
        if (m_Select[i].channel == channel) {
            const int fd = m_Select[i].fd;
            std::memset(&m_Select[i], 0, sizeof m_Select[i]);
            m_SlotOfFd[fd] = -1;
            FD_CLR(fd, &m_ReadSet);
            FD_CLR(fd, &m_WriteSet);
            FD_CLR(fd, &m_ExceptSet);
            MirrorLocked(fd);
            m_pWait->MarkDirty(fd, false);
        }
    }
}

// ---- Timers ----------------------------------------------------------------------

void cService::TimerAsyncSelect(cTimer* timer, unsigned long ms)
{
    if (timer == nullptr)
        return;
    if (ms == 0) {
        m_Timers.erase(std::remove_if(m_Timers.begin(), m_Timers.end(),
                                      [timer](const sTimerEntry& e) { return e.timer == timer; }),
                       m_Timers.end());
        return;
    }
    const uint64_t due = static_cast<uint64_t>(GetMsecClock()) + ms;
    timer->SetDue(due);
    AddTimerEntry(sTimerEntry{timer, due, 0});
}

void cService::AddTimerEntry(const sTimerEntry& entry)
{
    // Inserted behind every entry due at the same time or earlier: the list
    // stays sorted and equal due times keep their arming order, without the
    // temporary buffer a stable sort would allocate on every WaitSyncMsg.
    const auto at = std::upper_bound(m_Timers.begin(), m_Timers.end(), entry.due,
                                     [](uint64_t due, const sTimerEntry& e) { return due < e.due; });
    m_Timers.insert(at, entry);
}

ORVO_HOT unsigned long cService::ScheduleGetIdleTimeMs() const
{
    if (m_Timers.empty())
        return kMaxIdleMs;
    const long long left = static_cast<long long>(m_Timers.front().due) - GetMsecClock();
    if (left <= 0)
        return 0;
    if (left >= static_cast<long long>(kMaxIdleMs))
        return kMaxIdleMs;
    return static_cast<unsigned long>(left);
}

ORVO_HOT void cService::ScanTimers()
{
    if (m_Timers.empty())
        return;
    const uint64_t now = static_cast<uint64_t>(GetMsecClock());
    const std::vector<sTimerEntry> copy(m_Timers);
    for (const sTimerEntry& due : copy) {
        if (due.due > now)
            break;   // sorted: nothing later is due
        // An earlier OnExec of this scan may have stopped (or deleted) this
        // timer; only entries still armed fire.
        auto it = std::find_if(m_Timers.begin(), m_Timers.end(), [&due](const sTimerEntry& e) {
            return e.timer == due.timer && e.due == due.due && e.wait == due.wait;
        });
        if (it == m_Timers.end())
            continue;
        m_Timers.erase(it);
        if (due.wait != 0) {
            // The time-out of a WaitSyncMsg.
            m_WaitFired.push_back(due.wait);
            cMsg msg(MSG_WAIT_TIMEOUT);
            OnMsg(msg);
        } else {
            due.timer->OnExec();
        }
    }
}

// ---- The loop ---------------------------------------------------------------------

ORVO_HOT void cService::ScheduleSelect()
{
    m_LoopThread.store(threadid::Current(), std::memory_order_relaxed);
    sSelectPass pass;
    const int result = WaitForEvents(pass);
    if (result > 0)
        DispatchReady(pass);
    ScanTimers();
    // Interrupted by a signal of the table: its handlers ran, no error. Any
    // other failure, EINTR from a foreign signal included, is reported.
    if (RunSignalHandlers())
        return;
    if (result == -1)
        ReportSelectError(pass.error);
}

namespace {

// The table lock on the loop's per-pass path, skipped while the process
// has a single thread: then nobody else can change the table, and the two
// lock rounds of every pass are a good part of what a pass costs.
class cPassLock {
public:
    explicit cPassLock(std::mutex& lock) : m_pLock(threadid::SingleThreaded() ? nullptr : &lock)
    {
        if (m_pLock != nullptr)
            m_pLock->lock();
    }
    ~cPassLock()
    {
        if (m_pLock != nullptr)
            m_pLock->unlock();
    }
    cPassLock(const cPassLock&) = delete;
    cPassLock& operator=(const cPassLock&) = delete;

private:
    std::mutex* m_pLock;
};

}  // namespace

ORVO_HOT int cService::WaitForEvents(sSelectPass& pass)
{
    // The wake descriptor joins every wait; with no channel registered the
    // wait is a sleep of the idle time that a signal or a stop can cut short.
    // While the process is stopping it stays readable (every loop must see
    // the stop), so a wait that starts after the stop leaves it out.
    const int wake = gStop.load() ? -1 : gWakeFd.load();
    int count;
    bool synced;
    {
        cPassLock lock(m_TableLock);
        count = m_SelectCount;
        pass.seq = m_SelectSeq;
        const cKernelWait::sTable table{&m_ReadSet, &m_WriteSet, &m_ExceptSet,
                                        count == 0 ? -1 : m_SelectHighest};
        synced = m_pWait->Sync(table, wake);
    }
    if (!synced) {
        // A registered descriptor is no longer open (or the kernel refused
        // the wait): the same failure as a select that found it.
        pass.error = errno;
        return -1;
    }
    // A signal already marked (its wake-up may have been drained by another
    // loop) is handled without waiting.
    const unsigned long idle = mHasSignal.load() ? 0 : ScheduleGetIdleTimeMs();
    bool wokeUp = false;
    int result = m_pWait->Wait(idle, wake, wokeUp);
    pass.error = errno;

    if (m_bTimeStamp)
        m_LastSelected.Now(true);

    if (wokeUp && !gStop.load())
        DrainWake();
    if (count == 0 && result > 0)
        result = 0;
    return result;
}

ORVO_HOT void cService::DispatchReady(const sSelectPass& pass)
{
    // Ready descriptors go to their channels in table order, whatever order
    // the kernel reported them in. Handlers may register, unregister and
    // close: each entry is looked at again just before its hand-on, and one
    // that changed owner since the wait began (a newer registration number)
    // gets nothing.
    // The list is taken out of the kernel wait for the walk: a handler that
    // waits (WaitSyncMsg) runs passes of its own, which refill the wait's.
    std::vector<cKernelWait::sReady> ready;
    ready.swap(m_pWait->Ready());
    {
        cPassLock lock(m_TableLock);
        for (cKernelWait::sReady& r : ready)
            r.index = m_SlotOfFd[r.fd];
    }
    if (ready.size() > 1)
        std::sort(ready.begin(), ready.end(),
                  [](const cKernelWait::sReady& a, const cKernelWait::sReady& b) {
                      return a.index < b.index;
                  });
    for (const cKernelWait::sReady& r : ready) {
        if (r.index < 0)
            continue;
        cChannel* channel;
        {
            cPassLock lock(m_TableLock);
            const sSelectEntry& entry = m_Select[r.index];
            if (r.index >= m_SelectCount || entry.fd != r.fd || entry.channel == nullptr ||
                entry.seq > pass.seq)
                continue;
            channel = entry.channel;
        }
        HandOn(channel, r.fd, r.events);
    }
    // Its storage goes back, so the next pass allocates nothing.
    ready.clear();
    m_pWait->Ready().swap(ready);
}

ORVO_HOT void cService::HandOn(cChannel* channel, int fd, int events)
{
    // Exception readiness alone still reaches the channel, as OnSelect(0).
    if (channel->GetFd() == fd)
        channel->OnSelect(events & (SELECT_READ | SELECT_WRITE));
    else
        ChannelAsyncSelect(fd, 0, nullptr, nullptr);
}

bool cService::RunSignalHandlers()
{
    // Read before the exchange: a pass without a signal (nearly every one)
    // then costs no locked instruction. A mark set just after the read
    // also wrote the wake descriptor, so the next pass comes at once.
    if (mHasSignal.load(std::memory_order_relaxed) == 0 || mHasSignal.exchange(0) == 0)
        return false;
    bool any = false;
    for (int sig = 1; sig <= kMaxSignal; ++sig) {
        if (mvSignal[sig].pending.exchange(0) != 0) {
            any = true;
            if (mvSignal[sig].handler != nullptr)
                mvSignal[sig].handler(this, sig, mvSignal[sig].ctx);
        }
    }
    return any;
}

void cService::ReportSelectError(int error)
{
    ORVO_TRACE(UnitORVO, FATAL, FormatString("select() error, retval=%i", -1));
    if (error == EBADF)
        UnregisterAll();
    cMsg msg(MSG_SELECT_FAILED);
    OnMsg(msg);
}

}  // namespace orvo
