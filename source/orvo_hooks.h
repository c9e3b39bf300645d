// orvo_hooks.h - internal seams between the runtime frame (start-up, traces)
// and the families that sit above it: services and channels. Not
// installed.
//
// The trace dispatcher and orvoInit/orvoDeinit must reach objects whose
// classes live in higher families (the main service, trace
// channels, the shared-memory cells). Rather than depending on them, the
// frame calls these function pointers; each family installs its hook when
// it has something to offer (typically from a static initialiser in its own
// source file, or when the object in question is created) and puts the null
// pointer back when that object goes away. A null hook means "that object
// does not exist", and the frame behaves as it does without it.
//
// Hooks are plain pointers read without a lock: install them at start-up or
// from the thread that owns the object, before other threads trace through
// them. Tests install their own to observe the frame.
#pragma once

#include <string>

#include "orvo_object.h"

namespace orvo {

class cMsg;
class cChannel;
class cUuid;

namespace hooks {

// The main service (mMainService). Installed while a main service exists
// (null: none). Fills id with its uuid and name with its object name and
// returns true; returning false also means "no main service".
using tMainServiceInfo = bool (*)(cUuid& id, std::string& name);
extern tMainServiceInfo MainServiceInfo;

// Hands msg to the main service's own handler:
// cService::SendToInternal(main, main, msg). Null: no main service, the
// message of an OUTPUT_SERVICE unit is dropped.
using tMainServiceSend = void (*)(cMsg& msg);
extern tMainServiceSend MainServiceSend;

// Sends a trace message on a registered trace channel: sets the channel's
// per-send flag (the one its constructor sets to 1) to 0, then calls the
// channel's virtual Send(msg). The result is returned but not used. Null:
// registered channels receive nothing.
using tTraceChannelSend = int (*)(cChannel* ch, cMsg& msg);
extern tTraceChannelSend TraceChannelSend;

// cService::InitGlobal(): the services' process-wide signal handling, called
// by orvoInit. Null: nothing to set up yet.
using tServiceInitGlobal = void (*)();
extern tServiceInitGlobal ServiceInitGlobal;

// libcurl's process-wide start-up and end, for orvoInit and orvoDeinit.
// Installed by the transfer library (liborvo-wan) through
// orvoSetTransferHooks when it is loaded; null: no transfer code in the
// process, so libcurl is neither loaded nor started.
using tWanGlobal = void (*)();
extern tWanGlobal WanInit;
extern tWanGlobal WanDeinit;

}  // namespace hooks
}  // namespace orvo
