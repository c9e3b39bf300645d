// orvo_scm.h - cScmService, a service that registers with the supervising
// service control manager (SCM), takes its configuration from it, follows
// the configuration changes the SCM pushes and ends when the SCM goes away.
//
// All SCM traffic is messages over one framed TCP connection, the SCM
// socket (object name "scm", also published in gSCMsocket). Init connects
// it to the configuration's "scm-sap"; the life of a service is then
//
//   connect (the SCM announces itself with 0x4002)   -> register 0x10000
//   0x10001 registration accepted                    -> ask 0x10003
//   0x10004 configuration answer taken                -> handed to the program
//   the program calls SetReady (0x10006)              -> the SCM answers 0x10007
//
// PreDispatchMessage sees every message before the program does; it consumes
// the SCM protocol messages and passes everything else on to
// cService::PreDispatchMessage. The SCM protocol (0x10001, 0x10002, 0x10004,
// 0x10007, 0x10008, 0x10015, 0x1012c, 0x10141) is acted on only when the
// message's channel is the SCM socket; the same types from any other channel
// (a client on the sap, an internal sender) go on to the base dispatch and
// the program like any application message:
//
//   0x4002 from the SCM socket  send 0x10000                       consumed
//   0x4000 from the SCM socket  "can't connect to SCM; exit service",
//                               exit(0)
//   0x4003 from the SCM socket  "connection closed by SCM; exit service",
//                               0x1004 posted to this service      passed on
//   0x1012c                     "syntax error in SCM protocoll; exit service",
//                               exit(1)
//   0x10001                     fresh pending id, send 0x10003     consumed
//   0x10002                     refusal traced, 0x1005 to OnMsg    consumed
//                               (0x1005 is a stop message: the loop ends
//                               and with it, in the usual main, the process)
//   0x10004                     configuration taken when it answers the
//                               pending request for this service's
//                               root ("path" empty), else ignored  passed on
//   0x10007                     "SCM_RUN_ACK service '<name>' ready" passed on
//   0x10008                     nothing                            consumed
//   0x10015                     valid "path": configuration changed, 0x10016
//                               back, record = "old-config"        passed on
//                               otherwise 0x10017 back              passed on
//                               "full-config" true: "config" replaces the
//                               configuration whole. Otherwise the change
//                               is ChangeRecord(configuration, path,
//                               config): the record path addresses is
//                               replaced by the records "config" holds. A
//                               partial change is refused when it would
//                               not be applied as sent: an element of
//                               "config" that is not a record (it would be
//                               dropped), a path that addresses nothing, or
//                               no record to put in place of the target (it
//                               would only be deleted).
//                               Every refusal sends 0x10017 with the
//                               request's id and a text "reason", traces
//                               "change refused: <reason>" at ERROR and
//                               leaves the configuration as it was.
//   0x10141                     "scm-health" kept                  consumed
//
// The SCM's watchdog trigger 0x10009 (MSG_SCM_WDT, record "seq-no") is not
// consumed: it reaches the program like any other message, and the program
// answers it with SetWDT (0x1000a).
//
// Keys that are missing or of another type than the protocol names count as
// absent: such a message changes nothing (a 0x10004 without a uuid
// "service-id" or without a record "config" is not taken; a 0x10015 whose
// "path" or "config" is not a record is refused with 0x10017).
//
// Record keys this library settles (the SCM it talks to uses the same):
//   0x10015 SetConfig/SetConfig2  "service-name" (text, empty: this service),
//                                 "path" (record path), "config" (record)
//   0x1001e SetBroadcastConfig    "service-id" (uuid), "name" (text),
//                                 "config" (record: the whole configuration)
//   0x10028 StoreRecord           "name" (text), "record" (record)
//   0x1002b RequestStoredRecord   "name" (text); the SCM answers with the
//                                 same type, "name" and "record"
//   0x1019a RequestLog2           "service-id", "log" (text), "filter" (record)
//   0x1019d FetchLog2             "service-id", "log" (text), "index"
//                                 (unsigned, first entry), "count" (unsigned)
//   0x101a0 DeleteLog2            "service-id", "log" (text)
//   0x10008                       carries nothing the service uses
// The log requests carry the caller's uuid as message id (the SCM's answer
// carries it back); RequestLog, FetchLog and DeleteLog make a fresh one.
//
// Every request returns the socket's Send result (bytes, or the frame length
// when it was queued); a negative result is traced at ERROR ("<Request>:
// send failed", for the configuration requests "scmService[<Request>] send
// failed, msg=<message text>"). Without an SCM socket nothing is sent and
// the result is 0.
//
// Threads: everything runs on the service's own thread. gSCMsocket is set by
// Init and cleared by DeInit; the trace machinery reads it from any thread
// (its Send is locked), so DeInit belongs to the end of a program.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvo_msg.h"
#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "orvo_service.h"
#include "orvo_socketaddr.h"
#include "orvo_uuid.h"

namespace orvo {

class cMsgTcpSocket;

// The SCM socket of the process (null when there is none). With it, and
// "trace.log-scm" true in the configuration, every trace is copied to the
// SCM as 0x10190.
ORVO_API extern cMsgTcpSocket* gSCMsocket;

class ORVO_API cScmService : public cService {
public:
    // Failure action of the two-argument Init forms that do not name one.
    static const char* const kDefaultFailureAction;    // "restart"

    cScmService();
    // Closes and deletes the SCM socket (see DeInit).
    ~cScmService() override;

    // cService::Init(name, sap); technology text "unknown"; connects the SCM
    // socket to the configuration's "scm-sap" ("a.b.c.d:port"; without it
    // "Can't connect SCM, missing SCM-SAP destination addr in config" at
    // FATAL and no SCM at all). A "scm-sap" that is no address ("malformed
    // SCM-SAP '<text>'") or a socket that cannot be made ("SCM socket for
    // <text> failed: <reason>", e.g. out of descriptors) is traced at ERROR
    // and a 0x4000 of the SCM socket is queued: the loop then takes the
    // failed-connect path as for a refused connect. Adds the "system"
    // defaults to the configuration: "failure-action" = failureAction,
    // "wdt-failures" 3, "wdt" "ON", "bc-timelost" 5000, "msgQsize" 200.
    // Always true.
    // The register message's "sap" is "<ip>:<port>" with the configuration's
    // "ip" (the -ip option) and the sap's port; when the sap could not be
    // bound (IsSapUp() false: the port is another process's) the port sent is
    // 0, traced at ERROR, so the SCM never hands out an address this service
    // does not own. The service still registers: it keeps its configuration,
    // watchdog and outgoing links.
    bool Init(const std::string& name, cSocketAddr sap, const std::string& failureAction);
    // Init(name, sap, kDefaultFailureAction): the short form's failure
    // action is "restart".
    bool Init(const std::string& name, cSocketAddr sap) override;
    // Init(name, empty sap (the configuration's "port"), failureAction).
    bool Init(const std::string& name, const std::string& failureAction);
    // Technology text back to "unknown"; closes and deletes the SCM socket
    // (gSCMsocket cleared when it is this one); cService::DeInit().
    void DeInit() override;
    // The protocol engine (see the file comment); true when consumed.
    bool PreDispatchMessage(cMsg& msg) override;

    // ---- Requests to the SCM -----------------------------------------------

    // 0x10006 "service-id".
    int SetReady() const;
    // 0x1000a "service-id", "seq-no" (unsigned, copied from request).
    int SetWDT(cMsg& request) const;
    // 0x10015 with a fresh message id (see SetConfig2).
    int SetConfig(const char* service, const cRecordPath& path, const cRecord& config) const;
    // 0x10015, message id id: "service-name" (service, "" for null), "path",
    // "config".
    int SetConfig2(cUuid& id, const char* service, const cRecordPath& path,
                   const cRecord& config) const;
    // 0x10015, fresh message id: "service-name", "broadcast" true.
    int SetConfigReady(const char* service) const;
    // SetConfig with a config record of the one value name = value. The SCM
    // decides how to read path: orvo-scm reads it as the levels above the
    // change and sets the value in place, keeping its siblings (then pushes
    // the service its whole new configuration). The same shape pushed as a
    // partial change straight to a service built on this library is refused
    // there (0x10017, "'<name>' is not a record"; see 0x10015 above).
    int SetConfigUInt(const char* service, const cRecordPath& path, const char* name,
                      unsigned int value) const;
    int SetConfigBool(const char* service, const cRecordPath& path, const char* name,
                      bool value) const;
    int SetConfigText(const char* service, const cRecordPath& path, const char* name,
                      const std::string& value) const;
    // 0x100ce "set-factory-defaults".
    int SystemReboot(bool factoryDefaults) const;
    // 0x1001e "service-id", "name", "config".
    int SetBroadcastConfig() const;
    // 0x1006c, fresh message id: "mask".
    int RequestNotifications(unsigned int mask) const;
    // 0x10028 "name", "record".
    int StoreRecord(const std::string& name, const cRecord& record);
    // 0x1002b "name".
    int RequestStoredRecord(const std::string& name);
    // 0x1019a / 0x1019d / 0x101a0 (keys in the file comment); the plain forms
    // make a fresh message id.
    int RequestLog(const std::string& log, const cRecord& filter);
    int RequestLog2(cUuid& id, const std::string& log, const cRecord& filter);
    int FetchLog(const std::string& log, unsigned int index, unsigned int count);
    int FetchLog2(cUuid& id, const std::string& log, unsigned int index, unsigned int count);
    int DeleteLog(const std::string& log);
    int DeleteLog2(cUuid& id, const std::string& log);
    // 0x10003 for another service's configuration, fresh message id.
    int RequestServiceConfig(const char* service, const cRecordPath& path,
                             const char* filter) const;
    // 0x10003, message id id: "service-name", "path" (record), "filter" (text).
    int RequestServiceConfig2(cUuid& id, const char* service, const cRecordPath& path,
                              const char* filter) const;
    // 0x10018, fresh message id, with the one text pair key = value; the SCM
    // answers 0x10019 (the service's record) or 0x1001a (unknown technology).
    // A null key sends nothing (0).
    int RequestServiceInfo(const char* key, const std::string& value) const;
    int RequestServiceInfoByName(const std::string& name) const;    // "service-name"
    int RequestServiceInfoByTech(const std::string& tech) const;    // "service-tech"
    // 0x1001b, fresh message id: "service-id", then one "service-tech" per
    // technology. count technologies in all: tech, then count - 1 further
    // const char* arguments (count below 1 counts as 1). The technology text
    // becomes tech.
    int SetServiceTech(const char* tech, int count, ...);
    int SetServiceTech(const std::vector<std::string>& techs);

    // ---- State ---------------------------------------------------------------

    cMsgTcpSocket* GetScmSocket() const { return m_pScmSocket; }
    const std::string& GetServiceTech() const { return m_ServiceTech; }
    // Id of the configuration request waiting for its answer (invalid when
    // none).
    const cUuid& GetPendingConfigId() const { return m_PendingConfig; }
    // How many configuration answers (0x10004) this service has taken as its
    // own; it changes only when an answer is accepted, so a late duplicate or
    // an answer about another service leaves it as it is.
    unsigned long GetConfigAnswersTaken() const { return m_ConfigAnswersTaken; }
    uint64_t GetBcTimeLost() const { return m_BcTimeLost; }
    uint32_t GetMsgQSize() const { return m_MsgQSize; }
    const std::string& GetScmHealth() const { return m_ScmHealth; }

private:
    bool FromScm(const cMsg& msg) const;
    void OnScmConnected();
    void OnRegisterAck();
    void OnRegisterNack(const cMsg& msg);
    bool TakeConfigAnswer(cMsg& msg);
    bool OnSetConfig(cMsg& msg);
    void ApplyConfig(const cRecord& config, const char* logPrefix);
    void CloseScmSocket();
    // Sends msg on the SCM socket; a negative result is traced as
    // "<what>: send failed" (withMsg: "scmService[<what>] send failed,
    // msg=...").
    int SendToScm(cMsg& msg, const char* what, bool withMsg = false) const;

    cMsgTcpSocket* m_pScmSocket;    // owned; null without an SCM
    std::string m_ServiceTech;      // "unknown" until SetServiceTech
    cUuid m_PendingConfig;          // id of the pending 0x10003
    unsigned long m_ConfigAnswersTaken = 0;
    uint64_t m_BcTimeLost;          // ".system.bc-timelost"
    uint32_t m_MsgQSize;            // ".system.msgQsize"
    std::string m_ScmHealth;        // last "scm-health"
};

}  // namespace orvo
