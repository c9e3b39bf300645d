// pcap_writer.h - snooped messages as a classic pcap capture (LINKTYPE_RAW):
// each message becomes one IPv4+TCP packet on 127.0.0.1 whose TCP payload is
// the message's whole frame, so capture tools decode it like live traffic.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace orvo_ctl {

class cPcapWriter {
public:
    // servicePort is the snooped service's sap port; the other side of every
    // packet is kPeerPort.
    static const uint16_t kPeerPort = 47000;

    cPcapWriter() = default;
    cPcapWriter(const cPcapWriter&) = delete;
    cPcapWriter& operator=(const cPcapWriter&) = delete;
    ~cPcapWriter() { Close(); }

    // Creates (truncates) path and writes the file header; false on failure.
    bool Open(const std::string& path, uint16_t servicePort);
    // One packet: sent by the service (source port = its sap port) or
    // received by it (destination port = its sap port). timeMs is the
    // packet's time stamp in milliseconds since the epoch.
    bool Write(const std::string& frame, bool sentByService, long long timeMs);
    void Close();

private:
    FILE* m_File = nullptr;
    uint16_t m_ServicePort = 0;
    uint32_t m_SeqFromService = 1;   // next TCP sequence number per direction
    uint32_t m_SeqToService = 1;
    uint16_t m_IpId = 0;
};

}  // namespace orvo_ctl
