// cTimer and cRasterTimer: scheduling through a service's timer list with
// both clocks driven by the test (calendar boundaries, summer time, late
// ticks), and plain timers in a real select loop.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "orvo_handle.h"
#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_service.h"
#include "orvo_timer.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

long long gWall;   // ms since the epoch, read by cTime::Now
long long gMono;   // read by GetMsecClock
long long Wall() { return gWall; }
long long Mono() { return gMono; }

// Calendar fields to epoch milliseconds by the platform's own timegm.
long long Utc(int y, int mo, int d, int h, int mi, int s)
{
    struct tm t = {};
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_sec = s;
    return static_cast<long long>(timegm(&t)) * 1000;
}

// Keeps every delivered message instead of queueing it.
class cCapture : public cTestService {
public:
    void OnMsg(cMsg& msg) override { got.push_back(msg); }
    std::vector<cMsg> got;
};

struct sFire {
    long long rasterTime;    // "RASTER_TIME" in ms
    unsigned matches;
    bool operator==(const sFire& o) const { return rasterTime == o.rasterTime && matches == o.matches; }
};
std::ostream& operator<<(std::ostream& os, const sFire& f)
{
    return os << cTime().FromMilliSeconds(f.rasterTime, true).ToString() << "/" << f.matches;
}

// Raster messages of one timer, taken out of the capture.
std::vector<sFire> Fired(cCapture& svc, const cTimer* t)
{
    std::vector<sFire> out;
    for (const cMsg& m : svc.got)
        if (m.GetTimer() == t)
            out.push_back({m.GetRecord().GetFirstPar("RASTER_TIME").GetTime().ToMilliSeconds(),
                           m.GetRecord().GetFirstPar("RASTER_MATCHES").GetUInt()});
    return out;
}

class Timer : public testing::Test {
protected:
    void SetUp() override
    {
        gWall = Utc(2024, 3, 5, 10, 14, 30);
        gMono = 1000000;
        cTime::SetClockOverride(Wall);
        SetMsecClockOverride(Mono);
    }
    void TearDown() override
    {
        cTime::SetClockOverride(nullptr);
        SetMsecClockOverride(nullptr);
    }
    // One pass of the loop, ms after the previous one (a large step is a
    // loop that woke late).
    void Tick(long long ms, cService* s = nullptr)
    {
        gWall += ms;
        gMono += ms;
        (s ? s : &svc)->ScanTimers();
    }
    void RunTo(long long wall, long long step = 1000)
    {
        while (gWall < wall)
            Tick(step);
    }
    void JumpTo(long long wall) { Tick(wall - gWall); }
    cCapture svc;
};

}  // namespace

TEST_F(Timer, OneShotDeliversItsMessageOnceWithTidRecordAndStateMachine)
{
    cStateMachine* sm = reinterpret_cast<cStateMachine*>(&gWall);   // only carried
    cTimer t(&svc, false, sm);
    t.SetObjName("t1");
    t.m_Record.AppendUIntPar("k", 7);
    cUuid tid;
    tid.Create();
    t.SetTid(tid);
    t.Start(1500, 0x2345);
    Tick(1499);
    EXPECT_TRUE(svc.got.empty());
    Tick(1);
    ASSERT_EQ(svc.got.size(), 1u);
    const cMsg& m = svc.got[0];
    EXPECT_TRUE(m.GetType() == 0x2345 && m.GetTid() == tid && m.GetTimer() == &t &&
                m.GetStatem() == sm && m.GetRecord().GetFirstPar("k").GetUInt() == 7);
    EXPECT_NE(m.ToString().find(", timer={ name=t1, timeout=1500 ms"), std::string::npos);
    {
        // A copy kept after its timer is gone prints without it.
        cTimer* gone = new cTimer(&svc, false, nullptr);
        cMsg kept(m);
        kept.SetTimer(gone);
        delete gone;
        EXPECT_EQ(kept.ToString().find("timer="), std::string::npos);
    }
    EXPECT_FALSE(t.IsRunning());
    EXPECT_EQ(svc.GetTimerCount(), 0u);
}

// A restart replaces the pending expiry; Start(0) parks the timer; huge
// time-outs clamp to 32-bit milliseconds instead of wrapping.
TEST_F(Timer, RestartReplacesTheExpiryZeroParksAndHugeTimeoutsClamp)
{
    cTimer t(&svc, false, nullptr);
    t.Start(1000, 1);
    t.Start(3000, 2);
    EXPECT_EQ(svc.GetTimerCount(), 1u);
    Tick(2999);
    Tick(1);
    ASSERT_EQ(svc.got.size(), 1u);
    EXPECT_EQ(svc.got[0].GetType(), 2u);
    t.Start(0, 3);
    EXPECT_TRUE(t.IsRunning() && svc.GetTimerCount() == 0);
    t.StartSec(5000000, 1);
    EXPECT_EQ(t.GetTimeout(), 0xFFFFFFFFul);
    EXPECT_EQ(t.GetDue(), static_cast<uint64_t>(gMono) + 0xFFFFFFFFull);
    t.Stop();
}

// Equal due times fire in start order; an auto timer woken late fires once
// and counts its next period from the wake-up.
TEST_F(Timer, TiesFireInStartOrderAndALateAutoTimerFiresOnce)
{
    cTimer a(&svc, false, nullptr), b(&svc, false, nullptr), c(&svc, true, nullptr);
    b.Start(500, 1);
    a.Start(500, 1);
    c.Start(500, 1);
    Tick(1700);
    ASSERT_EQ(svc.got.size(), 3u);
    EXPECT_TRUE(svc.got[0].GetTimer() == &b && svc.got[1].GetTimer() == &a &&
                svc.got[2].GetTimer() == &c);
    EXPECT_EQ(c.GetDue(), static_cast<uint64_t>(gMono + 500));
    c.Stop();
}

TEST_F(Timer, ToStringShowsTheRecordOnlyWhenItHasParameters)
{
    cTimer t(&svc, true, nullptr);
    t.SetObjName("t1");
    t.Start(1500, 1);
    t.Stop();
    EXPECT_EQ(t.ToString(), "{ name=t1, timeout=1500 ms, auto=true, isRunning=false }");
    t.m_Record.AppendUIntPar("k", 7);
    EXPECT_EQ(t.ToString(), "{ name=t1, timeout=1500 ms, auto=true, isRunning=false\n\trecord=" +
                                t.m_Record.ToString() + " }");
}

TEST_F(Timer, DestructionUnschedulesAndPurgesQueuedMessages)
{
    cTestService queue;   // the real queue
    const unsigned handles = HandleCount();
    cTimer* a = new cTimer(&queue, false, nullptr);
    cTimer keep(&queue, false, nullptr);
    a->Start(10, 0x2001);
    keep.Start(10, 0x2002);
    Tick(10, &queue);
    a->Start(10, 0x2001);
    Tick(10, &queue);
    EXPECT_EQ(queue.GetQueueSize(), 3u);
    a->Start(10, 0x2001);
    delete a;
    EXPECT_EQ(queue.GetQueueSize(), 1u);
    EXPECT_EQ(HandleCount(), handles + 1);
    Tick(100, &queue);   // no dangling entry left to fire
    EXPECT_EQ(queue.GetQueueSize(), 1u);
}

TEST_F(Timer, RasterQuarterMinuteOnceAndUnknown)
{
    cRasterTimer q(&svc, true, nullptr), m(&svc, true, nullptr), once(&svc, false, nullptr),
        odd(&svc, false, nullptr);
    q.SetObjName("r");
    q.m_Record.AppendTextPar("app", "x");
    q.StartRaster(RASTER_15min, 0x5001);
    m.StartRaster(RASTER_min, 0x5002);
    once.StartRaster(RASTER_min, 0x5003);
    odd.StartRaster(3, 0x5004);
    EXPECT_EQ(q.ToString(), "{ name=r, raster=RASTER_15min, auto=true, isRunning=true\n\trecord=" +
                                q.m_Record.ToString() + " }");
    RunTo(Utc(2024, 3, 5, 10, 15, 0));
    EXPECT_EQ(Fired(svc, &q), (std::vector<sFire>{{Utc(2024, 3, 5, 10, 15, 0), 2}}));
    EXPECT_EQ(Fired(svc, &m), (std::vector<sFire>{{Utc(2024, 3, 5, 10, 15, 0), 1 + 2}}));
    RunTo(Utc(2024, 3, 5, 10, 30, 0));
    RunTo(Utc(2024, 3, 5, 10, 59, 58));
    RunTo(Utc(2024, 3, 5, 11, 0, 5));
    EXPECT_EQ(Fired(svc, &q), (std::vector<sFire>{{Utc(2024, 3, 5, 10, 15, 0), 2},
                                                  {Utc(2024, 3, 5, 10, 30, 0), 6},
                                                  {Utc(2024, 3, 5, 10, 45, 0), 2},
                                                  {Utc(2024, 3, 5, 11, 0, 0), 14}}));
    EXPECT_EQ(Fired(svc, &m).size(), 46u);
    EXPECT_EQ(Fired(svc, &m).back(), (sFire{Utc(2024, 3, 5, 11, 0, 0), 1 + 2 + 4 + 8}));
    EXPECT_TRUE(Fired(svc, &once).size() == 1 && !once.IsRunning());
    EXPECT_TRUE(Fired(svc, &odd).empty() && odd.IsRunning());
    // The raster message carries the timer's record first, and the timer's
    // own record is left as it was.
    cMsg last;
    for (const cMsg& msg : svc.got)
        if (msg.GetTimer() == &q)
            last = msg;
    EXPECT_TRUE(last.GetType() == 0x5001 && last.GetRecord().GetFirstPar("RASTER").GetUInt() == 2);
    EXPECT_EQ(last.GetRecord().GetFirstPar(), q.m_Record.GetFirstPar());
    EXPECT_EQ(q.m_Record.GetParCount(), 1);
}

TEST_F(Timer, RasterEveryKindAtANewYearAndLateTicks)
{
    // 2024-01-01 is a Monday: every boundary coincides.
    gWall = Utc(2023, 12, 31, 23, 59, 30);
    std::vector<cRasterTimer*> ts;
    for (unsigned r = 1; r <= 128; r <<= 1) {
        ts.push_back(new cRasterTimer(&svc, true, nullptr));
        ts.back()->StartRaster(r, 0x5000 + r);
    }
    RunTo(Utc(2024, 1, 1, 0, 0, 59));
    const unsigned expect[] = {255, 254, 252, 248, 240, 224, 192, 128};
    for (size_t i = 0; i < ts.size(); ++i)
        EXPECT_EQ(Fired(svc, ts[i]), (std::vector<sFire>{{Utc(2024, 1, 1, 0, 0, 0), expect[i]}}))
            << cRasterTimer::RasterName(ts[i]->GetRaster());

    // A loaded loop: ticks 7 s apart still fire once per boundary, and
    // the next tick is one second after the late one, not a burst.
    JumpTo(Utc(2024, 1, 1, 0, 59, 55));
    svc.got.clear();
    Tick(7000);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(Fired(svc, ts[i]), (std::vector<sFire>{{Utc(2024, 1, 1, 1, 0, 0), 15u & ~0u << i}})) << i;
    EXPECT_EQ(svc.got.size(), 4u);
    EXPECT_EQ(ts[0]->GetDue(), static_cast<uint64_t>(gMono + 1000));
    for (cRasterTimer* t : ts)
        delete t;
    EXPECT_EQ(svc.GetTimerCount(), 0u);
}

TEST_F(Timer, RasterWeekWaitsForTheNextMonday)
{
    gWall = Utc(2024, 1, 7, 23, 59, 57);   // a Sunday
    cRasterTimer sunday(&svc, false, nullptr), monday(&svc, true, nullptr), day(&svc, true, nullptr);
    sunday.StartRaster(RASTER_week, 0x5021);
    day.StartRaster(RASTER_day, 0x5010);
    RunTo(Utc(2024, 1, 8, 0, 0, 3));
    EXPECT_EQ(Fired(svc, &sunday), (std::vector<sFire>{{Utc(2024, 1, 8, 0, 0, 0), 32}}));
    JumpTo(Utc(2024, 1, 8, 12, 0, 0));   // Monday noon
    monday.StartRaster(RASTER_week, 0x5020);
    RunTo(Utc(2024, 1, 8, 12, 0, 5));
    JumpTo(Utc(2024, 1, 8, 23, 59, 58));
    RunTo(Utc(2024, 1, 9, 0, 0, 3));   // into Tuesday
    JumpTo(Utc(2024, 1, 14, 23, 59, 58));
    RunTo(Utc(2024, 1, 15, 0, 0, 3));
    EXPECT_EQ(Fired(svc, &monday), (std::vector<sFire>{{Utc(2024, 1, 15, 0, 0, 0), 32}}));
    // A Monday that opens a month reports both.
    JumpTo(Utc(2024, 3, 31, 23, 59, 59));
    Tick(1000);
    EXPECT_EQ(Fired(svc, &monday).back(), (sFire{Utc(2024, 4, 1, 0, 0, 0), 96}));
    // The day raster sees every day change, late ones (the jumps) included,
    // and marks only Mondays with 32.
    EXPECT_EQ(Fired(svc, &day), (std::vector<sFire>{{Utc(2024, 1, 8, 0, 0, 0), 48},
                                                    {Utc(2024, 1, 9, 0, 0, 0), 16},
                                                    {Utc(2024, 1, 14, 23, 59, 0), 16},
                                                    {Utc(2024, 1, 15, 0, 0, 0), 48},
                                                    {Utc(2024, 3, 31, 23, 59, 0), 80},
                                                    {Utc(2024, 4, 1, 0, 0, 0), 112}}));
}

TEST_F(Timer, RasterSummerTimeSwitchesMatchTheSystemZoneRules)
{
    // The process-local zone with the same rules as the fixed-offset local
    // time serves as the independent reference.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    struct sCase {
        long long start;
        std::vector<sFire> hour, minute;   // local wall-clock minutes
    } cases[] = {
        // 02:00 CET is 03:00 CEST: one hour firing at 03:00.
        {Utc(2024, 3, 31, 0, 59, 30),
         {{Utc(2024, 3, 31, 3, 0, 0), 8}, {Utc(2024, 3, 31, 4, 0, 0), 8}},
         {{Utc(2024, 3, 31, 3, 0, 0), 1 + 2 + 4 + 8}}},
        // 03:00 CEST is 02:00 CET: the hour number repeats, so the hourly
        // raster waits for 03:00 CET; the minute raster sees 02:00 again.
        {Utc(2024, 10, 27, 0, 59, 30),
         {{Utc(2024, 10, 27, 3, 0, 0), 8}},
         {{Utc(2024, 10, 27, 2, 0, 0), 1 + 2 + 4}}},
    };
    for (const sCase& c : cases) {
        svc.got.clear();
        gWall = c.start;
        cRasterTimer fixedH(&svc, true, nullptr), fixedM(&svc, true, nullptr),
            zoneH(&svc, true, nullptr), zoneM(&svc, true, nullptr);
        fixedH.StartRasterLocalTime(RASTER_hour, 1, 1, true);
        fixedM.StartRasterLocalTime(RASTER_min, 1, 1, true);
        zoneH.UseUTC(false);
        zoneM.UseUTC(false);   // process-local
        zoneH.StartRaster(RASTER_hour, 1);
        zoneM.StartRaster(RASTER_min, 1);
        RunTo(c.start + 35000);
        JumpTo(c.start + 3600000 + 25000);
        RunTo(c.start + 3600000 + 35000);
        EXPECT_EQ(Fired(svc, &fixedH), c.hour);
        EXPECT_EQ(Fired(svc, &zoneH), c.hour);
        ASSERT_EQ(Fired(svc, &fixedM).size(), 3u);
        EXPECT_EQ(Fired(svc, &fixedM)[0], c.minute[0]);
        EXPECT_EQ(Fired(svc, &zoneM), Fired(svc, &fixedM));
    }
    unsetenv("TZ");
    tzset();
}

TEST(TimerLoop, AutoTimerInARunningService)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    cTestService svc;
    svc.Init("tmr", cSocketAddr("127.0.0.1", 0));
    cTimer tick(&svc, true, nullptr), end(&svc, false, nullptr);
    cUuid tid;
    tid.Create();
    tick.SetTid(tid);
    tick.m_Record.AppendUIntPar("n", 42);
    const long long start = GetMsecClock();
    tick.Start(500, 0x2001);
    int ticks = 0, late = 0;
    cMsg msg;
    while (svc.GetMessage(msg)) {
        if (msg.GetType() == 0x2002)
            break;
        ASSERT_EQ(msg.GetType(), 0x2001u);
        EXPECT_EQ(msg.GetTimer(), &tick);
        EXPECT_EQ(msg.GetTid(), tid);
        EXPECT_EQ(msg.GetRecord().GetFirstPar("n").GetUInt(), 42u);
        if (end.IsRunning()) {
            ++late;
        } else if (++ticks, GetMsecClock() - start >= 2000) {
            tick.Stop();   // already re-armed: Stop must win
            end.Start(1200, 0x2002);
        }
    }
    EXPECT_GE(ticks, 2);   // generous: 4 expected, slower under qemu
    EXPECT_LE(ticks, 5);
    EXPECT_EQ(late, 0);
    EXPECT_TRUE(!tick.IsRunning() && svc.GetTimerCount() == 0);
}

// The raster message goes out before the timer re-arms: a handler's Stop()
// does not end an auto raster timer (it ticks on and fires at the next
// boundary), while a plain auto timer, re-armed before its message, stays
// stopped.
TEST_F(Timer, StopFromTheHandlerEndsAPlainAutoTimerButNotAnAutoRasterTimer)
{
    class cStopper : public cTestService {
    public:
        void OnMsg(cMsg& msg) override
        {
            got.push_back(msg.GetType());
            if (cTimer* t = msg.GetTimer())
                t->Stop();
        }
        std::vector<unsigned long> got;
    } stopper;
    cRasterTimer raster(&stopper, true, nullptr);
    cTimer plain(&stopper, true, nullptr);
    raster.StartRaster(RASTER_min, 0x5101);
    plain.Start(500, 0x5102);
    while (gWall < Utc(2024, 3, 5, 10, 15, 1))
        Tick(500, &stopper);
    EXPECT_TRUE(raster.IsRunning());
    EXPECT_FALSE(plain.IsRunning());
    while (gWall < Utc(2024, 3, 5, 10, 16, 1))
        Tick(500, &stopper);
    EXPECT_EQ(stopper.got, (std::vector<unsigned long>{0x5102, 0x5101, 0x5101}));
}
