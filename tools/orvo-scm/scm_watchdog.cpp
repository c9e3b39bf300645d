// scm_watchdog.cpp - counting unanswered watchdog triggers.
#include "scm_watchdog.h"

namespace orvo_scm {

void cWatchdogBook::Watch(const std::string& name, unsigned limit)
{
    tBook b;
    b.limit = limit == 0 ? 1 : limit;
    m_Books[name] = b;
}

void cWatchdogBook::Forget(const std::string& name)
{
    m_Books.erase(name);
}

cWatchdogBook::tTick cWatchdogBook::Tick()
{
    tTick tick;
    for (auto& kv : m_Books) {
        tBook& b = kv.second;
        if (b.waiting && ++b.missed >= b.limit) {
            tick.failed.push_back(kv.first);
            b.missed = 0;
        }
        b.seq = m_NextSeq++;
        b.waiting = true;
        tick.triggers.push_back({kv.first, b.seq});
    }
    return tick;
}

bool cWatchdogBook::Answer(const std::string& name, unsigned seq)
{
    auto it = m_Books.find(name);
    if (it == m_Books.end() || !it->second.waiting || it->second.seq != seq)
        return false;
    it->second.waiting = false;
    it->second.missed = 0;
    return true;
}

unsigned cWatchdogBook::Missed(const std::string& name) const
{
    auto it = m_Books.find(name);
    return it == m_Books.end() ? 0 : it->second.missed;
}

}  // namespace orvo_scm
