// cMsgThread: a thread service ends in bounded time when it is destroyed,
// wherever its thread waits; the parent and the thread talk by messages.
#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>

#include "orvo_init.h"
#include "orvo_msgthread.h"
#include "orvo_thread.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

// A thread service whose body runs wait() after telling the parent it runs.
class cWaiter : public cMsgThread {
public:
    cWaiter(cService* parent, std::function<void(cService&)> wait)
        : cMsgThread(parent, "waiter"), m_Wait(std::move(wait)) {}
    ~cWaiter() override
    {
        Terminate();
        Join();
    }
    void ThreadMain() override
    {
        cMsg up(0x6001);
        SendToParent(up);
        m_Wait(*this);
    }

private:
    std::function<void(cService&)> m_Wait;
};

// Starts a waiter in a child process, waits for its first message, destroys
// it; the child's exit code (-1: it hung and its alarm ended it).
int DestroyWhileWaiting(const std::function<void(cService&)>& wait)
{
    return orvo_test::RunInChild([&wait] {
        orvoInit(ERROR, OUTPUT_NONE, false);
        cService::SignalAsyncSelect(SIGALRM, nullptr, nullptr);   // the alarm ends a hang
        cTestService parent;
        parent.Init("parent", cSocketAddr("127.0.0.1", 0));
        {
            cWaiter waiter(&parent, wait);
            if (waiter.Start() != 0)
                return 3;
            if (parent.WaitSyncMsg(10000, 0x6001).GetType() != 0x6001)
                return 4;
        }
        return 0;
    }, nullptr, false, 20);
}

}  // namespace

TEST(MsgThread, DestroyingEndsAThreadThatSleeps)
{
    EXPECT_EQ(DestroyWhileWaiting([](cService&) {
                  for (;;)
                      sleep(1);
              }),
              0);
}

TEST(MsgThread, DestroyingEndsAThreadThatWaitsOnAnEvent)
{
    EXPECT_EQ(DestroyWhileWaiting([](cService&) {
                  cEvent never(false);
                  never.Wait();
              }),
              0);
}

TEST(MsgThread, DestroyingEndsAThreadInItsLoop)
{
    EXPECT_EQ(DestroyWhileWaiting([](cService& self) {
                  cMsg msg;
                  while (self.GetMessage(msg)) {
                  }
              }),
              0);
}
