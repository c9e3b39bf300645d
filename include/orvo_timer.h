// orvo_timer.h - cTimer, a one-shot or self-re-arming timer of a service, and
// cRasterTimer, a timer that fires on calendar boundaries (minute, quarter
// hour, half hour, hour, day, Monday, month, year).
//
// A timer belongs to one service. Start() puts it into the service's sorted
// timer list (cService::TimerAsyncSelect); when it is due the service's loop
// removes it from the list and calls OnExec(), which hands a message of the
// timer's type, carrying the timer's tid, its record, its state machine and
// a reference to the timer itself, straight to the service's OnMsg (so it is
// queued, or delivered at once to the state machine).
//
// Time: due times are milliseconds of the monotonic clock GetMsecClock().
// Time-outs are kept as unsigned 32-bit milliseconds (about 49.7 days);
// longer ones, on any platform, are clamped to 0xFFFFFFFF ms.
//
// Ownership and lifetime: the program owns its timers; the service, the
// state machine and the record's contents are not owned. A timer must not
// outlive its service. Destroying a timer unschedules it and drops every
// queued message that names it, so the program never receives a message of
// a timer that is gone.
//
// Thread safety: none. A timer is used only on its service's loop thread
// (Start, Stop and OnExec may be called from inside message handlers and
// from inside OnExec of any timer of the same service).
#pragma once

#include <cstdint>
#include <string>

#include "orvo_msg.h"
#include "orvo_object.h"
#include "orvo_record.h"
#include "orvo_time.h"
#include "orvo_uuid.h"

namespace orvo {

class cService;
class cStateMachine;

class ORVO_API cTimer : public cObject {
public:
    // Not running, timeout 0, tid cleared, record empty. service may be null:
    // then Start and Stop only change the flags and OnExec sends nothing.
    // Registers a HANDLE_TIMER handle (messages name the timer by it).
    cTimer(cService* service, bool autoRestart, cStateMachine* statem);
    cTimer(const cTimer&) = delete;
    cTimer& operator=(const cTimer&) = delete;
    // Drops the service's queued messages that name this timer, then Stop();
    // releases the handle.
    ~cTimer() override;

    // "{ name=<name>, timeout=<n> ms, auto=<true|false>,
    // isRunning=<true|false>[\n\trecord=<record text>] }"; the record part
    // only when the record holds a parameter.
    std::string ToString() const override;
    // Called by the service loop when the timer is due (after it left the
    // timer list): clears isRunning, re-arms an auto timer with the same
    // time-out (before the message is handled, so a handler may Stop() it),
    // then passes the message to the service's OnMsg.
    virtual void OnExec();

    // (Re)starts: an armed timer is first unscheduled; stores msgType and the
    // time-out, sets isRunning and schedules the timer ms from now. ms == 0
    // schedules nothing: the timer then reads as running but never expires.
    void Start(unsigned long ms, unsigned long msgType);
    // Start(1000 * sec, msgType), the product clamped to 0xFFFFFFFF ms.
    void StartSec(unsigned long sec, unsigned long msgType);
    // Clears isRunning and unschedules.
    void Stop();
    void SetTid(const cUuid& tid) { m_Tid = tid; }
    const cUuid& GetTid() const { return m_Tid; }

    // a->due < b->due (the order of the service's timer list).
    static bool compareLess(const cTimer* a, const cTimer* b);

    bool IsRunning() const { return m_bRunning; }
    unsigned long GetTimeout() const { return m_Timeout; }
    unsigned long GetMsgType() const { return m_MsgType; }
    // GetMsecClock() value of the expiry, as the service computed it at the
    // last scheduling (0 before the first).
    uint64_t GetDue() const { return m_Due; }
    void SetDue(uint64_t due) { m_Due = due; }
    cService* GetService() const { return m_pService; }
    cStateMachine* GetStatem() const { return m_pStatem; }

    // Copied into every message the timer sends; the program fills it.
    cRecord m_Record;
    // Re-arm after each expiry.
    bool m_bAuto;

protected:
    // The message of this timer: type, no channel, the state machine, the
    // tid, a copy of the record and the timer reference.
    cMsg BuildMsg(unsigned long type);
    // Hands msg to the service's OnMsg (nothing without a service).
    void Deliver(cMsg& msg);
    std::string RecordPart() const;

    cService* m_pService;        // not owned; may be null
    cStateMachine* m_pStatem;    // not owned; put into every message
    uint32_t m_Timeout;          // ms of the last start
    uint64_t m_Due;              // GetMsecClock() of the expiry
    cUuid m_Tid;                 // copied into every message
    uint32_t m_MsgType;          // type of the timer's message
    bool m_bRunning;
    uint32_t m_Handle;           // HANDLE_TIMER handle
};

// Raster values; one bit each, the same bits form the "RASTER_MATCHES" set.
enum eRaster : unsigned int {
    RASTER_min = 1,      // every new minute
    RASTER_15min = 2,    // minutes 0, 15, 30, 45
    RASTER_30min = 4,    // minutes 0 and 30
    RASTER_hour = 8,     // a new hour
    RASTER_day = 16,     // a new day
    RASTER_week = 32,    // a new day that is a Monday
    RASTER_month = 64,   // a new month
    RASTER_year = 128    // a new year
};

// A timer that ticks once a second (on the monotonic clock) and compares the
// wall-clock time of each tick with the previous tick's: when the raster's
// boundary was crossed it sends one message of the raster type whose record
// is the timer's record plus "RASTER_TIME" (time: the tick cut to the whole
// minute), "RASTER" (uint: the raster) and "RASTER_MATCHES" (uint: every
// raster bit whose boundary coincides, compared with the previous firing).
// Wall-clock time is cTime::Now (UTC by default, or the process's local
// zone) or cTime::LocalTime with a fixed offset and summer time; tests
// steer both clocks through cTime::SetClockOverride and
// SetMsecClockOverride.
//
// Without auto the timer fires once, at the first boundary, and stops; with
// auto it ticks for ever and fires at every boundary. A tick that arrives
// late (a busy loop) still fires if the boundary's minute, hour, ... differs
// from the previous tick's; the quarter- and half-hour rasters fire only
// when a tick falls inside the boundary minute itself.
//
// Until StartRaster runs it behaves as a plain cTimer.
class ORVO_API cRasterTimer : public cTimer {
public:
    // Raster message type 0x1000, RASTER_min, armed, UTC, not active.
    cRasterTimer(cService* service, bool autoRestart, cStateMachine* statem);
    ~cRasterTimer() override;

    // "{ name=<name>, raster=<RASTER_... or nothing>, auto=..., isRunning=...
    // [\n\trecord=...] }".
    std::string ToString() const override;
    // One tick (see the class comment); a plain timer's expiry until
    // StartRaster ran.
    void OnExec() override;

    // Arms the raster: remembers msgType and raster, takes the current wall
    // time as the previous tick and previous firing, ticks in one second.
    // An unknown raster value never fires but keeps ticking while armed.
    void StartRaster(unsigned int raster, unsigned long msgType);
    // The same in a fixed-offset local time (offsetHours east of UTC, with
    // central-European summer time when summerTime): cTime::LocalTime.
    void StartRasterLocalTime(unsigned int raster, unsigned long msgType, int offsetHours,
                              bool summerTime);
    // Without a fixed-offset local time: true breaks the wall clock down in
    // UTC, false in the process's local zone (TZ).
    void UseUTC(bool utc) { m_bUseUTC = utc; }

    // raster plus every raster bit whose boundary coincides at now, compared
    // with the previous firing: the year (128), month (64), a new day that
    // is a Monday (32), the day (16), the hour (8) differ; the minute is 0 or
    // 30 (4); the minute is 0, 15, 30 or 45 (2). Only bits of rasters coarser
    // than raster are examined (a monthly raster gives 64, or 192 at a new
    // year; a yearly one always 128).
    unsigned int GetMatchRasters(unsigned int raster, const cTime& now);
    // Sends one raster message for now with matches; clears armed and makes
    // now the previous firing.
    void OnRasterExec(const cTime& now, unsigned int matches);

    // The text of a raster value as ToString prints it ("" when unknown).
    static const char* RasterName(unsigned int raster);

    unsigned int GetRaster() const { return m_Raster; }
    unsigned long GetRasterMsgType() const { return m_RasterMsgType; }
    bool IsArmed() const { return m_bArmed; }
    bool IsRasterActive() const { return m_bRasterActive; }

private:
    // The wall-clock time of a tick, in the configured zone.
    cTime TakeNow() const;

    uint32_t m_RasterMsgType;    // 0x1000
    uint32_t m_Raster;           // RASTER_min
    bool m_bArmed;               // fire at the next boundary
    cTime m_LastCheck;           // time of the previous tick
    cTime m_LastRaster;          // time of the previous firing (start time)
    bool m_bUseUTC;              // breakdown in UTC unless local time is used
    bool m_bRasterActive;        // StartRaster ran
    bool m_bUseLocalTime;        // fixed-offset local time
    int32_t m_LocalOffsetHours;
    bool m_bSummerTime;
};

}  // namespace orvo
