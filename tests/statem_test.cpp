// cStateMachine: initial state and filter, re-entrant sends, deletion from
// inside a handler, delivery from another thread.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "orvo_handle.h"
#include "orvo_init.h"
#include "orvo_msgthread.h"
#include "orvo_statem.h"
#include "orvo_time.h"
#include "orvo_trace.h"
#include "tesk.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

// Logs "<state>:<type>"; the filter consumes type 0x111 (returns 1) only.
struct cLogSm : cStateMachine {
    cLogSm(cService* s, const char* name) : cStateMachine(s, name) {}
    int state_prestate(cMsg& m) override { return m == 0x111 ? 1 : (m == 0x112 ? 2 : 0); }
    int state_init(cMsg& m) override { return Log("init", m); }
    int state_second(cMsg& m) { return Log("second", m); }
    int Log(const char* state, cMsg& m)
    {
        log.push_back(std::string(state) + ":" + std::to_string(m.GetType()));
        if (onMsg)
            onMsg(m);
        return 0;
    }
    void GoSecond() { SetState(&cLogSm::state_second, "second"); }
    std::vector<std::string> log;
    std::function<void(cMsg&)> onMsg;
};
using tLog = std::vector<std::string>;

struct cPoster : cMsgThread {
    cPoster(cService* parent, cStateMachine* sm) : cMsgThread(parent, sm, "poster") {}
    ~cPoster() override { Terminate(), Join(); }
    void ThreadMain() override
    {
        for (unsigned long type = 0x601; type <= 0x603; ++type) {
            cMsg msg(type);
            SendToParent(msg);
        }
    }
};

class Statem : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        orvoInit(ERROR, OUTPUT_NONE, false);
        std::signal(SIGALRM, SIG_DFL);  // alarm() bounds every test
    }
    void SetUp() override { alarm(60); }
    void TearDown() override { alarm(0); }
    cTestService svc;
};

}  // namespace

TEST_F(Statem, StartsInInitFiltersMonitorsAndHoldsItsHandle)
{
    uint32_t handle;
    {
        cLogSm sm(&svc, "M");
        EXPECT_EQ(sm.ToString(), "name=M::init");
        handle = HandleOf(&sm);
        ASSERT_EQ(HandleResolve(handle, HANDLE_STATEM), static_cast<void*>(&sm));
        sm.Run();
        for (unsigned long type : {0x111ul, 0x112ul}) {
            cMsg msg(type);
            sm.OnMsg(msg);
        }
        EXPECT_EQ(sm.log, (tLog{"init:20480", "init:274"}));

        sm.GoSecond();
        EXPECT_EQ(sm.ToString(), "name=M::second");
        cMsg start(0x5000);
        SetTraceOut(UnitORVO, OUTPUT_STDOUT);
        testing::internal::CaptureStdout();
        sm.Monitor(start);  // ERROR does not admit INFO
        SetTraceLevel(UnitORVO, INFO);
        sm.Monitor(start);
        const std::string out = testing::internal::GetCapturedStdout();
        SetTraceLevel(UnitORVO, ERROR);
        SetTraceOut(UnitORVO, OUTPUT_NONE);
        const std::string line = std::string("M::second <-- ") + GetMsgTypeTxt(0x5000);
        EXPECT_NE(out.find(line), std::string::npos) << out;
        EXPECT_EQ(out.find(line), out.rfind(line)) << out;
    }
    EXPECT_EQ(HandleResolve(handle, HANDLE_STATEM), nullptr);
}

TEST_F(Statem, HandlerSendingToItselfIsNotReenteredAndMayDeleteItself)
{
    // Message 1 sends 2 directly and 3 through the service (the path of
    // channels and timers) and switches state: both wait, then run in order
    // in the new state.
    cLogSm sm(&svc, "R");
    sm.onMsg = [&](cMsg& msg) {
        if (msg != 1)
            return;
        cMsg direct(2), viaService(3);
        sm.OnMsg(direct);
        viaService.SetStatem(&sm);
        svc.OnMsg(viaService);
        EXPECT_TRUE(sm.IsBusy());
        EXPECT_EQ(sm.log.size(), 1u) << "handler re-entered";
        sm.GoSecond();
    };
    cMsg first(1);
    first.SetStatem(&sm);
    svc.OnMsg(first);
    EXPECT_EQ(sm.log, (tLog{"init:1", "second:2", "second:3"}));
    EXPECT_FALSE(sm.IsBusy());

    // Deleted by its own handler with a message pending: the drain stops.
    cLogSm* doomed = new cLogSm(&svc, "D");
    tLog seen;
    doomed->onMsg = [&](cMsg&) {
        seen = doomed->log;
        cMsg later(5);
        doomed->OnMsg(later);
        delete doomed;
    };
    cMsg one(4);
    one.SetStatem(doomed);
    svc.OnMsg(one);
    svc.OnMsg(one);  // the machine is gone: dropped by the service
    EXPECT_EQ(seen, (tLog{"init:4"}));
    EXPECT_EQ(svc.GetQueueSize(), 0u);
}

TEST_F(Statem, MessagesFromAnotherThreadReachTheState)
{
    svc.Init("parent", cSocketAddr("127.0.0.1", 0));
    cLogSm sm(&svc, "T");
    sm.GoSecond();
    {
        cPoster poster(&svc, &sm);
        ASSERT_EQ(poster.Start(), 0);
        const long long end = GetMsecClock() + 30000;
        while (sm.log.size() < 3 && GetMsecClock() < end)
            svc.ScheduleSelect();
    }
    EXPECT_EQ(sm.log, (tLog{"second:1537", "second:1538", "second:1539"}));
    EXPECT_EQ(svc.GetQueueSize(), 0u);  // addressed messages never queue
    svc.DeInit();
}
