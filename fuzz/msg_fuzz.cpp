// Message payloads from an untrusted peer. The first input byte picks the
// kind (0-4, 4 being invalid), the rest is the payload. A parsed message is
// printed, carried through its record form and serialised again; both paths
// must give the same message back, and a complete payload whose token (if
// any) resolved must serialise to exactly the input bytes.
#define ORVO_SOURCE "orvo_msg"
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvo_handle.h"
#include "orvo_msg.h"
#include "orvo_record.h"

using namespace orvo;

namespace {

// A registered stand-in for a state machine; being the first object in the
// table its handle is small, so the fuzzer finds tokens that resolve.
int gStatem;
const uint32_t gStatemHandle = HandleCreate(&gStatem, HANDLE_STATEM);

void Check(bool ok)
{
    if (!ok)
        std::abort();
}

std::string RecordBytes(const cRecord& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

bool SameMessage(const cMsg& a, const cMsg& b)
{
    return std::memcmp(a.GetHeader(), b.GetHeader(), 4) == 0 &&
           a.GetTid().IsValid() == b.GetTid().IsValid() && a.GetTid() == b.GetTid() &&
           a.GetStatem() == b.GetStatem() && RecordBytes(a.GetRecord()) == RecordBytes(b.GetRecord());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > (1u << 20))
        return 0;
    Check(gStatemHandle != 0);
    const unsigned char kind = data[0] % 5;
    // A heap copy of exactly the payload, so any overread is caught.
    std::string payload(reinterpret_cast<const char*>(data) + 1, size - 1);
    const int n = static_cast<int>(payload.size());

    cMsg msg;
    int rc = msg.Create(kind, payload.data(), n, nullptr, nullptr);
    if (kind > 3) {
        Check(rc == -1);
        return 0;
    }
    if (n < 4) {
        Check(rc == -2);
        return 0;
    }
    Check(rc == 1);
    Check(msg.GetType() <= 0xFFFFFF);
    Check(msg.GetType() == (static_cast<unsigned long>(static_cast<unsigned char>(payload[0])) |
                            static_cast<unsigned long>(static_cast<unsigned char>(payload[1])) << 8 |
                            static_cast<unsigned long>(static_cast<unsigned char>(payload[2])) << 16));
    Check(msg.GetStatem() == nullptr || msg.GetStatem() == reinterpret_cast<cStateMachine*>(&gStatem));

    std::string text = msg.ToString();
    Check(text.size() >= 2 && text.front() == '{' && text.back() == '}');

    cRecord rec;
    msg.ToRecord(rec);
    cMsg fromRec;
    Check(fromRec.FromRecord(rec));
    Check(SameMessage(msg, fromRec));

    std::string out;
    Check(msg.Serialize(kind, out) == 1);
    Check(static_cast<int>(out.size()) == msg.GetPayloadSize(kind));
    const int fixed = 4 + ((kind & 1) ? 16 : 0) + ((kind & 2) ? 4 : 0);
    if (n >= fixed && (!(kind & 2) || msg.GetStatem() != nullptr))
        Check(out == payload);
    cMsg again;
    Check(again.Create(kind, out.data(), static_cast<int>(out.size()), nullptr, nullptr) == 1);
    Check(SameMessage(msg, again));
    return 0;
}
