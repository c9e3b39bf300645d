// orvo_channellist.h - internal: a process-wide list of channels that
// receive copies of what the process does (the trace channels, the snoop
// subscribers). Not installed.
//
// The lock guards the list only; it is never held while a channel sends.
// A walk takes a copy of the list under the lock and sends after releasing
// it. So that a channel stays alive while another thread sends on it,
// Remove (called by every channel's destructor) waits until no other thread
// is walking; the walking thread itself may remove (and delete) channels,
// since its walk checks each channel against the list before it sends.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace orvo {

class cChannel;

class cChannelList {
public:
    // Puts ch at the end; an earlier entry of ch is removed first.
    void Add(cChannel* ch);
    // Drops every entry of ch and waits until walks of other threads ended.
    void Remove(cChannel* ch);
    // Drops every entry and waits as Remove does.
    void Clear();
    // Read without the lock: callers ask on every message whether anyone
    // listens, and almost always no one does.
    bool IsEmpty() const { return m_Count.load(std::memory_order_relaxed) == 0; }
    // Calls send(ch) for every listed channel in list order, without the
    // lock. A channel removed since the walk began is skipped.
    void ForEach(const std::function<void(cChannel*)>& send);

private:
    bool Listed(cChannel* ch);
    void WaitForOtherWalkers(std::unique_lock<std::mutex>& lock);

    std::mutex m_Lock;
    std::condition_variable m_WalkEnded;
    std::vector<cChannel*> m_List;
    std::vector<pid_t> m_Walkers;       // one entry per walk in progress
    std::atomic<int> m_Count{0};
};

}  // namespace orvo
