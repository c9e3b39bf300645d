// orvo_msg_hooks.h - internal: how cMsg::ToString prints the channel and the
// timer a message refers to.
//
// The message family only knows those classes by name. The channel and timer
// families set these pointers once (at library start-up or in a static
// initialiser of their source file) to functions that return the object's
// ToString(). While a pointer is null, ToString leaves the item out.
// Not exported; not for use outside the library.
#pragma once

#include <string>

namespace orvo {

class cChannel;
class cTimer;

namespace msghooks {

// Text printed between ", channel={" and "}"; the argument is never null.
extern std::string (*ChannelText)(const cChannel* channel);
// Text printed after ", timer="; the argument is never null.
extern std::string (*TimerText)(const cTimer* timer);

}  // namespace msghooks

}  // namespace orvo
