// orvo_kernelwait.h - internal: the kernel side of a service's wait. The
// select loop's registration records (cSelectLoop, orvo_selectloop.cpp)
// stay the model of what the service watches; cKernelWait keeps the
// kernel's interest in step with them, once per pass from the descriptors
// marked dirty since the last one, and waits.
//
// Two builds:
//  - epoll (default): one level-triggered epoll instance per service. The
//    table marks a descriptor dirty when its events or its owner change; the
//    next pass brings the kernel up to date with one epoll_ctl per dirty
//    descriptor whose interest really changed, so interest switched on and
//    off within one pass costs nothing, and a pass costs time in proportion
//    to the ready descriptors, not the registered ones.
//  - select (ORVO_SELECT_WAIT): three descriptor sets of what is watched,
//    updated from the dirty descriptors at each pass, are copied and passed
//    to select().
// Both hand back the same list of ready descriptors; the service dispatches
// it in table order.
#pragma once

#include <sys/select.h>
#ifndef ORVO_SELECT_WAIT
#include <sys/epoll.h>
#endif

#include <cstdint>
#include <vector>

namespace orvo {

class cKernelWait {
public:
    // A ready descriptor: SELECT_READ | SELECT_WRITE | SELECT_EXCEPT bits of
    // what was waited for; index is the service's (its table entry).
    struct sReady {
        int fd;
        int events;
        int index;
    };
    // What the loop has registered, asked for by descriptor: eventsOf(ctx,
    // fd) gives fd's SELECT_* bits (0: not registered).
    struct sTable {
        int (*eventsOf)(const void* ctx, int fd);
        const void* ctx;
        int highest;   // highest descriptor ever registered; -1 with no entries
    };

    cKernelWait();
    ~cKernelWait();
    cKernelWait(const cKernelWait&) = delete;
    cKernelWait& operator=(const cKernelWait&) = delete;

    // The table was emptied: no descriptor is watched any more.
    void Reset();
    // fd's events changed; newOwner: another channel (or another open file
    // at the same number) took it, so the kernel's registration is renewed
    // even when the events stay the same.
    void MarkDirty(int fd, bool newOwner);

    // Brings the kernel's interest in step with table (for the dirty
    // descriptors) and the wake-up descriptor wake (-1: not watched). Loop
    // thread. false with errno EBADF when a registered descriptor is no
    // longer open.
    bool Sync(const sTable& table, int wake);
    // Waits up to ms for readiness; the ready descriptors (the wake-up one
    // excluded) are in Ready(). Returns their count, or -1 with errno set
    // (EBADF: a registered descriptor was closed behind the loop's back).
    // wokeUp tells whether the wake-up descriptor was ready.
    int Wait(unsigned long ms, int wake, bool& wokeUp);
    std::vector<sReady>& Ready() { return m_Ready; }

    // "epoll" or "select": the wait this build uses.
    static const char* Kind();

private:
#ifndef ORVO_SELECT_WAIT
    enum : uint8_t {
        kEventBits = 7,     // SELECT_* the kernel watches for the descriptor
        kAlways = 8,        // epoll refused it (a regular file): always ready
        kDirty = 16,        // on the dirty list
        kNewOwner = 32      // registration to be renewed
    };
    bool Open();
    void Close();
    // Applies one dirty descriptor; false on EBADF.
    bool Apply(int fd, int wanted);
    // Whether every descriptor the kernel watches is still open.
    bool AllOpen() const;
    // Stops watching a descriptor whose readiness matched nothing it was
    // registered for (a hang-up on a write-only registration): the kernel
    // would report it on every pass, select never did.
    void Park(int fd);
    // Where the pass blocks in poll rather than epoll_wait (armhf): waits
    // up to timeout ms for the instance to become readable.
    bool BlockUntilReady(int timeout) const;

    int m_EpollFd = -1;
    unsigned m_ForkGeneration = 0;
    int m_WakeIn = -1;                       // the wake-up descriptor the kernel watches
    int64_t m_LastOpenCheck = 0;             // coarse monotonic ms of the last AllOpen (or Open)
    uint8_t m_State[FD_SETSIZE] = {};
    std::vector<int> m_Dirty;
    std::vector<int> m_Always;               // descriptors with kAlways
    std::vector<epoll_event> m_Events;
#else
    fd_set m_WatchRead, m_WatchWrite, m_WatchExcept;   // what is watched
    uint8_t m_Marked[FD_SETSIZE] = {};                 // on the dirty list
    std::vector<int> m_Dirty;
    fd_set m_Read, m_Write, m_Except;                  // the copies select() fills
    int m_Top = 0;
    int m_Highest = -1;
    bool m_WaitWrite = false, m_WaitExcept = false;
#endif
    std::vector<sReady> m_Ready;
};

}  // namespace orvo
