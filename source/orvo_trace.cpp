#define ORVO_SOURCE "orvo_trace"
#include "orvo_trace.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <vector>

#include "orvo_channellist.h"
#include "orvo_hooks.h"
#include "orvo_init.h"
#include "orvo_msg.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_record.h"
#include "orvo_scm.h"
#include "orvo_sharedmem.h"
#include "orvo_time.h"
#include "orvo_uuid.h"

namespace orvo {

namespace hooks {
tMainServiceInfo MainServiceInfo = nullptr;
tMainServiceSend MainServiceSend = nullptr;
tTraceChannelSend TraceChannelSend = nullptr;
}  // namespace hooks

std::map<std::string, cUnit*>* mUnits = nullptr;

namespace {

// The two built-in units exist from load time, in this order.
cUnit gUnitDefault("UnitDefault", ERROR, OUTPUT_NONE);
cUnit gUnitORVO("UnitORVO", ERROR, OUTPUT_NONE);

const int kRepeatPeriod = 60;   // seconds a run of repeats is summarised over

// The trace channels. Never destroyed, so traces during process exit stay
// safe; its lock is never held while a channel sends.
cChannelList& TraceChannels()
{
    static cChannelList* list = new cChannelList();
    return *list;
}

// A trace raised while this thread sends a trace on the channels (the send
// path may trace) is not sent to them again.
thread_local bool tInSendTrace = false;

// Repeat suppression. The lock keeps the state itself consistent; the
// decisions of concurrent traces may still interleave.
std::mutex& StateLock()
{
    static std::mutex* lock = new std::mutex();
    return *lock;
}
cUnit* gLastUnit = nullptr;
eLEVEL gLastLevel = NONE;
std::string* gLastText = nullptr;       // created on first use, lives for the process
uint32_t gRepeatCount = 0;
int64_t gPeriodStart = 0;               // UTC seconds; the epoch at first
bool gSyslogOpen = false;

std::string& LastText()
{
    if (gLastText == nullptr)
        gLastText = new std::string();
    return *gLastText;
}

int64_t Seconds(const cTime& t)
{
    return static_cast<int32_t>(static_cast<uint32_t>(t.ToSeconds()));
}

// The identity part shared by all trace messages: present only when a main
// service exists.
void AppendService(cRecord& r)
{
    cUuid id;
    std::string name;
    if (hooks::MainServiceInfo != nullptr && hooks::MainServiceInfo(id, name)) {
        r.AppendUuidPar("service-id", id, 0);
        r.AppendTextPar("name", name, 0);
    }
}

// Record of the SCM trace log (0x10190) and of the service trace (0x1007).
void BuildLogRecord(cRecord& r, const cTime& now, unsigned long osc, cUnit* unit, eLEVEL level,
                    const std::string& text, const cRecord& rec)
{
    AppendService(r);
    r.AppendTextPar("executable", GetExeName(), 0);
    r.AppendTextPar("unit", unit->GetObjName(), 0);
    r.AppendTextPar("level", GetTraceLevelTxt(level), 0);
    r.AppendTimePar("time", now, 0);
    r.AppendUIntPar("osc", static_cast<unsigned int>(osc), 0);
    r.AppendTextPar("txt", text, 0);
    r.AppendRecordPar("rec", rec, 0);
}

bool LogToScm()
{
    return GetConfig()->GetFirstParByPath("trace.log-scm", ".").GetBool();
}

// SCM copy, the unit's own output, then the trace channels.
void Output(const cTime& now, unsigned long osc, cUnit* unit, eLEVEL level,
            const std::string& text, const cRecord& rec)
{
    const std::string timeText = now.ToString();
    const char* exe = GetExeName().c_str();
    const std::string unitName = unit->GetObjName();
    const char* levelText = GetTraceLevelTxt(level);

    // A trace issued while the copy is being sent (the socket's own traces)
    // is not copied again: it would recurse without end.
    static thread_local bool sendingCopy = false;
    cMsgTcpSocket* scm = gSCMsocket;
    if (scm != nullptr && !sendingCopy && LogToScm()) {
        cMsg msg(MSG_SCM_TRACE_LOG);
        BuildLogRecord(msg.GetRecord(), now, osc, unit, level, text, rec);
        sendingCopy = true;
        // Traces come from any thread; the flags belong to the loop's
        // thread, so they are written only when the socket is not enabled
        // yet (connected sockets are).
        if (!scm->IsEnabled())
            scm->Enable(true);
        const int sent = scm->Send(msg);
        sendingCopy = false;
        if (sent == -1) {
            std::printf("--FAILED-->>%s(%i) %-8s|%-13s[%-10s]: %s\n", timeText.c_str(),
                        static_cast<int>(osc), exe, unitName.c_str(), levelText, text.c_str());
            std::fflush(stdout);
        }
    }

    switch (unit->GetOutput()) {
    case OUTPUT_STDOUT:
        std::printf("%s(%i) %-8s|%-13s[%-10s]: %s\n", timeText.c_str(), static_cast<int>(osc), exe,
                    unitName.c_str(), levelText, text.c_str());
        // Flushed per line: an aborting process must not lose its last traces.
        std::fflush(stdout);
        break;
    case OUTPUT_SYSLOG:
        // Priority 8 is LOG_USER at emergency severity, for every level alike.
        ::syslog(8, "%-8s|%-13s[%-10s]: %s\n", exe, unitName.c_str(), levelText, text.c_str());
        break;
    case OUTPUT_SERVICE:
        if (hooks::MainServiceSend != nullptr) {
            cMsg msg(MSG_SERVICE_TRACE);
            BuildLogRecord(msg.GetRecord(), now, osc, unit, level, text, rec);
            hooks::MainServiceSend(msg);
        }
        break;
    default:
        break;
    }

    SendTrace(unit, level, text);
}

void Dispatch(cUnit* unit, eLEVEL level, const std::string& text, const cRecord& rec)
{
    if (unit == nullptr)
        return;
    cTime now;
    now.Now(true);

    bool summary = false;
    cUnit* summaryUnit = nullptr;
    eLEVEL summaryLevel = NONE;
    std::string summaryText;
    {
        std::lock_guard<std::mutex> lock(StateLock());
        if (!gSyslogOpen) {
            ::openlog("orvo", LOG_ODELAY, LOG_USER);
            gSyslogOpen = true;
        }
    }
    // Read outside the lock: the cell's code may trace itself.
    const unsigned long osc = GetOSC();
    {
        std::unique_lock<std::mutex> lock(StateLock());
        std::string& lastText = LastText();
        if (unit == gLastUnit && level == gLastLevel && text == lastText) {
            if (gRepeatCount == 0)
                gPeriodStart = Seconds(now);
            if (gPeriodStart + kRepeatPeriod > Seconds(now)) {
                ++gRepeatCount;
                lock.unlock();
                // The terminal still sees every repeat; nothing else does.
                if (unit->GetOutput() == OUTPUT_STDOUT) {
                    std::printf("%s(%lu) %-8s|%-13s[%-10s]: %s\n", now.ToString().c_str(), osc,
                                GetExeName().c_str(), unit->GetObjName().c_str(),
                                GetTraceLevelTxt(level), text.c_str());
                    std::fflush(stdout);
                }
                return;
            }
        }
        // A single dropped repeat is not worth a summary line.
        if (gRepeatCount > 1) {
            summary = true;
            summaryUnit = gLastUnit;
            summaryLevel = gLastLevel;
            summaryText = FormatString("LAST TRACE FROM THIS SOURCE REPEATED %u TIMES",
                                       gRepeatCount) + " (" + lastText + ")";
            gPeriodStart = Seconds(now);
        }
        gLastUnit = unit;
        gLastLevel = level;
        lastText = text;
        gRepeatCount = 0;
    }

    if (summary && summaryUnit != nullptr)
        Output(now, osc, summaryUnit, summaryLevel, summaryText, rec);
    Output(now, osc, unit, level, text, rec);
}

}  // namespace

cUnit* UnitDefault = &gUnitDefault;
cUnit* UnitORVO = &gUnitORVO;

cUnit::cUnit(const char* name, eLEVEL level, eOUTPUT output)
    : m_Level(level), m_Output(output)
{
    SetObjName(name ? name : "");
    if (mUnits == nullptr)
        mUnits = new std::map<std::string, cUnit*>();
    (*mUnits)[GetObjName()] = this;
}

cUnit::~cUnit() = default;

const char* GetTraceLevelTxt(eLEVEL level)
{
    switch (level) {
    case NONE: return "NONE";
    case FATAL: return "FATAL";
    case ERROR: return "ERROR";
    case WARNING: return "WARNING";
    case INFO: return "INFO";
    case DEBUG: return "DEBUG";
    case SYSLOG: return "SYSLOG";
    case ALL: return "ALL";
    }
    return "?";
}

void SetTraceLevel(cUnit* unit, eLEVEL level)
{
    if (unit != nullptr)
        unit->SetLevel(level);
}

void SetTraceOut(cUnit* unit, eOUTPUT output)
{
    if (unit != nullptr)
        unit->SetOutput(output);
}

void SetTraceLevel(cUnit* unit, const std::string& name)
{
    if (unit == nullptr)
        return;
    static const struct { const char* name; eLEVEL level; } kLevels[] = {
        {"NONE", NONE}, {"INFO", INFO}, {"WARNING", WARNING}, {"DEBUG", DEBUG},
        {"ERROR", ERROR}, {"FATAL", FATAL}, {"ALL", ALL}, {"SYSLOG", SYSLOG}};
    for (const auto& entry : kLevels) {
        if (name == entry.name) {
            unit->SetLevel(entry.level);
            return;
        }
    }
    // A misspelt level switches the unit off.
    unit->SetLevel(NONE);
}

void ClearTraceUnits()
{
    if (mUnits != nullptr) {
        delete mUnits;
        mUnits = nullptr;
    }
    TraceChannels().Clear();
    std::lock_guard<std::mutex> lock(StateLock());
    LastText().clear();
}

void RegisterTraceChannel(cChannel* ch)
{
    TraceChannels().Add(ch);
}

void UnRegisterTraceChannel(cChannel* ch)
{
    TraceChannels().Remove(ch);
}

void SendTrace(cUnit* unit, eLEVEL level, const std::string& text)
{
    if (TraceChannels().IsEmpty() || tInSendTrace || hooks::TraceChannelSend == nullptr)
        return;

    cTime now;
    now.Now(true);
    cMsg msg(MSG_TRACE_OUTPUT);
    cRecord& r = msg.GetRecord();
    AppendService(r);
    r.AppendTextPar("unit", unit != nullptr ? unit->GetObjName() : std::string(), 0);
    r.AppendTextPar("level", GetTraceLevelTxt(level), 0);
    r.AppendTimePar("time", now, 0);
    r.AppendTextPar("txt", text, 0);

    tInSendTrace = true;
    TraceChannels().ForEach([&msg](cChannel* ch) { hooks::TraceChannelSend(ch, msg); });
    tInSendTrace = false;
}

std::string FormatString(const char* fmt, ...)
{
    if (fmt == nullptr)
        return std::string();
    char buffer[8096];
    std::memset(buffer, 0, sizeof buffer);
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return std::string(buffer);
}

void _Trace(cUnit* unit, eLEVEL level, const char* text)
{
    Dispatch(unit, level, text ? text : "", cRecord());
}

void _Trace(cUnit* unit, eLEVEL level, const std::string& text)
{
    Dispatch(unit, level, text, cRecord());
}

void _Trace(cUnit* unit, eLEVEL level, const cObject& object)
{
    Dispatch(unit, level, object.ToString(), cRecord());
}

void _Trace(cUnit* unit, eLEVEL level, const cRecord& record)
{
    Dispatch(unit, level, record.ToString(), record);
}

}  // namespace orvo
