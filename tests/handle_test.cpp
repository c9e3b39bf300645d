#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "orvo_handle.h"

using namespace orvo;

TEST(Handle, CreateResolveRelease)
{
    int a = 0, b = 0;
    unsigned before = HandleCount();
    uint32_t ha = HandleCreate(&a, HANDLE_CHANNEL);
    uint32_t hb = HandleCreate(&b, HANDLE_TIMER);
    ASSERT_NE(ha, 0u);
    ASSERT_NE(hb, 0u);
    EXPECT_NE(ha, hb);
    EXPECT_EQ(HandleCreate(&a, HANDLE_CHANNEL), ha);  // same object, same handle
    EXPECT_EQ(HandleResolve(ha, HANDLE_CHANNEL), &a);
    EXPECT_EQ(HandleResolve(ha, HANDLE_ANY), &a);
    EXPECT_EQ(HandleResolve(ha, HANDLE_TIMER), nullptr);  // wrong kind
    EXPECT_EQ(HandleOf(&b), hb);
    EXPECT_EQ(HandleCount(), before + 2);

    HandleRelease(ha);
    EXPECT_EQ(HandleResolve(ha, HANDLE_ANY), nullptr);
    EXPECT_EQ(HandleOf(&a), 0u);
    HandleRelease(ha);  // twice is harmless
    HandleRelease(hb);
    EXPECT_EQ(HandleCount(), before);
}

TEST(Handle, StaleHandleNeverResolvesToReusedSlot)
{
    int objects[8];
    std::vector<uint32_t> stale;
    for (int round = 0; round < 200; ++round) {
        uint32_t h = HandleCreate(&objects[round % 8], HANDLE_STATEM);
        for (uint32_t old : stale)
            EXPECT_NE(old, h);
        stale.push_back(h);
        HandleRelease(h);
    }
    for (uint32_t old : stale)
        EXPECT_EQ(HandleResolve(old, HANDLE_ANY), nullptr);
}

TEST(Handle, ArbitraryValuesFromTheWireResolveToNothing)
{
    int a = 0;
    uint32_t h = HandleCreate(&a, HANDLE_STATEM);
    for (uint32_t v : {0u, 1u, 0xFFFFFFFFu, 0x000FFFFFu, h ^ 0x00100000u, h + 1}) {
        if (v != h) {
            EXPECT_EQ(HandleResolve(v, HANDLE_ANY), nullptr) << v;
        }
    }
    HandleRelease(h);
}

TEST(Handle, ConcurrentCreateAndRelease)
{
    constexpr int kThreads = 4, kRounds = 2000;
    unsigned before = HandleCount();
    std::vector<std::thread> threads;
    std::vector<int> cells(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&cells, t] {
            for (int i = 0; i < kRounds; ++i) {
                uint32_t h = HandleCreate(&cells[t], HANDLE_TIMER);
                ASSERT_EQ(HandleResolve(h, HANDLE_TIMER), &cells[t]);
                HandleRelease(h);
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(HandleCount(), before);
}

// An object at the address of a destroyed one is alive only for the question
// that does not name the old handle.
TEST(Handle, AliveMeansTheHandleStillResolvesToTheObject)
{
    int place = 0;
    EXPECT_FALSE(HandleAlive(&place, HANDLE_TIMER));
    const uint32_t first = HandleCreate(&place, HANDLE_TIMER);
    EXPECT_TRUE(HandleAlive(&place, HANDLE_TIMER, first));
    EXPECT_FALSE(HandleAlive(&place, HANDLE_STATEM));
    HandleRelease(first);
    EXPECT_FALSE(HandleAlive(&place, HANDLE_TIMER, first));
    const uint32_t second = HandleCreate(&place, HANDLE_TIMER);   // a new object, same address
    EXPECT_FALSE(HandleAlive(&place, HANDLE_TIMER, first));
    EXPECT_TRUE(HandleAlive(&place, HANDLE_TIMER));
    HandleRelease(second);
    EXPECT_FALSE(HandleAlive(nullptr, HANDLE_ANY));
}
