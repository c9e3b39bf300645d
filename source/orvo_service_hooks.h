// orvo_service_hooks.h - internal seams between the service loop and the
// families that sit beside it: timers and state machines. Not installed.
//
// The loop keeps timers (cTimer) and delivers messages to state machines
// (cStateMachine) but knows both classes only by name. Their families install
// these pointers (from a static initialiser in their own source file); tests
// install their own to drive the loop with stand-in objects. The loop never
// dereferences a cTimer* or cStateMachine* itself, only hands it to a hook.
//
// Set them at start-up, before services run; they are read without a lock.
#pragma once

#include <cstdint>

#include "orvo_object.h"

namespace orvo {

class cChannel;
class cMsg;
class cService;
class cStateMachine;
class cTimer;

namespace svchooks {

// Hands msg to sm->OnMsg(msg). The service calls it only for a state machine
// that is alive (registered in the handle table as HANDLE_STATEM). Null: such
// messages are traced (WARNING) and dropped.
using tStatemOnMsg = void (*)(cStateMachine* sm, cMsg& msg);
ORVO_API extern tStatemOnMsg StatemOnMsg;

// The service sm belongs to. Null (or a null result): SendToInternal(sm, msg)
// sends nothing.
using tStatemService = cService* (*)(cStateMachine* sm);
ORVO_API extern tStatemService StatemService;

// Calls timer->OnExec(); the loop calls it when the timer is due, after it
// removed the timer from its list. Null: due timers are dropped from the list
// without firing (traced at ERROR).
using tTimerExec = void (*)(cTimer* timer);
ORVO_API extern tTimerExec TimerExec;

// Stores the due time (GetMsecClock() milliseconds) that TimerAsyncSelect
// computed into the timer. Optional; null: the timer does not keep it.
using tTimerSetDue = void (*)(cTimer* timer, uint64_t due);
ORVO_API extern tTimerSetDue TimerSetDue;

}  // namespace svchooks

// Drops ch from the process-wide snoop list; channels call it when they go
// away so the list never holds a destroyed channel.
void SnoopRemoveChannel(cChannel* ch);

}  // namespace orvo
