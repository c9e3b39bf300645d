// cUuid: generation layout, text round trips against an independently built
// text, partial parses and comparison.
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>

#include "orvo_uuid.h"

using namespace orvo;

namespace {

// The printed form built by hand: groups 1-3 reversed, groups 4-5 in order.
std::string Printed(const unsigned char* b)
{
    char text[40];
    std::snprintf(text, sizeof text,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[3],
                  b[2], b[1], b[0], b[5], b[4], b[7], b[6], b[8], b[9], b[10], b[11], b[12], b[13],
                  b[14], b[15]);
    return text;
}

}  // namespace

TEST(UuidTest, GenerationLayout)
{
    unsigned char mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    cUuid::SetMacAddr(mac);
    struct timeval before;
    gettimeofday(&before, nullptr);
    cUuid u;
    ASSERT_TRUE(u.Create());
    EXPECT_TRUE(u.IsValid());
    EXPECT_EQ(u.ToString().substr(0, 14), "54457667-3223-");
    const unsigned char* b = static_cast<const unsigned char*>(u.GetBuffer());
    uint32_t sec = 0, usec = 0;
    for (int i = 3; i >= 0; --i) {
        sec = sec << 8 | (b[6 + i] ^ 0x67u);
        usec = usec << 8 | (b[10 + i] ^ 0x67u);
    }
    EXPECT_LE(sec - static_cast<uint32_t>(before.tv_sec), 2u);
    EXPECT_LT(usec, 1000000u);

    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i)
        seen.insert(u.Create() ? u.ToString() : "");
    EXPECT_GT(seen.size(), 150u);   // same microsecond differs only by random bytes
    std::memset(mac, 0, sizeof mac);
    cUuid::SetMacAddr(mac);
}

TEST(UuidTest, TextRoundTripsAndPartialParse)
{
    std::mt19937 rng(99);
    for (int i = 0; i < 500; ++i) {
        unsigned char bytes[16];
        for (unsigned char& x : bytes)
            x = static_cast<unsigned char>(rng());
        cUuid u;
        ASSERT_TRUE(u.Create(bytes, 16));
        ASSERT_EQ(u.ToString(), Printed(bytes));
        std::string lower = u.ToString();
        for (char& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        cUuid back;
        ASSERT_TRUE(back.Create(lower.c_str()));
        ASSERT_EQ(std::memcmp(back.GetBuffer(), bytes, 16), 0);
    }

    // Cut texts are not valid but keep the bytes they hold; the rest stays 0.
    cUuid part;
    const unsigned char* b = static_cast<const unsigned char*>(part.GetBuffer());
    for (const char* cut : {"33221100-5544-7766-8899-AABBCCDDEE", "33221100-5544-7766-8899-AABBCCDDEEF"}) {
        EXPECT_FALSE(part.Create(cut));
        EXPECT_FALSE(part.IsValid());
        for (int i = 0; i < 16; ++i)
            EXPECT_EQ(b[i], i < 15 ? 0x11 * i : 0) << cut << " " << i;
    }
    EXPECT_FALSE(part.Create("not a uuid"));
    EXPECT_FALSE(part.Create(static_cast<const char*>(nullptr)));
}

TEST(UuidTest, ComparisonIgnoresValidFlag)
{
    unsigned char bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0};
    cUuid same;
    same.Create(bytes, 16);
    cUuid partial;   // byte 15 missing from the text: not valid, bytes 0-14 kept
    EXPECT_FALSE(partial.Create("04030201-0605-0807-090A-0B0C0D0E0F"));
    EXPECT_TRUE(partial == same && !(partial != same));
    bytes[15] = 16;
    cUuid full;
    full.Create(bytes, 16);
    EXPECT_TRUE(partial < full && !(full < partial) && partial != full);
    partial = full;
    EXPECT_TRUE(partial.IsValid());
    EXPECT_FALSE(full.Create(bytes, 15));
    EXPECT_FALSE(full.IsValid());
    EXPECT_EQ(full.ToString(), "00000000-0000-0000-0000-000000000000");
}
