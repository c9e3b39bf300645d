// orvo_msg_hooks.h - internal: how cMsg::ToString prints the timer a message
// refers to (channels it prints directly).
//
// The message family only knows the timer class by name. The timer family
// sets this pointer once (at library start-up or in a static initialiser of
// its source file) to a function that returns the timer's ToString(). While
// it is null, ToString leaves the item out.
// Not exported; not for use outside the library.
#pragma once

#include <string>

namespace orvo {

class cTimer;

namespace msghooks {

// Text printed after ", timer="; the argument is never null.
extern std::string (*TimerText)(const cTimer* timer);

}  // namespace msghooks

}  // namespace orvo
