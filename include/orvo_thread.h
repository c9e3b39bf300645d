// orvo_thread.h - worker threads, the library's lock, a settable event and a
// named semaphore shared between processes.
//
// Thread safety at a glance:
//   cThread           Start/Terminate from the thread that owns the object
//                     (usually the one that created it); ThreadMain runs on
//                     the new thread.
//   cCriticalSection  Enter/Leave from any thread; that is its purpose.
//   cEvent            Set/Reset/Wait from any thread.
//   cSemaphore        Lock/Unlock from any thread and any process that opened
//                     the same name; Open/Close from one thread at a time.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <memory>

#include "orvo_object.h"

namespace orvo {

class cService;

// cThread: a detached worker thread that runs ThreadMain().
//
// Start and Terminate are meant for the thread that owns the object; they are
// not synchronised against each other from different threads. Destroying the
// object terminates (cancels) the thread. Cancellation is deferred: the
// thread stops at its next cancellation point (a blocking read, a sleep, a
// condition wait, ...) and its stack is unwound, so destructors of locals run.
// Terminate does not wait for that to happen. A derived class whose
// ThreadMain uses its own members calls Terminate() in its own destructor,
// before those members are gone; and it must not be destroyed while its
// ThreadMain may still run past a cancellation point.
//
// ThreadMain may delete its own object before it returns; the thread then
// touches nothing of the object any more. Deleting the object from
// ThreadMain, or calling Terminate() there, cancels the calling thread itself
// at its next cancellation point.
class ORVO_API cThread : public cObject {
public:
    // No thread yet. The service argument is accepted for the callers'
    // convenience and not stored.
    explicit cThread(cService* service = nullptr);
    cThread(const cThread&) = delete;
    cThread& operator=(const cThread&) = delete;
    // Terminate().
    ~cThread() override;

    // Creates a detached thread that calls ThreadMain() and then ends.
    // Returns pthread_create's result: 0 on success, an error number
    // otherwise; EBUSY when a thread started by this object still runs.
    int Start();

    // Detaches and cancels the thread when one is running; forgets the
    // handle either way. A thread that has already ended is not touched (its
    // handle may by then name another thread). Safe to call repeatedly.
    void Terminate();

    // The handle of the thread last started, 0 when none (or terminated).
    pthread_t GetThread() const { return m_Thread; }

    // The kernel's id of the calling thread (gettid); the main thread's id
    // equals the process id.
    static pid_t GetCurrentThreadId();

protected:
    // The thread's body, run on the new thread.
    virtual void ThreadMain() = 0;

private:
    struct sRunState;
    static void* Run(void* arg);

    pthread_t m_Thread;                     // 0 when none
    std::shared_ptr<sRunState> m_pRun;      // shared with the running thread
};

// cCriticalSection: a plain (non-recursive) mutex that remembers its holder.
//
// Enter by the thread that already holds the lock returns at once, but the
// nesting is not counted: the first Leave() releases the lock, even after
// several Enter() calls. Pair one Leave() with the outermost Enter().
// Leave() by a thread that does not hold the lock (an unpaired Leave after a
// nested Enter, or a Leave from another thread) does nothing, so it can never
// release a lock that another thread has taken in the meantime.
// All members are safe from any thread. While a thread holds the lock it
// cannot be cancelled (cancellation waits until Leave), so a cancelled
// thread never leaves the lock held; destroying a held lock is not allowed.
class ORVO_API cCriticalSection : public cObject {
public:
    cCriticalSection();
    cCriticalSection(const cCriticalSection&) = delete;
    cCriticalSection& operator=(const cCriticalSection&) = delete;
    ~cCriticalSection() override;

    // Blocks until the calling thread holds the lock; returns at once when
    // it already does.
    void Enter();
    // Releases the lock when the calling thread holds it.
    void Leave();
    // Kernel thread id of the holder, 0 when free.
    pid_t GetOwner() const { return m_Owner.load(std::memory_order_relaxed); }

private:
    pthread_mutex_t m_Mutex;
    // Written only by the holder under the mutex; read without it by Enter,
    // where only the holder can find its own id.
    std::atomic<pid_t> m_Owner;
    // The holder's cancel state before Enter, given back by Leave.
    int m_HolderCancelState = PTHREAD_CANCEL_ENABLE;
};

// cEvent: a flag that threads can wait for.
//
// Set() raises the flag and wakes one waiting thread (not all of them).
// Wait() returns as soon as the flag is raised and leaves it raised, so a
// thread that starts waiting while the flag is up returns at once, while a
// second thread already waiting stays blocked until the next Set().
// All members are safe from any thread; the object must outlive its waiters.
class ORVO_API cEvent : public cObject {
public:
    explicit cEvent(bool signalled = false);
    cEvent(const cEvent&) = delete;
    cEvent& operator=(const cEvent&) = delete;
    ~cEvent() override;

    // Raises the flag and wakes one waiter.
    void Set();
    // Lowers the flag.
    void Reset();
    // Blocks until the flag is raised; does not lower it. The timeout is
    // accepted for the callers' convenience and not used: the wait is
    // unbounded.
    void Wait(long timeout = -1);
    // The flag's current state.
    bool IsSet();

private:
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Cond;
    bool m_bSignalled;
};

// cSemaphore: a System V semaphore found by name, serialising the processes
// (and threads) that open the same name.
//
// The key is the CRC-16 (createCRC16 with start value 0xFFFF) of the name, so
// different names with the same CRC share one semaphore. A name whose CRC is
// 0 (the key that means "private" to the kernel, the empty name among them)
// is refused.
//
// Close() and the destructor REMOVE the semaphore set from the system, for
// every process that uses it: the others' Lock/Unlock then fail with -1.
//
// When Open creates the set it clears the process umask (umask(0)) and leaves
// it cleared, so that the files and shared-memory objects the process creates
// afterwards get exactly the mode they ask for; the shared-memory cells
// depend on this to be usable by every service. The semaphore's own mode
// (0666) does not depend on the umask. A program that wants another umask
// sets it again after Open.
//
// Lock/Unlock are safe from any thread; Open/Close must not run concurrently
// with other calls on the same object.
class ORVO_API cSemaphore : public cObject {
public:
    cSemaphore();
    cSemaphore(const cSemaphore&) = delete;
    cSemaphore& operator=(const cSemaphore&) = delete;
    // Close().
    ~cSemaphore() override;

    // Closes any open set, names the object after the semaphore and attaches
    // to the set with the name's key, creating it (one semaphore, mode 0666,
    // value 1) when there is none. Returns 1 on success, -1 on failure (null
    // name, key 0, no permission, no resources).
    int Open(const char* name);
    // Takes the semaphore (decrement by 1), blocking as long as needed; the
    // kernel gives it back when the process ends holding it (SEM_UNDO). The
    // timeout is accepted and not used. Returns 1, or -1 when no set is open
    // or the set was removed.
    int Lock(long timeout = -1);
    // Gives the semaphore back (increment by 1, SEM_UNDO). Returns 1 or -1.
    int Unlock();
    // Removes the set from the system (IPC_RMID) and forgets it.
    void Close();

    // The System V set id, -1 when none is open.
    int GetId() const { return m_SemId; }

private:
    int m_SemId;    // -1 when none
};

}  // namespace orvo
