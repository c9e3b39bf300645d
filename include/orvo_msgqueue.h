// orvo_msgqueue.h - cMsgQueue, the ring of messages behind a service's queue.
//
// New messages enter at the front and the service takes the oldest from the
// back, one at a time. A double-ended queue of messages would allocate and
// release a node every second message when used that way (a message is too
// large for more than two per node); the ring reuses its slots and grows
// only when it is full (doubling, so a queue that once held n messages keeps
// room for n).
//
// Positions count from the front: at(0) is the newest message, at(size()-1)
// the oldest (back()). A slot that is left (pop_back, erase, remove_if,
// clear) gives up its record at once, so a large record never stays alive
// in a free slot.
//
// Not thread-safe: it belongs to the thread that runs its service's loop.
#pragma once

#include <cstddef>
#include <vector>

#include "orvo_msg.h"

namespace orvo {

class cMsgQueue {
public:
    bool empty() const { return m_Count == 0; }
    size_t size() const { return m_Count; }

    // Adds a copy of msg as the newest message.
    void push_front(const cMsg& msg)
    {
        if (m_Count == m_Slots.size())
            Grow();
        m_Slots[Physical(m_Count)] = msg;
        ++m_Count;
    }
    // The oldest message; the queue must not be empty.
    cMsg& back() { return m_Slots[m_Head]; }
    // Removes the oldest message; the queue must not be empty.
    void pop_back()
    {
        Vacate(m_Slots[m_Head]);
        m_Head = Physical(1);
        --m_Count;
    }
    // Copies the oldest message into msg and removes it.
    void take_back(cMsg& msg)
    {
        msg = back();
        pop_back();
    }
    // i = 0 is the newest message, size() - 1 the oldest.
    cMsg& at(size_t i) { return m_Slots[Physical(m_Count - 1 - i)]; }
    const cMsg& at(size_t i) const { return m_Slots[Physical(m_Count - 1 - i)]; }
    // Removes the message at position i (counted as for at()); the others
    // keep their order.
    void erase(size_t i)
    {
        for (size_t k = m_Count - 1 - i; k + 1 < m_Count; ++k)
            m_Slots[Physical(k)] = m_Slots[Physical(k + 1)];
        Vacate(m_Slots[Physical(m_Count - 1)]);
        --m_Count;
    }
    // Removes every message for which pred is true; the others keep their
    // order. Returns the number removed.
    template <class Pred>
    size_t remove_if(Pred pred)
    {
        size_t kept = 0;
        for (size_t k = 0; k < m_Count; ++k) {
            cMsg& m = m_Slots[Physical(k)];
            if (pred(static_cast<const cMsg&>(m)))
                continue;
            if (kept != k)
                m_Slots[Physical(kept)] = m;
            ++kept;
        }
        const size_t removed = m_Count - kept;
        for (size_t k = kept; k < m_Count; ++k)
            Vacate(m_Slots[Physical(k)]);
        m_Count = kept;
        return removed;
    }
    void clear()
    {
        for (size_t k = 0; k < m_Count; ++k)
            Vacate(m_Slots[Physical(k)]);
        m_Head = 0;
        m_Count = 0;
    }
    // Slots held (for tests: the ring grows only when full).
    size_t capacity() const { return m_Slots.size(); }

private:
    // The slot of the message k places after the oldest.
    size_t Physical(size_t k) const { return (m_Head + k) & (m_Slots.size() - 1); }
    static void Vacate(cMsg& slot) { slot.GetRecord().Create(); }
    void Grow()
    {
        // Capacities are powers of two, so a position is masked, not divided.
        std::vector<cMsg> bigger(m_Slots.empty() ? 8 : 2 * m_Slots.size());
        for (size_t k = 0; k < m_Count; ++k)
            bigger[k] = m_Slots[Physical(k)];
        m_Slots.swap(bigger);
        m_Head = 0;
    }

    std::vector<cMsg> m_Slots;
    size_t m_Head = 0;     // slot of the oldest message
    size_t m_Count = 0;
};

}  // namespace orvo
