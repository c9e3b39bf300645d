// cSocketAddr: byte layout against the C library's sockaddr_in, the text
// parser's corner cases and the text forms against inet_ntop.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <random>

#include "orvo_socketaddr.h"

using namespace orvo;

namespace {

sockaddr_in Oracle(const char* ip, unsigned short port)
{
    sockaddr_in in;
    std::memset(&in, 0, sizeof in);
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    inet_pton(AF_INET, ip, &in.sin_addr);
    return in;
}

bool SameBytes(const cSocketAddr& a, const sockaddr_in& b)
{
    return std::memcmp(&a, &b, 16) == 0;
}

bool AllZero(const cSocketAddr& a)
{
    static const unsigned char zero[16] = {};
    return std::memcmp(&a, zero, 16) == 0;
}

}  // namespace

TEST(SocketAddr, LayoutAndConstructors)
{
    EXPECT_EQ(sizeof(cSocketAddr), 16u);
    EXPECT_TRUE(SameBytes(cSocketAddr(), Oracle("0.0.0.0", 0)));
    EXPECT_TRUE(SameBytes(cSocketAddr(0x0A000001ul, 4000), Oracle("10.0.0.1", 4000)));
    const sockaddr_in raw = Oracle("192.168.7.9", 65535);
    const cSocketAddr copy(raw);
    EXPECT_TRUE(SameBytes(copy, raw));
    EXPECT_EQ(copy.GetIP(), 0xC0A80709ul);
    EXPECT_EQ(copy.GetPort(), 65535);
    EXPECT_EQ(copy[0], 192);
    EXPECT_EQ(copy[3], 9);
    EXPECT_TRUE(copy == cSocketAddr("192.168.7.9", 65535));
    EXPECT_TRUE(copy != cSocketAddr("192.168.7.9", 1));
}

TEST(SocketAddr, ParsesText)
{
    EXPECT_TRUE(SameBytes(cSocketAddr("1.2.3.4", 7), Oracle("1.2.3.4", 7)));
    // A port in the text counts only when the argument is 0.
    EXPECT_EQ(cSocketAddr("1.2.3.4:99", 0).ToString(), "1.2.3.4:99");
    EXPECT_EQ(cSocketAddr("1.2.3.4:99", 80).ToString(), "1.2.3.4:80");
    // ":port" is the loopback address and wins over the argument.
    EXPECT_TRUE(SameBytes(cSocketAddr(":5000", 80), Oracle("127.0.0.1", 5000)));
    EXPECT_TRUE(SameBytes(cSocketAddr(":", 80), Oracle("127.0.0.1", 0)));
    // Unreadable text leaves all 16 bytes zero, family included.
    EXPECT_TRUE(AllZero(cSocketAddr("1.2.3", 80)));
    EXPECT_TRUE(AllZero(cSocketAddr("1.2,3.4", 80)));
    EXPECT_TRUE(AllZero(cSocketAddr(nullptr, 80)));
    EXPECT_TRUE(AllZero(cSocketAddr("", 80)));
    // No range checks: the numbers are or-ed into place, ports keep 16 bits,
    // and numbers read as the device's 32-bit strtol does.
    EXPECT_EQ(cSocketAddr("1.2.3.300", 0).GetIP(), (1u << 24) | (2u << 16) | (3u << 8 | 300u));
    EXPECT_EQ(cSocketAddr("1.2.3.4:70000", 0).GetPort(), 70000 & 0xFFFF);
    EXPECT_EQ(cSocketAddr("-1.0.0.0", 0).ToString(), "255.0.0.0:0");
    EXPECT_EQ(cSocketAddr("5000000000.1.1.1", 0).ToString(), "255.1.1.1:0");
}

TEST(SocketAddr, TextForms)
{
    const cSocketAddr none;
    EXPECT_EQ(none.ToString(), "0.0.0.0:0");
    EXPECT_TRUE(none.IsEmpty());
    EXPECT_FALSE(cSocketAddr(0ul, 1).IsEmpty());
    EXPECT_FALSE(cSocketAddr(1ul, 0).IsEmpty());
    char small[5];
    EXPECT_EQ(cSocketAddr("10.20.30.40", 0).GetIPStr(small, sizeof small), small);
    EXPECT_STREQ(small, "10.2");

    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        const uint32_t ip = rng();
        const unsigned short port = static_cast<unsigned short>(rng());
        const cSocketAddr a(ip, port);
        in_addr in;
        in.s_addr = htonl(ip);
        char want[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &in, want, sizeof want);
        ASSERT_EQ(a.GetIPString(), want);
        ASSERT_EQ(a.GetPortString(), std::to_string(port));
        ASSERT_EQ(a.ToString(), std::string(want) + ":" + std::to_string(port));
        // The text form reads back to the same bytes.
        ASSERT_TRUE(cSocketAddr(a.ToString().c_str(), 0) == a);
    }
}

TEST(SocketAddrDeathTest, IndexOutOfRange)
{
    const cSocketAddr a("1.2.3.4", 0);
    EXPECT_DEATH(a[4], "i>=0 && i<4");
    EXPECT_DEATH(a[-1], "i>=0 && i<4");
}
