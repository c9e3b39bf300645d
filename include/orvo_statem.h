// orvo_statem.h - cStateMachine, the base of the application's message
// handlers.
//
// A channel, a timer or another service addresses a message to a state
// machine (cMsg::SetStatem); the service hands such a message at once to the
// state machine's OnMsg instead of queueing it. The state machine runs it
// through the pre-state filter (state_prestate) and then through the handler
// of its current state. Derived classes supply the states as member
// functions and switch between them with SetState:
//
//     class cMySm : public cStateMachine {
//     public:
//         cMySm(cService* s) : cStateMachine(s, "my") {}
//         int state_init(cMsg& msg) override {
//             Monitor(msg);
//             if (msg == 0x5000) SetState(&cMySm::state_idle, "idle");
//             return 0;
//         }
//         int state_idle(cMsg& msg) { ...; return 0; }
//     };
//
// Re-entrancy: a handler that sends to its own state machine (directly, or
// through a channel or timer that delivers synchronously) is never
// re-entered. The message waits in the pending queue and is handled after
// the running handler returns, by the state in force then. A handler may
// delete its own state machine; the remaining pending messages are dropped.
//
// Lifetime: each state machine holds a handle in the process-wide table
// (HANDLE_STATEM) from construction to destruction, so messages that name it
// can cross sockets and threads; the service drops (with a trace) messages
// for a state machine that is gone. The destructor also removes queued
// messages of its service that name it.
//
// Thread safety: a state machine belongs to the thread of its service. Other
// threads reach it only through cService::SendToInternal(sm, msg) (for
// example cMsgThread::SendToParent), never by calling OnMsg.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "orvo_msg.h"
#include "orvo_object.h"

namespace orvo {

class cService;

class ORVO_API cStateMachine : public cObject {
public:
    // Type of the start message that Run() delivers.
    static const unsigned long kMsgStart = 0x5000;

    // A state handler: a member function of cStateMachine or of a derived
    // class (converted with SetState), returning int. The result is ignored
    // except for state_prestate, where 1 consumes the message.
    using tStateFn = int (cStateMachine::*)(cMsg&);

    // Object name = name; service not owned (may be null: then nothing is
    // purged at destruction and SendToInternal cannot reach it). Starts in
    // state "init" (handler state_init, resolved virtually at call time).
    cStateMachine(cService* service, const std::string& name);
    cStateMachine(const cStateMachine&) = delete;
    cStateMachine& operator=(const cStateMachine&) = delete;

    // ---- Virtual slots, in this order ----------------------------------

    // Purges queued messages of the service that name this state machine,
    // drops the pending queue and gives the handle back. Safe from inside
    // one of its own handlers.
    ~cStateMachine() override;
    // The cObject text, "::", the current state name: "name=M::init".
    std::string ToString() const override;
    // Delivers a new start message (0x5000, addressed to this state
    // machine) to OnMsg.
    virtual void Run();
    // Queues a copy of msg; unless a call further up the stack is already
    // draining the queue, handles queued messages oldest first: pre-state
    // filter, then (unless it returned 1) the handler current at that
    // moment.
    virtual void OnMsg(cMsg& msg);
    // Filter run before every state; 1 consumes the message. Base: 0.
    virtual int state_prestate(cMsg& msg);
    // The initial state. Base: does nothing, 0.
    virtual int state_init(cMsg& msg);

    // ---- Helpers ------------------------------------------------------------

    // Traces "<name>::<state> <-- <message type text>" on UnitORVO at INFO
    // when the unit admits INFO. States call it to log what they receive.
    void Monitor(cMsg& msg);

    // The current state name (static text, never null).
    const char* GetStateName() const { return m_StateName; }
    // The service this state machine belongs to (not owned).
    cService* GetService() const { return m_pService; }
    // True while OnMsg is draining the pending queue.
    bool IsBusy() const { return m_Busy != 0; }
    // Messages waiting in the pending queue.
    size_t GetPendingCount() const { return m_Pending.size(); }

protected:
    // Switches to handler fn of this object and names the state; name must
    // be static text (it is stored, not copied). Takes effect with the next
    // message, also when called from inside a handler. fn may be a virtual
    // function; it is then dispatched through the object at call time.
    template <class T>
    void SetState(int (T::*fn)(cMsg&), const char* name)
    {
        SetStateOn(this, static_cast<tStateFn>(fn), name);
    }
    // The same with another state machine as the object the handler runs
    // on (its dynamic type must have fn). object must outlive its use as
    // handler object; null means this.
    template <class T>
    void SetState(T* object, int (T::*fn)(cMsg&), const char* name)
    {
        SetStateOn(object, static_cast<tStateFn>(fn), name);
    }
    void SetStateOn(cStateMachine* object, tStateFn fn, const char* name);

private:
    cStateMachine* m_pStateObj;    // object the handler runs on; this unless moved
    tStateFn m_State;              // current state handler
    const char* m_StateName;       // static text naming the current state
    std::deque<cMsg> m_Pending;    // front = newest, back = oldest
    unsigned char m_Busy;          // set while draining the pending queue
    cService* m_pService;          // not owned
    uint32_t m_Handle;             // HANDLE_STATEM entry
    bool* m_pAlive;                // the running drain's liveness flag, or null
};

}  // namespace orvo
