// orvo_selectloop.h - internal: the select loop of a service, one unit
// (cSelectLoop, orvo_selectloop.cpp). cService (orvo_service.cpp) keeps an
// opaque pointer to it and forwards its select-table, timer and wait
// operations; channels (orvo_channel.cpp) and the sockets reach it through
// the functions of namespace loop below. Not installed.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "orvo_channel.h"
#include "orvo_kernelwait.h"
#include "orvo_service.h"

namespace orvo {

class cChannel;
class cTimer;

namespace loop {

// Opens the process-wide wake-up descriptor once (an eventfd every loop's
// wait watches).
void EnsureWakeFd();
// Makes every loop's wait return.
void Wake();
// Counts the forks this process came out of (as a child); a loop that sees
// it change makes its own kernel wait instead of sharing its parent's.
unsigned ForkGeneration();
// Forgets every signal handler and pending mark.
void ClearSignalTable();

// ---- What channels use -------------------------------------------------------

// Asks for write readiness of channel from any thread: sets its write-
// pending mark; on the loop thread (or before the service's loop first ran)
// updates the registration (UpdateSelect); on another thread asks the loop
// to add write readiness at the start of its next pass and, with wakeLoop,
// wakes it.
void WantWriteReady(cChannel& channel, bool wakeLoop = true);

}  // namespace loop

// The select loop of one service: one registration record per descriptor
// (channel, context, events, registration number, table entry), the table
// entries that give the dispatch order, the kernel wait, the armed timers.
//
// Threads: everything is the loop thread's (the thread that last ran a
// pass; before the first pass, whichever thread calls), except AskWrite,
// which any thread may call: it only stores the channel in the
// descriptor's ask slot and sets the descriptor's bit; the loop adds the
// write interest at the start of its next pass (ApplyWriteAsks).
class cSelectLoop {
public:
    static const int kMaxSelect = FD_SETSIZE;

    explicit cSelectLoop(cService& owner);
    ~cSelectLoop();
    cSelectLoop(const cSelectLoop&) = delete;
    cSelectLoop& operator=(const cSelectLoop&) = delete;

    // The loop of service (never null for a constructed service).
    static cSelectLoop* Of(const cService* service) { return service->m_pLoop.get(); }

    // ---- Select table -------------------------------------------------------

    // Count 0, highest descriptor 0, no registration (construction, Init).
    void Clear();
    // cService::ChannelAsyncSelect.
    int Register(int fd, int events, cChannel* channel, void* ctx);
    // cChannel::UpdateSelect: registers channel's descriptor fd for events,
    // unless it is registered so already (no context, no exception bit).
    // The check is inline: after most reads nothing changed.
    void UpdateChannel(cChannel* channel, int fd, int events)
    {
        if (fd >= 0 && fd < kMaxSelect && (events & SELECT_EXCEPT) == 0 &&
            m_LoopThread.load(std::memory_order_relaxed) != 0) {
            const sRecord& r = m_Rec[fd];
            if (r.index >= 0 && r.channel == channel && r.ctx == nullptr && r.events == events)
                return;
        }
        UpdateChannelSlow(channel, fd, events);
    }
    // The events registered for fd (0 when none).
    int GetEvents(int fd) const;
    // Drops every registration that names channel, whatever its descriptor,
    // and any write request of it not yet applied (its destructor).
    void ForgetChannel(cChannel* channel);
    // Any thread: the loop adds write readiness to channel's registration
    // at the start of its next pass (creating it when the channel has
    // none); with wakeLoop the loops are woken so that pass comes now.
    void AskWrite(cChannel* channel, bool wakeLoop);

    // ---- Loop thread ------------------------------------------------------------

    // The calling thread becomes the loop thread (GetMessage, each pass).
    void EnterLoopThread();
    bool IsLoopThread() const;

    // ---- Timers -----------------------------------------------------------------

    void TimerAsyncSelect(cTimer* timer, unsigned long ms);
    unsigned long GetIdleTimeMs() const;
    void ScanTimers();
    size_t GetTimerCount() const { return m_Timers.size(); }
    void ClearTimers() { m_Timers.clear(); }
    // The time-out of WaitSyncMsg number wait, due at due (GetMsecClock).
    void AddWaitTimeout(uint64_t due, uint32_t wait);
    // Disarms it; true when it had fired (posted 0x2015) before.
    bool RemoveWaitTimeout(uint32_t wait);

    // ---- The pass ------------------------------------------------------------------

    // One pass: write requests of other threads, kernel interest, the wait,
    // dispatch in table order, due timers, signal handlers, the error path.
    void Pass();

private:
    // One per descriptor. Registered while index >= 0.
    struct sRecord {
        cChannel* channel;       // null: not registered
        void* ctx;               // caller's context
        uint32_t seq;            // registration number (see Pass)
        int16_t index;           // table entry (dispatch order); -1 none
        uint8_t events;          // SELECT_READ | SELECT_WRITE | SELECT_EXCEPT
    };
    struct sTimerEntry {
        cTimer* timer;           // not owned; null for a WaitSyncMsg time-out
        uint64_t due;            // GetMsecClock() value
        uint32_t wait;           // non-zero: the WaitSyncMsg time-out of that number
    };
    // One pass: the registration number at its start and errno after the wait.
    struct sPass {
        uint32_t seq;
        int error;
    };

    // Register's work for a descriptor below kMaxSelect; with merge, events
    // are added to those fd has registered for channel. kTableFull when no
    // entry is left (the caller traces it).
    static const int kTableFull = -2;
    void UpdateChannelSlow(cChannel* channel, int fd, int events);
    int RegisterLocked(int fd, int events, cChannel* channel, void* ctx, bool merge);
    static void TraceTableFull(int fd);
    void Unregister(int fd);
    // No registration; count and highest descriptor stay.
    void Empty();
    void ApplyWriteAsks();
    int WaitForEvents(sPass& pass);
    void DispatchReady(const sPass& pass);
    void HandOn(cChannel* channel, int fd, int events);
    bool RunSignalHandlers();
    void ReportSelectError(int error);
    void AddTimerEntry(const sTimerEntry& entry);
    // Taken by registrations only while no pass ever ran (then any thread
    // counts as the loop thread); see docs/architecture.md.
    std::unique_lock<std::mutex> PreLoopLock() const;
    static int EventsOf(const void* self, int fd);

    cService& m_Owner;
    cKernelWait m_Wait;
    int m_Count = 0;                         // entries in use or once used (never decreases but by Clear)
    int m_Highest = 0;                       // highest descriptor ever registered
    uint32_t m_Seq = 0;                      // last registration number given
    std::atomic<pid_t> m_LoopThread{0};      // 0 before the first pass
    mutable std::mutex m_PreLoop;
    std::vector<sTimerEntry> m_Timers;       // sorted by due time
    std::vector<uint32_t> m_WaitFired;       // WaitSyncMsg time-outs fired, not yet collected

    // Write requests of other threads: the asking channel per descriptor and
    // a bit per descriptor, with a summary flag read once per pass.
    std::atomic<bool> m_AnyAsk{false};
    std::atomic<uint64_t> m_AskBits[kMaxSelect / 64];
    std::atomic<cChannel*> m_Asker[kMaxSelect];

    int16_t m_FdOfEntry[kMaxSelect];         // descriptor of each table entry; -1 free
    sRecord m_Rec[kMaxSelect];
};

}  // namespace orvo
