// The soak run's judgements: answers against requests on a link, and growth
// of sampled figures between two points of a run.
#include <gtest/gtest.h>

#include "../soak/soak_checks.h"

using namespace orvo_soak;

namespace {

// One step of a link: send key (seq = key), answer key, or break the link.
struct sStep {
    char what;   // 's' sent, 'a' answered, 'b' broken
    int key;
    const char* fault = "";   // substring the answer's fault must hold; "" none
    unsigned long long seq = 0;
};

struct sCase {
    const char* name;
    std::vector<sStep> steps;
};

}  // namespace

TEST(SoakChecks, AnswersAreMatchedOneForOneInOrder)
{
    const std::vector<sCase> cases = {
        {"in order", {{'s', 1}, {'s', 2}, {'s', 3}, {'a', 1, "", 1}, {'a', 2, "", 2}, {'a', 3, "", 3}}},
        {"one lost, the next still counts",
         {{'s', 1}, {'s', 2}, {'s', 3}, {'a', 2, "sequence numbers 1 to 1 lost", 2}, {'a', 3, "", 3}}},
        {"several lost at once",
         {{'s', 1}, {'s', 2}, {'s', 3}, {'s', 4}, {'a', 4, "1 to 3 lost: the answer to 4 came first", 4}}},
        {"an answer arriving after the one that overtook it is a stray",
         {{'s', 1}, {'s', 2}, {'a', 2, "lost", 2}, {'a', 1, "matches no", 0}}},
        {"duplicate answer", {{'s', 7}, {'a', 7, "", 7}, {'a', 7, "matches no outstanding", 0}}},
        {"an answer from before a break is a stray on the new link",
         {{'s', 1}, {'s', 2}, {'b', 2}, {'s', 3}, {'a', 1, "matches no", 0}, {'a', 3, "", 3}}},
        {"nothing outstanding", {{'a', 5, "matches no", 0}}},
    };
    for (const sCase& c : cases) {
        SCOPED_TRACE(c.name);
        cSeqTracker<int> track;
        for (const sStep& s : c.steps) {
            if (s.what == 's') {
                track.Sent(s.key, static_cast<unsigned long long>(s.key));
            } else if (s.what == 'b') {
                EXPECT_EQ(track.Broken(), static_cast<size_t>(s.key));   // in flight, dropped
                EXPECT_EQ(track.Outstanding(), 0u);
            } else {
                unsigned long long seq = 0;
                const std::string fault = track.Answered(s.key, &seq);
                if (*s.fault == '\0') {
                    EXPECT_EQ(fault, "");
                } else {
                    EXPECT_NE(fault.find(s.fault), std::string::npos) << fault;
                }
                if (s.seq != 0) {
                    EXPECT_EQ(seq, s.seq);
                }
            }
        }
    }
}

namespace {

// Samples every `step` seconds for `seconds`, value from f(t).
template <class F>
std::vector<sPoint> Series(double seconds, double step, F f)
{
    std::vector<sPoint> s;
    for (double t = 0; t <= seconds; t += step)
        s.push_back({t, f(t)});
    return s;
}

}  // namespace

TEST(SoakChecks, GrowthComparesMediansSoSpikesDoNotCountButSlopesDo)
{
    struct sGrowthCase {
        const char* name;
        std::vector<sPoint> samples;
        double minPct, maxPct;
    };
    const std::vector<sGrowthCase> cases = {
        {"flat", Series(600, 5, [](double) { return 6000.0; }), 0, 0},
        {"spikes in both windows and in the tail",
         Series(600, 5, [](double t) { return (t == 60 || t == 595 || t == 300) ? 9000.0 : 6000.0; }), 0, 0},
        // 1.5 % over the nine minutes after the base: a slow leak.
        {"steady slope", Series(600, 5, [](double t) { return 6000.0 + t * 0.15; }), 1.2, 1.6},
        {"warm-up before the base window is not growth",
         Series(600, 5, [](double t) { return t < 40 ? 5000.0 : 6000.0; }), 0, 0},
        {"shrinking", Series(600, 5, [](double t) { return 6000.0 - t; }), -20, -5},
    };
    for (const sGrowthCase& c : cases) {
        SCOPED_TRACE(c.name);
        const sGrowth g = Growth(c.samples, 60, 12.5, 5);
        ASSERT_TRUE(g.known);
        EXPECT_GE(g.Percent(), c.minPct);
        EXPECT_LE(g.Percent(), c.maxPct);
    }
}

TEST(SoakChecks, GrowthNeedsSamplesOnBothSidesAndKeepsThemApart)
{
    // Ends inside the base window: nothing to compare with.
    EXPECT_FALSE(Growth(Series(65, 5, [](double) { return 1.0; }), 60, 12.5, 5).known);
    EXPECT_FALSE(Growth({}, 60, 12.5, 5).known);
    // The tail never reaches back into the base window, however short the run.
    const sGrowth g = Growth(Series(90, 5, [](double t) { return t > 72.5 ? 200.0 : 100.0; }), 60, 12.5, 5);
    ASSERT_TRUE(g.known);
    EXPECT_DOUBLE_EQ(g.base, 100);
    EXPECT_DOUBLE_EQ(g.end, 200);
    EXPECT_DOUBLE_EQ(g.Percent(), 100);
    EXPECT_DOUBLE_EQ(Median({3, 1, 2}), 2);
    EXPECT_DOUBLE_EQ(Median({4, 1, 3, 2}), 2.5);
}
