// first_client - sends one note to first_service and prints the answer.
//
//     first_client -sap 127.0.0.1:PORT -note "text"
//
// Prints "count=<n> greeting=<text>"; exit status 0 on an answer, 1 when the
// service cannot be reached or does not answer within 5 seconds.
#include <cstdio>

#include <orvo.h>

using namespace orvo;

namespace {

const unsigned long kMsgNote = 0x20101;
const unsigned long kMsgNoteReply = 0x20102;

tArg gArgs[] = {
    {nullptr, "#Sends a note to first_service", nullptr, nullptr},
    {"-sap", "address of first_service", "127.0.0.1:0", OnArg_Text},
    {"-note", "the note", "hello", OnArg_Text},
    {nullptr, nullptr, nullptr, nullptr}};

class cClient : public cService {
public:
    void ThreadMain() override {}
};

}  // namespace

int main(int argc, char** argv)
{
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    int status = 1;
    {
        cClient client;
        client.Init("first-client", cSocketAddr("127.0.0.1", 0));
        cMsgTcpSocket link(&client, nullptr);
        link.Socket(AF_INET, SOCK_STREAM, 0);
        link.Connect(cSocketAddr(GetConfig()->GetFirstPar("sap").GetString().c_str(), 0));
        cMsg connected = client.WaitSyncMsg(5000, MSG_SOCKET_CONNECTED, MSG_SOCKET_CONNECT_FAILED);
        if (connected == MSG_SOCKET_CONNECTED) {
            cMsg note(kMsgNote);
            cUuid tid;
            tid.Create();
            note.SetTid(tid);
            note.GetRecord().AppendTextPar("note", GetConfig()->GetFirstPar("note").GetString());
            cMsg answer = client.SendSyncMsg(link, note, 5000, kMsgNoteReply);
            if (answer == kMsgNoteReply && answer.GetTid() == tid) {
                std::printf("count=%u greeting=%s\n", answer.GetRecord().GetFirstPar("count").GetUInt(),
                            answer.GetRecord().GetFirstPar("greeting").GetString().c_str());
                status = 0;
            }
        }
        if (status != 0)
            std::fprintf(stderr, "first_client: no answer from %s\n",
                         GetConfig()->GetFirstPar("sap").GetString().c_str());
        link.Close();
        client.DeInit();
    }
    orvoDeinit();
    return status;
}
