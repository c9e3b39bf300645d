// SCM protocol messages from an untrusted SCM (and technology peers): any
// message type with any record goes through the protocol engine of a
// cScmService and through cScmServiceIO::ProcessMsg. Input layout:
//   byte 0   message type: an index into the protocol's types, or (the
//            last index) a 24-bit type from bytes 2..4
//   byte 1   bit 0 the message comes from the SCM socket, bit 4 from the
//            technology socket; bit 1 its id is the pending configuration
//            request's; bits 2/3/5/6 put well-formed "service-id" (this
//            service's), "path" (""), "service-tech" ("meter"), "command"
//            ("add-technology") in front of the fuzzed record bytes
//   rest     record bytes
// The two messages that end the process on purpose (a protocol error, a
// failed connect of the SCM socket) are skipped. Technology SAPs outside
// 127.0.0.1 are not connected to: nothing leaves this machine.
// Checked: no crash; a configuration answer that does not carry the
// pending id leaves the configuration as it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvo_init.h"
#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_record.h"
#include "orvo_scm.h"
#include "orvo_scmio.h"
#include "orvo_socketaddr.h"

using namespace orvo;

namespace {

struct cFuzzScmService : cScmService {
    void ThreadMain() override {}
};

const unsigned long kTypes[] = {
    MSG_SOCKET_CONNECTED, MSG_SOCKET_CLOSED, MSG_SOCKET_CONNECT_FAILED, MSG_SCM_REGISTER_ACK,
    MSG_SCM_REGISTER_NACK, MSG_SCM_GETCONFIG_ACK, MSG_SCM_RUN_ACK, MSG_SCM_NOP, MSG_SCM_WDT,
    MSG_SCM_SETCONFIG, MSG_SCM_SERVICE_INFO, MSG_SCM_TECH_UNKNOWN, MSG_SCM_NOTIFICATION,
    MSG_SCM_HEALTH, MSG_SCM_TECH_HEALTH_TIMEOUT, MSG_SCM_SYNTAX_ERROR,
};
const size_t kTypeCount = sizeof kTypes / sizeof kTypes[0];

struct sWorld {
    cFuzzScmService svc;
    cScmServiceIO io;
    cRecord baseConfig;
    sWorld() : io(&svc, "meter")
    {
        GetConfig()->AppendTextPar("scm-sap", "127.0.0.1:9");
        GetConfig()->AppendTextPar("ip", "127.0.0.1");
        svc.Init("fuzz", cSocketAddr("127.0.0.1", 0), "log");
        baseConfig = *GetConfig();
    }
};

sWorld& World()
{
    static sWorld* world = new sWorld();
    return *world;
}

std::string Bytes(const cRecord& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

// Whether the io would connect somewhere other than this machine.
bool LeavesMachine(const cMsg& m)
{
    const cScmServiceInfo info(m.GetRecord());
    if (!info.IsValid())
        return false;
    for (const std::string& t : info.GetTech()) {
        if (t == "meter" && cSocketAddr(info.GetSAP().c_str(), 0).GetIP() != 0x7F000001u)
            return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > (1u << 16))
        return 0;
    sWorld& w = World();
    *GetConfig() = w.baseConfig;

    const size_t pick = data[0] % (kTypeCount + 1);
    const uint8_t flags = data[1];
    size_t offs = 2;
    unsigned long type;
    if (pick < kTypeCount) {
        type = kTypes[pick];
    } else {
        if (size < 5)
            return 0;
        type = data[2] | data[3] << 8 | static_cast<unsigned long>(data[4]) << 16;
        offs = 5;
    }
    cChannel* channel = nullptr;
    if (flags & 0x01)
        channel = w.svc.GetScmSocket();
    else if (flags & 0x10)
        channel = &w.io.GetSocket();
    if (type == MSG_SCM_SYNTAX_ERROR ||
        (type == MSG_SOCKET_CONNECT_FAILED && channel == w.svc.GetScmSocket()))
        return 0;

    cRecord head;
    if (flags & 0x04)
        head.AppendUuidPar("service-id", w.svc.GetServiceId());
    if (flags & 0x08)
        head.AppendTextPar("path", "");
    if (flags & 0x20)
        head.AppendTextPar("service-tech", "meter");
    if (flags & 0x40)
        head.AppendTextPar("command", "add-technology");
    const std::string bytes = Bytes(head) + std::string(reinterpret_cast<const char*>(data) + offs, size - offs);

    cMsg msg(type, channel, nullptr);
    msg.SetRecord(cRecord(bytes.data(), static_cast<int>(bytes.size())));
    if (flags & 0x02)
        msg.SetTid(w.svc.GetPendingConfigId());
    const bool pending = msg.GetTid().IsValid() && msg.GetTid() == w.svc.GetPendingConfigId();

    cMsg forIo = msg;
    const std::string before = Bytes(*GetConfig());
    w.svc.PreDispatchMessage(msg);
    if (type == MSG_SCM_GETCONFIG_ACK && !pending && Bytes(*GetConfig()) != before)
        std::abort();
    if (!LeavesMachine(forIo))
        w.io.ProcessMsg(forIo);
    return 0;
}
