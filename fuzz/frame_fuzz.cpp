// Frame reassembly from an untrusted peer. The first input byte picks the
// mode (bit 0: datagram, else stream) and seeds the chunking; the rest is
// the received byte stream, cut into chunks of 1 to 8192 (stream) or 16384
// (datagram) bytes as a socket would deliver them.
//
// Oracle: a plain reference parser over the same bytes. A stream ends at the
// first header whose length lies outside 6..196606; a datagram socket drops
// what it holds at such a header and goes on with the next datagram. The
// reader must hand out exactly the reference's frames, in order, and the
// message sockets must turn each of them into one message (plus the close
// message of a broken stream) without crashing.
#define ORVO_SOURCE "orvo_msgsocket"
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "orvo_msg.h"
#include "orvo_msgsocket.h"

using namespace orvo;

namespace {

void Check(bool ok)
{
    if (!ok)
        std::abort();
}

struct tFrame {
    unsigned char type;
    std::string payload;
    bool operator==(const tFrame& o) const { return type == o.type && payload == o.payload; }
};

uint32_t Le32(const std::string& s, size_t at)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}

// Appends the frames complete in pending, leaving the rest there; false on
// a header with a length outside 6..196606.
bool ReferenceParse(std::string& pending, std::vector<tFrame>& out)
{
    size_t at = 0;
    while (pending.size() - at >= 6) {
        uint32_t length = Le32(pending, at + 2);
        if (length < 6 || length > 196606)
            return false;
        if (pending.size() - at < length)
            break;
        out.push_back({static_cast<unsigned char>(pending[at + 1]), pending.substr(at + 6, length - 6)});
        at += length;
    }
    pending.erase(0, at);
    return true;
}

void Collect(void* ctx, unsigned char type, const unsigned char* payload, int size)
{
    static_cast<std::vector<tFrame>*>(ctx)->push_back(
        {type, std::string(reinterpret_cast<const char*>(payload), static_cast<size_t>(size))});
}

// Message sockets without descriptor or service that count what they hand on.
class cCountTcp : public cMsgTcpSocket {
public:
    cCountTcp() : cMsgTcpSocket(nullptr, nullptr) {}
    // The close event is counted where it is raised: a frame may itself carry
    // a message of the close event's type.
    void OnClose() override { ++closed; }
    void OnMsg(cMsg&) override { ++msgs; }
    size_t msgs = 0, closed = 0;
};

class cCountUdp : public cMsgUdpSocket {
public:
    cCountUdp() : cMsgUdpSocket(nullptr, nullptr) {}
    void OnMsg(cMsg&) override { ++msgs; }
    size_t msgs = 0;
};

// Made once: each holds two 196607-byte buffers.
cFrameReader* gReader = new cFrameReader;
cCountTcp* gTcp = new cCountTcp;
cCountUdp* gUdp = new cCountUdp;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > (1u << 20))
        return 0;
    const bool datagram = (data[0] & 1) != 0;
    const std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t maxChunk = datagram ? 16384 : 8192;

    gReader->Clear();
    gTcp->Close();
    gTcp->msgs = gTcp->closed = 0;
    gUdp->Close();
    gUdp->msgs = 0;

    std::vector<tFrame> got, expected;
    std::string pending;
    bool broken = false;
    uint32_t seed = data[0] * 2654435761u + 1;
    for (size_t at = 0; at < stream.size() && !broken;) {
        seed = seed * 1103515245u + 12345u;
        size_t n = 1 + (seed >> 8) % maxChunk;
        if ((seed >> 4) % 4 == 0)
            n = 1 + (seed >> 8) % 7;     // header-sized cuts
        if (n > stream.size() - at)
            n = stream.size() - at;
        const std::string chunk = stream.substr(at, n);
        at += n;

        pending += chunk;
        const bool refOk = ReferenceParse(pending, expected);
        const int fed = gReader->Feed(chunk.data(), static_cast<int>(chunk.size()), &Collect, &got);
        Check(fed == (refOk ? cFrameReader::FEED_OK : cFrameReader::FEED_BROKEN));
        Check(gReader->size() == (refOk ? pending.size() : 0));
        Check(gReader->size() < kFrameBufferSize);
        if (datagram)
            gUdp->OnReceiveFrom(cSocketAddr("127.0.0.1", 9), chunk.data(), static_cast<int>(chunk.size()));
        else
            Check(gTcp->OnRead(chunk.data(), static_cast<int>(chunk.size())) == static_cast<int>(n));
        if (!refOk) {
            pending.clear();
            broken = !datagram;
        }
    }
    Check(got == expected);
    if (datagram) {
        Check(gUdp->msgs == expected.size());
    } else {
        Check(gTcp->msgs == expected.size());
        Check(gTcp->closed == (broken ? 1u : 0u));
    }
    return 0;
}
