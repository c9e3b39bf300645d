// orvo_service.h - cService, the select loop of one thread of work: channel
// descriptors, armed timers, a message queue, a TCP listening socket through
// which other processes reach the service ("sapSocket") and a loopback UDP
// socket through which other services of the same process reach it
// ("internal").
//
// A program derives from cService (ThreadMain is pure), calls Init and loops
//
//     while (service.GetMessage(msg)) { ... handle msg ... }
//
// GetMessage waits in select() for descriptors, timers and signals, answers
// the library's control messages itself (trace on/off 0x7000/0x7001, snoop
// on/off 0x7003/0x7004, service information 0x7006 -> 0x7007) and hands every
// other message to the program. It returns false once the process-wide stop
// flag is set (SIGINT, SIGTERM, or a handed-out stop message 0x1004, 0x1005,
// 0x1006) and the queue is empty. Setting the stop flag wakes every service
// of the process, so all loops end promptly.
//
// Messages that name a state machine never enter the queue: OnMsg delivers
// them at once to the state machine. All others enter the queue (at most
// 200; the 201st empties the whole queue, with an ERROR trace).
//
// Ownership: a service owns its sap and internal sockets. Channels, timers
// and state machines made by the program stay the program's; they must live
// until they are unregistered (their destructors do that and purge queued
// messages that name them). Accepted connections of the sap socket carry the
// delete-after-close mark; the service deletes such a channel after it
// handed out the channel's close message 0x4003, at the start of a later
// GetMessage, never while the loop may still use it.
//
// Thread safety: a service is used only by the thread that runs its loop,
// except SendToInternal, which any thread may call to post into another
// service (the send path is locked per sending service), the write interest
// a framed socket's sender of another thread adds through its channel, and
// the static stop-flag functions. No library
// lock is held while a handler runs or a channel sends; the locks, their
// order and the re-entrancy rules are described in docs/architecture.md.
#pragma once

#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvo_access.h"
#include "orvo_msg.h"
#include "orvo_object.h"
#include "orvo_socketaddr.h"
#include "orvo_msgqueue.h"
#include "orvo_thread.h"
#include "orvo_time.h"
#include "orvo_uuid.h"

namespace orvo {

class cChannel;
class cTimer;
class cStateMachine;
class cMsgTcpSocket;
class cMsgUdpSocket;
template <class T> class cTcpServer;
class cService;
class cSelectLoop;
class cIdleSweep;

// Direction of a snoop report: 1 for messages received (handed out by
// GetMessage, delivered to a state machine), 0 for messages sent.
enum eSnoopDir {
    SNOOP_SEND = 0,
    SNOOP_RECEIVE = 1
};

// A signal handler run on a service's loop thread: (service, sig, ctx).
using tSignalHandler = void (*)(cService* service, int sig, void* ctx);

// The first service that completed Init without being a thread service;
// null until then and again after it is destroyed.
ORVO_API extern cService* mMainService;

class ORVO_API cService : public cObject {
public:
    // Largest number of select entries and descriptors (FD_SETSIZE).
    static const int kMaxSelect = FD_SETSIZE;

    // Empty select table, no sockets, no timers, empty queue.
    cService();
    cService(const cService&) = delete;
    cService& operator=(const cService&) = delete;

    // ---- Virtual slots, in this order ----------------------------------

    // DeInit(); forgets the service as main service. Must not be called from
    // inside the service's own loop.
    ~cService() override;
    // "{ name=<name>[, sap_socket=<sap text>], pid=<pid>[, id=<uuid>] }".
    std::string ToString() const override;
    // The service's main body; a thread service (cMsgThread) runs it on its
    // own thread. Plain services may leave it empty.
    virtual void ThreadMain() = 0;
    // Names the service, makes it the main service when there is none (and
    // it is not a thread service), creates a new service id, clears the
    // select table, opens the sap socket ("sapSocket": a cTcpServer of
    // message sockets listening on sap; an empty sap means any address with
    // the configuration's "port", or, for a thread service, a port the
    // system picks) and the internal socket ("internal": UDP bound to
    // 127.0.0.1, port picked by the system), and traces the start. Always
    // true; failures of the sockets are traced at ERROR ("cService::Init:
    // sap socket <address> failed: <reason>"). So true does not mean the sap
    // is up: when its address is taken (another process listens there) the
    // service runs without one, nobody can connect to it, and GetSapAddress
    // still names the address it asked for. A program that needs its sap
    // checks IsSapUp() after Init (and ends, or picks another port).
    virtual bool Init(const std::string& name, cSocketAddr sap);
    // Closes and deletes the sap socket and the internal socket, forgets
    // every armed timer, deletes channels waiting for deferred deletion.
    // Safe to call twice.
    virtual void DeInit();
    // Delivery into the service (channels and timers call it):
    //  - 0x4002 with a channel: stores "peer-name"/"peer-id" in the channel;
    //  - 0x3004: replaced by the message in its record;
    //  - no state machine: queued (front = newest); above 200 queued the
    //    whole queue is emptied ("cService::m_msgQ overload; msg=..." at
    //    ERROR);
    //  - a state machine: snooped, delivered at once to it, then
    //    PostHdlMessage. A state machine that is not alive (not in the
    //    handle table) is traced and the message dropped.
    // Loop thread only.
    virtual void OnMsg(cMsg& msg);
    // The library's control messages; returns true when msg was consumed
    // (0x7000, 0x7001, 0x7003, 0x7004, 0x7006), false otherwise (0x4003 is
    // handled and still passed on).
    virtual bool PreDispatchMessage(cMsg& msg);

    // ---- Process-wide set-up ---------------------------------------------

    // Clears the signal table; installs: SIGPIPE ignored; SIGALRM, SIGHUP,
    // SIGTSTP, SIGTTIN, SIGTTOU print "SignalIgnr sig=%i \n"; SIGTERM and
    // SIGINT post 0x1005 / 0x1004 to the service whose loop sees them.
    // Called by orvoInit. Always true.
    static bool InitGlobal();
    // sig must lie in 1..65, else -1. An installed handler is not replaced
    // by another non-null one (-1). A non-null handler catches sig (the
    // catcher only marks it; the handler runs later on the loop thread that
    // sees it first); null restores the default action. Returns 0.
    static int SignalAsyncSelect(int sig, tSignalHandler handler, void* ctx);

    // The process-wide stop flag. Setting it wakes every service's select.
    // Clearing it is for programs (and tests) that start a new round of
    // services after a stop.
    static bool GetStopFlag();
    static void SetStopFlag(bool on);

    // ---- Select table ------------------------------------------------------

    // Registers (events != 0 and channel != null) or unregisters fd; events
    // are SELECT_READ | SELECT_WRITE | SELECT_EXCEPT. fd must be >= 0 (the
    // process aborts: "fd>=0"). A descriptor >= FD_SETSIZE never enters a
    // descriptor set: a registration of one is refused with an ERROR trace
    // and the channel is closed (Close()); returns -1 then. Returns -1 when
    // the table is full, else 1.
    int ChannelAsyncSelect(int fd, int events, cChannel* channel, void* ctx);
    // The same for the channel's own descriptor; nothing (0) when it has
    // none. Channels call it from UpdateSelect.
    int ChannelAsyncSelect(cChannel* channel, int events, void* ctx);
    // The events currently registered for fd (0 when none).
    int GetSelectEvents(int fd) const;
    // True on the thread that last ran this service's loop, and before any
    // thread ran it.
    bool IsLoopThread() const;

    // ---- Timers -----------------------------------------------------------

    // ms == 0 removes every entry of timer; otherwise the timer becomes due
    // at GetMsecClock() + ms and is appended to the list, which stays sorted
    // by due time (equal due times keep their arming order). An earlier
    // entry of the same timer is not removed (cTimer::Start unschedules
    // first).
    void TimerAsyncSelect(cTimer* timer, unsigned long ms);
    // Milliseconds until the first timer is due, within 0..60000; 60000
    // when no timer is armed.
    unsigned long ScheduleGetIdleTimeMs() const;
    // Fires every timer due at the current time: removes it from the list,
    // then calls its OnExec(). Works on a copy of the list, so OnExec may
    // arm or cancel timers; a timer removed by an earlier OnExec of the
    // same scan is not fired.
    void ScanTimers();
    // Number of armed timer entries.
    size_t GetTimerCount() const;

    // ---- The loop -----------------------------------------------------------

    // One wait: select (or, with no descriptors, a wait of the idle time)
    // with the nearest timer as time-out, then readiness to channels, due
    // timers, pending signal handlers; a select error posts 0x1003.
    void ScheduleSelect();
    // The next message for the program (true), or false when the process is
    // stopping and the queue is empty.
    bool GetMessage(cMsg& msg);
    // After a message was handed out: a 0x4003 whose channel carries the
    // delete-after-close mark puts the channel on the deferred-deletion
    // list.
    void PostHdlMessage(cMsg& msg);
    // Drops every queued message whose channel, state machine or timer is
    // obj (compared by address; these classes have cObject as their first
    // base). Also forgets the last handed-out message when it names obj.
    void RemoveMsgsByObject(const cObject* obj);
    // Number of queued messages.
    size_t GetQueueSize() const { return m_MsgQ.size(); }

    // ---- Posting between services ---------------------------------------

    // Sends msg from this service's internal socket to target's internal
    // socket. Any thread may call it (the send is locked). Returns the
    // send's result (bytes, or negative), 0 when either service has no
    // internal socket.
    int SendToInternal(cService* target, cMsg& msg);
    // Addresses msg to sm and sends it to sm's service as above; 0 and
    // nothing sent when sm is null (or has no service).
    int SendToInternal(cStateMachine* sm, cMsg& msg);

    // Waits up to ms for a message of type1, type2 or type3. Messages of
    // other types are set aside and afterwards put back at the newest end of
    // the queue, the last one set aside first (they come out after those
    // still queued, in reverse order of arrival). Returns the message that
    // ended the wait: one of the three types, 0x2015 on time-out, or an
    // empty message when the process is stopping.
    cMsg WaitSyncMsg(unsigned long ms, unsigned long type1, unsigned long type2 = 0,
                     unsigned long type3 = 0);
    // channel.Send(msg), then WaitSyncMsg.
    cMsg SendSyncMsg(cChannel& channel, cMsg& msg, unsigned long ms, unsigned long type1,
                     unsigned long type2 = 0, unsigned long type3 = 0);

    // ---- Limits for hostile peers (all opt-in) ---------------------------

    // Who may send the control messages 0x7000 to 0x7007 (cControlAccess).
    // Checked when a message arrives through a channel and names no state
    // machine (one carried in 0x3004 is judged by the channel the wrapper
    // came through); a refused one is dropped, never answered, never queued, with
    // a WARNING trace "cService: control message 0x%lx from <address>
    // refused: <why>". Messages a program hands to OnMsg itself (no
    // channel) are never checked. A policy set here wins; otherwise the
    // configuration's text "control-access" (read when a control message
    // arrives, so a new configuration takes effect at once); without both
    // every peer is let in. A configured text that cannot be read refuses
    // every control message (fail closed, ERROR trace).
    void SetControlAccess(const cControlAccess& policy);
    // The text form; false (policy unchanged) when it cannot be read.
    bool SetControlAccess(const std::string& text);
    // The policy in force now.
    cControlAccess GetControlAccess();

    // The sap's listen backlog: pending connections the kernel completes
    // before the service accepts them. Takes effect at the next Init. 0
    // (the default) means the configuration's unsigned "sap-backlog" when
    // it is above 0, else 5. The kernel caps it (net.core.somaxconn).
    void SetSapBacklog(int backlog) { m_SapBacklog = backlog; }
    int GetSapBacklog() const;

    // Idle limit of the sap's connections, in milliseconds; 0 switches it
    // off (the default). An accepted connection that owes progress for that
    // long is closed (0x4003 to the program, INFO trace "cService: closing
    // <address>: <what> for <n> ms"): it holds part of a frame and has not
    // completed it, it has sent no complete frame at all since it was
    // accepted, or bytes wait for it that it does not take. A connection
    // that owes nothing (all it sent was answered, all answers read) is
    // never closed, however quiet. Checked about four times per limit (at
    // least every 50 ms, at most every 5 s), so a connection goes after the
    // limit plus up to a quarter of it. Without a call, Init takes the
    // configuration's unsigned "idle-timeout-ms".
    void SetIdleTimeout(unsigned long ms);
    unsigned long GetIdleTimeout() const { return m_IdleTimeoutMs; }
    // Closes the sap's connections that owe progress for the idle limit
    // (the idle timer calls it); returns how many it closed.
    int CloseIdleConnections();

    // ---- Accessors ------------------------------------------------------------

    // The sap socket and internal socket (owned; null before Init, after
    // DeInit, or when they could not be made).
    cTcpServer<cMsgTcpSocket>* GetSapSocket() const { return m_pSapSocket; }
    cMsgUdpSocket* GetInternalSocket() const { return m_pInternalSocket; }
    // True when the sap socket exists and listens: the bind of Init
    // succeeded. Asked of the kernel, not of the address the socket keeps.
    bool IsSapUp() const;
    // Local address of the sap socket / internal socket (0.0.0.0:0 when none).
    cSocketAddr GetSapAddress() const;
    cSocketAddr GetInternalAddress() const;
    // A fresh uuid made by each Init.
    const cUuid& GetServiceId() const { return m_ServiceId; }
    bool IsThreadService() const { return m_bThreadService; }

    // With the switch on, every return from select records the wall time.
    void EnableLastSelectedTimeStamp(bool on) { m_bTimeStamp = on; }
    cTime GetLastSelectedTimeStamp() const { return m_LastSelected; }
    // Sets the last hand-out time to now: call it before a long task that
    // should not be reported as lost time.
    void TimelostTrigger();
    // A hand-out that follows the previous one by at least this many
    // milliseconds traces "hint: time lost (%Li ms) in application" (ALL).
    long long GetTimelostThreshold() const { return m_TimelostMs; }
    void SetTimelostThreshold(long long ms) { m_TimelostMs = ms; }
    unsigned GetQueueLimit() const { return m_QueueLimit; }

protected:
    // Set by thread services before Init.
    void SetThreadService(bool on) { m_bThreadService = on; }

private:
    // The select loop (orvo_selectloop.cpp) reaches the service's time
    // stamp and hands its messages to OnMsg; channels reach the loop through
    // it. Not part of the API.
    friend class cSelectLoop;

    // The control messages, one each (see PreDispatchMessage).
    void OnTraceOn(cMsg& msg);
    void OnTraceOff(cMsg& msg);
    void OnSnoopOn(cMsg& msg);
    void OnSnoopOff(cMsg& msg);
    void OnServiceInfoRequest(cMsg& msg);
    void OnChannelClosed(cMsg& msg);
    // False (with the WARNING trace) when a control message of type that
    // arrived through ch (null: posted by the program) comes from a peer the
    // control access policy refuses.
    bool ControlAllowed(unsigned long type, const cChannel* ch);
    // Starts, re-times or stops the idle timer from m_IdleTimeoutMs.
    void ArmIdleSweep();

    // Queues msg, or hands it to its state machine.
    void Deliver(cMsg& msg);
    void RunDeferredDeletion();
    // PostHdlMessage for a message of this channel and type.
    void PostHdl(cChannel* channel, unsigned long type);
    void CloseSockets();

    // The select loop: registrations, table order, the kernel wait, the
    // armed timers (owned; orvo_selectloop.h).
    std::unique_ptr<cSelectLoop> m_pLoop;

    cMsgQueue m_MsgQ;                        // front = newest, back = oldest
    cTcpServer<cMsgTcpSocket>* m_pSapSocket; // owned
    cUuid m_ServiceId;
    // What is kept of the message handed out last: its channel and type are
    // all that deciding on the channel's deletion needs.
    struct sHandedOut {
        cChannel* channel = nullptr;
        unsigned long type = 0;
    };
    sHandedOut m_LastOut;
    bool m_bTimeStamp;
    cTime m_LastSelected;
    long long m_LastHandOut;                 // GetMsecClockCoarse(); 0 = none yet
    cMsgUdpSocket* m_pInternalSocket;        // owned
    bool m_bThreadService;
    long long m_TimelostMs;                  // 8000
    unsigned m_QueueLimit;                   // 200
    cCriticalSection* m_pSendLock;           // owned; guards internal sends
    std::vector<cObject*> m_Deferred;        // deleted at the next GetMessage
    uint32_t m_WaitSerial = 0;               // last WaitSyncMsg time-out number
    cControlAccess m_ControlAccess;          // in force when m_bControlAccessSet
    bool m_bControlAccessSet = false;
    std::string m_ConfigAccessText;          // "control-access" last read
    cControlAccess m_ConfigAccess;           // ... and what it says
    int m_SapBacklog = 0;                    // 0: configuration or 5
    unsigned long m_IdleTimeoutMs = 0;       // 0: off
    bool m_bIdleTimeoutSet = false;          // SetIdleTimeout was called
    cIdleSweep* m_pIdleSweep = nullptr;      // owned; the idle timer
};

// Sends a snoop report (0x7005) about msg to every channel of the snoop list:
// "name", "service-id", "dir", "peer-name" (+ "peer-id"), "time",
// "msg-type", "msg-record", "msg-tid". Nothing when the list is empty or msg
// is of type 0x7002, 0x10190, 0x3002, 0x3001 or 0x7005. Any thread.
ORVO_API void SendSnoop(cService* service, const cMsg& msg, eSnoopDir dir);

}  // namespace orvo
