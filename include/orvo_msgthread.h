// orvo_msgthread.h - cMsgThread, a service with its own loop on its own
// thread, talking to its parent service only by messages.
//
// The thread service gets its own sap socket (a port the system picks) and
// its own internal socket. It talks to its parent through the loopback
// datagram sockets (SendToParent -> cService::SendToInternal), never by a
// direct call, and the parent talks to it the same way
// (parent.SendToInternal(thread, msg)).
//
// A derived class implements ThreadMain(), typically
//
//     void ThreadMain() override {
//         cMsg msg;
//         while (GetMessage(msg)) { ... }
//     }
//
// Like every service loop it ends when the process-wide stop flag is set.
//
// A derived class whose ThreadMain uses its own members calls Terminate()
// and Join() in its own destructor, before those members are gone.
//
// Thread safety: Start, Terminate, Join and the destructor belong to the
// thread that owns the object (usually the parent's loop thread);
// SendToParent is for the thread service's own thread. Cancellation
// (Terminate, the destructor) is deferred: the thread ends at its next
// cancellation point, whether it waits in its loop's select(), sleeps or
// waits on a cEvent, so destroying a thread service ends in bounded time.
// Library locks block cancellation while they are held (cCriticalSection)
// or are released by the unwinding (the scoped ones), so a cancelled
// thread never leaves one held.
#pragma once

#include <pthread.h>

#include <memory>
#include <string>

#include "orvo_service.h"

namespace orvo {

class cStateMachine;

class ORVO_API cMsgThread : public cService {
public:
    // Builds the service part, stores the parent (and the parent state
    // machine in the second form; may be null), marks the service as a
    // thread service and calls Init(name, empty address): the start trace
    // is "Start thread service=...". The thread does not run yet (Start).
    cMsgThread(cService* parent, const char* name);
    cMsgThread(cService* parent, cStateMachine* parentStatem, const char* name);
    // Terminate(), then waits until the thread has left its loop (unless
    // called on the thread itself); then the service part is torn down.
    ~cMsgThread() override;
    // The cObject text ("name=<name>").
    std::string ToString() const override;

    // Creates a thread that runs ThreadMain(); when ThreadMain returns the
    // handle is cleared and the thread ends (it is detached then, nobody
    // needs to join it). Returns pthread_create's result; EBUSY when the
    // thread of an earlier Start still runs.
    int Start();
    // Detaches and cancels the thread when one exists and clears the handle.
    // Does not wait (see Join).
    void Terminate();
    // Waits until the thread started last has ended (returned or was
    // cancelled). Returns at once when none runs or when called on the
    // thread itself.
    void Join();
    // True from Start until the thread has ended.
    bool IsRunning() const;
    // The running thread's handle, 0 when none.
    pthread_t GetThread() const;

    // Posts msg to the parent: to the parent state machine when one was
    // given (SendToInternal(parentStatem, msg)), else to the parent service
    // (SendToInternal(parent, msg)). Returns the send's result.
    int SendToParent(cMsg& msg);

    cService* GetParent() const { return m_pParent; }
    cStateMachine* GetParentStatem() const { return m_pParentStatem; }

private:
    struct sRunState;
    static void* Run(void* arg);

    cService* m_pParent;                 // not owned
    cStateMachine* m_pParentStatem;      // not owned; may be null
    std::shared_ptr<sRunState> m_pRun;   // handle and running flag, shared with the thread
};

}  // namespace orvo
