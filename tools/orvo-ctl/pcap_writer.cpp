#include "pcap_writer.h"

namespace orvo_ctl {

namespace {

void Le32(std::string& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out += static_cast<char>((v >> (8 * i)) & 0xFF);
}
void Le16(std::string& out, uint16_t v)
{
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>(v >> 8);
}
void Be16(std::string& out, uint16_t v)
{
    out += static_cast<char>(v >> 8);
    out += static_cast<char>(v & 0xFF);
}
void Be32(std::string& out, uint32_t v)
{
    for (int i = 3; i >= 0; --i)
        out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

// The ones' complement sum of the IPv4 header, as receivers check it.
uint16_t IpChecksum(const std::string& header)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < header.size(); i += 2)
        sum += (static_cast<uint8_t>(header[i]) << 8) | static_cast<uint8_t>(header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

const uint32_t kLoopback = 0x7F000001;
const size_t kHeaders = 40;                      // IPv4 (20) + TCP (20)
const size_t kMaxPayload = 65535 - kHeaders;     // one IPv4 packet

}  // namespace

bool cPcapWriter::Open(const std::string& path, uint16_t servicePort)
{
    Close();
    m_File = std::fopen(path.c_str(), "wb");
    if (m_File == nullptr)
        return false;
    m_ServicePort = servicePort;
    std::string header;
    Le32(header, 0xA1B2C3D4);   // magic: microsecond time stamps
    Le16(header, 2);
    Le16(header, 4);
    Le32(header, 0);            // time zone
    Le32(header, 0);            // accuracy
    Le32(header, 65535);        // snap length
    Le32(header, 101);          // LINKTYPE_RAW: packets start with the IP header
    return std::fwrite(header.data(), 1, header.size(), m_File) == header.size() && std::fflush(m_File) == 0;
}

bool cPcapWriter::Write(const std::string& frame, bool sentByService, long long timeMs)
{
    if (m_File == nullptr)
        return false;
    // Frames are at most 196606 bytes: a longer one goes out as several
    // segments, as TCP would carry it.
    for (size_t done = 0; done < frame.size() || frame.empty(); done += kMaxPayload) {
        const std::string part = frame.substr(done, kMaxPayload);
        uint32_t& seq = sentByService ? m_SeqFromService : m_SeqToService;
        const uint32_t ack = sentByService ? m_SeqToService : m_SeqFromService;
        const uint16_t total = static_cast<uint16_t>(kHeaders + part.size());

        std::string ip;
        ip += '\x45';
        ip += '\0';
        Be16(ip, total);
        Be16(ip, m_IpId++);
        Be16(ip, 0x4000);       // don't fragment
        ip += '\x40';           // TTL 64
        ip += '\x06';           // TCP
        Be16(ip, 0);
        Be32(ip, kLoopback);
        Be32(ip, kLoopback);
        const uint16_t sum = IpChecksum(ip);
        ip[10] = static_cast<char>(sum >> 8);
        ip[11] = static_cast<char>(sum & 0xFF);

        std::string tcp;
        Be16(tcp, sentByService ? m_ServicePort : kPeerPort);
        Be16(tcp, sentByService ? kPeerPort : m_ServicePort);
        Be32(tcp, seq);
        Be32(tcp, ack);
        Be16(tcp, 0x5018);      // header length 20, PSH + ACK
        Be16(tcp, 0xFFFF);      // window
        Be16(tcp, 0);           // checksum left out, as on the loopback
        Be16(tcp, 0);
        seq += static_cast<uint32_t>(part.size());

        std::string record;
        Le32(record, static_cast<uint32_t>(timeMs / 1000));
        Le32(record, static_cast<uint32_t>(timeMs % 1000) * 1000);
        Le32(record, total);
        Le32(record, total);
        record += ip + tcp + part;
        if (std::fwrite(record.data(), 1, record.size(), m_File) != record.size())
            return false;
        if (frame.empty())
            break;
    }
    return std::fflush(m_File) == 0;
}

void cPcapWriter::Close()
{
    if (m_File != nullptr)
        std::fclose(m_File);
    m_File = nullptr;
}

}  // namespace orvo_ctl
