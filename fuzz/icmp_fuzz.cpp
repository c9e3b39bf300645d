// ICMP packets from the network: the input is one received IPv4 packet as
// the raw socket hands it to cIcmpSocket::OnReceiveFrom.
//
// Oracle: exactly one report per packet. Below 28 bytes: 0x4006 whose
// "reason" is the length in decimal. ICMP type and code 0 (at offsets 20
// and 21): 0x4005 whose "ID" and "SEQ" are the header's bytes read in host
// order and whose "DATA" is everything after byte 28 (absent when nothing
// follows). Otherwise 0x4006 with "ICMP_ERROR: typ <t> code <c>".
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orvo_icmp.h"
#include "orvo_msgtypes.h"

using namespace orvo;

namespace {

void Check(bool ok)
{
    if (!ok)
        std::abort();
}

struct cCollect : cIcmpSocket {
    cCollect() : cIcmpSocket(nullptr, nullptr) {}
    void OnMsg(cMsg& msg) override { got.push_back(msg); }
    std::vector<cMsg> got;
};

uint16_t Host16(const uint8_t* p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > cUdpSocket::kMaxDatagram)
        return 0;
    cCollect socket;
    const int n = static_cast<int>(size);
    socket.OnReceiveFrom(cSocketAddr("192.0.2.1", 0), data, n);
    Check(socket.got.size() == 1);
    const cMsg& m = socket.got[0];
    const cRecord& r = m.GetRecord();
    Check(r.GetFirstPar("ADDR").GetString() == "192.0.2.1:0");
    if (n < 28) {
        Check(m.GetType() == MSG_ICMP_ERROR);
        Check(r.GetFirstPar("reason").GetString() == std::to_string(n));
        return 0;
    }
    if (data[20] != 0 || data[21] != 0) {
        char reason[64];
        std::snprintf(reason, sizeof reason, "ICMP_ERROR: typ %u code %u", data[20], data[21]);
        Check(m.GetType() == MSG_ICMP_ERROR);
        Check(r.GetFirstPar("reason").GetString() == reason);
        Check(r.GetFirstPar("TYPE").GetUInt() == data[20] && r.GetFirstPar("CODE").GetUInt() == data[21]);
        return 0;
    }
    Check(m.GetType() == MSG_ICMP_ECHO_REPLY);
    Check(r.GetFirstPar("ID").GetUInt() == Host16(data + 24));
    Check(r.GetFirstPar("SEQ").GetUInt() == Host16(data + 26));
    Check(r.GetFirstPar("CKSUM").GetUInt() == Host16(data + 22));
    cRecordPar payload = r.GetFirstPar("DATA");
    if (n == 28) {
        Check(!payload.IsValid());
    } else {
        Check(payload.IsValid() && payload.GetSize() == n - 28);
        Check(std::memcmp(payload.GetData(), data + 28, size_t(n - 28)) == 0);
    }
    return 0;
}
