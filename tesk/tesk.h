// tesk.h - the message catalogue: printable names for message types.
//
// libtesk maps the 24-bit message types that liborvo and its services exchange
// (socket events, service control, SCM protocol, process reports, ...) to
// short upper-case names such as "SOCKET_DATA" or "SCM_REGISTER_ACK". It is
// used wherever a message is printed (message text form, state-machine
// monitor traces) and is a shared library of its own so that the catalogue
// can be updated without rebuilding the services.
//
// Thread safety: every function may be called from any thread at any time,
// including before the first and after the last ClearMessageTxtFunc().
#pragma once

#if defined(TESK_BUILDING_LIBRARY)
#define TESK_API __attribute__((visibility("default")))
#else
#define TESK_API
#endif

namespace orvo {

// Returns the printable name of a message type; never null. Only the low 24
// bits of type count (a message type has 24 bits), so 0x01003001 and 0x3001
// give the same text.
//
// Known types give a name in static storage: the pointer stays valid for the
// life of the process. Any other type gives its hexadecimal form "0x%06lX"
// (for example "0x000101") in a buffer owned by the calling thread: that
// pointer stays valid until the same thread looks up another unknown type or
// ends, and calls from other threads never overwrite it.
TESK_API const char* GetMsgTypeTxt(unsigned long type);

// Returns the catalogue's version text ("3.20.0"), in static storage.
TESK_API const char* GetTeskVersion();

// Releases the catalogue. The names live in a constant table, so there is
// nothing to free: the call exists so that the library's tear-down can pair
// with it, and GetMsgTypeTxt keeps working after it (every pointer handed out
// before stays valid as described above). May be called any number of times.
TESK_API void ClearMessageTxtFunc();

}  // namespace orvo
