// orvo_trace.h - named trace units, levels, outputs and the trace call.
//
// A trace call site tests the unit's level before any text is built:
//     ORVO_TRACE(UnitORVO, ERROR, FormatString("bad length %i", n));
// expands to one integer comparison when the unit does not admit the level.
#pragma once

#include <map>
#include <string>

#include "orvo_object.h"

namespace orvo {

class cRecord;
class cChannel;

// Many projects build with -DDEBUG (or -DDEBUG=1), which would turn the level
// DEBUG below into a number. The header saves such a macro, declares the
// level and puts the macro back, so it compiles either way. A program that
// defines DEBUG cannot write the bare name for the level (the preprocessor
// replaces it first): it writes orvo::LEVEL_DEBUG, the same value under a
// name no macro takes, or #undef DEBUG before using the name.
#pragma push_macro("DEBUG")
#undef DEBUG
enum eLEVEL {
    NONE = 0,
    FATAL = 1,
    ERROR = 2,
    WARNING = 4,
    INFO = 8,
    DEBUG = 16,
    SYSLOG = 32,
    ALL = 256
};
constexpr eLEVEL LEVEL_DEBUG = DEBUG;
#pragma pop_macro("DEBUG")

enum eOUTPUT {
    OUTPUT_NONE = 0,
    OUTPUT_STDOUT = 1,
    OUTPUT_SYSLOG = 2,
    OUTPUT_SERVICE = 3
};

// A named trace source with its own threshold and output. Constructing a unit
// enters it in mUnits under its name (replacing an earlier unit of that name);
// destroying it does not remove it. Units are created during start-up, before
// threads run.
class ORVO_API cUnit : public cObject {
public:
    cUnit(const char* name, eLEVEL level, eOUTPUT output);
    ~cUnit() override;

    eLEVEL GetLevel() const { return m_Level; }
    eOUTPUT GetOutput() const { return m_Output; }
    void SetLevel(eLEVEL level) { m_Level = level; }
    void SetOutput(eOUTPUT output) { m_Output = output; }

private:
    eLEVEL m_Level;    // threshold: traces at or below it are shown
    eOUTPUT m_Output;  // where the unit's own lines go
};

// Map from unit name to unit (not owning); created by the first unit.
ORVO_API extern std::map<std::string, cUnit*>* mUnits;
ORVO_API extern cUnit* UnitDefault;
ORVO_API extern cUnit* UnitORVO;

// "NONE", "FATAL", ... or "?" for a value outside the enumeration.
ORVO_API const char* GetTraceLevelTxt(eLEVEL level);
// Null units are ignored.
ORVO_API void SetTraceLevel(cUnit* unit, eLEVEL level);
ORVO_API void SetTraceOut(cUnit* unit, eOUTPUT output);
// Exact, case-sensitive level name; any other text sets NONE.
ORVO_API void SetTraceLevel(cUnit* unit, const std::string& name);
// Drops the unit map (not the units), the trace-channel list (not the
// channels) and the remembered last text. Units constructed afterwards start
// a new map. The repeat counter and the last unit and level stay.
ORVO_API void ClearTraceUnits();

// Trace channels: channels (remote trace viewers) that receive every trace as
// a message 0x7002. The list does not own them; a channel must unregister
// before it is destroyed. Thread-safe (one lock guards the list).
// Register appends ch, first removing an earlier entry of it, so a channel is
// listed once and a re-registration moves it to the end.
ORVO_API void RegisterTraceChannel(cChannel* ch);
// Removes ch; an unknown channel is ignored.
ORVO_API void UnRegisterTraceChannel(cChannel* ch);
// Sends the channel trace message 0x7002 ("service-id" and "name" when a
// main service exists, "unit", "level", "time", "txt") to every registered
// channel in list order, clearing each channel's per-send flag first. Send
// results are ignored. Builds nothing when no channel is registered.
ORVO_API void SendTrace(cUnit* unit, eLEVEL level, const std::string& text);

// printf into a string; null format gives "", output is cut at 8095 chars.
ORVO_API std::string FormatString(const char* fmt, ...)
    __attribute__((format(printf, 1, 2)));

// Issue a trace without testing the level (call sites test it first, see
// ORVO_TRACE). The text is the string, the object's ToString() or the
// record's ToString(); the record travels along in the SCM and service
// copies ("rec"). Each trace:
//  - is dropped as a repeat when unit (same object), level and text equal the
//    previous trace's and less than 60 s (whole UTC seconds, cTime::Now) have
//    passed since the first repeat of the run; a unit with OUTPUT_STDOUT
//    still prints the repeat. The next trace that goes out is preceded by
//    "LAST TRACE FROM THIS SOURCE REPEATED <n> TIMES (<text>)" on the old
//    unit and level when more than one repeat was dropped;
//  - goes to the SCM as message 0x10190 when the SCM socket exists and the
//    configuration's "trace.log-scm" is true (a send result of -1 prints
//    "--FAILED-->>" and the line on standard output);
//  - goes to the unit's output: standard output
//    "<time>(<osc>) <exe>|<unit>[<level>]: <text>", the system log
//    (priority 8, ident "orvo") or message 0x1007 to the main service;
//  - goes to every trace channel (SendTrace).
// A null unit is ignored. May be called from any thread; concurrent traces
// may interleave their repeat decisions.
ORVO_API void _Trace(cUnit* unit, eLEVEL level, const char* text);
ORVO_API void _Trace(cUnit* unit, eLEVEL level, const std::string& text);
ORVO_API void _Trace(cUnit* unit, eLEVEL level, const cObject& object);
ORVO_API void _Trace(cUnit* unit, eLEVEL level, const cRecord& record);

// True when the unit exists and admits traces of this level.
inline bool TraceOn(const cUnit* unit, eLEVEL level)
{
    return unit != nullptr && unit->GetLevel() >= level;
}

}  // namespace orvo

#define ORVO_TRACE(unit, level, text)                      \
    do {                                                   \
        if (::orvo::TraceOn((unit), (level)))              \
            ::orvo::_Trace((unit), (level), (text));       \
    } while (0)
