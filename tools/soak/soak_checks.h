// The judgements of the soak run that need no process: whether the answers
// on a link match its requests one for one, and whether a sampled figure
// (memory, descriptors) grew between two points of the run.
#pragma once

#include <algorithm>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace orvo_soak {

// Requests of one live link in the order they were sent. A stream socket to
// a service that answers on one thread keeps the order, so every answer must
// belong to the oldest outstanding request: one that belongs to a later
// request means the requests before it were lost, one that belongs to none
// is a duplicate (or a stray).
template <class Key>
class cSeqTracker {
public:
    void Sent(const Key& key, unsigned long long seq) { m_Out.emplace_back(key, seq); }

    // "" when the answer is the expected one (its sequence number in *seq);
    // otherwise what went wrong. Lost requests are forgotten so that one
    // loss is reported once.
    std::string Answered(const Key& key, unsigned long long* seq)
    {
        auto it = std::find_if(m_Out.begin(), m_Out.end(), [&](const auto& p) { return p.first == key; });
        if (it == m_Out.end())
            return "an answer that matches no outstanding request (duplicate or stray)";
        *seq = it->second;
        std::string fault;
        if (it != m_Out.begin())
            fault = "sequence numbers " + std::to_string(m_Out.front().second) + " to " +
                    std::to_string(std::prev(it)->second) + " lost: the answer to " +
                    std::to_string(it->second) + " came first";
        m_Out.erase(m_Out.begin(), std::next(it));
        return fault;
    }

    // The link broke: what was in flight is neither lost nor answered.
    size_t Broken()
    {
        const size_t n = m_Out.size();
        m_Out.clear();
        return n;
    }
    size_t Outstanding() const { return m_Out.size(); }

private:
    std::deque<std::pair<Key, unsigned long long>> m_Out;
};

// One sample of a process: seconds since the start of the run and a value.
struct sPoint {
    double t;
    double v;
};

inline double Median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Growth between the median of the samples within +-window of baseAt and the
// median of the last `last` samples taken after that window. Medians make a
// single spike (a burst of churn connections, a malloc arena that grows and
// shrinks) count for nothing, while growth that lasts moves both halves.
struct sGrowth {
    bool known = false;   // enough samples on both sides
    double base = 0;
    double end = 0;
    double Percent() const { return base > 0 ? (end - base) * 100.0 / base : 0; }
};

inline sGrowth Growth(const std::vector<sPoint>& s, double baseAt, double window, size_t last)
{
    std::vector<double> base, tail;
    for (const sPoint& p : s)
        if (p.t >= baseAt - window && p.t <= baseAt + window)
            base.push_back(p.v);
    for (size_t i = s.size(); i > 0 && tail.size() < last; --i)
        if (s[i - 1].t > baseAt + window)
            tail.push_back(s[i - 1].v);
    sGrowth g;
    g.known = base.size() >= 3 && tail.size() >= 3;
    g.base = Median(base);
    g.end = Median(tail);
    return g;
}

}  // namespace orvo_soak
