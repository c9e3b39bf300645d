#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>
#include <thread>

#include "tesk.h"

using namespace orvo;

namespace {

// Every message type the library and its services send or handle.
const unsigned long kKnownTypes[] = {
    0x1000,  0x1002,  0x1003,  0x1004,  0x1005,  0x1006,  0x1007,  0x2015,
    0x3001,  0x3002,  0x3004,  0x4000,  0x4001,  0x4002,  0x4003,  0x4004,
    0x4005,  0x4006,  0x5000,  0x7000,  0x7001,  0x7002,  0x7003,  0x7004,
    0x7005,  0x7006,  0x7007,  0x8000,  0x8001,  0x8002,  0x10000, 0x10001,
    0x10002, 0x10003, 0x10004, 0x10006, 0x10007, 0x10008, 0x1000a, 0x10015,
    0x10016, 0x10017, 0x10018, 0x10019, 0x1001a, 0x1001b, 0x1001e, 0x10028,
    0x1002b, 0x1006c, 0x100ce, 0x1012c, 0x10140, 0x10141, 0x1014d, 0x10190,
    0x1019a, 0x1019d, 0x101a0, 0x80008, 0x80009,
};

}  // namespace

TEST(Tesk, EveryKnownTypeHasItsOwnName)
{
    std::set<std::string> seen;
    for (unsigned long type : kKnownTypes) {
        std::string name = GetMsgTypeTxt(type);
        SCOPED_TRACE(name);
        ASSERT_FALSE(name.empty());
        EXPECT_NE(name.rfind("0x", 0), 0u) << "no name for a known type";
        for (char c : name)
            EXPECT_TRUE(std::isupper(static_cast<unsigned char>(c)) ||
                        std::isdigit(static_cast<unsigned char>(c)) || c == '_');
        EXPECT_TRUE(seen.insert(name).second) << "name used twice";
        EXPECT_STREQ(GetMsgTypeTxt(type | 0xAB000000ul), name.c_str());
    }
    EXPECT_STREQ(GetMsgTypeTxt(0x3001), "SOCKET_DATA");
    EXPECT_STREQ(GetMsgTypeTxt(0x10001), "SCM_REGISTER_ACK");
}

TEST(Tesk, UnknownTypesGiveTheirNumber)
{
    EXPECT_STREQ(GetMsgTypeTxt(0), "0x000000");
    EXPECT_STREQ(GetMsgTypeTxt(0x000101), "0x000101");
    EXPECT_STREQ(GetMsgTypeTxt(0x12345678), "0x345678");  // low 24 bits only
    EXPECT_STREQ(GetMsgTypeTxt(0xFFFFFF), "0xFFFFFF");
    EXPECT_STREQ(GetMsgTypeTxt(0x1001), "0x001001");  // between two known types
    EXPECT_STREQ(GetMsgTypeTxt(0x101a1), "0x0101A1");  // past the SCM range

    // Each thread formats into its own buffer.
    const char* mine = GetMsgTypeTxt(0x000001);
    std::thread other([] { EXPECT_STREQ(GetMsgTypeTxt(0x000002), "0x000002"); });
    other.join();
    EXPECT_STREQ(mine, "0x000001");
}

TEST(Tesk, VersionAndUseAfterClear)
{
    EXPECT_STREQ(GetTeskVersion(), "3.20.0");
    const char* before = GetMsgTypeTxt(0x4003);
    ClearMessageTxtFunc();
    ClearMessageTxtFunc();
    EXPECT_STREQ(before, "SOCKET_CLOSED");
    EXPECT_STREQ(GetMsgTypeTxt(0x4003), "SOCKET_CLOSED");
    EXPECT_STREQ(GetMsgTypeTxt(0x4007), "0x004007");
}
