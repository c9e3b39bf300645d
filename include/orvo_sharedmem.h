// orvo_sharedmem.h - machine-wide cells shared between processes (status word,
// operating-seconds counter) and the hardware watchdog.
//
// A cell is a POSIX shared-memory object holding one value at its start, in
// host byte order, guarded by a System V semaphore that every process finds by
// the name "_<name>_" (its key is the CRC-16 of that name). The value's width
// is fixed on every platform: cSharedMemory<unsigned long> holds 4 bytes,
// cSharedMemory<unsigned long long> 8 bytes (docs/shared_cells.md).
//
//   "statusw"  8 bytes  the status word: bits that services set and clear
//   "bsz"      4 bytes  the operating-seconds counter, counted by a device
//                       process and printed by every trace line
//
// Caution: Close() (and the destructor) removes the semaphore set from the
// system, for every process; the others then read and write their cells
// without the lock until one of them opens the cell again.
#pragma once

#include <cstdint>
#include <cstring>

#include "orvo_object.h"
#include "orvo_thread.h"

namespace orvo {

class ORVO_API cBaseSharedMemory : public cObject {
public:
    cBaseSharedMemory() = default;
    cBaseSharedMemory(const cBaseSharedMemory&) = delete;
    cBaseSharedMemory& operator=(const cBaseSharedMemory&) = delete;
    // Close().
    ~cBaseSharedMemory() override;

    // Names the object, opens (or creates) the semaphore "_<name>_", opens
    // or creates the shared-memory object (mode 0666), sets its size to size
    // (an existing object grows or shrinks) and maps it. Returns the
    // descriptor, or -1 when any step fails.
    virtual int Open(const char* name, int size);
    // The semaphore, held across processes; a process that dies holding it
    // gives it back. False when no semaphore is open or it was removed.
    bool Lock();
    bool Unlock();
    void* GetBuffer() const { return m_Buffer; }
    unsigned GetSize() const { return m_Size; }
    // Unmaps, removes the semaphore set (see above) and closes the descriptor.
    void Close();
    // Close(), then removes the shared-memory object's name.
    void Delete();

private:
    int m_fd = -1;              // shared-memory object, -1 when not open
    void* m_Buffer = nullptr;   // the mapping, null when not mapped
    uint32_t m_Size = 0;        // bytes mapped
    cSemaphore m_Lock;
};

// The stored width of a cell's value.
template <class T>
struct sCellValue;
template <>
struct sCellValue<unsigned long> {
    using type = uint32_t;
};
template <>
struct sCellValue<unsigned long long> {
    using type = uint64_t;
};

// One value of type T at the start of the cell. Get, Set and ModifyBits run
// under the semaphore and are safe from any thread and process; Open and
// Close are not safe against concurrent calls on the same object.
template <class T>
class cSharedMemory : public cBaseSharedMemory {
public:
    using tStored = typename sCellValue<T>::type;
    using cBaseSharedMemory::Open;

    // Open(name, width of the stored value).
    int Open(const char* name) { return cBaseSharedMemory::Open(name, sizeof(tStored)); }

    // False when not mapped.
    bool Get(T& value)
    {
        return Access([&](tStored& cell) { value = static_cast<T>(cell); });
    }
    // A value wider than the cell keeps its low bytes.
    bool Set(const T& value)
    {
        return Access([&](tStored& cell) { cell = static_cast<tStored>(value); });
    }
    // value = (value | setBits) & keepMask, in one locked step: a bit both
    // set and outside keepMask ends cleared.
    bool ModifyBits(const T& setBits, const T& keepMask)
    {
        return Access([&](tStored& cell) {
            cell = static_cast<tStored>((cell | setBits) & keepMask);
        });
    }

private:
    template <class F>
    bool Access(F f)
    {
        if (GetBuffer() == nullptr || GetSize() < sizeof(tStored))
            return false;
        // The value is used even when the lock fails (removed by another
        // process's Close): the mapping itself is still valid.
        Lock();
        tStored cell;
        std::memcpy(&cell, GetBuffer(), sizeof cell);
        f(cell);
        std::memcpy(GetBuffer(), &cell, sizeof cell);
        Unlock();
        return true;
    }
};

// The process-wide cells: created and opened on first use by the functions
// below, closed by orvoDeinit (CloseSharedCells). Null before first use and
// after a failed open.
ORVO_API extern cSharedMemory<unsigned long long>* gSmStatusW;   // "statusw"
ORVO_API extern cSharedMemory<unsigned long>* gSmOsc;            // "bsz"

// The status word, or 0 when the cell cannot be opened.
ORVO_API unsigned long long GetStatusW();
// False when the cell cannot be opened.
ORVO_API bool SetStatusW(unsigned long long value);
ORVO_API bool ModifyStatusW(unsigned long long setBits, unsigned long long keepMask);
// The operating-seconds counter, or 0 when the cell cannot be opened. A
// failed open traces "can't open shared memory 'bsz'" on UnitORVO at ERROR
// (the status word likewise) and is tried again at the next call.
ORVO_API unsigned long GetOSC();

// Closes and deletes gSmOsc, then gSmStatusW, and clears both pointers (the
// shared-memory objects stay; their semaphores are removed). orvoDeinit
// calls this first.
ORVO_API void CloseSharedCells();

// Feeds the hardware watchdog: opens the watchdog device ("/dev/watchdog",
// or the path in ORVO_WATCHDOG_DEVICE), writes one byte 0x01 and closes it.
// Failures are silent.
ORVO_API void ToggleWD();

}  // namespace orvo
