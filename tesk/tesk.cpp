#define ORVO_SOURCE "tesk"
#include "tesk.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

#ifndef TESK_VERSION_TEXT
#define TESK_VERSION_TEXT "3.20.0"
#endif

namespace orvo {

namespace {

struct tMsgTypeName {
    uint32_t type;     // 24-bit message type
    const char* name;  // upper-case identifier, static storage
};

// Sorted by type, strictly ascending (checked below): GetMsgTypeTxt relies on
// it for the binary search. docs/message_types.md lists the same entries with
// their meaning; keep the two in step.
constexpr tMsgTypeName kNames[] = {
    // Service loop and framing (group 0x001)
    {0x001000, "RASTER_TIMER"},
    {0x001002, "MSG_UNDECODABLE"},
    {0x001003, "SELECT_FAILED"},
    {0x001004, "INTERRUPT_REQUEST"},
    {0x001005, "TERMINATE_REQUEST"},
    {0x001006, "STOP"},
    {0x001007, "SERVICE_TRACE"},
    {0x002015, "WAIT_TIMEOUT"},
    // Socket events
    {0x003001, "SOCKET_DATA"},
    {0x003002, "SOCKET_WRITABLE"},
    {0x003004, "MSG_IN_RECORD"},
    {0x004000, "SOCKET_CONNECT_FAILED"},
    {0x004001, "SOCKET_ACCEPTED"},
    {0x004002, "SOCKET_CONNECTED"},
    {0x004003, "SOCKET_CLOSED"},
    {0x004004, "SOCKET_TLS_FAILED"},
    {0x004005, "ICMP_ECHO_REPLY"},
    {0x004006, "ICMP_ERROR"},
    // State machine
    {0x005000, "STATEM_RUN"},
    // Library control: trace, snoop, service information
    {0x007000, "TRACE_ON"},
    {0x007001, "TRACE_OFF"},
    {0x007002, "TRACE_OUTPUT"},
    {0x007003, "SNOOP_ON"},
    {0x007004, "SNOOP_OFF"},
    {0x007005, "SNOOP_REPORT"},
    {0x007006, "SERVICE_INFO_REQUEST"},
    {0x007007, "SERVICE_INFO"},
    // Child processes
    {0x008000, "PROCESS_START_FAILED"},
    {0x008001, "PROCESS_STARTED"},
    {0x008002, "PROCESS_ENDED"},
    // WAN transfers
    {0x009000, "WAN_PROGRESS"},
    {0x009001, "WAN_DONE"},
    // SCM protocol
    {0x010000, "SCM_REGISTER"},
    {0x010001, "SCM_REGISTER_ACK"},
    {0x010002, "SCM_REGISTER_NACK"},
    {0x010003, "SCM_GETCONFIG"},
    {0x010004, "SCM_GETCONFIG_ACK"},
    {0x010006, "SCM_RUN"},
    {0x010007, "SCM_RUN_ACK"},
    {0x010008, "SCM_NOP"},
    {0x010009, "SCM_WDT"},
    {0x01000a, "SCM_WDT_ACK"},
    {0x010015, "SCM_SETCONFIG"},
    {0x010016, "SCM_SETCONFIG_ACK"},
    {0x010017, "SCM_SETCONFIG_NACK"},
    {0x010018, "SCM_SERVICE_INFO_REQUEST"},
    {0x010019, "SCM_SERVICE_INFO"},
    {0x01001a, "SCM_TECH_UNKNOWN"},
    {0x01001b, "SCM_SET_SERVICE_TECH"},
    {0x01001e, "SCM_BROADCAST_CONFIG"},
    {0x010028, "SCM_STORE_RECORD"},
    {0x01002b, "SCM_GET_STORED_RECORD"},
    {0x01006c, "SCM_NOTIFICATION_REQUEST"},
    {0x0100ce, "SCM_SYSTEM_REBOOT"},
    {0x01012c, "SCM_SYNTAX_ERROR"},
    {0x010140, "SCM_NOTIFICATION"},
    {0x010141, "SCM_HEALTH"},
    {0x01014d, "SCM_TECH_HEALTH_TIMEOUT"},
    {0x010190, "SCM_TRACE_LOG"},
    {0x01019a, "SCM_LOG_REQUEST"},
    {0x01019d, "SCM_LOG_FETCH"},
    {0x0101a0, "SCM_LOG_DELETE"},
    // Serial port driven through the proxy socket
    {0x080008, "SERIAL_DATA"},
    {0x080009, "SERIAL_WRITABLE"},
};

constexpr bool IsSortedCatalogue()
{
    for (std::size_t i = 0; i < std::size(kNames); ++i) {
        if (kNames[i].type > 0xFFFFFFu || kNames[i].name == nullptr ||
            kNames[i].name[0] == '\0')
            return false;
        if (i > 0 && kNames[i - 1].type >= kNames[i].type)
            return false;
    }
    return true;
}
static_assert(IsSortedCatalogue(),
              "catalogue must be 24-bit types, strictly ascending, named");

// One buffer per thread for the text of unknown types, so that concurrent
// callers never see each other's numbers. "0x" + 6 digits + NUL.
thread_local char tHexText[16];

}  // namespace

const char* GetMsgTypeTxt(unsigned long type)
{
    const uint32_t key = static_cast<uint32_t>(type & 0xFFFFFFul);
    const tMsgTypeName* end = kNames + std::size(kNames);
    const tMsgTypeName* it = std::lower_bound(
        kNames, end, key,
        [](const tMsgTypeName& e, uint32_t k) { return e.type < k; });
    if (it != end && it->type == key)
        return it->name;
    std::snprintf(tHexText, sizeof tHexText, "0x%06lX",
                  static_cast<unsigned long>(key));
    return tHexText;
}

const char* GetTeskVersion()
{
    return TESK_VERSION_TEXT;
}

void ClearMessageTxtFunc()
{
    // The table is constant data and the hex buffers belong to their threads:
    // nothing is held that could be released here.
}

}  // namespace orvo
