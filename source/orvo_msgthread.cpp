#define ORVO_SOURCE "orvo_msgthread"
#include "orvo_msgthread.h"

#include <cerrno>
#include <condition_variable>
#include <mutex>

namespace orvo {

// Shared by the object and its thread, so the thread's last steps never
// touch a destroyed object.
struct cMsgThread::sRunState {
    std::mutex lock;
    std::condition_variable ended;
    pthread_t handle = 0;       // 0 when none (or detached by Terminate)
    pthread_t thread = 0;       // the thread started last, kept for Join's self test
    bool running = false;       // from Start until the thread's last step
};

namespace {

struct sStart {
    cMsgThread* self;
    std::shared_ptr<void> keep;
};

}  // namespace

cMsgThread::cMsgThread(cService* parent, const char* name)
    : cMsgThread(parent, nullptr, name)
{
}

cMsgThread::cMsgThread(cService* parent, cStateMachine* parentStatem, const char* name)
    : m_pParent(parent), m_pParentStatem(parentStatem), m_pRun(std::make_shared<sRunState>())
{
    SetThreadService(true);
    Init(name != nullptr ? name : "", cSocketAddr());
}

cMsgThread::~cMsgThread()
{
    Terminate();
    Join();
}

std::string cMsgThread::ToString() const
{
    return cObject::ToString();
}

void* cMsgThread::Run(void* arg)
{
    sStart* start = static_cast<sStart*>(arg);
    cMsgThread* self = start->self;
    std::shared_ptr<sRunState> state = std::static_pointer_cast<sRunState>(start->keep);
    delete start;

    // Deferred cancellation wherever the thread waits: library locks keep
    // it out while they are held (see orvo_msgthread.h).
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &old);

    // Runs when ThreadMain returns and when a cancellation unwinds it.
    struct sEnder {
        std::shared_ptr<sRunState> state;
        ~sEnder()
        {
            std::lock_guard<std::mutex> guard(state->lock);
            if (state->handle != 0 && pthread_equal(state->handle, pthread_self())) {
                // Nobody joins a thread whose body returned: free it now.
                pthread_detach(state->handle);
                state->handle = 0;
            }
            state->running = false;
            state->ended.notify_all();
        }
    } ender{state};

    self->ThreadMain();
    return nullptr;
}

int cMsgThread::Start()
{
    std::lock_guard<std::mutex> guard(m_pRun->lock);
    if (m_pRun->running)
        return EBUSY;
    sStart* start = new sStart{this, m_pRun};
    pthread_t thread;
    int rc = pthread_create(&thread, nullptr, &cMsgThread::Run, start);
    if (rc != 0) {
        delete start;
        return rc;
    }
    m_pRun->handle = thread;
    m_pRun->thread = thread;
    m_pRun->running = true;
    return 0;
}

void cMsgThread::Terminate()
{
    std::lock_guard<std::mutex> guard(m_pRun->lock);
    if (m_pRun->handle != 0) {
        // The thread cannot end before we release the lock (its last step
        // takes it), so the handle is still valid here.
        pthread_t thread = m_pRun->handle;
        m_pRun->handle = 0;
        pthread_detach(thread);
        pthread_cancel(thread);
    }
}

void cMsgThread::Join()
{
    std::unique_lock<std::mutex> guard(m_pRun->lock);
    if (m_pRun->running && pthread_equal(m_pRun->thread, pthread_self()))
        return;
    m_pRun->ended.wait(guard, [this] { return !m_pRun->running; });
}

bool cMsgThread::IsRunning() const
{
    std::lock_guard<std::mutex> guard(m_pRun->lock);
    return m_pRun->running;
}

pthread_t cMsgThread::GetThread() const
{
    std::lock_guard<std::mutex> guard(m_pRun->lock);
    return m_pRun->handle;
}

int cMsgThread::SendToParent(cMsg& msg)
{
    if (m_pParentStatem != nullptr)
        return SendToInternal(m_pParentStatem, msg);
    return SendToInternal(m_pParent, msg);
}

}  // namespace orvo
