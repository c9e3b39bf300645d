#define ORVO_SOURCE "orvo_thread"
#include "orvo_thread.h"
#include "orvo_threadid.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "orvo_crc.h"

namespace orvo {

// ---------------------------------------------------------------- cThread

// What the starting object and its running thread share. The thread holds
// its own reference, so it never needs the object after ThreadMain returns
// (the object may be gone by then), and Terminate can tell whether the
// handle still names a live thread.
struct cThread::sRunState {
    std::mutex m_Lock;
    bool m_bEnded = false;      // the thread is past ThreadMain (or unwound)
    cThread* m_pOwner;
    explicit sRunState(cThread* owner) : m_pOwner(owner) {}
};

cThread::cThread(cService*) : m_Thread(0) {}

cThread::~cThread()
{
    Terminate();
}

void* cThread::Run(void* arg)
{
    auto* start = static_cast<std::shared_ptr<sRunState>*>(arg);

    // Marks the run as ended on every way out of the thread, cancellation
    // included (the unwinding runs this destructor).
    struct sEndMark {
        std::shared_ptr<sRunState> m_pRun;
        ~sEndMark()
        {
            std::lock_guard<std::mutex> guard(m_pRun->m_Lock);
            m_pRun->m_bEnded = true;
        }
    } mark{std::move(*start)};
    delete start;
    mark.m_pRun->m_pOwner->ThreadMain();
    return nullptr;
}

int cThread::Start()
{
    if (m_pRun) {
        std::lock_guard<std::mutex> guard(m_pRun->m_Lock);
        if (!m_pRun->m_bEnded)
            return EBUSY;
    }
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0)
        return rc;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);

    // Both members are set before the thread runs (the C library stores the
    // handle before it starts the thread): a ThreadMain that deletes its own
    // object may run to its end before pthread_create has returned, so
    // nothing here touches the object after a successful create.
    m_pRun = std::make_shared<sRunState>(this);
    auto* start = new std::shared_ptr<sRunState>(m_pRun);
    rc = pthread_create(&m_Thread, &attr, &cThread::Run, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        m_pRun.reset();
        m_Thread = 0;
    }
    return rc;
}

void cThread::Terminate()
{
    if (m_pRun) {
        // Holding the lock keeps a thread that is just finishing from ending
        // (it waits in sEndMark), so the handle stays valid while it is used.
        std::lock_guard<std::mutex> guard(m_pRun->m_Lock);
        if (!m_pRun->m_bEnded && m_Thread != 0) {
            // The thread was created detached, so there is nothing left to
            // detach; cancelling is all that remains.
            pthread_cancel(m_Thread);
        }
    }
    m_pRun.reset();
    m_Thread = 0;
}

namespace threadid {

__thread pid_t tCached __attribute__((tls_model("initial-exec"))) = 0;

namespace {
void ForgetInChild() { tCached = 0; }
}  // namespace

pid_t Fetch()
{
    static const int once = pthread_atfork(nullptr, nullptr, &ForgetInChild);
    (void)once;
    tCached = static_cast<pid_t>(syscall(SYS_gettid));
    return tCached;
}

}  // namespace threadid

ORVO_HOT pid_t cThread::GetCurrentThreadId()
{
    return threadid::Current();
}

// ------------------------------------------------------- cCriticalSection

cCriticalSection::cCriticalSection() : m_Owner(0)
{
    pthread_mutex_init(&m_Mutex, nullptr);
}

cCriticalSection::~cCriticalSection()
{
    pthread_mutex_destroy(&m_Mutex);
}

ORVO_HOT void cCriticalSection::Enter()
{
    const pid_t self = threadid::Current();
    if (m_Owner.load(std::memory_order_relaxed) == self)
        return;
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    pthread_mutex_lock(&m_Mutex);
    m_Owner.store(self, std::memory_order_relaxed);
    m_HolderCancelState = cancelState;
}

ORVO_HOT void cCriticalSection::Leave()
{
    // Only the holder may release: an unpaired Leave must not unlock a mutex
    // that another thread holds by now (or one that nobody holds).
    if (m_Owner.load(std::memory_order_relaxed) != threadid::Current())
        return;
    const int cancelState = m_HolderCancelState;
    m_Owner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_Mutex);
    int previous = 0;
    pthread_setcancelstate(cancelState, &previous);
}

// ----------------------------------------------------------------- cEvent

namespace {

[[maybe_unused]] void UnlockMutex(void* mutex)
{
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex));
}

}  // namespace

cEvent::cEvent(bool signalled) : m_bSignalled(signalled)
{
    pthread_mutex_init(&m_Mutex, nullptr);
    pthread_cond_init(&m_Cond, nullptr);
}

cEvent::~cEvent()
{
    pthread_cond_destroy(&m_Cond);
    pthread_mutex_destroy(&m_Mutex);
}

void cEvent::Set()
{
    pthread_mutex_lock(&m_Mutex);
    m_bSignalled = true;
    pthread_cond_signal(&m_Cond);
    pthread_mutex_unlock(&m_Mutex);
}

void cEvent::Reset()
{
    pthread_mutex_lock(&m_Mutex);
    m_bSignalled = false;
    pthread_mutex_unlock(&m_Mutex);
}

void cEvent::Wait(long)
{
    pthread_mutex_lock(&m_Mutex);
    // A cancelled waiter leaves pthread_cond_wait holding the mutex; the
    // handler gives it back so the event stays usable.
    pthread_cleanup_push(UnlockMutex, &m_Mutex);
    while (!m_bSignalled)
        pthread_cond_wait(&m_Cond, &m_Mutex);
    pthread_cleanup_pop(1);
}

bool cEvent::IsSet()
{
    pthread_mutex_lock(&m_Mutex);
    const bool on = m_bSignalled;
    pthread_mutex_unlock(&m_Mutex);
    return on;
}

// ------------------------------------------------------------- cSemaphore

namespace {

// semctl's fourth argument, which the C library leaves to the caller.
union uSemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// One semop on semaphore 0 with undo on exit; a signal does not break it.
int SemStep(int id, short delta)
{
    if (id == -1)
        return -1;
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    while (semop(id, &op, 1) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return 1;
}

}  // namespace

cSemaphore::cSemaphore() : m_SemId(-1) {}

cSemaphore::~cSemaphore()
{
    Close();
}

int cSemaphore::Open(const char* name)
{
    Close();
    if (name == nullptr)
        return -1;
    SetObjName(name);
    const key_t key = createCRC16(name, static_cast<int>(strlen(name)), 0xFFFF);
    // Key 0 is IPC_PRIVATE: every semget would make a new, unshared set.
    if (key == IPC_PRIVATE)
        return -1;

    // Attach, else create; when another process creates the set between the
    // two steps, attach to its set instead. Its value may still be 0 for a
    // moment, until its creator has set it; a Lock then waits for that.
    for (int attempt = 0; attempt < 3; ++attempt) {
        int id = semget(key, 1, 0);
        if (id != -1) {
            m_SemId = id;
            return 1;
        }
        if (errno != ENOENT)
            return -1;
        umask(0);
        id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
        if (id != -1) {
            uSemArg arg;
            arg.val = 1;
            if (semctl(id, 0, SETVAL, arg) == -1) {
                semctl(id, 0, IPC_RMID);
                return -1;
            }
            m_SemId = id;
            return 1;
        }
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

int cSemaphore::Lock(long)
{
    return SemStep(m_SemId, -1);
}

int cSemaphore::Unlock()
{
    return SemStep(m_SemId, 1);
}

void cSemaphore::Close()
{
    if (m_SemId != -1)
        semctl(m_SemId, 0, IPC_RMID);
    m_SemId = -1;
}

}  // namespace orvo
