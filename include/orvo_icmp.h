// orvo_icmp.h - cIcmpSocket: ICMP echo requests over a raw socket, each
// answer reported as a message with its round-trip time.
//
// Open it with Socket(AF_INET, SOCK_RAW, IPPROTO_ICMP) (needs CAP_NET_RAW);
// the channel is watched for reading at once. A raw ICMP socket sees every
// ICMP packet that reaches the host, the answers to other processes' pings
// included: the owner matches replies by their "ID" and "SEQ".
//
// Request layout (8-byte header, then the payload):
//   0 type 8 | 1 code 0 | 2-3 checksum (RFC 1071) | 4-5 identifier 1 |
//   6-7 sequence | 8.. payload (1 to 1015 bytes, otherwise none)
// Identifier and sequence are written in the host's byte order, not the
// network's, and read back from replies the same way; the kernel echoes the
// bytes unchanged, so the owner sees the values it sent.
//
// Reports, handed to OnMsg with this socket as channel:
//   0x4005 echo reply (type 0, code 0): "ADDR" (text "a.b.c.d:port"),
//          "TYPE", "CODE", "CKSUM", "ID", "SEQ" (uint, the reply's header
//          fields in host order), "RT" (uint, ms since the latest request),
//          "DATA" (the reply's payload, only when it has one)
//   0x4006 any other ICMP message: "ADDR", "reason" ("ICMP_ERROR: typ %u
//          code %u"), "TYPE", "CODE"
//   0x4006 a packet below 28 bytes: "ADDR", "reason" (its length, "%i")
// Received packets are taken to start with a 20-byte IPv4 header (options
// are not looked at). Only the latest request's send time is kept: with
// several requests outstanding, every "RT" counts from the latest one.
//
// Thread safety: as every socket, used from its service's thread only.
#pragma once

#include <cstdint>

#include "orvo_data.h"
#include "orvo_socket.h"

namespace orvo {

class ORVO_API cIcmpSocket : public cUdpSocket {
public:
    // Largest payload a request carries.
    static const int kMaxPayload = 1015;

    cIcmpSocket(cService* service, cStateMachine* statem);
    ~cIcmpSocket() override;

    // Sends one echo request to `to` with payload (left out when it is
    // empty or longer than kMaxPayload). Returns SendTo's result (bytes
    // sent, or -1 with errno).
    int PingTo(const cSocketAddr& to, const cData& payload);
    int PingTo(const cSocketAddr& to);
    // Parses one received IPv4 packet into 0x4005 or 0x4006 (see above).
    void OnReceiveFrom(const cSocketAddr& from, const void* data, int size) override;

    // The sequence number of the next request (0 after construction).
    uint16_t GetSequence() const { return m_Sequence; }

    // RFC 1071 checksum: 16-bit words in memory order, an odd last byte as
    // it is, carries folded twice, complemented.
    static uint16_t Checksum(const void* data, int size);

protected:
    uint16_t m_Reserved;     // 0, unused
    uint16_t m_Sequence;     // next request's sequence number
    uint64_t m_SendTime;     // GetMsecClock() of the latest request
};

}  // namespace orvo
