// orvo_selectloop.h - internal: what the service part of cService
// (orvo_service.cpp) needs from its select loop (orvo_selectloop.cpp). Not
// installed.
#pragma once

#include "orvo_service.h"

namespace orvo {
namespace loop {

// Opens the process-wide wake-up descriptor once (an eventfd every loop's
// select watches).
void EnsureWakeFd();
// Makes every loop's select return.
void Wake();
// Counts the forks this process came out of (as a child); a loop that sees
// it change makes its own kernel wait instead of sharing its parent's.
unsigned ForkGeneration();
// Forgets every signal handler and pending mark.
void ClearSignalTable();

}  // namespace loop
}  // namespace orvo
