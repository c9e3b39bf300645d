// scm_server.cpp - the message handling of orvo-scm.
#include "scm_server.h"
#include "scm_list.h"
#include "scm_origin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <orvo_access.h>
#include <orvo_channel.h>
#include <orvo_msgsocket.h>
#include <orvo_msgtypes.h>
#include <orvo_record.h>
#include <orvo_recordpath.h>
#include <orvo_trace.h>

namespace orvo_scm {

using namespace orvo;

namespace {

// orvo-scm's own timer messages.
const unsigned long kMsgWdtTick = 0x9F001;
const unsigned long kMsgFilePoll = 0x9F002;
const unsigned long kMsgRestartDue = 0x9F003;
const unsigned long kMsgStopGraceOver = 0x9F004;

cUnit UnitScm("scm", INFO, OUTPUT_STDOUT);
// Traces the services send to the SCM, printed as they come.
cUnit UnitServices("services", INFO, OUTPUT_STDOUT);

void Trace(eLEVEL level, const std::string& text)
{
    ORVO_TRACE(&UnitScm, level, text);
}

// The address a socket is bound to, asked of the kernel.
cSocketAddr BoundAddress(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return cSocketAddr();
    return cSocketAddr(static_cast<unsigned long>(ntohl(a.sin_addr.s_addr)), ntohs(a.sin_port));
}

// Why the sap could not be bound: the bind tried again on a socket of its
// own, since the library has reported it only in a trace.
std::string BindFailure(const cSocketAddr& asked)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::strerror(errno);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(static_cast<uint32_t>(asked.GetIP()));
    a.sin_port = htons(asked.GetPort());
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    const std::string why = bound ? "the address could not be bound" : std::strerror(errno);
    ::close(fd);
    return why;
}

std::string Text(const cRecord& r, const char* name)
{
    return r.GetFirstPar(name, RECORD_TEXT, RECORD_SEL_TYPE).GetString();
}

// base without the top-level elements whose names top has, then top.
cRecord Overlay(const cRecord& base, const cRecord& top)
{
    std::string bytes;
    cRecordPar p = base.GetFirstPar();
    for (bool ok = p.IsValid(); ok; ok = base.SeekNextPar(p))
        if (!top.GetFirstPar(p.GetName()).IsValid())
            bytes.append(p.GetElement(), static_cast<size_t>(p.GetElementEnd() - p.GetElement()));
    if (!top.IsEmpty())
        bytes.append(top.GetBuffer(), static_cast<size_t>(top.GetSize()));
    return bytes.empty() ? cRecord() : cRecord(bytes.data(), static_cast<int>(bytes.size()));
}

std::string Bytes(const cRecord& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

}  // namespace

cScmServer::cScmServer(const tScmOptions& options)
    : m_Options(options), m_Registry(options.sharedTech), m_bStopping(false), m_bDone(false)
{
}

cScmServer::~cScmServer()
{
    m_RestartTimers.clear();
    m_pWdtTimer.reset();
    m_pPollTimer.reset();
    m_pStopTimer.reset();
    m_pSupervisor.reset();
    DeInit();
}

bool cScmServer::SetUp()
{
    std::string error;
    if (!LoadScmFile(m_Options.configPath, m_File, error)) {
        std::fprintf(stderr, "orvo-scm: %s\n", error.c_str());
        return false;
    }
    if (!m_Store.Open(m_Options.storePath)) {
        std::fprintf(stderr, "orvo-scm: cannot open the record store %s\n", m_Options.storePath.c_str());
        return false;
    }
    // Trace switching, snoop and the information request of orvo-scm itself
    // (which tell every service's traffic) come from this device only,
    // unless asked otherwise.
    cControlAccess access;
    if (!access.Parse(m_Options.controlAccess, &error)) {
        std::fprintf(stderr, "orvo-scm: -control-access %s: %s\n", m_Options.controlAccess.c_str(), error.c_str());
        return false;
    }
    SetControlAccess(access);
    const cSocketAddr asked(m_Options.listen.c_str(), 0);
    if (asked.IsEmpty() && m_Options.listen != "0.0.0.0:0") {
        std::fprintf(stderr, "orvo-scm: -listen %s is no ip:port address\n", m_Options.listen.c_str());
        return false;
    }
    // The library's idle limit of sap connections (cService::SetIdleTimeout):
    // one that holds part of a frame, has sent no frame or does not take its
    // answers is closed after it. Off unless -idle-timeout-ms says so.
    SetIdleTimeout(m_Options.idleTimeoutMs);
    Init("orvo-scm", asked);
    // Init keeps going when the bind fails (the port is taken): the socket
    // then is not bound, and a listen() on it would bind it anywhere, on a
    // port the kernel picks. Only a socket the kernel says listens goes on.
    if (!IsSapUp()) {
        std::fprintf(stderr, "orvo-scm: cannot listen on %s: %s\n", m_Options.listen.c_str(),
                     BindFailure(asked).c_str());
        return false;
    }
    // The service runtime listens with a backlog of 5, made for one client
    // at a time. Every service of a platform connects here at start-up, so
    // a short queue would drop SYNs and cost the late ones whole seconds of
    // retransmission: the queue is made as long as the system allows.
    listen(GetSapSocket()->GetFd(), SOMAXCONN);
    m_Sap = BoundAddress(GetSapSocket()->GetFd()).ToString();
    std::printf("orvo-scm listening on %s\n", m_Sap.c_str());
    std::fflush(stdout);
    m_pWatch.reset(new cFileWatch(m_Options.configPath));
    m_pSupervisor.reset(new cSupervisor(this, m_Sap, [this](const std::string& name) { return LogsToScm(name); }));
    m_pWdtTimer.reset(new cTimer(this, true, nullptr));
    m_pWdtTimer->Start(m_Options.wdtPeriodMs, kMsgWdtTick);
    m_pPollTimer.reset(new cTimer(this, true, nullptr));
    m_pPollTimer->Start(m_Options.pollMs, kMsgFilePoll);
    m_pStopTimer.reset(new cTimer(this, false, nullptr));
    for (const tServiceEntry& e : m_File.services)
        if (e.start)
            m_pSupervisor->Start(e);
    return true;
}

int cScmServer::Run()
{
    if (!SetUp())
        return 2;
    cMsg msg;
    while (!m_bDone && GetMessage(msg))
        Handle(msg);
    m_pSupervisor->DrainOutputs();
    Trace(INFO, "orvo-scm stopped");
    return 0;
}

void cScmServer::Reply(cMsg& request, unsigned long type, const cRecord& record)
{
    if (request.GetChannel() == nullptr)
        return;
    cMsg answer(type);
    answer.SetTid(request.GetTid());
    answer.SetRecord(record);
    request.GetChannel()->Send(answer);
}

// orvo-scm keeps no logs of its own: a log request is answered with 0x10017
// and a "reason", so the sender's synchronous call ends at once.
void cScmServer::RefuseRequest(cMsg& msg)
{
    cRecord reason;
    reason.AppendTextPar("reason", "no logs kept by this SCM");
    Trace(INFO, FormatString("request 0x%lx refused", msg.GetType()));
    Reply(msg, MSG_SCM_SETCONFIG_NACK, reason);
}

void cScmServer::SendTo(tService& service, cMsg& msg)
{
    if (service.channel != nullptr && service.channel->Send(msg) < 0)
        Trace(WARNING, FormatString("send of 0x%lx to '%s' failed", msg.GetType(), service.name.c_str()));
}

void cScmServer::Handle(cMsg& msg)
{
    switch (msg.GetType()) {
    case MSG_SCM_REGISTER: OnRegister(msg); break;
    case MSG_SCM_GETCONFIG: OnConfigRequest(msg); break;
    case MSG_SCM_RUN: OnReady(msg); break;
    case MSG_SCM_WDT_ACK: OnWdtAnswer(msg); break;
    case MSG_SCM_SETCONFIG_ACK: OnSetConfigAnswer(msg, true); break;
    case MSG_SCM_SETCONFIG_NACK: OnSetConfigAnswer(msg, false); break;
    case MSG_SCM_SETCONFIG: OnSetConfigRequest(msg); break;
    case MSG_SCM_SERVICE_INFO_REQUEST: OnServiceInfoRequest(msg); break;
    case kMsgServiceListRequest: OnServiceListRequest(msg); break;
    case MSG_SCM_SET_SERVICE_TECH: OnSetServiceTech(msg); break;
    case MSG_SCM_NOTIFICATION_REQUEST: OnNotificationRequest(msg); break;
    case MSG_SCM_STORE_RECORD: OnStoreRecord(msg); break;
    case MSG_SCM_GET_STORED_RECORD: OnFetchRecord(msg); break;
    case MSG_SCM_TRACE_LOG: OnServiceTrace(msg); break;
    case MSG_SCM_LOG_REQUEST:
    case MSG_SCM_LOG_FETCH:
    case MSG_SCM_LOG_DELETE: RefuseRequest(msg); break;
    case MSG_SOCKET_CLOSED: OnClosed(msg); break;
    case MSG_SOCKET_ACCEPTED:
    case MSG_SOCKET_CONNECTED: break;   // a service's socket announcing itself
    case MSG_PROCESS_STARTED:
        Trace(INFO, FormatString("started %s, pid %u", Text(msg.GetRecord(), "file").c_str(),
                                 msg.GetRecord().GetFirstPar("pid").GetUInt()));
        break;
    case MSG_PROCESS_START_FAILED:
    case MSG_PROCESS_ENDED: OnChildEnded(msg); break;
    case MSG_INTERRUPT_REQUEST:
    case MSG_TERMINATE_REQUEST:
    case MSG_STOP: BeginStop(); break;
    case kMsgWdtTick: WatchdogTick(); break;
    case kMsgFilePoll: PollFile(); break;
    case kMsgRestartDue: m_pSupervisor->StartAgain(Text(msg.GetRecord(), "name")); break;
    case kMsgStopGraceOver:
        Trace(WARNING, "children still running after the grace time: killed");
        m_pSupervisor->KillAll();
        m_bDone = true;
        break;
    default: {
        tService* s = m_Registry.ByChannel(msg.GetChannel());
        Trace(INFO, FormatString("'%s' sent 0x%lx (not acted on by the development SCM): %s",
                                 s != nullptr ? s->name.c_str() : "?", msg.GetType(),
                                 msg.GetRecord().ToString().c_str()));
    }
    }
}

// ---- registration and configuration -------------------------------------

bool cScmServer::FromOwnChild(const cMsg& msg, std::string& why) const
{
    const unsigned long inode = msg.GetChannel() != nullptr ? PeerSocketInode(msg.GetChannel()->GetFd()) : 0;
    if (inode != 0 && HolderAmong(m_pSupervisor->RunningPids(), inode) > 0)
        return true;
    why = inode == 0 ? "the connection's other end is no local process" : "not a process started by this SCM";
    return false;
}

void cScmServer::OnRegister(cMsg& msg)
{
    std::string why;
    const eRegisterResult result = m_Options.onlyChildren && !FromOwnChild(msg, why)
                                       ? REGISTER_REFUSED_ORIGIN
                                       : m_Registry.Register(msg.GetRecord(), msg.GetChannel(), why);
    const std::string name = Text(msg.GetRecord(), "name");
    if (result != REGISTER_OK) {
        cRecord refusal;
        refusal.AppendSIntPar("reason", static_cast<int>(result));
        refusal.AppendTextPar("sub-reason", why);
        Reply(msg, MSG_SCM_REGISTER_NACK, refusal);
        Trace(WARNING, "registration of '" + name + "' refused: " + why);
        return;
    }
    const tService* s = m_Registry.ByName(name);
    Trace(INFO, FormatString("registered '%s' pid %d sap %s", name.c_str(), s->pid, s->sap.c_str()));
    if (!cRegistry::HasSap(*s))
        Trace(WARNING, "'" + name + "' registered without a sap it listens on (" + s->sap +
                           "): technology look-ups never hand it out");
    Reply(msg, MSG_SCM_REGISTER_ACK, cRecord());
}

cRecord cScmServer::ConfigOf(const tService& service) const
{
    const tServiceEntry* e = m_File.Find(service.name);
    cRecord config = e == nullptr ? service.registered : Overlay(service.registered, e->config);
    auto changes = m_Changes.find(service.name);
    if (changes != m_Changes.end())
        for (const auto& change : changes->second)
            SetAtPath(config, change.first, change.second);
    return config;
}

bool cScmServer::LogsToScm(const std::string& name)
{
    // A service that is not registered (yet, or any more) keeps what its
    // last configuration said; before its first it sends no copies.
    const tService* s = m_Registry.ByName(name);
    if (s != nullptr)
        m_LogsToScm[name] = ConfigOf(*s).GetFirstParByPath("trace.log-scm", ".").GetBool();
    auto it = m_LogsToScm.find(name);
    return it != m_LogsToScm.end() && it->second;
}

cRecord cScmServer::SystemPar(const tService& service) const
{
    cRecord system;
    ConfigOf(service).GetFirstPar("system", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(system);
    return system;
}

void cScmServer::OnConfigRequest(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    cUuid id;
    tService* s = nullptr;
    // Service ids are made from the time of day and a generator seeded with
    // the second: two services started in the same microsecond carry the
    // same id. The asker's own registration is the one it means.
    tService* asker = m_Registry.ByChannel(msg.GetChannel());
    if (r.GetFirstPar("service-id", RECORD_UUID, RECORD_SEL_TYPE).GetUuid(id))
        s = asker != nullptr && asker->id == id ? asker : m_Registry.ById(id);
    else if (r.GetFirstPar("service-name", RECORD_TEXT, RECORD_SEL_TYPE).IsValid())
        s = m_Registry.ByName(Text(r, "service-name"));
    if (s == nullptr) {
        Trace(WARNING, "configuration request for an unknown service: " + r.ToString());
        return;
    }
    cRecord answer;
    answer.AppendUuidPar("service-id", s->id);
    answer.AppendTextPar("path", "");
    answer.AppendRecordPar("config", ConfigOf(*s));
    Reply(msg, MSG_SCM_GETCONFIG_ACK, answer);
    Trace(INFO, "configuration sent to '" + s->name + "'");
    // The health goes to whoever asked: a request by name or id for another
    // service must not reach that service.
    if (asker != nullptr)
        SendHealth(*asker, "running");
}

void cScmServer::SendHealth(tService& service, const char* health)
{
    cMsg msg(MSG_SCM_HEALTH);
    msg.GetRecord().AppendTextPar("scm-health", health);
    SendTo(service, msg);
}

void cScmServer::OnReady(cMsg& msg)
{
    tService* s = m_Registry.ByChannel(msg.GetChannel());
    if (s == nullptr)
        return;
    Reply(msg, MSG_SCM_RUN_ACK, cRecord());
    const cRecord system = SystemPar(*s);
    const cRecordPar wdt = system.GetFirstPar("wdt", RECORD_TEXT, RECORD_SEL_TYPE);
    const bool watched = !wdt.IsValid() || wdt.GetString() != "OFF";
    const cRecordPar failures = system.GetFirstPar("wdt-failures", RECORD_UINT, RECORD_SEL_TYPE);
    const unsigned limit = failures.IsValid() ? failures.GetUInt() : 3;
    if (watched)
        m_Watchdog.Watch(s->name, limit);
    Trace(INFO, FormatString("'%s' ready%s", s->name.c_str(),
                             watched ? FormatString(", watchdog allows %u missed answers", limit).c_str()
                                     : ", watchdog off"));
}

void cScmServer::OnSetConfigAnswer(cMsg& msg, bool applied)
{
    auto it = m_PendingPush.find(msg.GetTid());
    if (it == m_PendingPush.end())
        return;
    Trace(applied ? INFO : WARNING,
          "'" + it->second + "' " + (applied ? "applied" : "refused") + " the pushed configuration");
    m_PendingPush.erase(it);
    auto set = m_PendingSet.find(msg.GetTid());
    if (set == m_PendingSet.end())
        return;
    cMsg answer(applied ? MSG_SCM_SETCONFIG_ACK : MSG_SCM_SETCONFIG_NACK);
    answer.SetTid(set->second.tid);
    set->second.channel->Send(answer);
    m_PendingSet.erase(set);
}

// A client's change of a service's configuration: "service-name" (text),
// "path" (record path of the levels above the change; an empty one or "."
// for the top level) and "config" (the elements to put there). The change
// is kept (over the configuration file) and the service gets its whole new
// configuration; the client's answer (0x10016, or 0x10017 with a "reason")
// follows the service's.
void cScmServer::OnSetConfigRequest(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    // No name: the asking service changes its own configuration.
    std::string name = Text(r, "service-name");
    tService* s = name.empty() ? m_Registry.ByChannel(msg.GetChannel()) : m_Registry.ByName(name);
    if (s != nullptr)
        name = s->name;
    cRecord pathRec, change;
    r.GetFirstPar("path", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(pathRec);
    const bool hasChange = r.GetFirstPar("config", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(change);
    std::vector<std::string> levels;
    for (cRecordPar p = pathRec.GetFirstPar(); p.IsValid(); pathRec.SeekNextPar(p))
        if (std::string(p.GetName()) != ".")
            levels.push_back(p.GetName());
    std::string reason;
    cRecord changed = s != nullptr ? ConfigOf(*s) : cRecord();
    if (s == nullptr || s->channel == nullptr)
        reason = "unknown service '" + name + "'";
    else if (!hasChange || change.IsEmpty())
        reason = "no configuration elements to set";
    else if (!SetAtPath(changed, levels, change))
        reason = "the configuration of '" + name + "' has no such path";
    if (!reason.empty()) {
        cRecord refusal;
        refusal.AppendTextPar("reason", reason);
        Reply(msg, MSG_SCM_SETCONFIG_NACK, refusal);
        Trace(WARNING, "configuration change refused: " + reason);
        return;
    }
    m_Changes[name].emplace_back(levels, change);
    Trace(INFO, "configuration of '" + name + "' changed by a client: " + change.ToString());
    m_PendingSet[PushConfig(*s)] = tSetRequest{msg.GetChannel(), msg.GetTid()};
}

cUuid cScmServer::PushConfig(tService& service)
{
    cRecord path, filter, push;
    path.AppendRecordPar(".", cRecord());
    push.AppendRecordPar("path", path);
    push.AppendRecordPar("config", ConfigOf(service));
    push.AppendRecordPar("filter", filter);
    push.AppendBoolPar("full-config", true);
    cMsg msg(MSG_SCM_SETCONFIG);
    cUuid tid;
    tid.Create();
    msg.SetTid(tid);
    msg.SetRecord(push);
    m_PendingPush[tid] = service.name;
    Trace(INFO, "configuration of '" + service.name + "' changed: pushed");
    SendTo(service, msg);
    return tid;
}

void cScmServer::PollFile()
{
    if (!m_pWatch->Changed())
        return;
    tScmFile fresh;
    std::string error;
    if (!LoadScmFile(m_Options.configPath, fresh, error)) {
        Trace(ERROR, "configuration file not taken: " + error + " (the running configuration is kept)");
        return;
    }
    const tScmFile old = m_File;
    m_File = fresh;
    // A connected service whose entry changed, appeared or went away gets its
    // configuration anew (without an entry: the one it registered with).
    for (tService* s : m_Registry.Connected()) {
        const tServiceEntry* before = old.Find(s->name);
        const tServiceEntry* now = fresh.Find(s->name);
        if (Bytes(before != nullptr ? before->config : cRecord()) !=
                Bytes(now != nullptr ? now->config : cRecord()) ||
            (before == nullptr) != (now == nullptr))
            PushConfig(*s);
    }
    // New entries to start, and stopped ones whose command changed (one that
    // could not be started waits for that).
    for (const tServiceEntry& e : fresh.services) {
        const tServiceEntry* before = old.Find(e.name);
        const bool changed = before == nullptr || !before->start || before->command != e.command;
        if (e.start && !m_bStopping && !m_pSupervisor->IsRunning(e.name) &&
            (changed || !m_pSupervisor->IsStarted(e.name)))
            m_pSupervisor->Start(e);
    }
}

// ---- technologies ---------------------------------------------------------------

void cScmServer::OnServiceInfoRequest(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    const cRecordPar byName = r.GetFirstPar("service-name", RECORD_TEXT, RECORD_SEL_TYPE);
    const cRecordPar byTech = r.GetFirstPar("service-tech", RECORD_TEXT, RECORD_SEL_TYPE);
    tService* s = nullptr;
    if (byName.IsValid())
        s = m_Registry.ByName(byName.GetString());
    else if (byTech.IsValid())
        s = m_Registry.ByTech(byTech.GetString(), true);   // never a sap of port 0
    if (s != nullptr && s->channel != nullptr) {
        Reply(msg, MSG_SCM_SERVICE_INFO, cRegistry::InfoRecord(*s));
        return;
    }
    cRecord unknown;
    if (byName.IsValid())
        unknown.AppendTextPar("service-name", byName.GetString());
    else
        unknown.AppendTextPar("service-tech", byTech.GetString());
    Reply(msg, MSG_SCM_TECH_UNKNOWN, unknown);
}

// orvo-ctl list: one "service" sub-record per registered service, as in a
// service information answer, with "state" "connected" or "disconnected".
void cScmServer::OnServiceListRequest(cMsg& msg)
{
    cRecord list;
    for (const tService* s : m_Registry.All()) {
        cRecord entry;
        cRegistry::InfoRecord(*s).GetFirstPar("service", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(entry);
        entry.AppendTextPar("state", s->channel != nullptr ? "connected" : "disconnected");
        list.AppendRecordPar("service", entry);
    }
    Reply(msg, kMsgServiceListAnswer, list);
}

void cScmServer::OnSetServiceTech(cMsg& msg)
{
    tService* s = m_Registry.ByChannel(msg.GetChannel());
    if (s == nullptr)
        return;
    std::vector<std::string> offered;
    cRecordPar p = msg.GetRecord().GetFirstPar("service-tech", RECORD_TEXT, RECORD_SEL_TYPE);
    for (bool ok = p.IsValid(); ok; ok = msg.GetRecord().SeekNextPar(p, "service-tech", RECORD_TEXT, RECORD_SEL_TYPE))
        offered.push_back(p.GetString());
    // A second offer of a technology would let any local process that
    // connects take over look-ups meant for the service that offers it.
    for (const std::string& t : m_Registry.Offer(*s, offered))
        Trace(WARNING, "'" + s->name + "' offers " + t + ": refused, '" + m_Registry.ByTech(t)->name +
                           "' offers it (-shared-tech allows both)");
    std::string list;
    for (const std::string& t : s->techs)
        list += (list.empty() ? "" : ", ") + t;
    Trace(INFO, "'" + s->name + "' offers " + (list.empty() ? "nothing" : list));
    if (s->techs.empty() || !cRegistry::HasSap(*s))   // nothing to connect to
        return;
    cRecord note;
    note.AppendTextPar("command", "add-technology");
    const cRecord info = cRegistry::InfoRecord(*s);
    note.AppendRecordPar("service", [&] {
        cRecord inner;
        info.GetFirstPar("service").GetRecord(inner);
        return inner;
    }());
    for (tService* sub : m_Registry.Subscribers(kNotifyTechnology)) {
        cMsg n(MSG_SCM_NOTIFICATION);
        n.SetRecord(note);
        SendTo(*sub, n);
    }
}

void cScmServer::OnNotificationRequest(cMsg& msg)
{
    tService* s = m_Registry.ByChannel(msg.GetChannel());
    if (s != nullptr)
        s->notifyMask = msg.GetRecord().GetFirstPar("mask").GetUInt();
}

// ---- watchdog ------------------------------------------------------------------

void cScmServer::WatchdogTick()
{
    const cWatchdogBook::tTick tick = m_Watchdog.Tick();
    for (const std::string& name : tick.failed)
        WatchdogFailed(name);
    for (const cWatchdogBook::tTrigger& t : tick.triggers) {
        tService* s = m_Registry.ByName(t.name);
        if (s == nullptr || s->channel == nullptr || !m_Watchdog.IsWatched(t.name))
            continue;
        cMsg trigger(MSG_SCM_WDT);   // answered with 0x1000a and the same "seq-no"
        trigger.GetRecord().AppendUuidPar("service-id", s->id);
        trigger.GetRecord().AppendUIntPar("seq-no", t.seq);
        SendTo(*s, trigger);
    }
}

void cScmServer::WatchdogFailed(const std::string& name)
{
    tService* s = m_Registry.ByName(name);
    const tServiceEntry* e = m_File.Find(name);
    std::string action = e != nullptr ? e->failureAction : std::string();
    if (action.empty() && s != nullptr)
        action = Text(SystemPar(*s), "failure-action");
    if (action == "restart" && m_pSupervisor->Restart(name)) {
        Trace(WARNING, "watchdog: '" + name + "' stopped answering: restarting it");
        m_Watchdog.Forget(name);
        return;
    }
    Trace(WARNING, "watchdog: '" + name + "' stopped answering (failure-action '" + action +
                       "': " + (action == "restart" ? "not started by orvo-scm, " : "") + "logged only)");
}

void cScmServer::OnWdtAnswer(cMsg& msg)
{
    tService* s = m_Registry.ByChannel(msg.GetChannel());
    if (s != nullptr)
        m_Watchdog.Answer(s->name, msg.GetRecord().GetFirstPar("seq-no").GetUInt());
}

// ---- stored records -----------------------------------------------------------

void cScmServer::OnStoreRecord(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    const std::string name = Text(r, "name");
    cRecord record;
    if (!r.GetFirstPar("record", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(record)) {
        // The record's own elements travel beside "name".
        std::string bytes;
        cRecordPar p = r.GetFirstPar();
        for (bool ok = p.IsValid(); ok; ok = r.SeekNextPar(p))
            if (std::string(p.GetName()) != "name")
                bytes.append(p.GetElement(), static_cast<size_t>(p.GetElementEnd() - p.GetElement()));
        if (!bytes.empty())
            record.Create(bytes.data(), static_cast<int>(bytes.size()));
    }
    if (name.empty() || !m_Store.Store(name, record))
        Trace(ERROR, "record '" + name + "' not stored");
    else
        Trace(DEBUG, "record '" + name + "' stored");
}

void cScmServer::OnFetchRecord(cMsg& msg)
{
    const std::string name = Text(msg.GetRecord(), "name");
    cRecord answer, record;
    answer.AppendTextPar("name", name);
    if (m_Store.Fetch(name, record))
        answer.AppendRecordPar("record", record);
    Reply(msg, MSG_SCM_GET_STORED_RECORD, answer);
}

// ---- traces, connections, children ---------------------------------------------

void cScmServer::OnServiceTrace(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    ORVO_TRACE(&UnitServices, INFO,
               FormatString("%s %s [%s]: %s", Text(r, "name").c_str(), Text(r, "unit").c_str(),
                            Text(r, "level").c_str(), Text(r, "txt").c_str()));
}

void cScmServer::OnClosed(cMsg& msg)
{
    for (auto it = m_PendingSet.begin(); it != m_PendingSet.end();)
        it = it->second.channel == msg.GetChannel() ? m_PendingSet.erase(it) : std::next(it);
    const std::string name = m_Registry.Disconnect(msg.GetChannel());
    if (name.empty())
        return;
    m_Watchdog.Forget(name);
    Trace(INFO, "'" + name + "' disconnected");
}

void cScmServer::OnChildEnded(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    const int pid = static_cast<int>(r.GetFirstPar("pid").GetUInt());
    bool again = false;
    const std::string name = m_pSupervisor->OnEnded(pid, again);
    if (name.empty())
        return;
    if (msg == MSG_PROCESS_START_FAILED) {
        // The command itself is wrong: starting it again would fail the same way.
        Trace(ERROR, FormatString("'%s' could not be started (%s): not started again until its "
                                  "command in the file changes",
                                  name.c_str(), Text(r, "file").c_str()));
    } else if (again) {
        Trace(WARNING, FormatString("'%s' (pid %d) ended with code %u: restart in %lu ms", name.c_str(),
                                    pid, r.GetFirstPar("code").GetUInt(), m_Options.restartDelayMs));
        ScheduleRestart(name);
    } else {
        Trace(INFO, FormatString("'%s' (pid %d) ended with code %u", name.c_str(), pid,
                                 r.GetFirstPar("code").GetUInt()));
    }
    if (m_bStopping && !m_pSupervisor->AnyRunning())
        m_bDone = true;
}

void cScmServer::ScheduleRestart(const std::string& name)
{
    std::unique_ptr<cTimer>& timer = m_RestartTimers[name];
    if (!timer)
        timer.reset(new cTimer(this, false, nullptr));
    timer->m_Record.Create();
    timer->m_Record.AppendTextPar("name", name);
    timer->Start(m_Options.restartDelayMs, kMsgRestartDue);
}

void cScmServer::BeginStop()
{
    // Keep the loop running until the children are gone.
    cService::SetStopFlag(false);
    if (m_bStopping)
        return;
    m_bStopping = true;
    Trace(INFO, "stopping");
    for (tService* s : m_Registry.Connected())
        SendHealth(*s, "stopping");
    for (auto& kv : m_RestartTimers)
        kv.second->Stop();
    m_pSupervisor->StopAll();
    if (!m_pSupervisor->AnyRunning()) {
        m_bDone = true;
        return;
    }
    m_pStopTimer->Start(m_Options.stopGraceMs, kMsgStopGraceOver);
}

}  // namespace orvo_scm
