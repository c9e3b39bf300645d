#define ORVO_SOURCE "orvo_scm"
#include "orvo_scm.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_recordmerge.h"
#include "orvo_trace.h"

namespace orvo {

cMsgTcpSocket* gSCMsocket = nullptr;

const char* const cScmService::kDefaultFailureAction = "restart";

namespace {

const char* const kUnknownTech = "unknown";

// The element name of rec of the given type; invalid when missing or of
// another type (wrongly typed keys count as absent).
cRecordPar TypedPar(const cRecord& rec, const char* name, int type)
{
    cRecordPar par = rec.GetFirstPar(name);
    return par.IsValid() && par.GetType() == type ? par : cRecordPar();
}

bool TypedRecord(const cRecord& rec, const char* name, cRecord& out)
{
    cRecordPar par = TypedPar(rec, name, RECORD_RECORD);
    return par.IsValid() && par.GetRecord(out);
}

bool TypedUuid(const cRecord& rec, const char* name, cUuid& out)
{
    cRecordPar par = TypedPar(rec, name, RECORD_UUID);
    return par.IsValid() && par.GetUuid(out) && out.IsValid();
}

// A fresh message id.
cUuid FreshId()
{
    cUuid id;
    id.Create();
    return id;
}

cRecord SystemDefaults(const std::string& failureAction)
{
    cRecord system;
    system.AppendTextPar("failure-action", failureAction);
    system.AppendUIntPar("wdt-failures", 3);
    system.AppendTextPar("wdt", "ON");
    system.AppendUIntPar("bc-timelost", 5000);
    system.AppendUIntPar("msgQsize", 200);
    return system;
}

// A unit is named by its object name (what the registered configuration
// publishes, "orvo" for UnitORVO) or by its key in the unit map.
cUnit* FindUnit(const std::string& name)
{
    auto found = mUnits->find(name);
    if (found != mUnits->end() && found->second != nullptr)
        return found->second;
    for (const auto& entry : *mUnits)
        if (entry.second != nullptr && entry.second->GetObjName() == name)
            return entry.second;
    return nullptr;
}

// Every sub-record of the configuration's "trace" record that holds a
// "trace-level" text sets the level of the unit of that name (units that do
// not exist are not created).
void ApplyTraceLevels(const cRecord& config)
{
    cRecord trace;
    if (!TypedRecord(config, "trace", trace) || mUnits == nullptr)
        return;
    for (cRecordPar p = trace.GetFirstPar(); p.IsValid(); trace.SeekNextPar(p)) {
        cRecord unit;
        if (p.GetType() != RECORD_RECORD || !p.GetRecord(unit))
            continue;
        cRecordPar level = TypedPar(unit, "trace-level", RECORD_TEXT);
        cUnit* target = level.IsValid() ? FindUnit(p.GetName()) : nullptr;
        if (target != nullptr)
            SetTraceLevel(target, level.GetString());
    }
}

}  // namespace

cScmService::cScmService()
    : m_pScmSocket(nullptr), m_ServiceTech(kUnknownTech), m_BcTimeLost(5000), m_MsgQSize(200)
{
}

cScmService::~cScmService()
{
    CloseScmSocket();
}

bool cScmService::Init(const std::string& name, cSocketAddr sap, const std::string& failureAction)
{
    CloseScmSocket();
    cService::Init(name, sap);
    m_ServiceTech = kUnknownTech;
    m_PendingConfig.Clear();

    cRecordPar scmSap = TypedPar(*GetConfig(), "scm-sap", RECORD_TEXT);
    if (!scmSap.IsValid()) {
        ORVO_TRACE(UnitORVO, FATAL, "Can't connect SCM, missing SCM-SAP destination addr in config");
    } else {
        const std::string text = scmSap.GetString();
        m_pScmSocket = new cMsgTcpSocket(this, nullptr);
        m_pScmSocket->SetObjName("scm");
        gSCMsocket = m_pScmSocket;
        const cSocketAddr addr(text.c_str(), 0);
        bool failed = false;
        if (addr.GetIP() == 0 || addr.GetPort() == 0) {
            ORVO_TRACE(UnitORVO, ERROR, "malformed SCM-SAP '" + text + "'");
            failed = true;
        } else if (m_pScmSocket->Socket(AF_INET, SOCK_STREAM, 0) < 0) {
            ORVO_TRACE(UnitORVO, ERROR,
                       "SCM socket for " + text + " failed: " + std::strerror(errno));
            failed = true;
        } else {
            // A refused connect reports 0x4000 by itself.
            m_pScmSocket->Connect(addr);
        }
        if (failed) {
            // No connection can come of it: the loop takes the failed-connect
            // path as if the connection had been refused.
            cMsg refused(MSG_SOCKET_CONNECT_FAILED, m_pScmSocket, nullptr);
            OnMsg(refused);
        }
    }
    GetConfig()->AppendRecordPar("system", SystemDefaults(failureAction));
    return true;
}

bool cScmService::Init(const std::string& name, cSocketAddr sap)
{
    return Init(name, sap, kDefaultFailureAction);
}

bool cScmService::Init(const std::string& name, const std::string& failureAction)
{
    return Init(name, cSocketAddr(), failureAction);
}

void cScmService::DeInit()
{
    m_ServiceTech = kUnknownTech;
    CloseScmSocket();
    cService::DeInit();
}

void cScmService::CloseScmSocket()
{
    if (m_pScmSocket == nullptr)
        return;
    if (gSCMsocket == m_pScmSocket)
        gSCMsocket = nullptr;
    cMsgTcpSocket* scm = m_pScmSocket;
    m_pScmSocket = nullptr;
    scm->Close();
    delete scm;
}

// ---- Protocol engine ----------------------------------------------------------

bool cScmService::FromScm(const cMsg& msg) const
{
    return m_pScmSocket != nullptr &&
           msg.GetChannel() == static_cast<cChannel*>(m_pScmSocket);
}

// The SCM protocol is only taken from the SCM socket: any other peer that
// sends one of these types is an ordinary client and its message goes on to
// the program untouched.
static bool IsScmProtocol(unsigned long type)
{
    switch (type) {
    case MSG_SCM_SYNTAX_ERROR:
    case MSG_SCM_REGISTER_ACK:
    case MSG_SCM_REGISTER_NACK:
    case MSG_SCM_GETCONFIG_ACK:
    case MSG_SCM_RUN_ACK:
    case MSG_SCM_NOP:
    case MSG_SCM_SETCONFIG:
    case MSG_SCM_HEALTH:
        return true;
    default:
        return false;
    }
}

bool cScmService::PreDispatchMessage(cMsg& msg)
{
    if (IsScmProtocol(msg.GetType()) && !FromScm(msg))
        return cService::PreDispatchMessage(msg);
    switch (msg.GetType()) {
    case MSG_SOCKET_CONNECTED:
        if (!FromScm(msg))
            break;
        OnScmConnected();
        return true;
    case MSG_SOCKET_CONNECT_FAILED:
        if (!FromScm(msg))
            break;
        ORVO_TRACE(UnitORVO, FATAL, "can't connect to SCM; exit service");
        std::exit(0);
    case MSG_SOCKET_CLOSED:
        if (FromScm(msg)) {
            ORVO_TRACE(UnitORVO, FATAL, "connection closed by SCM; exit service");
            cMsg end(MSG_INTERRUPT_REQUEST);
            SendToInternal(this, end);
        }
        break;
    case MSG_SCM_SYNTAX_ERROR:
        ORVO_TRACE(UnitORVO, FATAL, "syntax error in SCM protocoll; exit service");
        std::exit(1);
    case MSG_SCM_REGISTER_ACK:
        OnRegisterAck();
        return true;
    case MSG_SCM_REGISTER_NACK:
        OnRegisterNack(msg);
        return true;
    case MSG_SCM_GETCONFIG_ACK:
        TakeConfigAnswer(msg);
        break;
    case MSG_SCM_RUN_ACK:
        ORVO_TRACE(UnitORVO, DEBUG, "SCM_RUN_ACK service '" + GetObjName() + "' ready");
        break;
    case MSG_SCM_NOP:
        return true;
    case MSG_SCM_SETCONFIG:
        if (!OnSetConfig(msg))
            return false;
        break;
    case MSG_SCM_HEALTH: {
        cRecordPar health = TypedPar(msg.GetRecord(), "scm-health", RECORD_TEXT);
        if (health.IsValid())
            m_ScmHealth = health.GetString();
        return true;
    }
    default:
        break;
    }
    return cService::PreDispatchMessage(msg);
}

void cScmService::OnScmConnected()
{
    ORVO_TRACE(UnitORVO, DEBUG,
               FormatString("SCM (%s) connected...",
                            m_pScmSocket->GetRemoteAddress().ToString().c_str()));
    cMsg reg(MSG_SCM_REGISTER);
    cRecord& r = reg.GetRecord();
    r.AppendUuidPar("service-id", GetServiceId());
    r.AppendTextPar("name", GetObjName());
    const std::string ip = TypedPar(*GetConfig(), "ip", RECORD_TEXT).GetString();
    // A sap that could not be bound keeps the address it asked for, which
    // another process owns: advertised, it would send this service's clients
    // there. Port 0 says "no sap": a look-up of this service's technology
    // then fails to connect instead of reaching the wrong process.
    int port = GetSapAddress().GetPort();
    if (!IsSapUp()) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("Register: sap %s is not listening; registering port 0",
                                GetSapAddress().ToString().c_str()));
        port = 0;
    }
    r.AppendTextPar("sap", FormatString("%s:%i", ip.c_str(), port));
    r.AppendSIntPar("pid", GetPid());
    r.AppendRecordPar("config", *GetConfig());
    SendToScm(reg, "Register");
}

void cScmService::OnRegisterAck()
{
    ORVO_TRACE(UnitORVO, DEBUG, "SCM_REGISTER_ACK");
    m_PendingConfig = FreshId();
    cMsg req(MSG_SCM_GETCONFIG);
    req.SetTid(m_PendingConfig);
    req.GetRecord().AppendUuidPar("service-id", GetServiceId());
    req.GetRecord().AppendTextPar("path", "");
    SendToScm(req, "RequestConfig");
}

void cScmService::OnRegisterNack(const cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    cRecordPar reason = TypedPar(r, "reason", RECORD_SINT);
    if (!reason.IsValid())
        reason = TypedPar(r, "reason", RECORD_UINT);
    if (reason.IsValid()) {
        cRecordPar sub = TypedPar(r, "sub-reason", RECORD_TEXT);
        const std::string subText = sub.IsValid() ? sub.GetString() : "-no-sub-reason-";
        ORVO_TRACE(UnitORVO, FATAL,
                   FormatString("service not registered, reason=%d (%s)", reason.GetSInt(),
                                subText.c_str()));
    } else {
        ORVO_TRACE(UnitORVO, FATAL, "service not registered, unknown reason");
    }
    cMsg refused(MSG_TERMINATE_REQUEST);
    OnMsg(refused);
}

// Takes a configuration answer that belongs to the pending request for this
// service's root; anything else leaves the configuration as it is.
bool cScmService::TakeConfigAnswer(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    cUuid id;
    cRecord config;
    cRecordPar path = TypedPar(r, "path", RECORD_TEXT);
    if (!m_PendingConfig.IsValid() || !msg.GetTid().IsValid() || msg.GetTid() != m_PendingConfig ||
        !TypedUuid(r, "service-id", id) || id != GetServiceId() || !path.IsValid() ||
        !path.GetString().empty() || !TypedRecord(r, "config", config))
        return false;

    *GetConfig() = config;
    cRecordPar bc = GetConfig()->GetFirstParByPath("system.bc-timelost", ".");
    if (bc.IsValid()) {
        m_BcTimeLost = bc.GetUInt();
        cRecordPar q = GetConfig()->GetFirstParByPath("system.msgQsize", ".");
        if (q.IsValid())
            m_MsgQSize = q.GetUInt();
    }
    ApplyConfig(*GetConfig(), "SCM_GETCONFIG_ACK ");
    msg.GetRecord() = cRecord();
    m_PendingConfig.Clear();
    ++m_ConfigAnswersTaken;
    return true;
}

void cScmService::ApplyConfig(const cRecord& config, const char* logPrefix)
{
    ApplyTraceLevels(config);
    ORVO_TRACE(UnitORVO, DEBUG, logPrefix + config.ToString());
}

// Why a partial change (ChangeRecord at path) would not be applied as sent,
// or empty when it would: it sets records only (plain values beside them
// would be dropped), its path must address something (else nothing
// changes) and it must hold a record to put in place of the target (else
// it would only delete the target, or do nothing).
static std::string PartialChangeRefusal(const cRecord& config, const cRecordPath& path,
                                        const cRecord& change)
{
    for (cRecordPar p = change.GetFirstPar(); p.IsValid(); change.SeekNextPar(p))
        if (p.GetType() != RECORD_RECORD)
            return std::string("'") + p.GetName() + "' is not a record: a change sets records only";
    // Any record in place of the target changes the configuration when the
    // path addresses something: the target is replaced or added.
    cRecord probe, probeChange;
    probe.AppendTextPar("orvo-probe", FreshId().ToString());
    probeChange.AppendRecordPar("probe", probe);
    const std::string before = config.ToString();
    if (ChangeRecord(config, path, probeChange, "", true).ToString() == before)
        return path.ToString() + " addresses nothing in the configuration";
    const std::string removed = ChangeRecord(config, path, cRecord(), "", true).ToString();
    if (ChangeRecord(config, path, change, "", true).ToString() == removed)
        return removed != before
                   ? "no record to put at " + path.ToString() + ": the change would only remove it"
                   : "no record to put at " + path.ToString();
    return std::string();
}

// A configuration change pushed by the SCM; false when it is refused (0x10017
// back, with a text "reason"; the configuration stays as it was).
bool cScmService::OnSetConfig(cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    cRecord pathRec, change;
    const bool valid = TypedRecord(r, "path", pathRec) && !pathRec.IsEmpty() &&
                       cRecordPath(pathRec).GetFirstEntry().IsValid() &&
                       TypedRecord(r, "config", change);
    const bool full = TypedPar(r, "full-config", RECORD_BOOL).GetBool();
    const cRecordPath path(pathRec);
    const std::string refusal =
        !valid ? std::string("\"path\" and \"config\" must be records, the path not empty")
        : full ? std::string()
               : PartialChangeRefusal(*GetConfig(), path, change);
    cChannel* back = msg.GetChannel();
    if (!refusal.empty()) {
        ORVO_TRACE(UnitORVO, ERROR, "change refused: " + refusal);
        cMsg nack(MSG_SCM_SETCONFIG_NACK);
        nack.SetTid(msg.GetTid());
        nack.GetRecord().AppendTextPar("reason", refusal);
        if (back != nullptr)
            back->Send(nack);
        return false;
    }
    ORVO_TRACE(UnitORVO, INFO, "change " + path.ToString());
    const cRecord changed = full ? change : ChangeRecord(*GetConfig(), path, change, "", true);
    cRecord old;
    old.AppendRecordPar("old-config", *GetConfig());
    *GetConfig() = changed;
    ApplyConfig(*GetConfig(), "SCM_SETCONFIG_ACK ");

    cMsg ack(MSG_SCM_SETCONFIG_ACK);
    ack.SetTid(msg.GetTid());
    if (back != nullptr)
        back->Send(ack);
    msg.GetRecord() = old;
    return true;
}

// ---- Requests ----------------------------------------------------------------------

int cScmService::SendToScm(cMsg& msg, const char* what, bool withMsg) const
{
    if (m_pScmSocket == nullptr)
        return 0;
    const int result = m_pScmSocket->Send(msg);
    if (result < 0) {
        if (withMsg)
            ORVO_TRACE(UnitORVO, ERROR,
                       std::string("scmService[") + what + "] send failed, msg=" + msg.ToString());
        else
            ORVO_TRACE(UnitORVO, ERROR, std::string(what) + ": send failed");
    }
    return result;
}

int cScmService::SetReady() const
{
    cMsg m(MSG_SCM_RUN);
    m.GetRecord().AppendUuidPar("service-id", GetServiceId());
    return SendToScm(m, "SetReady");
}

int cScmService::SetWDT(cMsg& request) const
{
    cMsg m(MSG_SCM_WDT_ACK);
    m.GetRecord().AppendUuidPar("service-id", GetServiceId());
    m.GetRecord().AppendUIntPar("seq-no", request.GetRecord().GetFirstPar("seq-no").GetUInt());
    return SendToScm(m, "SetWDT");
}

int cScmService::SetConfig(const char* service, const cRecordPath& path, const cRecord& config) const
{
    cUuid id = FreshId();
    return SetConfig2(id, service, path, config);
}

int cScmService::SetConfig2(cUuid& id, const char* service, const cRecordPath& path,
                            const cRecord& config) const
{
    cMsg m(MSG_SCM_SETCONFIG);
    m.SetTid(id);
    m.GetRecord().AppendTextPar("service-name", service != nullptr ? service : "");
    m.GetRecord().AppendRecordPar("path", path.GetRecord());
    m.GetRecord().AppendRecordPar("config", config);
    return SendToScm(m, "SetConfig", true);
}

int cScmService::SetConfigReady(const char* service) const
{
    cMsg m(MSG_SCM_SETCONFIG);
    m.SetTid(FreshId());
    m.GetRecord().AppendTextPar("service-name", service != nullptr ? service : "");
    m.GetRecord().AppendBoolPar("broadcast", true);
    return SendToScm(m, "SetConfigReady", true);
}

int cScmService::SetConfigUInt(const char* service, const cRecordPath& path, const char* name,
                               unsigned int value) const
{
    cRecord config;
    config.AppendUIntPar(name, value);
    return SetConfig(service, path, config);
}

int cScmService::SetConfigBool(const char* service, const cRecordPath& path, const char* name,
                               bool value) const
{
    cRecord config;
    config.AppendBoolPar(name, value);
    return SetConfig(service, path, config);
}

int cScmService::SetConfigText(const char* service, const cRecordPath& path, const char* name,
                               const std::string& value) const
{
    cRecord config;
    config.AppendTextPar(name, value);
    return SetConfig(service, path, config);
}

int cScmService::SystemReboot(bool factoryDefaults) const
{
    cMsg m(MSG_SCM_SYSTEM_REBOOT);
    m.GetRecord().AppendBoolPar("set-factory-defaults", factoryDefaults);
    return SendToScm(m, "SystemReboot");
}

int cScmService::SetBroadcastConfig() const
{
    cMsg m(MSG_SCM_BROADCAST_CONFIG);
    m.GetRecord().AppendUuidPar("service-id", GetServiceId());
    m.GetRecord().AppendTextPar("name", GetObjName());
    m.GetRecord().AppendRecordPar("config", *GetConfig());
    return SendToScm(m, "SetBroadcastConfig");
}

int cScmService::RequestNotifications(unsigned int mask) const
{
    cMsg m(MSG_SCM_NOTIFICATION_REQUEST);
    m.SetTid(FreshId());
    m.GetRecord().AppendUIntPar("mask", mask);
    return SendToScm(m, "RequestNotifications");
}

int cScmService::StoreRecord(const std::string& name, const cRecord& record)
{
    cMsg m(MSG_SCM_STORE_RECORD);
    m.GetRecord().AppendTextPar("name", name);
    m.GetRecord().AppendRecordPar("record", record);
    return SendToScm(m, "StoreRecord");
}

int cScmService::RequestStoredRecord(const std::string& name)
{
    cMsg m(MSG_SCM_GET_STORED_RECORD);
    m.GetRecord().AppendTextPar("name", name);
    return SendToScm(m, "RequestStoredRecord");
}

namespace {
// The head every log request carries: its id, "service-id", "log".
cMsg LogRequest(unsigned long type, const cUuid& id, const cUuid& service, const std::string& log)
{
    cMsg m(type);
    m.SetTid(id);
    m.GetRecord().AppendUuidPar("service-id", service);
    m.GetRecord().AppendTextPar("log", log);
    return m;
}
}  // namespace

int cScmService::RequestLog(const std::string& log, const cRecord& filter)
{
    cUuid id = FreshId();
    return RequestLog2(id, log, filter);
}

int cScmService::RequestLog2(cUuid& id, const std::string& log, const cRecord& filter)
{
    cMsg m = LogRequest(MSG_SCM_LOG_REQUEST, id, GetServiceId(), log);
    m.GetRecord().AppendRecordPar("filter", filter);
    return SendToScm(m, "RequestLog2");
}

int cScmService::FetchLog(const std::string& log, unsigned int index, unsigned int count)
{
    cUuid id = FreshId();
    return FetchLog2(id, log, index, count);
}

int cScmService::FetchLog2(cUuid& id, const std::string& log, unsigned int index, unsigned int count)
{
    cMsg m = LogRequest(MSG_SCM_LOG_FETCH, id, GetServiceId(), log);
    m.GetRecord().AppendUIntPar("index", index);
    m.GetRecord().AppendUIntPar("count", count);
    return SendToScm(m, "FetchLog2");
}

int cScmService::DeleteLog(const std::string& log)
{
    cUuid id = FreshId();
    return DeleteLog2(id, log);
}

int cScmService::DeleteLog2(cUuid& id, const std::string& log)
{
    cMsg m = LogRequest(MSG_SCM_LOG_DELETE, id, GetServiceId(), log);
    return SendToScm(m, "DeleteLog2");
}

int cScmService::RequestServiceConfig(const char* service, const cRecordPath& path,
                                      const char* filter) const
{
    cUuid id = FreshId();
    return RequestServiceConfig2(id, service, path, filter);
}

int cScmService::RequestServiceConfig2(cUuid& id, const char* service, const cRecordPath& path,
                                       const char* filter) const
{
    cMsg m(MSG_SCM_GETCONFIG);
    m.SetTid(id);
    m.GetRecord().AppendTextPar("service-name", service != nullptr ? service : "");
    m.GetRecord().AppendRecordPar("path", path.GetRecord());
    m.GetRecord().AppendTextPar("filter", filter != nullptr ? filter : "");
    return SendToScm(m, "RequestServiceConfig2");
}

int cScmService::RequestServiceInfo(const char* key, const std::string& value) const
{
    if (key == nullptr)
        return 0;
    cMsg m(MSG_SCM_SERVICE_INFO_REQUEST);
    m.SetTid(FreshId());
    m.GetRecord().AppendTextPar(key, value);
    return SendToScm(m, "RequestServiceInfo");
}

int cScmService::RequestServiceInfoByName(const std::string& name) const
{
    return RequestServiceInfo("service-name", name);
}

int cScmService::RequestServiceInfoByTech(const std::string& tech) const
{
    return RequestServiceInfo("service-tech", tech);
}

int cScmService::SetServiceTech(const char* tech, int count, ...)
{
    std::vector<std::string> techs;
    techs.push_back(tech != nullptr ? tech : "");
    va_list args;
    va_start(args, count);
    for (int i = 1; i < count; ++i) {
        const char* more = va_arg(args, const char*);
        techs.push_back(more != nullptr ? more : "");
    }
    va_end(args);
    return SetServiceTech(techs);
}

int cScmService::SetServiceTech(const std::vector<std::string>& techs)
{
    if (!techs.empty())
        m_ServiceTech = techs.front();
    cMsg m(MSG_SCM_SET_SERVICE_TECH);
    m.SetTid(FreshId());
    m.GetRecord().AppendUuidPar("service-id", GetServiceId());
    for (const std::string& t : techs)
        m.GetRecord().AppendTextPar("service-tech", t);
    return SendToScm(m, "SetServiceTech");
}

}  // namespace orvo
