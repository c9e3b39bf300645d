#define ORVO_SOURCE "orvo_selectloop"
// The select loop of a service (cSelectLoop, see orvo_selectloop.h): the
// registration records and table entries, the armed timers, the pass; and
// the process-wide signal table and wake-up descriptor. It knows channels
// and timers only; the queue, the service's own sockets and the control
// messages are in orvo_service.cpp.
#include "orvo_selectloop.h"
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

namespace loop {

ORVO_HOT void WantWriteReady(cChannel& channel, bool wakeLoop)
{
    channel.SetWritePending(true);
    cService* service = channel.GetService();
    if (service == nullptr || service->IsLoopThread()) {
        channel.UpdateSelect();
        return;
    }
    cSelectLoop::Of(service)->AskWrite(&channel, wakeLoop);
}

}  // namespace loop

// ---- cService: what forwards to the loop -----------------------------------------

ORVO_HOT int cService::ChannelAsyncSelect(int fd, int events, cChannel* channel, void* ctx)
{
    return m_pLoop->Register(fd, events, channel, ctx);
}

ORVO_HOT int cService::ChannelAsyncSelect(cChannel* channel, int events, void* ctx)
{
    if (channel == nullptr || channel->GetFd() < 0)
        return 0;
    return m_pLoop->Register(channel->GetFd(), events, channel, ctx);
}

int cService::GetSelectEvents(int fd) const
{
    return m_pLoop->GetEvents(fd);
}

ORVO_HOT bool cService::IsLoopThread() const
{
    return m_pLoop->IsLoopThread();
}

void cService::TimerAsyncSelect(cTimer* timer, unsigned long ms)
{
    m_pLoop->TimerAsyncSelect(timer, ms);
}

ORVO_HOT unsigned long cService::ScheduleGetIdleTimeMs() const
{
    return m_pLoop->GetIdleTimeMs();
}

ORVO_HOT void cService::ScanTimers()
{
    m_pLoop->ScanTimers();
}

size_t cService::GetTimerCount() const
{
    return m_pLoop->GetTimerCount();
}

ORVO_HOT void cService::ScheduleSelect()
{
    m_pLoop->Pass();
}

// ---- Registration -----------------------------------------------------------------

static_assert(cSelectLoop::kMaxSelect % 64 == 0, "a whole number of ask words");

cSelectLoop::cSelectLoop(cService& owner) : m_Owner(owner)
{
    for (std::atomic<uint64_t>& bits : m_AskBits)
        bits.store(0, std::memory_order_relaxed);
    for (std::atomic<cChannel*>& asker : m_Asker)
        asker.store(nullptr, std::memory_order_relaxed);
    Clear();
}

cSelectLoop::~cSelectLoop() = default;

void cSelectLoop::Clear()
{
    m_Count = 0;
    m_Highest = 0;
    Empty();
}

void cSelectLoop::Empty()
{
    std::memset(m_Rec, 0, sizeof m_Rec);
    for (sRecord& r : m_Rec)
        r.index = -1;
    std::fill(std::begin(m_FdOfEntry), std::end(m_FdOfEntry), int16_t(-1));
    m_Wait.Reset();
}

std::unique_lock<std::mutex> cSelectLoop::PreLoopLock() const
{
    // Before the first pass every thread counts as the loop thread
    // (IsLoopThread), so two could register at once; from the first pass on
    // only the loop thread does, and the lock is no longer taken.
    if (m_LoopThread.load(std::memory_order_acquire) != 0 || threadid::SingleThreaded())
        return std::unique_lock<std::mutex>();
    return std::unique_lock<std::mutex>(m_PreLoop);
}

ORVO_HOT int cSelectLoop::Register(int fd, int events, cChannel* channel, void* ctx)
{
    ORVO_ASSERT(fd>=0);
    if (fd >= kMaxSelect) {
        // Never put into a descriptor set: that would write past its end.
        if (events == 0 || channel == nullptr)
            return 1;
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::ChannelAsyncSelect: descriptor %i >= FD_SETSIZE (%i) "
                                "refused, channel closed",
                                fd, static_cast<int>(kMaxSelect)));
        if (channel->GetFd() == fd)
            channel->Close();
        return -1;
    }
    std::unique_lock<std::mutex> lock = PreLoopLock();
    if (lock.owns_lock() && !IsLoopThread() && events != 0 && channel != nullptr &&
        (events & SELECT_WRITE) && channel->GetFd() == fd) {
        // The first pass began on another thread while this one waited for
        // the lock: from now on this thread is a foreign sender, whose write
        // request the loop applies.
        lock.unlock();
        AskWrite(channel, true);
        return 1;
    }
    const int result = RegisterLocked(fd, events, channel, ctx, false);
    if (result != kTableFull)
        return result;
    if (lock.owns_lock())
        lock.unlock();
    TraceTableFull(fd);
    return -1;
}

void cSelectLoop::TraceTableFull(int fd)
{
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("cService::ChannelAsyncSelect: table full, descriptor %i refused", fd));
}

void cSelectLoop::UpdateChannelSlow(cChannel* channel, int fd, int events)
{
    if (fd < 0)
        return;
    // Before the first pass the check needs the lock.
    if (fd < kMaxSelect && (events & SELECT_EXCEPT) == 0) {
        std::unique_lock<std::mutex> lock = PreLoopLock();
        const sRecord& r = m_Rec[fd];
        if (r.index >= 0 && r.channel == channel && r.ctx == nullptr && r.events == events)
            return;
    }
    Register(fd, events, channel, nullptr);
}

ORVO_HOT int cSelectLoop::RegisterLocked(int fd, int events, cChannel* channel, void* ctx, bool merge)
{
    const bool reg = events != 0 && channel != nullptr;
    sRecord& r = m_Rec[fd];
    int index = r.index;
    if (index < 0 && reg) {
        // The last free entry among those used, else a new one at the end.
        for (int i = m_Count - 1; i >= 0; --i) {
            if (m_FdOfEntry[i] < 0) {
                index = i;
                break;
            }
        }
        if (index < 0) {
            if (m_Count >= kMaxSelect)
                return kTableFull;   // traced by the caller, with no lock held
            index = m_Count++;
        }
    }
    if (!reg) {
        if (index >= 0)
            Unregister(fd);
        return 1;
    }

    // Write pending may have been set by a sender of another thread since
    // the caller computed events; its request must not be lost here.
    if (channel->GetFd() == fd && channel->IsWritePending())
        events |= SELECT_WRITE;
    const int before = r.index >= 0 ? r.events : 0;
    if (merge && r.index >= 0 && r.channel == channel)
        events |= before;
    events &= SELECT_READ | SELECT_WRITE | SELECT_EXCEPT;
    // A new owner of the descriptor: the pass that is running must not hand
    // it readiness that was seen for the previous owner.
    const bool newOwner = r.index < 0 || r.channel != channel;
    if (newOwner)
        r.seq = ++m_Seq;
    r.channel = channel;
    r.ctx = ctx;
    r.index = static_cast<int16_t>(index);
    r.events = static_cast<uint8_t>(events);
    m_FdOfEntry[index] = static_cast<int16_t>(fd);
    if (fd > m_Highest)
        m_Highest = fd;
    // The kernel learns of it at the start of the next pass.
    if (newOwner || events != before)
        m_Wait.MarkDirty(fd, newOwner);
    return 1;
}

void cSelectLoop::Unregister(int fd)
{
    sRecord& r = m_Rec[fd];
    if (r.index < 0)
        return;
    m_FdOfEntry[r.index] = -1;
    const bool had = r.events != 0;
    std::memset(&r, 0, sizeof r);
    r.index = -1;
    if (had)
        m_Wait.MarkDirty(fd, false);
}

int cSelectLoop::GetEvents(int fd) const
{
    if (fd < 0 || fd >= kMaxSelect)
        return 0;
    std::unique_lock<std::mutex> lock = PreLoopLock();
    return m_Rec[fd].index >= 0 ? m_Rec[fd].events : 0;
}

int cSelectLoop::EventsOf(const void* self, int fd)
{
    const sRecord& r = static_cast<const cSelectLoop*>(self)->m_Rec[fd];
    return r.index >= 0 ? r.events : 0;
}

void cSelectLoop::ForgetChannel(cChannel* channel)
{
    std::unique_lock<std::mutex> lock = PreLoopLock();
    for (int i = 0; i < m_Count; ++i) {
        const int fd = m_FdOfEntry[i];
        if (fd >= 0 && m_Rec[fd].channel == channel)
            Unregister(fd);
    }
    // A write request it made and the loop has not applied yet.
    if (m_AnyAsk.load(std::memory_order_acquire)) {
        for (int w = 0; w < kMaxSelect / 64; ++w) {
            uint64_t bits = m_AskBits[w].load(std::memory_order_acquire);
            while (bits != 0) {
                const int fd = w * 64 + __builtin_ctzll(bits);
                bits &= bits - 1;
                cChannel* expected = channel;
                m_Asker[fd].compare_exchange_strong(expected, nullptr);
            }
        }
    }
}

void cSelectLoop::AskWrite(cChannel* channel, bool wakeLoop)
{
    const int fd = channel != nullptr ? channel->GetFd() : -1;
    // A descriptor the table cannot hold was refused (and its channel
    // closed) on the loop thread already.
    if (fd < 0 || fd >= kMaxSelect || !channel->IsEnabled())
        return;
    m_Asker[fd].store(channel, std::memory_order_release);
    m_AskBits[fd / 64].fetch_or(uint64_t(1) << (fd % 64), std::memory_order_acq_rel);
    m_AnyAsk.store(true, std::memory_order_release);
    if (wakeLoop)
        WakeAll();
}

ORVO_HOT void cSelectLoop::ApplyWriteAsks()
{
    // One load per pass while nobody asked: the common case.
    if (!m_AnyAsk.load(std::memory_order_relaxed) || !m_AnyAsk.exchange(false))
        return;
    for (int w = 0; w < kMaxSelect / 64; ++w) {
        uint64_t bits = m_AskBits[w].load(std::memory_order_relaxed) != 0
                            ? m_AskBits[w].exchange(0, std::memory_order_acq_rel)
                            : 0;
        while (bits != 0) {
            const int fd = w * 64 + __builtin_ctzll(bits);
            bits &= bits - 1;
            cChannel* channel = m_Asker[fd].exchange(nullptr, std::memory_order_acq_rel);
            // The channel is alive: its destructor (this thread's) takes its
            // request back. It may have moved to another descriptor or been
            // disabled since it asked.
            if (channel == nullptr || channel->GetFd() != fd || !channel->IsEnabled())
                continue;
            // Added to what the channel has registered (a channel that reads
            // nothing may have no registration yet).
            if (RegisterLocked(fd, SELECT_WRITE, channel, nullptr, true) == kTableFull)
                TraceTableFull(fd);
        }
    }
}

// ---- Loop thread ------------------------------------------------------------------

ORVO_HOT void cSelectLoop::EnterLoopThread()
{
    const pid_t self = threadid::Current();
    if (m_LoopThread.load(std::memory_order_relaxed) == self)
        return;
    if (m_LoopThread.load(std::memory_order_relaxed) == 0) {
        // Waits for a registration of another thread that started while any
        // thread still counted as the loop thread.
        std::lock_guard<std::mutex> lock(m_PreLoop);
        m_LoopThread.store(self, std::memory_order_release);
        return;
    }
    m_LoopThread.store(self, std::memory_order_release);
}

ORVO_HOT bool cSelectLoop::IsLoopThread() const
{
    const pid_t loop = m_LoopThread.load(std::memory_order_relaxed);
    return loop == 0 || loop == threadid::Current();
}

// ---- Timers ----------------------------------------------------------------------

void cSelectLoop::TimerAsyncSelect(cTimer* timer, unsigned long ms)
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

void cSelectLoop::AddWaitTimeout(uint64_t due, uint32_t wait)
{
    AddTimerEntry(sTimerEntry{nullptr, due, wait});
}

bool cSelectLoop::RemoveWaitTimeout(uint32_t wait)
{
    m_Timers.erase(std::remove_if(m_Timers.begin(), m_Timers.end(),
                                  [wait](const sTimerEntry& e) { return e.wait == wait; }),
                   m_Timers.end());
    auto fired = std::find(m_WaitFired.begin(), m_WaitFired.end(), wait);
    if (fired == m_WaitFired.end())
        return false;
    m_WaitFired.erase(fired);
    return true;
}

void cSelectLoop::AddTimerEntry(const sTimerEntry& entry)
{
    // Inserted behind every entry due at the same time or earlier: the list
    // stays sorted and equal due times keep their arming order, without the
    // temporary buffer a stable sort would allocate on every WaitSyncMsg.
    const auto at = std::upper_bound(m_Timers.begin(), m_Timers.end(), entry.due,
                                     [](uint64_t due, const sTimerEntry& e) { return due < e.due; });
    m_Timers.insert(at, entry);
}

ORVO_HOT unsigned long cSelectLoop::GetIdleTimeMs() const
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

ORVO_HOT void cSelectLoop::ScanTimers()
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
            m_Owner.OnMsg(msg);
        } else {
            due.timer->OnExec();
        }
    }
}

// ---- The pass ---------------------------------------------------------------------

ORVO_HOT void cSelectLoop::Pass()
{
    EnterLoopThread();
    sPass pass;
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

ORVO_HOT int cSelectLoop::WaitForEvents(sPass& pass)
{
    // The wake descriptor joins every wait; with no channel registered the
    // wait is a sleep of the idle time that a signal or a stop can cut short.
    // While the process is stopping it stays readable (every loop must see
    // the stop), so a wait that starts after the stop leaves it out.
    const int wake = gStop.load() ? -1 : gWakeFd.load();
    // Write readiness other threads asked for since the last pass.
    ApplyWriteAsks();
    const int count = m_Count;
    pass.seq = m_Seq;
    const cKernelWait::sTable table{&EventsOf, this, count == 0 ? -1 : m_Highest};
    if (!m_Wait.Sync(table, wake)) {
        // A registered descriptor is no longer open (or the kernel refused
        // the wait): the same failure as a select that found it.
        pass.error = errno;
        return -1;
    }
    // A signal already marked (its wake-up may have been drained by another
    // loop) is handled without waiting.
    const unsigned long idle = mHasSignal.load() ? 0 : GetIdleTimeMs();
    bool wokeUp = false;
    int result = m_Wait.Wait(idle, wake, wokeUp);
    pass.error = errno;

    if (m_Owner.m_bTimeStamp)
        m_Owner.m_LastSelected.Now(true);

    if (wokeUp && !gStop.load())
        DrainWake();
    if (count == 0 && result > 0)
        result = 0;
    return result;
}

ORVO_HOT void cSelectLoop::DispatchReady(const sPass& pass)
{
    // Ready descriptors go to their channels in table order, whatever order
    // the kernel reported them in. Handlers may register, unregister and
    // close: each record is looked at again just before its hand-on, and one
    // that changed owner since the wait began (a newer registration number)
    // gets nothing.
    // The list is taken out of the kernel wait for the walk: a handler that
    // waits (WaitSyncMsg) runs passes of its own, which refill the wait's.
    std::vector<cKernelWait::sReady> ready;
    ready.swap(m_Wait.Ready());
    for (cKernelWait::sReady& r : ready)
        r.index = m_Rec[r.fd].index;
    if (ready.size() > 1)
        std::sort(ready.begin(), ready.end(),
                  [](const cKernelWait::sReady& a, const cKernelWait::sReady& b) {
                      return a.index < b.index;
                  });
    for (const cKernelWait::sReady& r : ready) {
        if (r.index < 0)
            continue;
        const sRecord& rec = m_Rec[r.fd];
        if (rec.index != r.index || rec.channel == nullptr || rec.seq > pass.seq)
            continue;
        HandOn(rec.channel, r.fd, r.events);
    }
    // Its storage goes back, so the next pass allocates nothing.
    ready.clear();
    m_Wait.Ready().swap(ready);
}

ORVO_HOT void cSelectLoop::HandOn(cChannel* channel, int fd, int events)
{
    // Exception readiness alone still reaches the channel, as OnSelect(0).
    if (channel->GetFd() == fd)
        channel->OnSelect(events & (SELECT_READ | SELECT_WRITE));
    else
        Register(fd, 0, nullptr, nullptr);
}

bool cSelectLoop::RunSignalHandlers()
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
                mvSignal[sig].handler(&m_Owner, sig, mvSignal[sig].ctx);
        }
    }
    return any;
}

void cSelectLoop::ReportSelectError(int error)
{
    ORVO_TRACE(UnitORVO, FATAL, FormatString("select() error, retval=%i", -1));
    if (error == EBADF) {
        // The whole table unregistered; count and highest descriptor stay.
        std::unique_lock<std::mutex> lock = PreLoopLock();
        Empty();
    }
    cMsg msg(MSG_SELECT_FAILED);
    m_Owner.OnMsg(msg);
}

}  // namespace orvo
