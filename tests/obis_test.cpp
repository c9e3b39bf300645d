// cObis: text and number forms and their round trips.
#include <gtest/gtest.h>

#include <random>

#include "orvo_obis.h"

using namespace orvo;

TEST(ObisTest, TextForms)
{
    cObis o("1-0:1.8.0*255");
    EXPECT_EQ(o.A + "|" + o.B + "|" + o.Short.C + "|" + o.Short.D + "|" + o.Short.E + "|" + o.F,
              "1|0|1|8|0|255");
    EXPECT_TRUE(o.IsValid());
    EXPECT_EQ(o.ToString(), "1-0:1.8.0*255");
    EXPECT_EQ(o.ToNumber(), 0x0100010800FFULL);

    EXPECT_TRUE(o.FromString("1.8.0"));
    EXPECT_FALSE(o.IsValid());
    EXPECT_EQ(o.ToString(), ":1.8.0");
    EXPECT_TRUE(o.FromString("1.8.0*7"));
    EXPECT_EQ(o.ToString(), ":1.8.0*7");

    cObis::cShort s("1.8");
    EXPECT_EQ(s.ToString(), "1.8");
    EXPECT_TRUE(s.E.empty());
    EXPECT_EQ(s.ToNumber(), 0x010800ULL);
    EXPECT_FALSE(s.FromString("1"));
    EXPECT_FALSE(s.FromString("1.2.3.4"));
    EXPECT_FALSE(s.IsValid());
    EXPECT_TRUE(s.FromString("1..0"));
    EXPECT_EQ(s.D, "");
    EXPECT_EQ(s.ToString(), "1.0");

    EXPECT_FALSE(o.FromString("1-0-2:1.8.0"));
    EXPECT_FALSE(o.FromString("1-0:1:8"));
    EXPECT_FALSE(o.FromString("1-0:1.8*2*3"));
    EXPECT_FALSE(o.FromString(""));
    EXPECT_TRUE(o.FromString("1-0:1*255"));   // short part result not passed on
    EXPECT_FALSE(o.IsValid());
    EXPECT_EQ(o.ToString(), "1-0*255");

    cObis carry("1-0:1.300.0");
    EXPECT_EQ(carry.ToNumber(), 0x0100012C0000ULL + 0x0001000000ULL);
    EXPECT_TRUE(cObis("1-0:1.8.0") == cObis("1-0:1.8.0"));
    EXPECT_FALSE(cObis("1-0:1.8.0") == cObis("1-0:1.8.00"));
}

TEST(ObisTest, NumberRoundTrips)
{
    cObis o;
    EXPECT_TRUE(o.FromNumber(0x0100010800FFULL));
    EXPECT_EQ(o.ToString(), "1-0:1.8.0*255");
    cObis::cShort s;
    s.FromNumber(0x0A0B0C0DULL);
    EXPECT_EQ(s.ToString(), "11.12.13");

    std::mt19937_64 rng(3);
    for (int i = 0; i < 2000; ++i) {
        const unsigned long long n = rng() & 0xFFFFFFFFFFFFULL;
        cObis a;
        a.FromNumber(n);
        cObis b;
        ASSERT_TRUE(b.FromString(a.ToString()));
        ASSERT_TRUE(b == a);
        ASSERT_EQ(b.ToNumber(), n);
        ASSERT_TRUE(b.IsValid());
    }
}
