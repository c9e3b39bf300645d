// A minimal service for the orvo-scm tests, speaking the SCM protocol with
// plain sockets: registers, takes its configuration, reports ready, answers
// watchdog triggers (unless told to stay silent) and accepts pushed
// configurations. It ends when the SCM closes the connection or on SIGTERM.
//
//     scm_fake_service <scm ip:port> <name> [mute-wdt]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <orvo_uuid.h>

#include "scm_client.h"

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const char* colon = std::strrchr(argv[1], ':');
    const bool muteWdt = argc > 3 && std::strcmp(argv[3], "mute-wdt") == 0;
    orvo_test::cScmClient scm;
    if (colon == nullptr || !scm.Connect(static_cast<unsigned short>(std::atoi(colon + 1))))
        return 3;
    orvo::cUuid id;
    id.Create();
    orvo::cRecord system, config;
    system.AppendUIntPar("wdt-failures", 2);
    system.AppendTextPar("wdt", "ON");
    config.AppendRecordPar("system", system);
    orvo::cMsg msg;
    if (!scm.Send(orvo_test::RegisterMsg(id, argv[2], getpid(), config)) ||
        !scm.ReceiveType(msg, 0x10001, 10000))
        return 4;
    orvo::cMsg request = orvo_test::Request(0x10003);
    request.GetRecord().AppendUuidPar("service-id", id);
    request.GetRecord().AppendTextPar("path", "");
    if (!scm.Send(request) || !scm.ReceiveType(msg, 0x10004, 10000))
        return 5;
    scm.Send(orvo_test::Request(0x10006));
    while (scm.Receive(msg, 3600 * 1000)) {
        if (msg.GetType() == 0x10009 && !muteWdt) {
            orvo::cMsg answer(0x1000A);
            answer.GetRecord().AppendUuidPar("service-id", id);
            answer.GetRecord().AppendUIntPar("seq-no", msg.GetRecord().GetFirstPar("seq-no").GetUInt());
            scm.Send(answer);
        } else if (msg.GetType() == 0x10015) {
            orvo::cMsg done(0x10016);
            done.SetTid(msg.GetTid());
            scm.Send(done);
        }
    }
    return 0;
}
