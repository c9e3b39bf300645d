#define ORVO_SOURCE "orvo_service"
#include "orvo_service.h"

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
#include <list>
#include <map>
#include <mutex>

#include "orvo_channel.h"
#include "orvo_handle.h"
#include "orvo_hooks.h"
#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_record.h"
#include "orvo_snoop.h"
#include "orvo_socket.h"
#include "orvo_statem.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "tesk.h"

namespace orvo {

cService* mMainService = nullptr;

// Signals: the catcher only marks; the handlers run on a loop thread. Index
// 65 exists because SignalAsyncSelect accepts signal numbers up to 65.
struct sSignalEntry {
    volatile sig_atomic_t pending;
    tSignalHandler handler;
    void* ctx;
};
sSignalEntry mvSignal[66];
volatile sig_atomic_t mHasSignal = 0;

namespace {

const unsigned long kMsgSelectFailed = 0x1003;
const unsigned long kMsgInterrupt = 0x1004;
const unsigned long kMsgTerminate = 0x1005;
const unsigned long kMsgStop = 0x1006;
const unsigned long kMsgWaitTimeout = 0x2015;
const unsigned long kMsgSocketData = 0x3001;
const unsigned long kMsgSocketWritable = 0x3002;
const unsigned long kMsgInRecord = 0x3004;
const unsigned long kMsgPeerIdentified = 0x4002;
const unsigned long kMsgChannelClosed = 0x4003;
const unsigned long kMsgTraceOn = 0x7000;
const unsigned long kMsgTraceOff = 0x7001;
const unsigned long kMsgTraceOutput = 0x7002;
const unsigned long kMsgSnoopOn = 0x7003;
const unsigned long kMsgSnoopOff = 0x7004;
const unsigned long kMsgSnoopReport = 0x7005;
const unsigned long kMsgServiceInfoReq = 0x7006;
const unsigned long kMsgServiceInfo = 0x7007;
const unsigned long kMsgScmTraceLog = 0x10190;

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
void RenewWakeFdInChild()
{
    const int old = gWakeFd.load();
    if (old < 0)
        return;
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0 || ::dup3(fd, old, O_CLOEXEC) < 0)
        gWakeFd.store(-1);
    if (fd >= 0)
        ::close(fd);
}

void EnsureWakeFd()
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

void Wake()
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
        mvSignal[sig].pending = 1;
    mHasSignal = 1;
    Wake();
    errno = saved;
}

void SigNothing(cService*, int, void*)
{
}

void SigIgnore(cService*, int sig, void*)
{
    std::printf("SignalIgnr sig=%i \n", sig);
    std::fflush(stdout);
}

void SigTerm(cService* service, int, void*)
{
    cMsg msg(kMsgTerminate);
    service->OnMsg(msg);
}

void SigInt(cService* service, int, void*)
{
    cMsg msg(kMsgInterrupt);
    service->OnMsg(msg);
}

// Snoop subscribers, guarded by one process-wide lock. Neither is ever
// destroyed, so late reports during process exit stay safe.
cCriticalSection& SnoopLock()
{
    static cCriticalSection* lock = new cCriticalSection();
    return *lock;
}
std::list<cChannel*>* gSnoop = nullptr;
// Size of the snoop list, read without the lock: every message handed out
// asks whether anyone snoops, and almost always no one does.
std::atomic<int> gSnoopCount{0};

bool IsStopType(unsigned long type)
{
    return type == kMsgInterrupt || type == kMsgStop || type == kMsgTerminate;
}

// A state machine is alive while it is in the handle table.
bool StatemAlive(cStateMachine* sm)
{
    uint32_t h = HandleOf(sm);
    return h != 0 && HandleResolve(h, HANDLE_STATEM) == static_cast<void*>(sm);
}

bool SameObject(const void* a, const cObject* b)
{
    return a != nullptr && a == static_cast<const void*>(b);
}

// ---- Hooks for the runtime frame (orvo_hooks.h) ---------------------------

bool MainServiceInfo(cUuid& id, std::string& name)
{
    cService* main = mMainService;
    if (main == nullptr)
        return false;
    id = main->GetServiceId();
    name = main->GetObjName();
    return true;
}

// A trace raised while the trace itself is being posted (the send path may
// trace) would post again without end; such nested traces are dropped here.
thread_local bool tInMainServiceSend = false;

void MainServiceSend(cMsg& msg)
{
    cService* main = mMainService;
    if (main == nullptr || tInMainServiceSend)
        return;
    tInMainServiceSend = true;
    main->SendToInternal(main, msg);
    tInMainServiceSend = false;
}

int TraceChannelSend(cChannel* ch, cMsg& msg)
{
    if (ch == nullptr)
        return -1;
    ch->SetWriteReadyMsg(0);
    return ch->Send(msg);
}

void ServiceInitGlobal()
{
    cService::InitGlobal();
}

struct sInstallHooks {
    sInstallHooks()
    {
        hooks::MainServiceInfo = &MainServiceInfo;
        hooks::MainServiceSend = &MainServiceSend;
        hooks::TraceChannelSend = &TraceChannelSend;
        hooks::ServiceInitGlobal = &ServiceInitGlobal;
    }
} gInstallHooks;

}  // namespace

// ---- Process-wide set-up ------------------------------------------------------

bool cService::InitGlobal()
{
    for (int i = 0; i <= 65; ++i) {
        mvSignal[i].pending = 0;
        mvSignal[i].handler = nullptr;
        mvSignal[i].ctx = nullptr;
    }
    mHasSignal = 0;
    EnsureWakeFd();
    SignalAsyncSelect(SIGPIPE, &SigNothing, nullptr);
    SignalAsyncSelect(SIGALRM, &SigIgnore, nullptr);
    SignalAsyncSelect(SIGHUP, &SigIgnore, nullptr);
    SignalAsyncSelect(SIGTSTP, &SigIgnore, nullptr);
    SignalAsyncSelect(SIGTTIN, &SigIgnore, nullptr);
    SignalAsyncSelect(SIGTTOU, &SigIgnore, nullptr);
    SignalAsyncSelect(SIGTERM, &SigTerm, nullptr);
    SignalAsyncSelect(SIGINT, &SigInt, nullptr);
    return true;
}

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
        Wake();
    else
        DrainWake();
}

// ---- Construction -------------------------------------------------------------

cService::cService()
    : m_SelectCount(0),
      m_SelectHighest(0),
      m_pSapSocket(nullptr),
      m_bTimeStamp(false),
      m_LastHandOut(0),
      m_pInternalSocket(nullptr),
      m_bThreadService(false),
      m_TimelostMs(8000),
      m_QueueLimit(200),
      m_pSendLock(new cCriticalSection()),
      m_SelectSeq(0)
{
    ClearSelectTable();
}

cService::~cService()
{
    DeInit();
    delete m_pSendLock;
    m_pSendLock = nullptr;
    if (mMainService == this)
        mMainService = nullptr;
}

std::string cService::ToString() const
{
    std::string s = "{ " + cObject::ToString();
    if (m_pSapSocket != nullptr)
        s += ", sap_socket=" + m_pSapSocket->ToString();
    s += FormatString(", pid=%i", GetPid());
    if (m_ServiceId.IsValid())
        s += ", id=" + m_ServiceId.ToString();
    s += " }";
    return s;
}

cSocketAddr cService::GetSapAddress() const
{
    return m_pSapSocket != nullptr ? m_pSapSocket->GetLocalAddress() : cSocketAddr();
}

cSocketAddr cService::GetInternalAddress() const
{
    return m_pInternalSocket != nullptr ? m_pInternalSocket->GetLocalAddress() : cSocketAddr();
}

bool cService::Init(const std::string& name, cSocketAddr sap)
{
    // A second Init starts over with fresh sockets.
    CloseSockets();

    SetObjName(name);
    if (mMainService == nullptr && !m_bThreadService)
        mMainService = this;

    m_ServiceId.Create();
    {
        std::lock_guard<std::mutex> lock(m_TableLock);
        ClearSelectTable();
    }
    EnsureWakeFd();

    if (sap.IsEmpty() && !m_bThreadService)
        sap = cSocketAddr(static_cast<unsigned long>(INADDR_ANY), static_cast<unsigned short>(
                                          GetConfig()->GetFirstPar("port").GetUInt()));

    m_pSapSocket = new cTcpServer<cMsgTcpSocket>(this, sap, nullptr);
    m_pSapSocket->SetObjName("sapSocket");
    if (m_pSapSocket->Run() < 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::Init: sap socket %s failed: %s", sap.ToString().c_str(),
                                std::strerror(errno)));

    m_pInternalSocket = new cMsgUdpSocket(this, nullptr);
    m_pInternalSocket->SetObjName("internal");
    m_pInternalSocket->SetNoSnoop(true);
    if (m_pInternalSocket->Socket(AF_INET, SOCK_DGRAM, 0) < 0 ||
        m_pInternalSocket->Bind(cSocketAddr("127.0.0.1", 0)) != 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::Init: internal socket failed: %s", std::strerror(errno)));

    const std::string sapText = m_pSapSocket->GetLocalAddress().ToString();
    if (!m_bThreadService) {
        ORVO_TRACE(UnitORVO, ALL,
                   "Start service=" + name + ", sap=" + sapText + FormatString(", pid=%i", GetPid()) +
                       ", orvo-ver=" + GetOrvoVersion() + ", tesk-ver=" + GetTeskVersion());
    } else {
        ORVO_TRACE(UnitORVO, DEBUG,
                   "Start thread service=" + name + ", sap-socket=" + sapText +
                       ", internal-socket=" + m_pInternalSocket->GetLocalAddress().ToString() +
                       FormatString(", pid=%i", GetPid()));
    }
    return true;
}

void cService::CloseSockets()
{
    // Accepted connections waiting for deletion go first: closing the sap
    // socket deletes every client it still lists.
    RunDeferredDeletion();
    if (m_pSapSocket != nullptr) {
        cTcpServer<cMsgTcpSocket>* sap = m_pSapSocket;
        m_pSapSocket = nullptr;
        sap->Close();
        delete sap;
    }
    if (m_pInternalSocket != nullptr) {
        cMsgUdpSocket* internal = m_pInternalSocket;
        {
            cCriticalSection& lock = *m_pSendLock;
            lock.Enter();
            m_pInternalSocket = nullptr;
            lock.Leave();
        }
        internal->Close();
        delete internal;
    }

}

void cService::DeInit()
{
    CloseSockets();
    m_Timers.clear();
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
}

void cService::UnregisterAll()
{
    std::lock_guard<std::mutex> lock(m_TableLock);
    EmptySelectTable();
}

ORVO_HOT int cService::ChannelAsyncSelect(int fd, int events, cChannel* channel, void* ctx)
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

    if (reg) {
        sSelectEntry& e = m_Select[index];
        // A new owner of the entry: the pass that is running must not hand
        // it readiness that was seen for the previous owner.
        if (e.channel != channel || e.fd != fd)
            e.seq = ++m_SelectSeq;
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
    return (FD_ISSET(fd, &m_ReadSet) ? SELECT_READ : 0) |
           (FD_ISSET(fd, &m_WriteSet) ? SELECT_WRITE : 0) |
           (FD_ISSET(fd, &m_ExceptSet) ? SELECT_EXCEPT : 0);
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
    // Appended, then sorted stably: equal due times keep their arming order.
    m_Timers.push_back(entry);
    std::stable_sort(m_Timers.begin(), m_Timers.end(),
                     [](const sTimerEntry& a, const sTimerEntry& b) { return a.due < b.due; });
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
            cMsg msg(kMsgWaitTimeout);
            OnMsg(msg);
        } else {
            due.timer->OnExec();
        }
    }
}

// ---- The loop ---------------------------------------------------------------------

ORVO_HOT void cService::ScheduleSelect()
{
    fd_set readSet, writeSet, exceptSet;
    int highest;
    int count;
    uint32_t passSeq;
    {
        std::lock_guard<std::mutex> lock(m_TableLock);
        readSet = m_ReadSet;
        writeSet = m_WriteSet;
        exceptSet = m_ExceptSet;
        highest = m_SelectHighest;
        count = m_SelectCount;
        passSeq = m_SelectSeq;
    }
    // A signal already marked (its wake-up may have been drained by another
    // loop) is handled without waiting.
    const unsigned long idle = mHasSignal ? 0 : ScheduleGetIdleTimeMs();
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(idle / 1000);
    tv.tv_usec = static_cast<suseconds_t>((idle % 1000) * 1000);

    // The wake descriptor joins every wait; with no channel registered the
    // wait is a sleep of the idle time that a signal or a stop can cut short.
    const int wake = gWakeFd.load();
    if (count == 0) {
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        FD_ZERO(&exceptSet);
        highest = -1;
    }
    if (wake >= 0) {
        FD_SET(wake, &readSet);
        if (wake > highest)
            highest = wake;
    }

    // A thread service may be cancelled (cMsgThread::Terminate) only here,
    // where it holds no lock.
    int oldState = 0;
    if (m_bThreadService)
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &oldState);
    int result = ::select(highest + 1, &readSet, &writeSet, &exceptSet, &tv);
    const int selectErrno = errno;
    if (m_bThreadService)
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);

    if (m_bTimeStamp)
        m_LastSelected.Now(true);

    // A signal that interrupted select is no error: no events.
    if (result < 0 && selectErrno == EINTR)
        result = 0;
    if (result > 0 && wake >= 0 && FD_ISSET(wake, &readSet)) {
        if (!gStop.load())
            DrainWake();
        --result;
    }
    if (count == 0 && result > 0)
        result = 0;

    if (result > 0) {
        // The table lock is held while looking for ready entries and given
        // up around each handler (handlers register and unregister). The
        // count is re-read on every step: handlers may register more. The
        // walk ends once every descriptor select reported has been handed on.
        int pending = result;
        std::unique_lock<std::mutex> lock(m_TableLock);
        for (int i = 0; pending > 0 && i < m_SelectCount; ++i) {
            const sSelectEntry& entry = m_Select[i];
            // Registered after the select started: its descriptor's state
            // in the copied sets belonged to someone else.
            if (entry.channel == nullptr || entry.seq > passSeq)
                continue;
            const int fd = entry.fd;
            const bool readable = FD_ISSET(fd, &readSet);
            const bool writable = FD_ISSET(fd, &writeSet);
            const bool exceptional = FD_ISSET(fd, &exceptSet);
            if (!readable && !writable && !exceptional)
                continue;
            // Each set counts once in select's result; a descriptor is
            // handed on once.
            pending -= int(readable) + int(writable) + int(exceptional);
            FD_CLR(fd, &readSet);
            FD_CLR(fd, &writeSet);
            FD_CLR(fd, &exceptSet);
            cChannel* channel = entry.channel;
            lock.unlock();
            if (channel->GetFd() == fd)
                channel->OnSelect((readable ? SELECT_READ : 0) | (writable ? SELECT_WRITE : 0));
            else
                ChannelAsyncSelect(fd, 0, nullptr, nullptr);
            lock.lock();
        }
    }

    ScanTimers();

    if (mHasSignal) {
        mHasSignal = 0;
        bool any = false;
        for (int sig = 1; sig <= kMaxSignal; ++sig) {
            if (mvSignal[sig].pending) {
                mvSignal[sig].pending = 0;
                any = true;
                if (mvSignal[sig].handler != nullptr)
                    mvSignal[sig].handler(this, sig, mvSignal[sig].ctx);
            }
        }
        if (any)
            return;
    }

    if (result == -1) {
        ORVO_TRACE(UnitORVO, FATAL, FormatString("select() error, retval=%i", result));
        if (selectErrno == EBADF)
            UnregisterAll();
        cMsg msg(kMsgSelectFailed);
        OnMsg(msg);
    }
}

ORVO_HOT bool cService::GetMessage(cMsg& msg)
{
    if (m_LastHandOut != 0) {
        const long long lost = GetMsecClock() - m_LastHandOut;
        if (lost >= m_TimelostMs)
            ORVO_TRACE(UnitORVO, ALL,
                       FormatString("hint: time lost (%Li ms) in application", lost));
    }
    // The message handed out last has been handled by now: a channel whose
    // close message it was goes at the start of this call.
    PostHdlMessage(m_LastMsg);
    m_LastMsg.Create();
    RunDeferredDeletion();

    for (;;) {
        PostHdlMessage(m_LastMsg);
        if (m_MsgQ.empty()) {
            if (gStop.load())
                return false;
            ScheduleSelect();
        }
        if (m_MsgQ.empty()) {
            msg.Create();
            m_LastMsg.Create();
            continue;
        }
        msg = m_MsgQ.back();
        m_MsgQ.pop_back();
        m_LastMsg = msg;
        SendSnoop(this, msg, SNOOP_RECEIVE);
        if (IsStopType(msg.GetType()))
            SetStopFlag(true);
        if (!PreDispatchMessage(msg))
            break;
    }
    m_LastHandOut = GetMsecClock();
    return true;
}

void cService::TimelostTrigger()
{
    m_LastHandOut = GetMsecClock();
}

ORVO_HOT void cService::PostHdlMessage(cMsg& msg)
{
    cChannel* ch = msg.GetChannel();
    if (msg.GetType() != kMsgChannelClosed || ch == nullptr || !ch->GetDeleteAfterClose())
        return;
    if (std::find(m_Deferred.begin(), m_Deferred.end(), ch) == m_Deferred.end())
        m_Deferred.push_back(ch);
}

ORVO_HOT void cService::RunDeferredDeletion()
{
    // Each destructor removes its object from the list (RemoveMsgsByObject),
    // so take one at a time.
    while (!m_Deferred.empty()) {
        cObject* obj = m_Deferred.back();
        m_Deferred.pop_back();
        delete obj;
    }
}

void cService::RemoveMsgsByObject(const cObject* obj)
{
    if (obj == nullptr)
        return;
    auto names = [obj](const cMsg& m) {
        return SameObject(m.GetChannel() ? static_cast<const cObject*>(m.GetChannel()) : nullptr,
                          obj) ||
               SameObject(m.GetStatem(), obj) || SameObject(m.GetTimer(), obj);
    };
    m_MsgQ.erase(std::remove_if(m_MsgQ.begin(), m_MsgQ.end(), names), m_MsgQ.end());
    if (names(m_LastMsg))
        m_LastMsg.Create();
    m_Deferred.erase(std::remove(m_Deferred.begin(), m_Deferred.end(), obj), m_Deferred.end());
}

ORVO_HOT void cService::OnMsg(cMsg& msg)
{
    if (msg.GetType() == kMsgPeerIdentified && msg.GetChannel() != nullptr) {
        cChannel* ch = msg.GetChannel();
        cRecordPar par = msg.GetRecord().GetFirstPar("peer-name");
        if (par.IsValid())
            ch->SetPeerName(par.GetString());
        par = msg.GetRecord().GetFirstPar("peer-id");
        if (par.IsValid()) {
            cUuid id;
            par.GetUuid(id);
            ch->SetPeerId(id);
        }
    }
    if (msg.GetType() == kMsgInRecord) {
        // The carried message is delivered as it is, never unpacked again.
        const cRecord rec(msg.GetRecord());
        cMsg inner;
        inner.FromRecord(rec);
        Deliver(inner);
        return;
    }
    Deliver(msg);
}

ORVO_HOT void cService::Deliver(cMsg& msg)
{
    cStateMachine* sm = msg.GetStatem();
    if (sm == nullptr) {
        m_MsgQ.push_front(msg);
        if (m_MsgQ.size() > m_QueueLimit) {
            ORVO_TRACE(UnitORVO, ERROR, "cService::m_msgQ overload; msg=" + msg.ToString());
            // Deliberately all of them: a queue this long means the program
            // no longer keeps up, and old requests are stale.
            m_MsgQ.clear();
        }
        return;
    }

    if (!StatemAlive(sm)) {
        ORVO_TRACE(UnitORVO, WARNING,
                   "cService::OnMsg: state machine is gone, msg dropped: " + msg.ToString());
        return;
    }
    SendSnoop(this, msg, SNOOP_RECEIVE);
    // The state machine gets its own copy: the caller's message stays as it was.
    cMsg own(msg);
    sm->OnMsg(own);
    PostHdlMessage(own);
}

ORVO_HOT bool cService::PreDispatchMessage(cMsg& msg)
{
    cChannel* ch = msg.GetChannel();
    switch (msg.GetType()) {
    case kMsgTraceOn: {
        cRecord units;
        cRecordPar par = msg.GetRecord().GetFirstPar("units");
        if (par.IsValid() && par.GetRecord(units) && !units.IsEmpty() && mUnits != nullptr) {
            for (cRecordPar u = units.GetFirstPar(); u.IsValid(); units.SeekNextPar(u)) {
                cRecord entry;
                if (u.GetType() != RECORD_RECORD || !u.GetRecord(entry))
                    continue;
                cRecordPar name = entry.GetFirstPar("name");
                cRecordPar level = entry.GetFirstPar("level");
                if (!name.IsValid() || !level.IsValid())
                    continue;
                // An unknown name gets an empty map entry, which listings skip.
                SetTraceLevel((*mUnits)[name.GetString()], level.GetString());
            }
        }
        if (ch != nullptr)
            RegisterTraceChannel(ch);
        return true;
    }
    case kMsgTraceOff:
        if (mUnits != nullptr) {
            for (auto& entry : *mUnits)
                SetTraceLevel(entry.second, NONE);
        }
        if (ch != nullptr)
            UnRegisterTraceChannel(ch);
        return true;
    case kMsgSnoopOn:
        if (ch != nullptr) {
            SnoopLock().Enter();
            if (gSnoop == nullptr)
                gSnoop = new std::list<cChannel*>();
            gSnoop->remove(ch);
            gSnoop->push_back(ch);
            gSnoopCount.store(static_cast<int>(gSnoop->size()));
            SnoopLock().Leave();
        }
        return true;
    case kMsgSnoopOff:
        SnoopRemoveChannel(ch);
        return true;
    case kMsgServiceInfoReq: {
        if (ch == nullptr)
            return true;
        cMsg reply(kMsgServiceInfo);
        reply.SetTid(msg.GetTid());
        cRecord& r = reply.GetRecord();
        r.AppendTextPar("name", GetObjName(), 0);
        r.AppendTextPar("sap", GetSapAddress().ToString(), 0);
        r.AppendUuidPar("service-id", m_ServiceId, 0);
        r.AppendRecordPar("config", *GetConfig(), 0);
        cRecord units;
        if (mUnits != nullptr) {
            for (const auto& entry : *mUnits) {
                if (entry.second == nullptr)
                    continue;
                cRecord u;
                u.AppendTextPar("name", entry.first, 0);
                u.AppendTextPar("level", GetTraceLevelTxt(entry.second->GetLevel()), 0);
                units.AppendRecordPar(entry.first.c_str(), u, 0);
            }
        }
        r.AppendRecordPar("units", units, 0);
        ch->Send(reply);
        return true;
    }
    case kMsgChannelClosed:
        if (ch != nullptr) {
            SnoopRemoveChannel(ch);
            UnRegisterTraceChannel(ch);
        }
        return false;
    default:
        return false;
    }
}

// ---- Posting between services ---------------------------------------------------

int cService::SendToInternal(cService* target, cMsg& msg)
{
    if (target == nullptr)
        return 0;
    int result = 0;
    m_pSendLock->Enter();
    if (m_pInternalSocket != nullptr && target->m_pInternalSocket != nullptr)
        result = m_pInternalSocket->SendTo(target->GetInternalAddress(), msg);

    m_pSendLock->Leave();
    return result;
}

int cService::SendToInternal(cStateMachine* sm, cMsg& msg)
{
    msg.SetStatem(sm);
    if (sm == nullptr)
        return 0;
    return SendToInternal(sm->GetService(), msg);
}

cMsg cService::WaitSyncMsg(unsigned long ms, unsigned long type1, unsigned long type2,
                           unsigned long type3)
{
    // A one-shot timer of this service: an entry of the timer list that
    // posts 0x2015 when due.
    const uint32_t wait = ++m_WaitSerial == 0 ? ++m_WaitSerial : m_WaitSerial;
    AddTimerEntry(sTimerEntry{nullptr, static_cast<uint64_t>(GetMsecClock()) + ms, wait});

    std::vector<cMsg> aside;
    cMsg last;
    for (;;) {
        cMsg msg;
        if (!GetMessage(msg)) {
            last = cMsg();
            break;
        }
        const unsigned long type = msg.GetType();
        if (type == type1 || type == type2 || type == type3 || type == kMsgWaitTimeout) {
            last = msg;
            break;
        }
        aside.push_back(msg);
        // Handed out again after the wait: a channel whose close message
        // this is must not be deleted before then.
        m_LastMsg.Create();
    }

    // Stop the timer; a time-out that fired but did not end the wait is
    // purged like a destroyed timer's message.
    m_Timers.erase(std::remove_if(m_Timers.begin(), m_Timers.end(),
                                  [wait](const sTimerEntry& e) { return e.wait == wait; }),
                   m_Timers.end());
    auto fired = std::find(m_WaitFired.begin(), m_WaitFired.end(), wait);
    if (fired != m_WaitFired.end()) {
        m_WaitFired.erase(fired);
        if (last.GetType() != kMsgWaitTimeout) {
            for (auto it = m_MsgQ.rbegin(); it != m_MsgQ.rend(); ++it) {
                if (it->GetType() == kMsgWaitTimeout && it->GetChannel() == nullptr &&
                    it->GetTimer() == nullptr && it->GetRecord().IsEmpty()) {
                    m_MsgQ.erase(std::next(it).base());
                    break;
                }
            }
        }
    }

    for (auto it = aside.rbegin(); it != aside.rend(); ++it)
        m_MsgQ.push_front(*it);
    return last;
}

cMsg cService::SendSyncMsg(cChannel& channel, cMsg& msg, unsigned long ms, unsigned long type1,
                           unsigned long type2, unsigned long type3)
{
    channel.Send(msg);
    return WaitSyncMsg(ms, type1, type2, type3);
}

// ---- Snoop ------------------------------------------------------------------------

void SnoopRemoveChannel(cChannel* ch)
{
    if (ch == nullptr)
        return;
    SnoopLock().Enter();
    if (gSnoop != nullptr) {
        gSnoop->remove(ch);
        gSnoopCount.store(static_cast<int>(gSnoop->size()));
    }
    SnoopLock().Leave();
}

ORVO_HOT void SendSnoop(cService* service, const cMsg& msg, eSnoopDir dir)
{
    if (gSnoopCount.load(std::memory_order_relaxed) == 0)
        return;
    const unsigned long type = msg.GetType();
    if (type == kMsgTraceOutput || type == kMsgScmTraceLog || type == kMsgSocketWritable ||
        type == kMsgSocketData || type == kMsgSnoopReport)
        return;
    SnoopLock().Enter();
    const bool any = gSnoop != nullptr && !gSnoop->empty();
    SnoopLock().Leave();
    if (!any)
        return;

    cMsg report(kMsgSnoopReport);
    cRecord& r = report.GetRecord();
    if (service != nullptr) {
        r.AppendTextPar("name", service->GetObjName(), 0);
        r.AppendUuidPar("service-id", service->GetServiceId(), 0);
    }
    r.AppendUIntPar("dir", static_cast<unsigned int>(dir), 0);
    cChannel* ch = msg.GetChannel();
    if (ch == nullptr) {
        r.AppendTextPar("peer-name", "internal", 0);
    } else if (!ch->GetPeer().name.empty()) {
        r.AppendTextPar("peer-name", ch->GetPeer().name, 0);
        r.AppendUuidPar("peer-id", ch->GetPeer().id, 0);
    } else if (!ch->GetObjName().empty()) {
        r.AppendTextPar("peer-name", ch->GetObjName(), 0);
    }
    cTime now;
    now.Now(true);
    r.AppendTimePar("time", now, 0);
    r.AppendUIntPar("msg-type", static_cast<unsigned int>(type), 0);
    r.AppendRecordPar("msg-record", msg.GetRecord(), 0);
    r.AppendUuidPar("msg-tid", msg.GetTid(), 0);

    SnoopLock().Enter();
    if (gSnoop != nullptr) {
        // A send may close its channel, which takes it off the list; walk a
        // copy and skip what is gone.
        const std::vector<cChannel*> channels(gSnoop->begin(), gSnoop->end());
        for (cChannel* sub : channels) {
            if (gSnoop == nullptr)
                break;
            if (std::find(gSnoop->begin(), gSnoop->end(), sub) != gSnoop->end())
                sub->Send(report);
        }
    }
    SnoopLock().Leave();
}

}  // namespace orvo
