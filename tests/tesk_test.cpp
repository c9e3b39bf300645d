#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orvo_msgtypes.h"
#include "tesk.h"

using namespace orvo;

namespace {

// Every message type the library and its services send or handle, by its
// name in orvo_msgtypes.h.
#define T(name) {name, #name}
const struct {
    unsigned long type;
    const char* name;
} kKnownTypes[] = {
    T(MSG_RASTER_TIMER),
    T(MSG_UNDECODABLE),
    T(MSG_SELECT_FAILED),
    T(MSG_INTERRUPT_REQUEST),
    T(MSG_TERMINATE_REQUEST),
    T(MSG_STOP),
    T(MSG_SERVICE_TRACE),
    T(MSG_WAIT_TIMEOUT),
    T(MSG_SOCKET_DATA),
    T(MSG_SOCKET_WRITABLE),
    T(MSG_IN_RECORD),
    T(MSG_SOCKET_CONNECT_FAILED),
    T(MSG_SOCKET_ACCEPTED),
    T(MSG_SOCKET_CONNECTED),
    T(MSG_SOCKET_CLOSED),
    T(MSG_SOCKET_TLS_FAILED),
    T(MSG_ICMP_ECHO_REPLY),
    T(MSG_ICMP_ERROR),
    T(MSG_STATEM_RUN),
    T(MSG_TRACE_ON),
    T(MSG_TRACE_OFF),
    T(MSG_TRACE_OUTPUT),
    T(MSG_SNOOP_ON),
    T(MSG_SNOOP_OFF),
    T(MSG_SNOOP_REPORT),
    T(MSG_SERVICE_INFO_REQUEST),
    T(MSG_SERVICE_INFO),
    T(MSG_PROCESS_START_FAILED),
    T(MSG_PROCESS_STARTED),
    T(MSG_PROCESS_ENDED),
    T(MSG_WAN_PROGRESS),
    T(MSG_WAN_DONE),
    T(MSG_SCM_REGISTER),
    T(MSG_SCM_REGISTER_ACK),
    T(MSG_SCM_REGISTER_NACK),
    T(MSG_SCM_GETCONFIG),
    T(MSG_SCM_GETCONFIG_ACK),
    T(MSG_SCM_RUN),
    T(MSG_SCM_RUN_ACK),
    T(MSG_SCM_NOP),
    T(MSG_SCM_WDT),
    T(MSG_SCM_WDT_ACK),
    T(MSG_SCM_SETCONFIG),
    T(MSG_SCM_SETCONFIG_ACK),
    T(MSG_SCM_SETCONFIG_NACK),
    T(MSG_SCM_SERVICE_INFO_REQUEST),
    T(MSG_SCM_SERVICE_INFO),
    T(MSG_SCM_TECH_UNKNOWN),
    T(MSG_SCM_SET_SERVICE_TECH),
    T(MSG_SCM_BROADCAST_CONFIG),
    T(MSG_SCM_STORE_RECORD),
    T(MSG_SCM_GET_STORED_RECORD),
    T(MSG_SCM_NOTIFICATION_REQUEST),
    T(MSG_SCM_SYSTEM_REBOOT),
    T(MSG_SCM_SYNTAX_ERROR),
    T(MSG_SCM_NOTIFICATION),
    T(MSG_SCM_HEALTH),
    T(MSG_SCM_TECH_HEALTH_TIMEOUT),
    T(MSG_SCM_TRACE_LOG),
    T(MSG_SCM_LOG_REQUEST),
    T(MSG_SCM_LOG_FETCH),
    T(MSG_SCM_LOG_DELETE),
    T(MSG_SERIAL_DATA),
    T(MSG_SERIAL_WRITABLE),
};
#undef T

// The enumerators declared in orvo_msgtypes.h, read from the header itself.
std::vector<std::string> DeclaredNames()
{
    std::ifstream header(ORVO_SOURCE_DIR "/include/orvo_msgtypes.h");
    const std::regex enumerator("^\\s*(MSG_\\w+) = 0x");
    std::vector<std::string> names;
    std::smatch m;
    for (std::string line; std::getline(header, line);)
        if (std::regex_search(line, m, enumerator))
            names.push_back(m[1]);
    return names;
}

}  // namespace

TEST(Tesk, EveryKnownTypeHasItsOwnName)
{
    std::set<std::string> seen;
    for (const auto& known : kKnownTypes) {
        const unsigned long type = known.type;
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

// Each name of orvo_msgtypes.h is "MSG_" + the catalogue's name of its value
// (a catalogue name that starts with "MSG_" keeps one prefix), and the table
// above covers every enumerator of the header.
TEST(Tesk, NamedMessageTypesMatchTheCatalogue)
{
    std::vector<std::string> tested;
    for (const auto& known : kKnownTypes) {
        const std::string text = GetMsgTypeTxt(known.type);
        const std::string expected = text.rfind("MSG_", 0) == 0 ? text : "MSG_" + text;
        EXPECT_EQ(known.name, expected) << std::hex << known.type;
        tested.push_back(known.name);
    }
    EXPECT_EQ(tested, DeclaredNames());
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
