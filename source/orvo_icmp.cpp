#define ORVO_SOURCE "orvo_icmp"
#include "orvo_icmp.h"

#include <cstring>

#include "orvo_msgtypes.h"
#include "orvo_time.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

const int kHeaderSize = 8;
const int kPacketSize = 1024;
const int kIpHeaderSize = 20;
const unsigned char kEchoRequest = 8;

uint16_t Read16(const unsigned char* p)
{
    uint16_t value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

void Write16(unsigned char* p, uint16_t value)
{
    std::memcpy(p, &value, sizeof value);
}

}  // namespace

cIcmpSocket::cIcmpSocket(cService* service, cStateMachine* statem)
    : cUdpSocket(service, statem), m_Reserved(0), m_Sequence(0), m_SendTime(0)
{
}

cIcmpSocket::~cIcmpSocket() = default;

uint16_t cIcmpSocket::Checksum(const void* data, int size)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    uint32_t sum = 0;
    for (; size > 1; size -= 2, p += 2)
        sum += Read16(p);
    if (size == 1) {
        uint16_t last = 0;
        std::memcpy(&last, p, 1);
        sum += last;
    }
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return static_cast<uint16_t>(~sum);
}

int cIcmpSocket::PingTo(const cSocketAddr& to)
{
    return PingTo(to, cData());
}

int cIcmpSocket::PingTo(const cSocketAddr& to, const cData& payload)
{
    unsigned char packet[kPacketSize];
    std::memset(packet, 0, sizeof packet);
    const int length = static_cast<int>(payload.GetLen());
    // A payload that does not fit is left out entirely, not cut.
    const int carried = length >= 1 && length <= kMaxPayload ? length : 0;
    if (carried > 0)
        std::memcpy(packet + kHeaderSize, payload.GetData(), static_cast<size_t>(carried));
    packet[0] = kEchoRequest;
    packet[1] = 0;
    Write16(packet + 4, 1);
    Write16(packet + 6, m_Sequence++);
    Write16(packet + 2, Checksum(packet, kHeaderSize + carried));
    m_SendTime = static_cast<uint64_t>(GetMsecClock());
    return SendTo(to, packet, kHeaderSize + carried);
}

void cIcmpSocket::OnReceiveFrom(const cSocketAddr& from, const void* data, int size)
{
    m_RemoteAddr = from;
    cMsg msg = MakeMsg(MSG_ICMP_ERROR);
    cRecord& record = msg.GetRecord();
    record.AppendTextPar("ADDR", from.ToString());
    if (size < kIpHeaderSize + kHeaderSize) {
        record.AppendTextPar("reason", FormatString("%i", size));
        OnMsg(msg);
        return;
    }
    const unsigned char* icmp = static_cast<const unsigned char*>(data) + kIpHeaderSize;
    const unsigned type = icmp[0], code = icmp[1];
    const uint32_t roundTrip = static_cast<uint32_t>(static_cast<uint64_t>(GetMsecClock()) - m_SendTime);
    if (type != 0 || code != 0) {
        record.AppendTextPar("reason", FormatString("ICMP_ERROR: typ %u code %u", type, code));
        record.AppendUIntPar("TYPE", type);
        record.AppendUIntPar("CODE", code);
        OnMsg(msg);
        return;
    }
    msg.SetType(MSG_ICMP_ECHO_REPLY);
    record.AppendUIntPar("TYPE", type);
    record.AppendUIntPar("CODE", code);
    record.AppendUIntPar("CKSUM", Read16(icmp + 2));
    record.AppendUIntPar("ID", Read16(icmp + 4));
    record.AppendUIntPar("SEQ", Read16(icmp + 6));
    record.AppendUIntPar("RT", roundTrip);
    const int payload = size - kIpHeaderSize - kHeaderSize;
    if (payload > 0)
        record.AppendDataPar("DATA", icmp + kHeaderSize, payload);
    OnMsg(msg);
}

}  // namespace orvo
