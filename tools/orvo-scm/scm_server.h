// scm_server.h - orvo-scm's service: the SCM side of the registration,
// configuration, technology, watchdog, health and record-store protocol,
// plus the children it starts. Being a cService it also answers the
// library's control messages (trace on/off, snoop, service information) on
// its listening socket.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <orvo_msg.h>
#include <orvo_service.h>
#include <orvo_timer.h>
#include <orvo_uuid.h>

#include "scm_config.h"
#include "scm_registry.h"
#include "scm_store.h"
#include "scm_supervisor.h"
#include "scm_watchdog.h"

namespace orvo_scm {

struct tScmOptions {
    std::string listen = "127.0.0.1:47000";
    std::string configPath;
    std::string storePath = "orvo-scm.records";
    unsigned long wdtPeriodMs = 5000;
    unsigned long pollMs = 1000;
    unsigned long restartDelayMs = 1000;
    unsigned long stopGraceMs = 5000;
    bool sharedTech = false;      // several services may offer one technology
    bool onlyChildren = false;    // registrations only from the children it started
    std::string controlAccess = "loopback";   // who may send it control messages
    unsigned long idleTimeoutMs = 0;          // sap connections owing progress closed after it; 0: never
};

class cScmServer : public orvo::cService {
public:
    explicit cScmServer(const tScmOptions& options);
    ~cScmServer() override;
    void ThreadMain() override {}

    // Listens, starts the listed services and runs until SIGTERM/SIGINT and
    // the end of every child. Returns the exit status (2 for a set-up fault).
    int Run();

private:
    bool SetUp();
    void Handle(orvo::cMsg& msg);
    void Reply(orvo::cMsg& request, unsigned long type, const orvo::cRecord& record);
    void RefuseRequest(orvo::cMsg& request);
    void SendTo(tService& service, orvo::cMsg& msg);
    // 0x10141 with "scm-health": "running" after the configuration answer,
    // "stopping" when orvo-scm begins to stop.
    void SendHealth(tService& service, const char* health);

    void OnRegister(orvo::cMsg& msg);
    // With onlyChildren: whether the connection of msg comes from a child
    // orvo-scm started; why gets the refusal's text.
    bool FromOwnChild(const orvo::cMsg& msg, std::string& why) const;
    void OnConfigRequest(orvo::cMsg& msg);
    void OnReady(orvo::cMsg& msg);
    void OnServiceInfoRequest(orvo::cMsg& msg);
    void OnServiceListRequest(orvo::cMsg& msg);
    void OnSetServiceTech(orvo::cMsg& msg);
    void OnNotificationRequest(orvo::cMsg& msg);
    void OnWdtAnswer(orvo::cMsg& msg);
    void OnSetConfigAnswer(orvo::cMsg& msg, bool applied);
    void OnSetConfigRequest(orvo::cMsg& msg);
    void OnStoreRecord(orvo::cMsg& msg);
    void OnFetchRecord(orvo::cMsg& msg);
    void OnServiceTrace(orvo::cMsg& msg);
    void OnClosed(orvo::cMsg& msg);
    void OnChildEnded(orvo::cMsg& msg);

    void WatchdogTick();
    void WatchdogFailed(const std::string& name);
    void PollFile();
    // Sends the service its whole configuration; returns the push's tid.
    orvo::cUuid PushConfig(tService& service);
    void ScheduleRestart(const std::string& name);
    void BeginStop();

    orvo::cRecord ConfigOf(const tService& service) const;
    orvo::cRecord SystemPar(const tService& service) const;
    // Whether the named service sends its traces to the SCM now (its
    // "trace.log-scm"), as the configuration it was given says.
    bool LogsToScm(const std::string& name);

    tScmOptions m_Options;
    std::string m_Sap;                 // the address services reach us at
    tScmFile m_File;
    std::unique_ptr<cFileWatch> m_pWatch;
    cRegistry m_Registry;
    cWatchdogBook m_Watchdog;
    cRecordStore m_Store;
    std::unique_ptr<cSupervisor> m_pSupervisor;
    std::map<std::string, bool> m_LogsToScm;            // by service name
    std::map<orvo::cUuid, std::string> m_PendingPush;   // 0x10015 tid -> service
    // A change asked for by a client (0x10015 with "service-name"): the
    // push's tid -> the client's channel and tid, answered when the service
    // has answered the push.
    struct tSetRequest {
        orvo::cChannel* channel;
        orvo::cUuid tid;
    };
    std::map<orvo::cUuid, tSetRequest> m_PendingSet;
    // Changes made by clients, per service, applied over the configuration
    // file in order: parent levels and the elements put there.
    std::map<std::string, std::vector<std::pair<std::vector<std::string>, orvo::cRecord>>> m_Changes;
    std::map<std::string, std::unique_ptr<orvo::cTimer>> m_RestartTimers;
    std::unique_ptr<orvo::cTimer> m_pWdtTimer, m_pPollTimer, m_pStopTimer;
    bool m_bStopping;
    bool m_bDone;
};

}  // namespace orvo_scm
