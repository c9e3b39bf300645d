#define ORVO_SOURCE "orvo_trace"
#include "orvo_trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "orvo_time.h"

namespace orvo {

std::map<std::string, cUnit*>* mUnits = nullptr;

namespace {
// The two built-in units exist from load time, in this order.
cUnit gUnitDefault("UnitDefault", ERROR, OUTPUT_NONE);
cUnit gUnitORVO("UnitORVO", ERROR, OUTPUT_NONE);
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
    unit->SetLevel(NONE);
}

void ClearTraceUnits()
{
    if (mUnits != nullptr) {
        delete mUnits;
        mUnits = nullptr;
    }
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

// Minimal dispatch: the unit's standard-output line. Repeat suppression, the
// system log, the SCM copy and trace channels are added with the runtime frame.
static void Dispatch(cUnit* unit, eLEVEL level, const std::string& text)
{
    if (unit == nullptr || unit->GetOutput() != OUTPUT_STDOUT)
        return;
    cTime now;
    now.Now(true);
    std::printf("%s(%i) %-8s|%-13s[%-10s]: %s\n", now.ToString().c_str(), 0, "",
                unit->GetObjName().c_str(), GetTraceLevelTxt(level), text.c_str());
    std::fflush(stdout);
}

void _Trace(cUnit* unit, eLEVEL level, const char* text)
{
    Dispatch(unit, level, text ? text : "");
}

void _Trace(cUnit* unit, eLEVEL level, const std::string& text)
{
    Dispatch(unit, level, text);
}

void _Trace(cUnit* unit, eLEVEL level, const cObject& object)
{
    Dispatch(unit, level, object.ToString());
}

}  // namespace orvo

// The record overload lives apart from the others: its text is the record's
// one-line form.
#include "orvo_record.h"

namespace orvo {

void _Trace(cUnit* unit, eLEVEL level, const cRecord& record)
{
    Dispatch(unit, level, record.ToString());
}

}  // namespace orvo
