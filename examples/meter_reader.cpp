// meter_reader - the second service of the platform: it registers with the
// SCM, finds the technology "meter" through it (cScmServiceIO), reads the
// energy register every "read-ms" milliseconds and prints each reading. When
// the meter service goes away and comes back (the SCM restarts it) the link
// reconnects by itself: the SCM announces the new place of "meter".
//
//     meter_reader -scm-sap 127.0.0.1:47000 [-log-stdout]
#include <orvo.h>

using namespace orvo;

namespace {

const unsigned long kMsgRead = 0x20001;
const unsigned long kMsgReadReply = 0x20002;
const unsigned long kMsgPoll = 0x20011;
const unsigned int kEnergyRegister = 180;

tArg gArgs[] = {
    {nullptr, "#Meter reader", nullptr, nullptr},
    {"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
    {"-ip", "address other services reach this one at", "127.0.0.1", OnArg_Text},
    {"-log-stdout", "write traces to standard output", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

cUnit UnitReader("reader", INFO, OUTPUT_NONE);   // lines reach the SCM; -log-stdout shows them here

// The link to whichever service offers "meter".
class cMeterLink : public cScmServiceIO {
public:
    explicit cMeterLink(cScmService* owner) : cScmServiceIO(owner, "meter") {}

    void OnConnect() override
    {
        ORVO_TRACE(&UnitReader, INFO, "connected to the meter at " + GetConnectedSAP());
        Read();
    }
    void OnClose() override { ORVO_TRACE(&UnitReader, INFO, "meter connection lost; asking the SCM again"); }

    int DispatchMessage(const cMsg& msg) override
    {
        if (msg != kMsgReadReply || !IsMsgFromHere(msg))
            return 0;
        ORVO_TRACE(&UnitReader, INFO,
                   FormatString("register %u = %llu Wh", msg.GetRecord().GetFirstPar("register").GetUInt(),
                                msg.GetRecord().GetFirstPar("value").GetUInt64()));
        return 1;
    }

    void Read()
    {
        cMsg request(kMsgRead);
        cUuid tid;
        tid.Create();
        request.SetTid(tid);
        request.GetRecord().AppendUIntPar("register", kEnergyRegister);
        Send(request);   // 0 while not connected: nothing to read from
    }
};

// Runs on the main thread (see main), so ThreadMain has nothing to do.
class cReaderService : public cScmService {
public:
    void ThreadMain() override {}
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    const std::string ip = GetConfig()->GetFirstPar("ip").GetString();

    cReaderService service;
    service.SetControlAccess(cControlAccess::Loopback());   // control messages from this device only
    service.Init("reader", cSocketAddr(ip.c_str(), 0), "restart");
    cMeterLink meter(&service);
    cTimer poll(&service, true, nullptr);

    cMsg msg;
    unsigned long answersSeen = 0;
    while (service.GetMessage(msg)) {
        // Configured (the service's own answer, not a late duplicate): run,
        // then let the link look for "meter".
        if (msg == MSG_SCM_GETCONFIG_ACK && service.GetConfigAnswersTaken() != answersSeen) {
            answersSeen = service.GetConfigAnswersTaken();
            const unsigned int ms = GetConfig()->GetFirstPar("read-ms").GetUInt();
            poll.Start(ms > 0 ? ms : 1000, kMsgPoll);
            service.SetReady();
        } else if (msg == MSG_SCM_WDT) {
            service.SetWDT(msg);
            continue;
        } else if (msg == kMsgPoll) {
            meter.Read();
            continue;
        }
        meter.ProcessMsg(msg);
    }
    poll.Stop();
    service.DeInit();
    orvoDeinit();
    return 0;
}
