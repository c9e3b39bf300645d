// cByteBuffer: the strict append rule, clipping at the ends, and a random
// run against a std::deque model.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <deque>
#include <random>
#include <string>

#include "orvo_bytebuffer.h"

using orvo::cByteBuffer;

TEST(ByteBuffer, StrictAppendAndBounds)
{
    cByteBuffer b(16);
    const unsigned char* start = b.data();
    EXPECT_TRUE(b.pushback("012345", 6));
    EXPECT_FALSE(b.pushback("abcdefghij", 10));   // would fill the 10 free bytes exactly
    EXPECT_TRUE(b.pushback("abcdefghi", 9));
    EXPECT_FALSE(b.pushback("x", ULONG_MAX));
    EXPECT_FALSE(b.pushback(nullptr, 0) && b.pushback(nullptr, 1));
    b.popfront(4);
    EXPECT_EQ(b.data(), start);
    EXPECT_TRUE(b.pushback(b.data(), 4));   // its own bytes
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data()), b.size()), "45abcdefghi45ab");
    b.popfront(ULONG_MAX);
    EXPECT_EQ(b.asize(), 16u);

    cByteBuffer none(0);
    EXPECT_FALSE(none.pushback("", 0));
    none.popfront(3);
    EXPECT_EQ(none.size() + none.asize(), 0u);
}

TEST(ByteBuffer, RandomRunMatchesDequeModel)
{
    const unsigned long cap = 64;
    cByteBuffer b(cap);
    std::deque<unsigned char> model;
    std::mt19937 rng(7);
    unsigned char src[80];
    for (int step = 0; step < 5000; ++step) {
        const unsigned long n = rng() % 72;
        if (rng() % 2) {
            for (unsigned long i = 0; i < n; ++i)
                src[i] = static_cast<unsigned char>(rng());
            const bool fits = cap - model.size() > n;
            ASSERT_EQ(b.pushback(src, n), fits) << step;
            if (fits)
                model.insert(model.end(), src, src + n);
        } else {
            b.popfront(n);
            model.erase(model.begin(), model.begin() + std::min<size_t>(n, model.size()));
        }
        ASSERT_EQ(b.size(), model.size()) << step;
        ASSERT_EQ(b.asize(), cap - model.size()) << step;
        ASSERT_TRUE(std::equal(model.begin(), model.end(), b.data())) << step;
    }
}
