#define ORVO_SOURCE "orvo_service"
#include "orvo_service.h"
#include "orvo_threadid.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
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
#include "orvo_channellist.h"
#include "orvo_handle.h"
#include "orvo_hooks.h"
#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_record.h"
#include "orvo_selectloop.h"
#include "orvo_snoop.h"
#include "orvo_socket.h"
#include "orvo_statem.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "tesk.h"

namespace orvo {

cService* mMainService = nullptr;


namespace {


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
    cMsg msg(MSG_TERMINATE_REQUEST);
    service->OnMsg(msg);
}

void SigInt(cService* service, int, void*)
{
    cMsg msg(MSG_INTERRUPT_REQUEST);
    service->OnMsg(msg);
}

// Snoop subscribers. Never destroyed, so late reports during process exit
// stay safe.
cChannelList& SnoopList()
{
    static cChannelList* list = new cChannelList();
    return *list;
}

// Closed connections free their frame buffers and receive buffers in many
// blocks of a few kilobytes. glibc keeps freed blocks in its arenas, and
// pages in the middle of an arena stay in the process even when nothing on
// them is in use, so after a crowd of connections left the process would
// keep their peak size. Once enough was freed, malloc_trim hands the whole
// free pages back. It walks the arenas (a fraction of a millisecond for a
// few megabytes), so it runs only after a megabyte or more came free.
const unsigned long kTrimAfterBytes = 1ul << 20;

void GiveBackFreedPages(size_t deletedChannels)
{
    static std::atomic<unsigned long> channelBytes(0);
    const unsigned long add = deletedChannels * cChannel::kRecvBufferSize;
    const unsigned long freed = channelBytes.fetch_add(add, std::memory_order_relaxed) + add;
    if (freed < kTrimAfterBytes && cByteBuffer::TakeReleasedBytes(kTrimAfterBytes - freed) == 0)
        return;
    channelBytes.store(0, std::memory_order_relaxed);
    cByteBuffer::TakeReleasedBytes();
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

bool IsStopType(unsigned long type)
{
    return type == MSG_INTERRUPT_REQUEST || type == MSG_STOP || type == MSG_TERMINATE_REQUEST;
}


bool SameObject(const void* a, const cObject* b)
{
    return a != nullptr && a == static_cast<const void*>(b);
}

// The channel as the cObject that the purge compares addresses with.
const cObject* AsObject(const cChannel* ch)
{
    return ch != nullptr ? static_cast<const cObject*>(ch) : nullptr;
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

bool IsControlType(unsigned long type)
{
    return type >= MSG_TRACE_ON && type <= MSG_SERVICE_INFO;
}

// How often the idle timer looks: about four times per limit, within
// 50 ms .. 5 s.
unsigned long IdleSweepInterval(unsigned long idleMs)
{
    const unsigned long quarter = idleMs / 4;
    return quarter < 50 ? 50 : quarter > 5000 ? 5000 : quarter;
}

}  // namespace

// The idle timer of a service: re-arms itself and closes the sap's
// connections that owe progress for too long. No message is posted.
class cIdleSweep : public cTimer {
public:
    cIdleSweep(cService* service, unsigned long interval)
        : cTimer(service, false, nullptr), m_Interval(interval)
    {
        SetObjName("idleSweep");
        Start(m_Interval, 0);
    }
    void OnExec() override
    {
        Start(m_Interval, 0);
        GetService()->CloseIdleConnections();
    }
    unsigned long m_Interval;
};

// ---- Process-wide set-up ------------------------------------------------------

bool cService::InitGlobal()
{
    loop::ClearSignalTable();
    loop::EnsureWakeFd();
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

// ---- Construction -------------------------------------------------------------

cService::cService()
    : m_pLoop(new cSelectLoop(*this)),
      m_pSapSocket(nullptr),
      m_bTimeStamp(false),
      m_LastHandOut(0),
      m_pInternalSocket(nullptr),
      m_bThreadService(false),
      m_TimelostMs(8000),
      m_QueueLimit(200),
      m_pSendLock(new cCriticalSection())
{
    // Senders of other threads wake the loop through it, Init or not.
    loop::EnsureWakeFd();
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

bool cService::IsSapUp() const
{
    if (m_pSapSocket == nullptr || m_pSapSocket->GetFd() < 0)
        return false;
    int listening = 0;
    socklen_t len = sizeof listening;
    return ::getsockopt(m_pSapSocket->GetFd(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) == 0 &&
           listening != 0;
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
    m_pLoop->Clear();
    loop::EnsureWakeFd();

    if (sap.IsEmpty() && !m_bThreadService)
        sap = cSocketAddr(static_cast<unsigned long>(INADDR_ANY), static_cast<unsigned short>(
                                          GetConfig()->GetFirstPar("port").GetUInt()));

    m_pSapSocket = new cTcpServer<cMsgTcpSocket>(this, sap, nullptr);
    m_pSapSocket->SetObjName("sapSocket");
    m_pSapSocket->SetBacklog(GetSapBacklog());
    if (m_pSapSocket->Run() < 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::Init: sap socket %s failed: %s", sap.ToString().c_str(),
                                std::strerror(errno)));

    cMsgUdpSocket* internal = new cMsgUdpSocket(this, nullptr);
    internal->SetObjName("internal");
    internal->SetNoSnoop(true);
    if (internal->Socket(AF_INET, SOCK_DGRAM, 0) < 0 ||
        internal->Bind(cSocketAddr("127.0.0.1", 0)) != 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cService::Init: internal socket failed: %s", std::strerror(errno)));
    // Published under the send lock: other threads read it there.
    m_pSendLock->Enter();
    m_pInternalSocket = internal;
    m_pSendLock->Leave();

    if (!m_bIdleTimeoutSet)
        m_IdleTimeoutMs = GetConfig()->GetFirstPar("idle-timeout-ms").GetUInt();
    ArmIdleSweep();

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
    delete m_pIdleSweep;
    m_pIdleSweep = nullptr;
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
    m_pLoop->ClearTimers();
}

ORVO_HOT bool cService::GetMessage(cMsg& msg)
{
    m_pLoop->EnterLoopThread();
    if (m_LastHandOut != 0) {
        // A span of seconds: the tick's resolution is enough, and the coarse
        // clock is read without the time-stamp counter.
        const long long lost = GetMsecClockCoarse() - m_LastHandOut;
        if (lost >= m_TimelostMs)
            ORVO_TRACE(UnitORVO, ALL,
                       FormatString("hint: time lost (%Li ms) in application", lost));
    }
    // The message handed out last has been handled by now: a channel whose
    // close message it was goes at the start of this call.
    PostHdl(m_LastOut.channel, m_LastOut.type);
    m_LastOut = sHandedOut();
    RunDeferredDeletion();

    for (;;) {
        PostHdl(m_LastOut.channel, m_LastOut.type);
        if (m_MsgQ.empty()) {
            if (GetStopFlag())
                return false;
            // One pass of the loop (what ScheduleSelect does).
            m_pLoop->Pass();
        }
        if (m_MsgQ.empty()) {
            msg.Create();
            m_LastOut = sHandedOut();
            continue;
        }
        m_MsgQ.take_back(msg);
        m_LastOut.channel = msg.GetChannel();
        m_LastOut.type = msg.GetType();
        SendSnoop(this, msg, SNOOP_RECEIVE);
        if (IsStopType(msg.GetType()))
            SetStopFlag(true);
        if (!PreDispatchMessage(msg))
            break;
    }
    m_LastHandOut = GetMsecClockCoarse();
    return true;
}

void cService::TimelostTrigger()
{
    m_LastHandOut = GetMsecClockCoarse();
}

void cService::PostHdlMessage(cMsg& msg)
{
    PostHdl(msg.GetChannel(), msg.GetType());
}

ORVO_HOT void cService::PostHdl(cChannel* ch, unsigned long type)
{
    if (ch == nullptr || !ch->GetDeleteAfterClose())
        return;
    // A connection's last message: its close, or the report of a failed TLS
    // set-up after which it was closed without one.
    if (type != MSG_SOCKET_CLOSED && !(type == MSG_SOCKET_TLS_FAILED && ch->GetFd() < 0))
        return;
    if (std::find(m_Deferred.begin(), m_Deferred.end(), ch) == m_Deferred.end())
        m_Deferred.push_back(ch);
}

ORVO_HOT void cService::RunDeferredDeletion()
{
    if (m_Deferred.empty())
        return;
    // Each destructor removes its object from the list (RemoveMsgsByObject),
    // so take one at a time.
    size_t deleted = 0;
    while (!m_Deferred.empty()) {
        cObject* obj = m_Deferred.back();
        m_Deferred.pop_back();
        delete obj;
        ++deleted;
    }
    GiveBackFreedPages(deleted);
}

void cService::RemoveMsgsByObject(const cObject* obj)
{
    if (obj == nullptr)
        return;
    auto names = [obj](const cMsg& m) {
        return SameObject(AsObject(m.GetChannel()), obj) ||
               SameObject(m.GetStatem(), obj) || SameObject(m.GetTimer(), obj);
    };
    m_MsgQ.remove_if(names);
    if (SameObject(AsObject(m_LastOut.channel), obj))
        m_LastOut = sHandedOut();
    m_Deferred.erase(std::remove(m_Deferred.begin(), m_Deferred.end(), obj), m_Deferred.end());
}

ORVO_HOT void cService::OnMsg(cMsg& msg)
{
    if (msg.GetType() == MSG_SOCKET_CONNECTED && msg.GetChannel() != nullptr) {
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
    // Messages for a state machine are not the library's to act on.
    if (IsControlType(msg.GetType()) && msg.GetStatem() == nullptr &&
        !ControlAllowed(msg.GetType(), msg.GetChannel()))
        return;
    if (msg.GetType() == MSG_IN_RECORD) {
        // The carried message is delivered as it is, never unpacked again.
        const cRecord rec(msg.GetRecord());
        cMsg inner;
        inner.FromRecord(rec);
        // A wrapped control message is judged by the channel the wrapper
        // came through, whatever channel its record names.
        if (IsControlType(inner.GetType()) && inner.GetStatem() == nullptr &&
            !ControlAllowed(inner.GetType(), msg.GetChannel()))
            return;
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
            // no longer keeps up, and old requests are stale. A dropped close
            // message still ends its connection's life: the socket the
            // framework owns goes at the next GetMessage, as if handed out
            // (else a crowd of closing peers would leak their sockets).
            for (size_t i = 0; i < m_MsgQ.size(); ++i)
                PostHdl(m_MsgQ.at(i).GetChannel(), m_MsgQ.at(i).GetType());
            m_MsgQ.clear();
        }
        return;
    }

    if (!HandleAlive(sm, HANDLE_STATEM)) {
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
    switch (msg.GetType()) {
    case MSG_TRACE_ON:
        OnTraceOn(msg);
        return true;
    case MSG_TRACE_OFF:
        OnTraceOff(msg);
        return true;
    case MSG_SNOOP_ON:
        OnSnoopOn(msg);
        return true;
    case MSG_SNOOP_OFF:
        OnSnoopOff(msg);
        return true;
    case MSG_SERVICE_INFO_REQUEST:
        OnServiceInfoRequest(msg);
        return true;
    case MSG_SOCKET_CLOSED:
        OnChannelClosed(msg);
        return false;   // the program learns of the close too
    default:
        return false;
    }
}

namespace {

// A name that is no unit gets an empty map entry, which listings skip, but
// only up to this many empty entries: a peer that sends made-up names must
// not grow the map (and every later walk of it) without end.
constexpr size_t kMaxEmptyUnitEntries = 256;

cUnit* UnitForTraceOn(const std::string& name)
{
    auto it = mUnits->find(name);
    if (it != mUnits->end())
        return it->second;
    size_t empty = 0;
    for (const auto& entry : *mUnits)
        empty += entry.second == nullptr;
    if (empty < kMaxEmptyUnitEntries)
        mUnits->emplace(name, nullptr);
    return nullptr;
}

}  // namespace

void cService::OnTraceOn(cMsg& msg)
{
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
            SetTraceLevel(UnitForTraceOn(name.GetString()), level.GetString());
        }
    }
    if (msg.GetChannel() != nullptr)
        RegisterTraceChannel(msg.GetChannel());
}

void cService::OnTraceOff(cMsg& msg)
{
    if (mUnits != nullptr) {
        for (auto& entry : *mUnits)
            SetTraceLevel(entry.second, NONE);
    }
    if (msg.GetChannel() != nullptr)
        UnRegisterTraceChannel(msg.GetChannel());
}

void cService::OnSnoopOn(cMsg& msg)
{
    if (msg.GetChannel() != nullptr)
        SnoopList().Add(msg.GetChannel());
}

void cService::OnSnoopOff(cMsg& msg)
{
    SnoopRemoveChannel(msg.GetChannel());
}

void cService::OnServiceInfoRequest(cMsg& msg)
{
    cChannel* ch = msg.GetChannel();
    if (ch == nullptr)
        return;
    cMsg reply(MSG_SERVICE_INFO);
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
}

void cService::OnChannelClosed(cMsg& msg)
{
    cChannel* ch = msg.GetChannel();
    if (ch != nullptr) {
        SnoopRemoveChannel(ch);
        UnRegisterTraceChannel(ch);
    }
}

// ---- Limits for hostile peers ------------------------------------------------------

void cService::SetControlAccess(const cControlAccess& policy)
{
    m_ControlAccess = policy;
    m_bControlAccessSet = true;
}

bool cService::SetControlAccess(const std::string& text)
{
    cControlAccess policy;
    std::string error;
    if (!policy.Parse(text, &error)) {
        ORVO_TRACE(UnitORVO, ERROR, "cService::SetControlAccess: " + error);
        return false;
    }
    SetControlAccess(policy);
    return true;
}

cControlAccess cService::GetControlAccess()
{
    if (m_bControlAccessSet)
        return m_ControlAccess;
    const cRecordPar par = GetConfig()->GetFirstPar("control-access");
    const std::string text = par.IsValid() ? par.GetString() : std::string();
    if (text != m_ConfigAccessText) {
        std::string error;
        if (!m_ConfigAccess.Parse(text, &error)) {
            // A typing error in a security setting must not open the door.
            m_ConfigAccess = cControlAccess::None();
            ORVO_TRACE(UnitORVO, ERROR,
                       "cService: configuration " + error + ", control messages refused");
        }
        m_ConfigAccessText = text;
    }
    return m_ConfigAccess;
}

bool cService::ControlAllowed(unsigned long type, const cChannel* ch)
{
    // The program's own messages are not the policy's business.
    if (ch == nullptr)
        return true;
    const cControlAccess policy = GetControlAccess();
    if (policy.GetMode() == CONTROL_ANY)
        return true;
    std::string why;
    std::string from;
    bool allowed;
    if (const cSocket* socket = dynamic_cast<const cSocket*>(ch)) {
        allowed = policy.Allows(socket->GetRemoteAddress(), &why);
        from = socket->GetRemoteAddress().GetIPString();
    } else {
        allowed = policy.AllowsUnaddressed(&why);
        from = ch->GetObjName();
    }
    if (!allowed)
        ORVO_TRACE(UnitORVO, WARNING,
                   FormatString("cService: control message 0x%lx from %s refused: %s", type,
                                from.c_str(), why.c_str()));
    return allowed;
}

int cService::GetSapBacklog() const
{
    if (m_SapBacklog > 0)
        return m_SapBacklog;
    const unsigned long configured = GetConfig()->GetFirstPar("sap-backlog").GetUInt();
    return configured > 0 && configured <= 65535 ? static_cast<int>(configured) : 5;
}

void cService::SetIdleTimeout(unsigned long ms)
{
    m_IdleTimeoutMs = ms;
    m_bIdleTimeoutSet = true;
    if (m_pSapSocket != nullptr)
        ArmIdleSweep();
}

void cService::ArmIdleSweep()
{
    delete m_pIdleSweep;
    m_pIdleSweep = nullptr;
    if (m_IdleTimeoutMs != 0 && m_pSapSocket != nullptr)
        m_pIdleSweep = new cIdleSweep(this, IdleSweepInterval(m_IdleTimeoutMs));
}

int cService::CloseIdleConnections()
{
    if (m_pSapSocket == nullptr || m_IdleTimeoutMs == 0)
        return 0;
    const long long now = GetMsecClockCoarse();
    // Collected first: closing queues messages but changes no list, still
    // the walk stays clear of whatever the close does.
    std::vector<cTpktTcpSocket*> idle;
    for (cTcpSocket* client : m_pSapSocket->GetClients()) {
        // The sap makes cMsgTcpSocket connections only.
        cTpktTcpSocket* framed = static_cast<cTpktTcpSocket*>(client);
        if (framed->GetFd() >= 0 && framed->GetOwedMs(now) >= m_IdleTimeoutMs)
            idle.push_back(framed);
    }
    for (cTpktTcpSocket* framed : idle) {
        const char* what = "";
        const unsigned long owed = framed->GetOwedMs(now, &what);
        ORVO_TRACE(UnitORVO, INFO,
                   FormatString("cService: closing %s: %s for %lu ms",
                                framed->GetRemoteAddress().ToString().c_str(), what, owed));
        framed->OnClose();
        framed->Close();
    }
    return static_cast<int>(idle.size());
}

// ---- Posting between services ---------------------------------------------------

int cService::SendToInternal(cService* target, cMsg& msg)
{
    if (target == nullptr)
        return 0;
    // The target's address is read under the target's own lock (its DeInit
    // deletes the socket under it), and released before this service's lock
    // is taken: two services posting to each other never wait in a circle.
    cSocketAddr to;
    target->m_pSendLock->Enter();
    const bool targetUp = target->m_pInternalSocket != nullptr;
    if (targetUp)
        to = target->m_pInternalSocket->GetLocalAddress();
    target->m_pSendLock->Leave();
    if (!targetUp)
        return 0;
    int result = 0;
    m_pSendLock->Enter();
    if (m_pInternalSocket != nullptr)
        result = m_pInternalSocket->SendTo(to, msg);
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
    m_pLoop->AddWaitTimeout(static_cast<uint64_t>(GetMsecClock()) + ms, wait);

    std::vector<cMsg> aside;
    cMsg last;
    for (;;) {
        cMsg msg;
        if (!GetMessage(msg)) {
            last = cMsg();
            break;
        }
        const unsigned long type = msg.GetType();
        if (type == type1 || type == type2 || type == type3 || type == MSG_WAIT_TIMEOUT) {
            last = msg;
            break;
        }
        aside.push_back(msg);
        // Handed out again after the wait: a channel whose close message
        // this is must not be deleted before then.
        m_LastOut = sHandedOut();
    }

    // Stop the timer; a time-out that fired but did not end the wait is
    // purged like a destroyed timer's message.
    if (m_pLoop->RemoveWaitTimeout(wait)) {
        if (last.GetType() != MSG_WAIT_TIMEOUT) {
            // The oldest such message is the one the fired time-out posted.
            for (size_t i = m_MsgQ.size(); i-- > 0;) {
                const cMsg& m = m_MsgQ.at(i);
                if (m.GetType() == MSG_WAIT_TIMEOUT && m.GetChannel() == nullptr &&
                    m.GetTimer() == nullptr && m.GetRecord().IsEmpty()) {
                    m_MsgQ.erase(i);
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
    if (ch != nullptr)
        SnoopList().Remove(ch);
}

namespace {

// The report itself, out of line: the check in SendSnoop runs for every
// message, a report only while someone snoops.
__attribute__((noinline)) void SendSnoopReport(cService* service, const cMsg& msg, eSnoopDir dir)
{
    const unsigned long type = msg.GetType();
    if (type == MSG_TRACE_OUTPUT || type == MSG_SCM_TRACE_LOG || type == MSG_SOCKET_WRITABLE ||
        type == MSG_SOCKET_DATA || type == MSG_SNOOP_REPORT)
        return;

    cMsg report(MSG_SNOOP_REPORT);
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

    SnoopList().ForEach([&report](cChannel* sub) { sub->Send(report); });
}

}  // namespace

ORVO_HOT void SendSnoop(cService* service, const cMsg& msg, eSnoopDir dir)
{
    if (!SnoopList().IsEmpty())
        SendSnoopReport(service, msg, dir);
}

}  // namespace orvo
