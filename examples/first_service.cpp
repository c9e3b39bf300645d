// first_service - a complete first service: it registers with the SCM,
// reads a value of its configuration, keeps a journal of the notes it is
// sent and answers each with the number of notes so far.
//
//     first_service -scm-sap 127.0.0.1:47000 -ip 127.0.0.1 [-port N] [-log-stdout]
//
// Request 0x20101 with a text "note"; answer 0x20102 with the request's tid,
// "greeting" (from the configuration) and "count". Exit status 0 after
// SIGTERM, Ctrl-C or the SCM's loss; 1 when the sap or the journal cannot be
// opened.
#include <orvo.h>

using namespace orvo;

namespace {

const unsigned long kMsgNote = 0x20101;
const unsigned long kMsgNoteReply = 0x20102;

tArg gArgs[] = {
    {nullptr, "#First service: keeps a journal of notes", nullptr, nullptr},
    {"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
    {"-ip", "address other processes reach this one at (the SCM hands it out)", "127.0.0.1", OnArg_Text},
    {"-port", "TCP port of the service access point (0: any)", "0", OnArg_Int},
    {"-journal", "record file of the notes", "first_service.journal", OnArg_Text},
    {"-log-stdout", "also write traces to standard output (when run without orvo-scm)", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

// The service's own trace unit; the SCM may set its level ("trace.first").
// Its lines go to the SCM, which prints them: OUTPUT_STDOUT as well would
// show each twice under orvo-scm, whose output the service shares.
cUnit UnitFirst("first", INFO, OUTPUT_NONE);

class cFirstService : public cScmService {
public:
    void ThreadMain() override {}   // the loop runs in main
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    const cRecord& config = *GetConfig();
    // GetString() gives "" for a missing value; GetText() gives a null
    // pointer, and a std::string built from it aborts the program.
    const std::string ip = config.GetFirstPar("ip").GetString();
    const int port = config.GetFirstPar("port").GetSInt();

    cFirstService service;
    service.Init("first", cSocketAddr(ip.c_str(), static_cast<unsigned short>(port)), "restart");
    if (!service.IsSapUp()) {   // Init goes on without a sap: say so and end
        ORVO_TRACE(&UnitFirst, ERROR, "no service access point; is the port taken?");
        service.DeInit();
        orvoDeinit();
        return 1;
    }
    cRecordFile journal;
    if (!journal.Open(config.GetFirstPar("journal").GetString(), true)) {
        ORVO_TRACE(&UnitFirst, ERROR, "cannot open the journal");
        service.DeInit();
        orvoDeinit();
        return 1;
    }

    cMsg msg;
    while (service.GetMessage(msg)) {   // false after SIGTERM, Ctrl-C or the SCM's loss
        if (msg == MSG_SCM_GETCONFIG_ACK) {            // the SCM's configuration arrived
            service.SetReady();
            service.SetServiceTech("first", 1);
            ORVO_TRACE(&UnitFirst, INFO, "ready at " + service.GetSapAddress().ToString());
        } else if (msg == MSG_SCM_WDT) {
            service.SetWDT(msg);                        // the SCM's watchdog
        } else if (msg == kMsgNote && msg.GetChannel() != nullptr) {
            cRecord note;
            note.AppendTextPar("note", msg.GetRecord().GetFirstPar("note").GetString());
            journal.Append(note, cTime::Now(true), journal.Count());
            cMsg reply(kMsgNoteReply);
            reply.SetTid(msg.GetTid());                 // the answer carries the request's id
            reply.GetRecord().AppendTextPar("greeting", GetConfig()->GetFirstPar("greeting").GetString());
            reply.GetRecord().AppendUIntPar("count", journal.Count());
            msg.GetChannel()->Send(reply);
            ORVO_TRACE(&UnitFirst, INFO, FormatString("note %lu stored", journal.Count()));
        }
    }
    journal.Close();
    service.DeInit();
    orvoDeinit();   // closes what the library opened, then waits one second
    return 0;
}
