// scm_watchdog.h - orvo-scm's watchdog count per service.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace orvo_scm {

// Watchdog bookkeeping of the connected services, without any I/O: each tick
// counts an unanswered trigger as missed and hands out the next sequence
// number to send. A service that reaches its limit of missed answers is
// reported once and then counted afresh.
class cWatchdogBook {
public:
    struct tTrigger {
        std::string name;
        unsigned seq;
    };
    struct tTick {
        std::vector<tTrigger> triggers;     // send these now
        std::vector<std::string> failed;    // reached their limit with this tick
    };

    // Watches name with this limit of missed answers (0 counts as 1).
    void Watch(const std::string& name, unsigned limit);
    void Forget(const std::string& name);
    bool IsWatched(const std::string& name) const { return m_Books.count(name) != 0; }
    tTick Tick();
    // An answer for the latest trigger clears the count; a stale one is
    // ignored (false).
    bool Answer(const std::string& name, unsigned seq);
    unsigned Missed(const std::string& name) const;

private:
    struct tBook {
        unsigned limit = 3;
        unsigned missed = 0;
        unsigned seq = 0;
        bool waiting = false;   // the latest trigger is unanswered
    };
    std::map<std::string, tBook> m_Books;
    unsigned m_NextSeq = 1;
};

}  // namespace orvo_scm
