#define ORVO_SOURCE "orvo_scmio"
#include "orvo_scmio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "orvo_msgtypes.h"
#include "orvo_scm.h"
#include "orvo_socketaddr.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

const unsigned long kHealthMs = 5000;
const unsigned int kNotifyMask = 2;

cRecordPar Typed(const cRecord& rec, const char* name, int type)
{
    cRecordPar par = rec.GetFirstPar(name);
    return par.IsValid() && par.GetType() == type ? par : cRecordPar();
}

}  // namespace

// ---- cScmServiceInfo -------------------------------------------------------------

cScmServiceInfo::cScmServiceInfo() : m_Pid(0), m_TraceLog(false), m_Valid(false)
{
    SetObjName("cScmServiceInfo");
}

cScmServiceInfo::cScmServiceInfo(const cRecord& rec) : cScmServiceInfo()
{
    cRecord sub;
    cRecordPar service = Typed(rec, "service", RECORD_RECORD);
    const cRecord& r = service.IsValid() && service.GetRecord(sub) ? sub : rec;

    cRecordPar id = Typed(r, "service-id", RECORD_UUID);
    cRecordPar name = Typed(r, "name", RECORD_TEXT);
    cRecordPar pid = Typed(r, "pid", RECORD_SINT);
    cRecordPar sap = Typed(r, "sap", RECORD_TEXT);
    bool ok = id.IsValid() && id.GetUuid(m_ServiceId) && m_ServiceId.IsValid() &&
              name.IsValid() && !(m_Name = name.GetString()).empty() && pid.IsValid() &&
              pid.GetSize() > 0 && sap.IsValid();
    if (ok) {
        m_Pid = static_cast<int32_t>(pid.GetSInt());
        m_Sap = sap.GetString();
    }
    cRecordPar techPar = r.GetFirstPar("tech");
    if (techPar.IsValid()) {
        cRecord tech;
        if (techPar.GetType() != RECORD_RECORD || !techPar.GetRecord(tech)) {
            ok = false;
        } else {
            for (cRecordPar t = tech.GetFirstPar("service-tech"); t.IsValid();
                 tech.SeekNextPar(t, "service-tech")) {
                if (t.GetType() == RECORD_TEXT)
                    m_Tech.push_back(t.GetString());
            }
        }
    }
    m_TraceLog = Typed(r, "tracelog", RECORD_BOOL).IsValid();
    m_Valid = ok;
}

std::string cScmServiceInfo::ToString() const
{
    if (!m_Valid)
        return "not-valid";
    return FormatString("name=%s sap=%s pid=%d uuid=%s", m_Name.c_str(), m_Sap.c_str(),
                        static_cast<int>(m_Pid), m_ServiceId.ToString().c_str());
}

// ---- cScmServiceIO -------------------------------------------------------------------

cScmServiceIO::cScmServiceIO(cScmService* owner, const std::string& tech)
    : m_Tech(tech), m_pOwner(owner), m_Socket(owner, nullptr), m_HealthTimer(owner, false, nullptr)
{
    m_Socket.SetObjName("tech:" + tech);
}

cScmServiceIO::~cScmServiceIO()
{
    m_HealthTimer.Stop();
    m_Socket.Close();
}

void cScmServiceIO::OnConnect()
{
}

void cScmServiceIO::OnClose()
{
}

int cScmServiceIO::DispatchMessage(const cMsg& /*msg*/)
{
    return 0;
}

std::string cScmServiceIO::ToString() const
{
    return "cScmServiceIO technology=" + m_Tech;
}

void cScmServiceIO::Start()
{
    ORVO_TRACE(UnitORVO, DEBUG, "start connection to tech '" + m_Tech + "'");
    if (m_pOwner == nullptr)
        return;
    m_pOwner->RequestNotifications(kNotifyMask);
    m_pOwner->RequestServiceInfoByTech(m_Tech);
}

void cScmServiceIO::ConnectChannel()
{
    if (!m_ConnectedSap.empty()) {
        ORVO_TRACE(UnitORVO, INFO,
                   "already connected to tech '" + m_Tech + "', sap=" + m_ConnectedSap);
        return;
    }
    ORVO_TRACE(UnitORVO, DEBUG, "connect to tech '" + m_Tech + "', sap=" + m_AnnouncedSap);
    m_Socket.Close();
    // Events of the connection just dropped must not be taken for the new one.
    if (m_pOwner != nullptr)
        m_pOwner->RemoveMsgsByObject(&m_Socket);
    const cSocketAddr addr(m_AnnouncedSap.c_str(), 0);
    if (addr.GetIP() == 0 || addr.GetPort() == 0) {
        ORVO_TRACE(UnitORVO, ERROR,
                   "malformed sap '" + m_AnnouncedSap + "' of tech '" + m_Tech + "'");
        EndInClosedState();
        return;
    }
    if (m_Socket.Socket(AF_INET, SOCK_STREAM, 0) < 0) {
        // No socket (out of descriptors, say): no 0x4000 will come, so the
        // link ends closed here and the health timer tries again.
        ORVO_TRACE(UnitORVO, ERROR,
                   "socket for tech '" + m_Tech + "' failed: " + std::strerror(errno));
        EndInClosedState();
        return;
    }
    // A connect that fails reports 0x4000, at once or later.
    m_Socket.Connect(addr);
}

// Closed, the program told, a new look-up when the health timer runs out.
void cScmServiceIO::EndInClosedState()
{
    m_ConnectedSap.clear();
    OnClose();
    m_HealthTimer.Start(kHealthMs, MSG_SCM_TECH_HEALTH_TIMEOUT);
}

int cScmServiceIO::Send(cMsg& msg)
{
    if (!m_Socket.IsConnected())
        return 0;
    return m_Socket.Send(msg);
}

bool cScmServiceIO::IsMsgFromHere(const cMsg& msg) const
{
    return msg.GetChannel() == static_cast<const cChannel*>(&m_Socket);
}

void cScmServiceIO::HealthRequest()
{
    if (!m_HealthTimer.IsRunning())
        m_HealthTimer.Start(kHealthMs, MSG_SCM_TECH_HEALTH_TIMEOUT);
}

// Every entry naming this technology counts, as the SCM listed it: a service
// that lists it twice is connected to twice (the second attempt replaces the
// first while it is still on its way).
void cScmServiceIO::TakeServiceInfo(const cRecord& rec, const char* logText)
{
    const cScmServiceInfo info(rec);
    if (!info.IsValid())
        return;
    for (const std::string& tech : info.GetTech()) {
        if (tech != m_Tech || info.GetSAP() == m_ConnectedSap)
            continue;
        ORVO_TRACE(UnitORVO, DEBUG, "connection " + std::string(logText));
        m_AnnouncedSap = info.GetSAP();
        ConnectChannel();
    }
}

int cScmServiceIO::ProcessMsg(const cMsg& msg)
{
    const cRecord& r = msg.GetRecord();
    switch (msg.GetType()) {
    case MSG_SCM_GETCONFIG_ACK:
        if (m_pOwner == nullptr || m_pOwner->GetConfigAnswersTaken() == m_ConfigAnswersSeen)
            return 1;
        m_ConfigAnswersSeen = m_pOwner->GetConfigAnswersTaken();
        ORVO_TRACE(UnitORVO, DEBUG, "get config to tech '" + m_Tech + "' received");
        Start();
        return 1;
    case MSG_SCM_SERVICE_INFO:
        TakeServiceInfo(r, ("info for tech '" + m_Tech + "' sap received").c_str());
        return 1;
    case MSG_SCM_NOTIFICATION:
        if (Typed(r, "command", RECORD_TEXT).GetString() != "add-technology")
            break;
        TakeServiceInfo(r, ("to tech '" + m_Tech + "' should reconnected").c_str());
        return 1;
    case MSG_SCM_TECH_UNKNOWN:
        if (m_ConnectedSap.empty() && Typed(r, "service-tech", RECORD_TEXT).IsValid() &&
            Typed(r, "service-tech", RECORD_TEXT).GetString() == m_Tech)
            ORVO_TRACE(UnitORVO, WARNING,
                       "tech '" + m_Tech + "' is unknown (perhaps not connected yet)");
        return 1;
    case MSG_SCM_TECH_HEALTH_TIMEOUT:
        // Another connection's health timer is that connection's business.
        if (msg.GetTimer() != nullptr && msg.GetTimer() != &m_HealthTimer)
            break;
        ORVO_TRACE(UnitORVO, DEBUG,
                   "connection to tech '" + m_Tech + "' re-connect by health-timeout");
        Start();
        return 1;
    case MSG_SOCKET_CONNECTED:
        if (!IsMsgFromHere(msg))
            return 1;
        m_HealthTimer.Stop();
        m_ConnectedSap = m_AnnouncedSap;
        ORVO_TRACE(UnitORVO, DEBUG, "connection to tech '" + m_Tech + "' established");
        OnConnect();
        return 1;
    case MSG_SOCKET_CLOSED:
        if (!IsMsgFromHere(msg))
            return 1;
        ORVO_TRACE(UnitORVO, DEBUG, "connection to tech '" + m_Tech + "' shutdown");
        EndInClosedState();
        return 1;
    case MSG_SOCKET_CONNECT_FAILED:
        if (!IsMsgFromHere(msg))
            return 1;
        ORVO_TRACE(UnitORVO, ERROR, "connection to tech '" + m_Tech + "' failed");
        EndInClosedState();
        return 1;
    default:
        break;
    }
    return DispatchMessage(msg);
}

}  // namespace orvo
