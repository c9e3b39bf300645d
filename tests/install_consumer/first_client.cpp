// Test client of examples/first_service, started by orvo-scm next to it: finds
// the technology "first" through the SCM, sends one note and checks that the
// reply carries the note's transaction id and a journal count. Traces
// "reply ok, count N" or "bad reply ..." (seen in orvo-scm's output) and ends
// with 0 on a good reply, 1 otherwise.
#include <orvo.h>

using namespace orvo;

namespace {

tArg gArgs[] = {{"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
                {"-ip", "address of this service's sap", "127.0.0.1", OnArg_Text},
                {nullptr, nullptr, nullptr, nullptr}};

cUnit UnitClient("client", INFO, OUTPUT_NONE);

class cClientService : public cScmService {
public:
    void ThreadMain() override {}
};

class cFirstLink : public cScmServiceIO {
public:
    explicit cFirstLink(cScmService* owner) : cScmServiceIO(owner, "first") {}
    int m_Result = -1;   // -1 waiting, 0 good reply, 1 bad reply

    void OnConnect() override
    {
        cMsg note(0x20101);
        m_Tid.Create();
        note.SetTid(m_Tid);
        note.GetRecord().AppendTextPar("note", "hello from the client");
        Send(note);
    }
    int DispatchMessage(const cMsg& msg) override
    {
        if (!IsMsgFromHere(msg) || msg != 0x20102)
            return 0;
        const unsigned int count = msg.GetRecord().GetFirstPar("count").GetUInt();
        m_Result = msg.GetTid() == m_Tid && count >= 1 ? 0 : 1;
        ORVO_TRACE(&UnitClient, INFO,
                   FormatString("%s, count %u", m_Result == 0 ? "reply ok" : "bad reply", count));
        return 1;
    }

private:
    cUuid m_Tid;
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    cClientService service;
    service.Init("client", cSocketAddr("127.0.0.1", 0), "none");
    cFirstLink link(&service);
    cMsg msg;
    while (link.m_Result < 0 && service.GetMessage(msg)) {
        if (msg == MSG_SCM_WDT) {
            service.SetWDT(msg);
            continue;
        }
        if (msg == MSG_SCM_GETCONFIG_ACK)
            service.SetReady();
        link.ProcessMsg(msg);   // the configuration starts its look-up of "first"
    }
    const int result = link.m_Result == 0 ? 0 : 1;
    service.DeInit();
    orvoDeinit();
    return result;
}
