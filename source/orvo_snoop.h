// orvo_snoop.h - internal: the process-wide list of channels that receive
// snoop reports (kept by the service family). Not installed.
#pragma once

namespace orvo {

class cChannel;

// Drops ch from the snoop list (null: nothing happens). Channels call it
// when they go away so the list never holds a destroyed channel; thread-safe.
void SnoopRemoveChannel(cChannel* ch);

}  // namespace orvo
