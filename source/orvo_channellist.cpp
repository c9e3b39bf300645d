#define ORVO_SOURCE "orvo_channellist"
#include "orvo_channellist.h"
#include "orvo_threadid.h"

#include <algorithm>

#include "orvo_thread.h"

namespace orvo {

void cChannelList::Add(cChannel* ch)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    m_List.erase(std::remove(m_List.begin(), m_List.end(), ch), m_List.end());
    m_List.push_back(ch);
    m_Count.store(static_cast<int>(m_List.size()));
}

void cChannelList::Remove(cChannel* ch)
{
    std::unique_lock<std::mutex> lock(m_Lock);
    m_List.erase(std::remove(m_List.begin(), m_List.end(), ch), m_List.end());
    m_Count.store(static_cast<int>(m_List.size()));
    WaitForOtherWalkers(lock);
}

void cChannelList::Clear()
{
    std::unique_lock<std::mutex> lock(m_Lock);
    m_List.clear();
    m_Count.store(0);
    WaitForOtherWalkers(lock);
}

void cChannelList::WaitForOtherWalkers(std::unique_lock<std::mutex>& lock)
{
    const pid_t self = threadid::Current();
    m_WalkEnded.wait(lock, [this, self] {
        return std::all_of(m_Walkers.begin(), m_Walkers.end(),
                           [self](pid_t walker) { return walker == self; });
    });
}

bool cChannelList::Listed(cChannel* ch)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    return std::find(m_List.begin(), m_List.end(), ch) != m_List.end();
}

void cChannelList::ForEach(const std::function<void(cChannel*)>& send)
{
    const pid_t self = threadid::Current();
    std::vector<cChannel*> channels;
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        if (m_List.empty())
            return;
        channels = m_List;
        m_Walkers.push_back(self);
    }
    // Ends the walk on every way out, a cancelled thread included.
    struct sWalk {
        cChannelList* list;
        pid_t self;
        ~sWalk()
        {
            std::lock_guard<std::mutex> lock(list->m_Lock);
            auto it = std::find(list->m_Walkers.begin(), list->m_Walkers.end(), self);
            if (it != list->m_Walkers.end())
                list->m_Walkers.erase(it);
            list->m_WalkEnded.notify_all();
        }
    } walk{this, self};
    for (cChannel* ch : channels) {
        if (Listed(ch))
            send(ch);
    }
}

}  // namespace orvo
