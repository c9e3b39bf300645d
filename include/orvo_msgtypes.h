// orvo_msgtypes.h - the message types the library itself sends, receives or
// answers, by name.
//
// One name per type, the catalogue's name (GetMsgTypeTxt) with "MSG_" in
// front ("SOCKET_CLOSED" -> MSG_SOCKET_CLOSED; a catalogue name that already
// starts with "MSG_" keeps a single prefix: MSG_UNDECODABLE). Use these names
// in code and tests instead of bare numbers; docs/message_types.md describes
// each type's record.
#pragma once

namespace orvo {

enum eMsgType : unsigned long {
    // Service loop and framing (group 0x001)
    MSG_RASTER_TIMER = 0x1000,
    MSG_UNDECODABLE = 0x1002,
    MSG_SELECT_FAILED = 0x1003,
    MSG_INTERRUPT_REQUEST = 0x1004,
    MSG_TERMINATE_REQUEST = 0x1005,
    MSG_STOP = 0x1006,
    MSG_SERVICE_TRACE = 0x1007,
    MSG_WAIT_TIMEOUT = 0x2015,

    // Socket events
    MSG_SOCKET_DATA = 0x3001,
    MSG_SOCKET_WRITABLE = 0x3002,
    MSG_IN_RECORD = 0x3004,
    MSG_SOCKET_CONNECT_FAILED = 0x4000,
    MSG_SOCKET_ACCEPTED = 0x4001,
    MSG_SOCKET_CONNECTED = 0x4002,
    MSG_SOCKET_CLOSED = 0x4003,
    MSG_SOCKET_TLS_FAILED = 0x4004,
    MSG_ICMP_ECHO_REPLY = 0x4005,
    MSG_ICMP_ERROR = 0x4006,

    // State machine
    MSG_STATEM_RUN = 0x5000,

    // Library control: trace, snoop, service information
    MSG_TRACE_ON = 0x7000,
    MSG_TRACE_OFF = 0x7001,
    MSG_TRACE_OUTPUT = 0x7002,
    MSG_SNOOP_ON = 0x7003,
    MSG_SNOOP_OFF = 0x7004,
    MSG_SNOOP_REPORT = 0x7005,
    MSG_SERVICE_INFO_REQUEST = 0x7006,
    MSG_SERVICE_INFO = 0x7007,

    // Child processes
    MSG_PROCESS_START_FAILED = 0x8000,
    MSG_PROCESS_STARTED = 0x8001,
    MSG_PROCESS_ENDED = 0x8002,

    // WAN transfers (orvo_wan.h)
    MSG_WAN_PROGRESS = 0x9000,
    MSG_WAN_DONE = 0x9001,

    // SCM protocol
    MSG_SCM_REGISTER = 0x10000,
    MSG_SCM_REGISTER_ACK = 0x10001,
    MSG_SCM_REGISTER_NACK = 0x10002,
    MSG_SCM_GETCONFIG = 0x10003,
    MSG_SCM_GETCONFIG_ACK = 0x10004,
    MSG_SCM_RUN = 0x10006,
    MSG_SCM_RUN_ACK = 0x10007,
    MSG_SCM_NOP = 0x10008,
    MSG_SCM_WDT = 0x10009,
    MSG_SCM_WDT_ACK = 0x1000A,
    MSG_SCM_SETCONFIG = 0x10015,
    MSG_SCM_SETCONFIG_ACK = 0x10016,
    MSG_SCM_SETCONFIG_NACK = 0x10017,
    MSG_SCM_SERVICE_INFO_REQUEST = 0x10018,
    MSG_SCM_SERVICE_INFO = 0x10019,
    MSG_SCM_TECH_UNKNOWN = 0x1001A,
    MSG_SCM_SET_SERVICE_TECH = 0x1001B,
    MSG_SCM_BROADCAST_CONFIG = 0x1001E,
    MSG_SCM_STORE_RECORD = 0x10028,
    MSG_SCM_GET_STORED_RECORD = 0x1002B,
    MSG_SCM_NOTIFICATION_REQUEST = 0x1006C,
    MSG_SCM_SYSTEM_REBOOT = 0x100CE,
    MSG_SCM_SYNTAX_ERROR = 0x1012C,
    MSG_SCM_NOTIFICATION = 0x10140,
    MSG_SCM_HEALTH = 0x10141,
    MSG_SCM_TECH_HEALTH_TIMEOUT = 0x1014D,
    MSG_SCM_TRACE_LOG = 0x10190,
    MSG_SCM_LOG_REQUEST = 0x1019A,
    MSG_SCM_LOG_FETCH = 0x1019D,
    MSG_SCM_LOG_DELETE = 0x101A0,

    // Serial port driven through the proxy socket
    MSG_SERIAL_DATA = 0x80008,
    MSG_SERIAL_WRITABLE = 0x80009
};

}  // namespace orvo
