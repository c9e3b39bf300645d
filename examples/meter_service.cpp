// meter_service - a small service of the platform: it registers with the
// SCM, takes its configuration from there, offers the technology "meter",
// answers "read register" requests and the SCM's watchdog, and counts energy
// on a timer whose period the SCM configures ("tick-ms"; a pushed change
// takes effect at once).
//
//     meter_service -scm-sap 127.0.0.1:47000 [-log-stdout]
//
// A client sends a message of type 0x20001 with a uint "register" and gets a
// 0x20002 back with the request's transaction id, "register" and "value".
// The service ends when the SCM goes away, on SIGTERM or Ctrl-C.
#include <orvo.h>

using namespace orvo;

namespace {

const unsigned long kMsgRead = 0x20001;
const unsigned long kMsgReadReply = 0x20002;
const unsigned long kMsgTick = 0x20010;

tArg gArgs[] = {
    {nullptr, "#Meter service", nullptr, nullptr},
    {"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
    {"-ip", "address other services reach this one at", "127.0.0.1", OnArg_Text},
    {"-port", "TCP port of the service access point (0: any)", "0", OnArg_Int},
    {"-log-stdout", "write traces to standard output", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

cUnit UnitMeter("meter", INFO, OUTPUT_NONE);   // lines reach the SCM; -log-stdout shows them here

unsigned long TickMs()
{
    const unsigned int ms = GetConfig()->GetFirstPar("tick-ms").GetUInt();
    return ms > 0 ? ms : 1000;
}

// Runs on the main thread (see main), so ThreadMain has nothing to do.
class cMeterService : public cScmService {
public:
    void ThreadMain() override {}
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    const std::string ip = GetConfig()->GetFirstPar("ip").GetString();
    const int port = GetConfig()->GetFirstPar("port").GetSInt();

    cMeterService service;
    service.SetControlAccess(cControlAccess::Loopback());   // control messages from this device only
    service.Init("meter", cSocketAddr(ip.c_str(), static_cast<unsigned short>(port)), "restart");
    cTimer tick(&service, true, nullptr);

    unsigned long long energy = 0;
    cMsg msg;
    while (service.GetMessage(msg)) {
        switch (msg.GetType()) {
        case MSG_SCM_GETCONFIG_ACK:   // configuration arrived: run
            tick.Start(TickMs(), kMsgTick);
            service.SetReady();
            service.SetServiceTech("meter", 1);
            ORVO_TRACE(&UnitMeter, INFO, FormatString("meter ready, sap %s, tick %lu ms",
                                                      service.GetSapAddress().ToString().c_str(), TickMs()));
            break;
        case MSG_SCM_SETCONFIG:       // a pushed change: the period may differ
            tick.Start(TickMs(), kMsgTick);
            ORVO_TRACE(&UnitMeter, INFO, FormatString("new configuration, tick %lu ms", TickMs()));
            break;
        case MSG_SCM_WDT:
            service.SetWDT(msg);
            break;
        case MSG_TERMINATE_REQUEST:   // SIGTERM, or the SCM refused the registration
            break;
        case kMsgTick:
            energy += 25;
            break;
        case kMsgRead:
            if (msg.GetChannel() != nullptr) {
                cMsg reply(kMsgReadReply);
                reply.SetTid(msg.GetTid());
                reply.GetRecord().AppendUIntPar("register", msg.GetRecord().GetFirstPar("register").GetUInt());
                reply.GetRecord().AppendUInt64Par("value", energy);
                msg.GetChannel()->Send(reply);
            }
            break;
        default:
            break;
        }
    }
    tick.Stop();
    service.DeInit();
    orvoDeinit();
    return 0;
}
