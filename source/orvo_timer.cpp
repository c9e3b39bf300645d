#define ORVO_SOURCE "orvo_timer"
#include "orvo_timer.h"

#include "orvo_handle.h"
#include "orvo_service.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

// Longest time-out a timer keeps: its time-out field is 32 bits wide on every
// platform, so a longer one would otherwise wrap (possibly to 0, which means
// "never expires").
const unsigned long kMaxTimeoutMs = 0xFFFFFFFFul;

unsigned long ClampMs(unsigned long long ms)
{
    return ms > kMaxTimeoutMs ? kMaxTimeoutMs : static_cast<unsigned long>(ms);
}

const char* Bool(bool b)
{
    return b ? "true" : "false";
}

}  // namespace

// ---- cTimer -------------------------------------------------------------------

cTimer::cTimer(cService* service, bool autoRestart, cStateMachine* statem)
    : m_bAuto(autoRestart),
      m_pService(service),
      m_pStatem(statem),
      m_Timeout(0),
      m_Due(0),
      m_MsgType(0),
      m_bRunning(false),
      m_Handle(HandleCreate(this, HANDLE_TIMER))
{
}

cTimer::~cTimer()
{
    if (m_pService != nullptr)
        m_pService->RemoveMsgsByObject(this);
    Stop();
    HandleRelease(m_Handle);
}

void cTimer::Start(unsigned long ms, unsigned long msgType)
{
    ms = ClampMs(ms);
    if (m_bRunning && m_pService != nullptr)
        m_pService->TimerAsyncSelect(this, 0);
    m_MsgType = static_cast<uint32_t>(msgType);
    m_bRunning = true;
    m_Timeout = static_cast<uint32_t>(ms);
    // 0 ms unschedules in the service: the timer stays "running" without
    // ever expiring, which existing programs rely on as a parked timer.
    if (m_pService != nullptr)
        m_pService->TimerAsyncSelect(this, ms);
}

void cTimer::StartSec(unsigned long sec, unsigned long msgType)
{
    Start(ClampMs(1000ull * sec), msgType);
}

void cTimer::Stop()
{
    m_bRunning = false;
    if (m_pService != nullptr)
        m_pService->TimerAsyncSelect(this, 0);
}

bool cTimer::compareLess(const cTimer* a, const cTimer* b)
{
    return a->m_Due < b->m_Due;
}

cMsg cTimer::BuildMsg(unsigned long type)
{
    cMsg msg(type, nullptr, m_pStatem);
    msg.SetTid(m_Tid);
    msg.SetRecord(m_Record);
    // The reference lets the service purge the message when the timer dies.
    msg.SetTimer(this);
    return msg;
}

void cTimer::Deliver(cMsg& msg)
{
    if (m_pService != nullptr)
        m_pService->OnMsg(msg);
}

void cTimer::OnExec()
{
    m_bRunning = false;
    // Re-armed before the message is handled, so the period counts from the
    // expiry and a handler's Stop() wins.
    if (m_bAuto)
        Start(m_Timeout, m_MsgType);
    cMsg msg = BuildMsg(m_MsgType);
    Deliver(msg);
}

std::string cTimer::RecordPart() const
{
    if (!m_Record.GetFirstPar().IsValid())
        return std::string();
    return "\n\trecord=" + m_Record.ToString();
}

std::string cTimer::ToString() const
{
    return "{ name=" + GetObjName() + ", timeout=" + FormatString("%lu ms", GetTimeout()) +
           ", auto=" + Bool(m_bAuto) + ", isRunning=" + Bool(m_bRunning) + RecordPart() + " }";
}

// ---- cRasterTimer -------------------------------------------------------------

cRasterTimer::cRasterTimer(cService* service, bool autoRestart, cStateMachine* statem)
    : cTimer(service, autoRestart, statem),
      m_RasterMsgType(0x1000),
      m_Raster(RASTER_min),
      m_bArmed(true),
      m_bUseUTC(true),
      m_bRasterActive(false),
      m_bUseLocalTime(false),
      m_LocalOffsetHours(0),
      m_bSummerTime(false)
{
}

cRasterTimer::~cRasterTimer() = default;

const char* cRasterTimer::RasterName(unsigned int raster)
{
    switch (raster) {
    case RASTER_min: return "RASTER_min";
    case RASTER_15min: return "RASTER_15min";
    case RASTER_30min: return "RASTER_30min";
    case RASTER_hour: return "RASTER_hour";
    case RASTER_day: return "RASTER_day";
    case RASTER_week: return "RASTER_week";
    case RASTER_month: return "RASTER_month";
    case RASTER_year: return "RASTER_year";
    default: return "";
    }
}

std::string cRasterTimer::ToString() const
{
    return "{ name=" + GetObjName() + ", raster=" + RasterName(m_Raster) + ", auto=" +
           Bool(m_bAuto) + ", isRunning=" + Bool(m_bRunning) + RecordPart() + " }";
}

cTime cRasterTimer::TakeNow() const
{
    cTime now;
    if (m_bUseLocalTime)
        now.LocalTime(m_LocalOffsetHours, m_bSummerTime, nullptr);
    else
        now.Now(m_bUseUTC);
    return now;
}

void cRasterTimer::StartRaster(unsigned int raster, unsigned long msgType)
{
    m_RasterMsgType = static_cast<uint32_t>(msgType);
    m_Raster = raster;
    m_bArmed = true;
    m_bRasterActive = true;
    const cTime now = TakeNow();
    m_LastCheck = now;
    m_LastRaster = now;
    StartSec(1, 0);
}

void cRasterTimer::StartRasterLocalTime(unsigned int raster, unsigned long msgType,
                                        int offsetHours, bool summerTime)
{
    m_bSummerTime = summerTime;
    m_LocalOffsetHours = offsetHours;
    m_bUseLocalTime = true;
    StartRaster(raster, msgType);
}

void cRasterTimer::OnExec()
{
    if (!m_bRasterActive) {
        cTimer::OnExec();
        return;
    }
    m_bRunning = false;
    const cTime now = TakeNow();
    const int minute = now.GetMinute();
    const bool quarter = minute % 15 == 0;
    const bool half = minute % 30 == 0;
    bool fire = false;
    switch (m_Raster) {
    case RASTER_min:
        fire = minute != m_LastCheck.GetMinute();
        break;
    case RASTER_15min:
        // Armed again outside the boundary minute, so each boundary fires
        // once even though the minute lasts sixty ticks.
        if (!quarter)
            m_bArmed = true;
        else
            fire = m_bArmed;
        break;
    case RASTER_30min:
        if (!half)
            m_bArmed = true;
        else
            fire = m_bArmed;
        break;
    case RASTER_hour:
        fire = now.GetHour() != m_LastCheck.GetHour();
        break;
    case RASTER_day:
        fire = now.GetDay() != m_LastCheck.GetDay();
        break;
    case RASTER_week:
        fire = now.GetDay() != m_LastCheck.GetDay() && now.GetDayOfWheek() == 1;
        break;
    case RASTER_month:
        fire = now.GetMonth() != m_LastCheck.GetMonth();
        break;
    case RASTER_year:
        fire = now.GetYear() != m_LastCheck.GetYear();
        break;
    default:
        break;
    }
    if (fire) {
        // The message goes out first; a state machine gets it synchronously
        // and may delete the timer, which ends the tick here.
        const uint32_t handle = m_Handle;
        OnRasterExec(now, GetMatchRasters(m_Raster, now));
        if (!HandleAlive(this, HANDLE_TIMER, handle))
            return;
    }
    m_LastCheck = now;
    // A firing disarms, so only an auto timer ticks on; a Stop() from the
    // handler does not end an auto timer's ticking.
    if (m_bArmed || m_bAuto)
        StartSec(1, 0);
}

unsigned int cRasterTimer::GetMatchRasters(unsigned int raster, const cTime& now)
{
    // Walks from the coarsest boundary down to the raster's own; bits are
    // or-ed so an unknown raster value cannot carry into a neighbour bit.
    unsigned int m = raster;
    if (raster == RASTER_year)
        return RASTER_year;
    const bool newDay = now.GetDay() != m_LastRaster.GetDay();
    if (now.GetYear() != m_LastRaster.GetYear())
        m |= RASTER_year;
    if (raster == RASTER_month)
        return m;
    if (now.GetMonth() != m_LastRaster.GetMonth())
        m |= RASTER_month;
    if (raster == RASTER_week)
        return m;
    if (newDay && now.GetDayOfWheek() == 1)
        m |= RASTER_week;
    if (raster == RASTER_day)
        return m;
    if (newDay)
        m |= RASTER_day;
    if (raster == RASTER_hour)
        return m;
    if (now.GetHour() != m_LastRaster.GetHour())
        m |= RASTER_hour;
    if (raster == RASTER_30min)
        return m;
    const int minute = now.GetMinute();
    if (minute % 30 == 0)
        m |= RASTER_30min;
    if (raster == RASTER_15min)
        return m;
    if (minute % 15 == 0)
        m |= RASTER_15min;
    return m;
}

void cRasterTimer::OnRasterExec(const cTime& now, unsigned int matches)
{
    m_bArmed = false;
    m_LastRaster = now;
    cMsg msg = BuildMsg(m_RasterMsgType);
    // The minute built from the tick's own fields as a UTC value, so a
    // local-time raster carries the local wall-clock minute.
    cTime minute;
    minute.Create(now.GetYear(), now.GetMonth(), now.GetDay(), now.GetHour(), now.GetMinute(),
                  0, 0);
    msg.GetRecord().AppendTimePar("RASTER_TIME", minute, 0);
    msg.GetRecord().AppendUIntPar("RASTER", m_Raster, 0);
    msg.GetRecord().AppendUIntPar("RASTER_MATCHES", matches, 0);
    Deliver(msg);
}

}  // namespace orvo
