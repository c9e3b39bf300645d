// cSocketAddr: byte layout against the C library's sockaddr_in, the text
// parser's corner cases and the text forms against inet_ntop.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <random>

#include "orvo_socketaddr.h"

using namespace orvo;

namespace {

// The C library's sockaddr_in for ip and port (all zero for a null ip).
sockaddr_in In(const char* ip, unsigned short port)
{
    sockaddr_in in;
    std::memset(&in, 0, sizeof in);
    if (ip != nullptr) {
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        inet_pton(AF_INET, ip, &in.sin_addr);
    }
    return in;
}

bool Same(const cSocketAddr& a, const char* ip, unsigned short port)
{
    const sockaddr_in in = In(ip, port);
    return std::memcmp(&a, &in, 16) == 0;
}

}  // namespace

TEST(SocketAddr, LayoutAndConstructors)
{
    EXPECT_EQ(sizeof(cSocketAddr), 16u);
    EXPECT_TRUE(Same(cSocketAddr(), "0.0.0.0", 0));
    EXPECT_TRUE(Same(cSocketAddr(0x0A000001ul, 4000), "10.0.0.1", 4000));
    const cSocketAddr copy(In("192.168.7.9", 65535));
    EXPECT_TRUE(Same(copy, "192.168.7.9", 65535));
    EXPECT_EQ(copy.GetPort(), 65535);
    EXPECT_TRUE(copy[0] == 192 && copy[3] == 9);
    EXPECT_TRUE(copy == cSocketAddr("192.168.7.9", 65535));
    EXPECT_TRUE(copy != cSocketAddr("192.168.7.9", 1));
}

TEST(SocketAddr, ParsesText)
{
    EXPECT_TRUE(Same(cSocketAddr("1.2.3.4", 7), "1.2.3.4", 7));
    // A port in the text counts only when the argument is 0.
    EXPECT_EQ(cSocketAddr("1.2.3.4:99", 0).ToString(), "1.2.3.4:99");
    EXPECT_EQ(cSocketAddr("1.2.3.4:99", 80).ToString(), "1.2.3.4:80");
    // ":port" is the loopback address and wins over the argument.
    EXPECT_TRUE(Same(cSocketAddr(":5000", 80), "127.0.0.1", 5000));
    EXPECT_TRUE(Same(cSocketAddr(":", 80), "127.0.0.1", 0));
    // Unreadable text leaves all 16 bytes zero, family included.
    for (const char* bad : {"1.2.3", "1.2,3.4", static_cast<const char*>(nullptr), ""})
        EXPECT_TRUE(Same(cSocketAddr(bad, 80), nullptr, 0)) << (bad ? bad : "null");
    // No range checks: the numbers are or-ed into place, ports keep 16 bits,
    // and numbers read as the device's 32-bit strtol does.
    EXPECT_EQ(cSocketAddr("1.2.3.300", 0).GetIP(), (1u << 24) | (2u << 16) | (3u << 8 | 300u));
    EXPECT_EQ(cSocketAddr("1.2.3.4:70000", 0).GetPort(), 70000 & 0xFFFF);
    EXPECT_EQ(cSocketAddr("-1.0.0.0", 0).ToString(), "255.0.0.0:0");
    EXPECT_EQ(cSocketAddr("5000000000.1.1.1", 0).ToString(), "255.1.1.1:0");
}

TEST(SocketAddr, TextForms)
{
    EXPECT_EQ(cSocketAddr().ToString(), "0.0.0.0:0");
    EXPECT_TRUE(cSocketAddr().IsEmpty());
    EXPECT_FALSE(cSocketAddr(0ul, 1).IsEmpty() || cSocketAddr(1ul, 0).IsEmpty());
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
        ASSERT_TRUE(cSocketAddr(a.ToString().c_str(), 0) == a);   // reads back
    }
}

TEST(SocketAddrDeathTest, IndexOutOfRange)
{
    const cSocketAddr a("1.2.3.4", 0);
    EXPECT_DEATH(a[4], "i>=0 && i<4");
    EXPECT_DEATH(a[-1], "i>=0 && i<4");
}
