// meter_service - a complete small service: it listens on its service access
// point, answers "read register" requests with the transaction id of the
// request, and counts with a periodic timer. Stop it with Ctrl-C (SIGINT).
//
//     meter_service -port 4711 -log-stdout
//
// A client sends a message of type 0x20001 with a uint "register" and gets a
// 0x20002 back whose record holds "register" and "value".
#include <orvo.h>

using namespace orvo;

namespace {

const unsigned long kMsgRead = 0x20001;
const unsigned long kMsgReadReply = 0x20002;
const unsigned long kMsgTick = 0x20010;

tArg gArgs[] = {
    {nullptr, "#Meter service", nullptr, nullptr},
    {"-port", "TCP port of the service access point", "4711", OnArg_Int},
    {"-log-stdout", "write traces to standard output", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

cUnit UnitMeter("meter", INFO, OUTPUT_SYSLOG);

class cMeterService : public cService {
public:
    void ThreadMain() override {}  // runs on the main thread, see main()
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_SYSLOG, false);
    orvoParseArgs(gArgs, argc, argv);
    const int port = GetConfig()->GetFirstPar("port").GetSInt();

    cMeterService service;
    if (!service.Init("meter", cSocketAddr("127.0.0.1", static_cast<unsigned short>(port)))) {
        ORVO_TRACE(&UnitMeter, ERROR, "cannot start the service");
        orvoDeinit();
        return 1;
    }
    cTimer tick(&service, true, nullptr);
    tick.Start(10000, kMsgTick);

    unsigned long long energy = 0;
    unsigned int ticks = 0;
    cMsg msg;
    while (service.GetMessage(msg)) {
        if (msg == kMsgTick) {
            energy += 250;
            ORVO_TRACE(&UnitMeter, INFO, FormatString("tick %u, energy %llu Wh", ++ticks, energy));
        } else if (msg == kMsgRead && msg.GetChannel() != nullptr) {
            cMsg reply(kMsgReadReply);
            reply.SetTid(msg.GetTid());
            reply.GetRecord().AppendUIntPar("register", msg.GetRecord().GetFirstPar("register").GetUInt());
            reply.GetRecord().AppendUInt64Par("value", energy);
            msg.GetChannel()->Send(reply);
        }
    }
    tick.Stop();
    service.DeInit();
    orvoDeinit();
    return 0;
}
