// orvo_init.h - start-up and tear-down of the library, the command line, the
// process-wide configuration record and a few process utilities.
//
// A service's main() runs, in this order:
//
//     orvo::orvoInit(orvo::ERROR, orvo::OUTPUT_STDOUT, true);
//     orvo::orvoParseArgs(kArgs, argc, argv);
//     ... build and run services ...
//     orvo::orvoDeinit();
//
// orvoInit replaces the configuration record, so anything put into it before
// is gone. None of these functions takes a lock: call them from the main
// thread before services start (orvoInit, orvoParseArgs) or after they
// stopped (orvoDeinit).
#pragma once

#include <string>

#include "orvo_object.h"
#include "orvo_socketaddr.h"
#include "orvo_trace.h"
#include "orvo_uuid.h"

namespace orvo {

class cRecord;

// Stores one option value in the configuration under key. Called with a null
// value for an option without a default.
using tArgHandler = void (*)(cRecord& config, const char* key, const char* value);

// One row of an application's option table. The table is an array owned by
// the application; its last row has all four fields null.
//   { "-port", "listening port", "4000", OnArg_Int }   an option
//   { nullptr, "#Network", nullptr, nullptr }          a heading in the help
//   { nullptr, "more text", nullptr, nullptr }         an indented help line
struct tArg {
    const char* name;          // as typed, with its "-"; the key is name + 1
    const char* description;   // help text
    const char* def;           // default value as text, or null for none
    tArgHandler handler;       // stores the value; null: option not stored
};

// The result of GetIfConfByName; the caller fills in name.
struct tIfConf {
    std::string name;              // interface, e.g. "eth0"
    cSocketAddr address;           // IPv4 address
    cSocketAddr netmask;           // network mask
    unsigned char hwaddr[6] = {};  // Ethernet MAC, in wire order
};

// A peer's name and identity; both empty at construction.
struct sPeerInfo {
    std::string name;
    cUuid id;
};

// Start-up: replaces the configuration with an empty record, names the
// built-in units "orvo" (UnitORVO) and "default" (UnitDefault), seeds rand(),
// sets up the services' global state, sets UnitORVO's level and output,
// stores the "trace" sub-record (log-scm = true and each unit's trace-level)
// and initialises libcurl when the transfer library (liborvo-wan) is part of
// the process (a process without it never loads libcurl; the transfer
// library also starts libcurl by itself before its first transfer). With resolveHw the MAC of the first of eth0..eth3
// that answers becomes the node address of new uuids; when none answers
// UnitORVO traces "Can't resolved ifconfig from eth3" at ERROR. Always true.
ORVO_API bool orvoInit(eLEVEL level, eOUTPUT output, bool resolveHw);

// Tear-down: closes the shared-memory cells, clears the trace units and the
// trace-channel list, releases the message-type texts, deletes the
// configuration and ends libcurl (when the transfer library started it). Then sleeps one second so that output
// still in flight drains. Always true.
ORVO_API bool orvoDeinit();

// Used by the transfer library (liborvo-wan) when it is loaded: the
// functions orvoInit and orvoDeinit call to start and end libcurl (null:
// none). Programs do not call it.
ORVO_API void orvoSetTransferHooks(void (*init)(), void (*deinit)());

// Reads the command line into the configuration:
//  - the executable name becomes argv[0]'s last path component, cut at its
//    first ".", without leading non-alphanumeric characters
//    (/usr/bin/my.service gives "my", ./_scm gives "scm");
//  - argv[1] "-h" or "-?" prints the table on standard output and ends the
//    process with status 0;
//  - every named row with a handler is first called with its default;
//  - "-name value" calls the first matching row's handler with the key
//    name and the value; a following word that starts with "-" is not a
//    value (the option then gets ""); unknown options are ignored together
//    with their value word;
//  - other words are stored as text "arg_0", "arg_1", ... with flags 32;
//  - a true "log-stdout" in the configuration sends every unit's traces to
//    standard output.
// A null table counts as an empty one.
ORVO_API void orvoParseArgs(tArg* table, int argc, char** argv);

// Standard handlers. Nothing happens for a null key or value. Values are
// stored with flags 32 (from the command line or a default).
// Bool: "", "1", "true", "TRUE" store true; "0", "false", "FALSE" false; any
// other text stores nothing.
ORVO_API void OnArg_Bool(cRecord& config, const char* key, const char* value);
// Int: "" stores an empty parameter, anything else atoi(value).
ORVO_API void OnArg_Int(cRecord& config, const char* key, const char* value);
// Text: "" stores an empty parameter, anything else the text.
ORVO_API void OnArg_Text(cRecord& config, const char* key, const char* value);

// The process-wide configuration record, owned by the library; created
// empty on first use. The pointer stays valid until orvoInit replaces or
// orvoDeinit deletes the record. Not locked.
ORVO_API cRecord* GetConfig();

// The executable's short name: "unknown" until orvoParseArgs sets it. The
// reference stays valid for the life of the process.
ORVO_API const std::string& GetExeName();

// "3.20".
ORVO_API const char* GetOrvoVersion();

// getpid().
ORVO_API int GetPid();

// Sleeps ms milliseconds (usleep(1000 * ms)).
ORVO_API void Sleep(unsigned long ms);

// Fills address, netmask and hardware address of the interface ifc.name
// (at most 15 characters are used). On failure prints the errno text with
// perror ("socket() ", "ioctl(SIOCGIFADDR) ", "ioctl(SIOCGIFNETMASK) ",
// "ioctl(SIOCGIFHWADDR) ") and returns false; the look-up socket is then
// left open.
ORVO_API bool GetIfConfByName(tIfConf& ifc);

}  // namespace orvo
