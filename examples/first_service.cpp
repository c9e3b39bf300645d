// first_service - the smallest complete service: registers with the SCM,
// reads its configuration, answers one kind of request and keeps a journal.
//     first_service -scm-sap 127.0.0.1:47000 -ip 127.0.0.1
// Request 0x20101 {text "note"} -> reply 0x20102 {uint "count"}, same tid.
#include <orvo.h>

using namespace orvo;

const unsigned long kMsgNote = 0x20101;
const unsigned long kMsgNoteReply = 0x20102;

tArg gArgs[] = {
    {"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
    {"-ip", "address of this service's sap, sent to the SCM", "127.0.0.1", OnArg_Text},
    {"-log-stdout", "write traces to standard output", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

// OUTPUT_NONE: under an SCM the lines reach it as trace copies already.
cUnit UnitFirst("first", INFO, OUTPUT_NONE);

class cFirstService : public cScmService {
public:
    void ThreadMain() override {}   // runs on the main thread
};

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    // GetString() gives "" for a missing element; GetText() would give null.
    const std::string ip = GetConfig()->GetFirstPar("ip").GetString();

    cFirstService service;
    // Trace, snoop and service-information requests only from this device.
    service.SetControlAccess(cControlAccess::Loopback());
    if (!service.Init("first", cSocketAddr(ip.c_str(), 0), "restart"))
        return 1;
    cRecordFile journal;
    cMsg msg;
    while (service.GetMessage(msg)) {
        if (msg == MSG_SCM_GETCONFIG_ACK) {        // the SCM sent our configuration
            std::string name = GetConfig()->GetFirstPar("journal").GetString();
            if (name.empty())
                name = "/tmp/first_service.journal";
            if (!journal.Open(name, true))
                ORVO_TRACE(&UnitFirst, ERROR, "cannot open " + name);
            service.SetReady();
            service.SetServiceTech("first", 1);
            ORVO_TRACE(&UnitFirst, INFO, "ready at " + service.GetSapAddress().ToString());
        } else if (msg == MSG_SCM_WDT) {
            service.SetWDT(msg);                    // the SCM's watchdog
        } else if (msg == kMsgNote && msg.GetChannel() != nullptr) {
            cTime now;
            now.Now(true);
            journal.Append(msg.GetRecord(), now, 0);
            cMsg reply(kMsgNoteReply);
            reply.SetTid(msg.GetTid());             // the caller matches on it
            reply.GetRecord().AppendUIntPar("count", journal.Count());
            msg.GetChannel()->Send(reply);
            ORVO_TRACE(&UnitFirst, INFO, "note: " + msg.GetRecord().GetFirstPar("note").GetString());
        }
    }
    journal.Close();
    service.DeInit();
    orvoDeinit();                                   // sleeps one second
    return 0;
}
