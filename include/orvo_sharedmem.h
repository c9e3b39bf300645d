// orvo_sharedmem.h - machine-wide cells shared between processes (status word,
// operating-seconds counter) and the hardware watchdog.
#pragma once

#include "orvo_object.h"

namespace orvo {

// The operating-seconds counter of the device, or 0 when the cell cannot be
// read. The shared-memory cell behind it is not built yet: this returns 0.
ORVO_API unsigned long GetOSC();

// Feeds the hardware watchdog: opens the watchdog device ("/dev/watchdog",
// or the path in ORVO_WATCHDOG_DEVICE), writes one byte 0x01 and closes it.
// Failures are silent.
ORVO_API void ToggleWD();

}  // namespace orvo
