// cByteBuffer: the strict append rule, clipping at the ends, memory that
// follows use, and a random run against a std::deque model.
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
    EXPECT_TRUE(b.pushback("012345", 6));
    EXPECT_FALSE(b.pushback("abcdefghij", 10));   // would fill the 10 free bytes exactly
    EXPECT_TRUE(b.pushback("abcdefghi", 9));
    EXPECT_FALSE(b.pushback("x", ULONG_MAX));
    EXPECT_FALSE(b.pushback(nullptr, 0) && b.pushback(nullptr, 1));
    b.popfront(4);
    EXPECT_TRUE(b.pushback(b.data(), 4));   // its own bytes
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data()), b.size()), "45abcdefghi45ab");
    b.popfront(ULONG_MAX);
    EXPECT_EQ(b.asize(), 16u);

    cByteBuffer none(0);
    EXPECT_FALSE(none.pushback("", 0));
    none.popfront(3);
    EXPECT_EQ(none.size() + none.asize(), 0u);
}

TEST(ByteBuffer, MemoryFollowsUseUpToTheCapacity)
{
    const unsigned long cap = 196607;
    cByteBuffer b(cap);
    EXPECT_EQ(b.allocated(), 0u) << "nothing before the first append";
    EXPECT_EQ(b.asize(), cap);

    // Its own bytes appended while the block has to move.
    std::string expect;
    for (int i = 0; i < 400; ++i)
        expect += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(b.pushback(expect.data(), expect.size()));
    EXPECT_EQ(b.allocated(), 512u);
    ASSERT_TRUE(b.pushback(b.data() + 100, 300));
    expect += expect.substr(100, 300);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data()), b.size()), expect);
    EXPECT_EQ(b.allocated(), 1024u);

    // Byte by byte to the limit: the block doubles, a dozen moves at most,
    // and never exceeds the capacity.
    int moves = 0;
    unsigned long last = b.allocated();
    while (b.asize() > 1) {
        ASSERT_TRUE(b.pushback("x", 1));
        if (b.allocated() != last) {
            ++moves;
            EXPECT_GE(b.allocated(), 2 * last > cap ? cap : 2 * last);
            last = b.allocated();
        }
    }
    EXPECT_LE(moves, 12);
    EXPECT_EQ(b.allocated(), cap);
    EXPECT_FALSE(b.pushback("x", 1)) << "the strict rule still holds at the limit";

    // Grown, it keeps its block: emptied and refilled, nothing moves.
    b.clear();
    const unsigned char* block = b.data();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(b.pushback(expect.data(), expect.size()));
        b.popfront(expect.size());
    }
    EXPECT_EQ(b.data(), block);

    cByteBuffer::TakeReleasedBytes();
    b.Release();
    EXPECT_EQ(b.allocated(), 0u);
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(cByteBuffer::TakeReleasedBytes(cap + 1), 0u) << "below the threshold: kept";
    EXPECT_EQ(cByteBuffer::TakeReleasedBytes(cap), cap);
    EXPECT_EQ(cByteBuffer::TakeReleasedBytes(), 0u);
    ASSERT_TRUE(b.pushback("again", 5)) << "usable after Release";
    EXPECT_EQ(b.allocated(), 512u);

    cByteBuffer small(100);
    ASSERT_TRUE(small.pushback(expect.data(), 99));
    EXPECT_EQ(small.allocated(), 100u) << "the first block is clipped to the capacity";
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
