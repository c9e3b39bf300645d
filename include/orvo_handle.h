// orvo_handle.h - process-wide table of 32-bit handles for objects that are
// named in messages (channels, state machines, timers).
//
// A message carries a reference to such an object across a socket or inside a
// record. A pointer does not fit in 32 bits on a 64-bit host, and a value read
// from a socket must never be dereferenced, so each object takes a non-zero
// handle when it is created and gives it back when it is destroyed; the wire
// and the record form carry the handle and the receiver resolves it here.
// A handle of a destroyed object never resolves again, even after its slot has
// been reused (each slot carries a generation count).
//
// All functions are thread-safe.
#pragma once

#include <cstdint>

#include "orvo_object.h"

namespace orvo {

enum eHandleKind {
    HANDLE_ANY = 0,       // only for HandleResolve: accept every kind
    HANDLE_CHANNEL = 1,
    HANDLE_STATEM = 2,
    HANDLE_TIMER = 3
};

// Enters object (not owned, not null) under a new non-zero handle. An object
// already in the table keeps its handle. Returns 0 only when the table is full
// (about a million live objects).
ORVO_API uint32_t HandleCreate(void* object, eHandleKind kind);
// Removes the handle; unknown or zero handles are ignored.
ORVO_API void HandleRelease(uint32_t handle);
// The object of a live handle of this kind (HANDLE_ANY: any kind), else null.
ORVO_API void* HandleResolve(uint32_t handle, eHandleKind kind);
// The handle of a live object, else 0.
ORVO_API uint32_t HandleOf(const void* object);
// The one way the library asks whether an object that may have been
// destroyed (by another handler, or before a kept message is printed) is
// still alive: it is when its handle still resolves to it. With the handle
// taken while the object was known alive (handle != 0), a new object at the
// same address is never mistaken for the old one; with handle 0 the
// object's current handle is looked up (HandleOf).
ORVO_API bool HandleAlive(const void* object, eHandleKind kind, uint32_t handle = 0);
// Number of live handles (for leak checks in tests).
ORVO_API unsigned HandleCount();

}  // namespace orvo
