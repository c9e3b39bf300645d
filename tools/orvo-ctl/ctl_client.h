// ctl_client.h - orvo-ctl's blocking message client: one TCP connection to a
// service's sap or the SCM, framed messages written and read with plain
// socket calls and a time-out on every wait.
#pragma once

#include <string>

#include <orvo_msg.h>

namespace orvo_ctl {

class cCtlClient {
public:
    cCtlClient() = default;
    cCtlClient(const cCtlClient&) = delete;
    cCtlClient& operator=(const cCtlClient&) = delete;
    ~cCtlClient() { Close(); }

    // "host:port" (IPv4 address or host name); false with a message in error.
    bool Connect(const std::string& address, int timeoutMs, std::string& error);
    void Close();
    bool Send(const orvo::cMsg& msg);
    // The next message; false on time-out (timedOut set) or a closed connection.
    bool Receive(orvo::cMsg& msg, int timeoutMs, bool& timedOut);
    // The next message with tid, dropping others, within timeoutMs overall.
    bool ReceiveAnswer(orvo::cMsg& msg, const orvo::cUuid& tid, int timeoutMs, bool& timedOut);

private:
    int m_Fd = -1;
    std::string m_In;
};

// The message's whole frame as a TCP message socket sends it: 6-byte header
// (version 4, kind 1 with a tid and 0 without, little-endian total length),
// then the payload.
std::string Frame(const orvo::cMsg& msg);

// A message of type with a fresh transaction id.
orvo::cMsg Request(unsigned long type);

}  // namespace orvo_ctl
