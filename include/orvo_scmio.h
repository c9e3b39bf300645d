// orvo_scmio.h - connections to technologies: a service asks the SCM which
// service offers a technology (a named kind of access, "meter") and at which
// service access point (SAP, "a.b.c.d:port"), connects a message socket
// there and reconnects when the SCM reports a new place or the link drops.
//
// cScmServiceInfo is one service as the SCM describes it (answers 0x10019,
// notifications 0x10140). cScmServiceIO is one client connection to a
// technology, owned by the program and tied to a cScmService:
//
//   class cMeterLink : public cScmServiceIO {
//       void OnConnect() override { ... }
//       int DispatchMessage(const cMsg& m) override { ...; return 1; }
//   };
//   cMeterLink meter(&service, "meter");
//   while (service.GetMessage(msg)) {
//       if (meter.ProcessMsg(msg)) continue;
//       ...
//   }
//
// Life of a connection: once the owner's configuration arrives (0x10004)
// Start asks the SCM for notifications (mask 2) and for the technology
// (0x10018 "service-tech"); an answer 0x10019 or an "add-technology"
// notification 0x10140 naming the technology at a SAP other than the
// connected one connects there (while not connected; a connected link keeps
// its SAP); the peer's 0x4002 makes it connected (OnConnect); its 0x4003
// makes it closed (OnClose) and arms a 5-second health timer whose 0x1014d
// asks the SCM again. A failed connect (0x4000) ends the same way as a close:
// traced, OnClose, the health timer armed. Only the owner's own accepted
// configuration answer starts the look-up; late duplicates and answers about
// other services do not.
//
// Records that are not service descriptions (missing or wrongly typed keys)
// decode as not valid and change nothing.
//
// Threads: everything on the owner service's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvo_msg.h"
#include "orvo_msgsocket.h"
#include "orvo_object.h"
#include "orvo_record.h"
#include "orvo_timer.h"
#include "orvo_uuid.h"

namespace orvo {

class cScmService;

class ORVO_API cScmServiceInfo : public cObject {
public:
    // Not valid.
    cScmServiceInfo();
    // Reads the sub-record "service" when rec has one, else rec itself:
    // "service-id" a valid uuid, "name" a non-empty text, "pid" a signed
    // integer, "sap" a text, and "tech" (optional) a record whose
    // "service-tech" texts are the technologies, in order. Valid when all of
    // the required keys were found with their types. A "tracelog" element
    // of type bool (any value) sets HasTraceLog.
    explicit cScmServiceInfo(const cRecord& rec);

    bool IsValid() const { return m_Valid; }
    const std::string& GetName() const { return m_Name; }
    const std::string& GetSAP() const { return m_Sap; }
    int32_t GetPID() const { return m_Pid; }
    const std::vector<std::string>& GetTech() const { return m_Tech; }
    const cUuid& GetServiceID() const { return m_ServiceId; }
    bool HasTraceLog() const { return m_TraceLog; }
    // "name=%s sap=%s pid=%d uuid=%s", or "not-valid".
    std::string ToString() const override;

private:
    cUuid m_ServiceId;
    std::string m_Name;
    std::vector<std::string> m_Tech;
    int32_t m_Pid;
    std::string m_Sap;
    bool m_TraceLog;
    bool m_Valid;
};

class ORVO_API cScmServiceIO {
public:
    // Technology tech, not connected; the socket and the health timer
    // belong to owner's loop. owner must outlive this object.
    cScmServiceIO(cScmService* owner, const std::string& tech);
    cScmServiceIO(const cScmServiceIO&) = delete;
    cScmServiceIO& operator=(const cScmServiceIO&) = delete;
    virtual ~cScmServiceIO();

    // Told when the link to the technology is up / went down. Base: nothing.
    virtual void OnConnect();
    virtual void OnClose();
    // Messages ProcessMsg does not deal with; 1 when taken. Base: 0.
    virtual int DispatchMessage(const cMsg& msg);
    // "cScmServiceIO technology=<tech>".
    virtual std::string ToString() const;

    // "start connection to tech '<tech>'" (DEBUG), RequestNotifications(2)
    // and RequestServiceInfoByTech(tech) on the owner.
    void Start();
    // Not connected: "connect to tech '<tech>', sap=<announced>" (DEBUG),
    // closes the socket, drops the queued events of the old connection and
    // connects it anew to the announced SAP; a SAP that is no address, or a
    // socket that cannot be made (out of descriptors, say), is traced at
    // ERROR and ends in the closed state (OnClose, health timer), as a
    // failed connect (0x4000) does.
    // Connected: "already connected to tech '<tech>', sap=<connected>"
    // (INFO), nothing else.
    void ConnectChannel();
    // The socket's Send while connected; 0 and nothing sent otherwise.
    int Send(cMsg& msg);
    // Whether msg came through this connection's socket.
    bool IsMsgFromHere(const cMsg& msg) const;
    // Arms the health timer (5 s, 0x1014d) unless it runs already.
    void HealthRequest();
    // Handles what concerns this connection (0x10004 only when the owner has
    // just accepted it as its own configuration answer, 0x10019, 0x10140,
    // 0x1001a, this connection's 0x1014d, socket events) and returns 1 for
    // those; socket events of other channels also return 1, untouched.
    // Everything else: DispatchMessage(msg).
    int ProcessMsg(const cMsg& msg);

    const std::string& GetTechnology() const { return m_Tech; }
    // Empty while not connected.
    const std::string& GetConnectedSAP() const { return m_ConnectedSap; }
    // The latest SAP the SCM reported for the technology.
    const std::string& GetAnnouncedSAP() const { return m_AnnouncedSap; }
    bool IsConnected() const { return !m_ConnectedSap.empty(); }
    cScmService* GetOwner() const { return m_pOwner; }
    cMsgTcpSocket& GetSocket() { return m_Socket; }
    const cTimer& GetHealthTimer() const { return m_HealthTimer; }

private:
    // An info from 0x10019 / an "add-technology" notification.
    void TakeServiceInfo(const cRecord& rec, const char* logText);
    // Not connected: m_ConnectedSap cleared, OnClose(), health timer started.
    void EndInClosedState();

    std::string m_Tech;
    std::string m_ConnectedSap;
    std::string m_AnnouncedSap;
    cScmService* m_pOwner;
    cMsgTcpSocket m_Socket;
    cTimer m_HealthTimer;
    unsigned long m_ConfigAnswersSeen = 0;  // owner's count at the last look-up start
};

}  // namespace orvo
