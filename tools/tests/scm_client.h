// A blocking message client for tests and the benchmark: one TCP connection,
// framed messages written and read with plain socket calls, so the peer's
// protocol is checked step by step without a service loop in between.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include <orvo_msg.h>

namespace orvo_test {

class cScmClient {
public:
    cScmClient() = default;
    cScmClient(const cScmClient&) = delete;
    cScmClient& operator=(const cScmClient&) = delete;
    ~cScmClient() { Close(); }

    bool Connect(unsigned short port)
    {
        Close();
        m_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        setsockopt(m_Fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        return m_Fd >= 0 && connect(m_Fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }

    void Close()
    {
        if (m_Fd >= 0)
            close(m_Fd);
        m_Fd = -1;
        m_In.clear();
    }

    bool Send(const orvo::cMsg& msg)
    {
        const unsigned char kind = msg.GetTid().IsValid() ? 1 : 0;
        std::string payload;
        msg.Serialize(kind, payload);
        const uint32_t total = static_cast<uint32_t>(payload.size() + 6);
        std::string frame;
        frame += '\x04';
        frame += static_cast<char>(kind);
        for (int i = 0; i < 4; ++i)
            frame += static_cast<char>((total >> (8 * i)) & 0xFF);
        frame += payload;
        size_t done = 0;
        while (done < frame.size()) {
            const ssize_t n = send(m_Fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // The next message, or false on time-out or a closed connection.
    bool Receive(orvo::cMsg& msg, int timeoutMs)
    {
        for (;;) {
            if (m_In.size() >= 6) {
                const auto* h = reinterpret_cast<const unsigned char*>(m_In.data());
                const uint32_t total = h[2] | (h[3] << 8) | (h[4] << 16) | (static_cast<uint32_t>(h[5]) << 24);
                if (total < 6)
                    return false;
                if (m_In.size() >= total) {
                    msg = orvo::cMsg();
                    const bool ok = msg.Create(h[1], m_In.data() + 6, static_cast<int>(total - 6),
                                               nullptr, nullptr) > 0;
                    m_In.erase(0, total);
                    return ok;
                }
            }
            pollfd p{m_Fd, POLLIN, 0};
            if (poll(&p, 1, timeoutMs) <= 0)
                return false;
            char buf[8192];
            const ssize_t n = recv(m_Fd, buf, sizeof buf, 0);
            if (n <= 0)
                return false;
            m_In.append(buf, static_cast<size_t>(n));
        }
    }

    // The next message of type, dropping others (watchdog triggers, health).
    bool ReceiveType(orvo::cMsg& msg, unsigned long type, int timeoutMs)
    {
        while (Receive(msg, timeoutMs))
            if (msg.GetType() == type)
                return true;
        return false;
    }

    // True when the peer closed the connection within timeoutMs.
    bool WaitClosed(int timeoutMs)
    {
        orvo::cMsg msg;
        while (Receive(msg, timeoutMs)) {
        }
        pollfd p{m_Fd, POLLIN, 0};
        char c;
        return poll(&p, 1, 0) == 1 && recv(m_Fd, &c, 1, MSG_PEEK) == 0;
    }

    int Fd() const { return m_Fd; }

private:
    int m_Fd = -1;
    std::string m_In;
};

}  // namespace orvo_test

namespace orvo_test {

// A 0x10000 registration with a fresh transaction id.
inline orvo::cMsg RegisterMsg(const orvo::cUuid& id, const std::string& name, int pid,
                              const orvo::cRecord& config, const std::string& sap = "127.0.0.1:1")
{
    orvo::cMsg msg(0x10000);
    orvo::cUuid tid;
    tid.Create();
    msg.SetTid(tid);
    orvo::cRecord& r = msg.GetRecord();
    r.AppendUuidPar("service-id", id);
    r.AppendTextPar("name", name);
    r.AppendTextPar("sap", sap);
    r.AppendSIntPar("pid", pid);
    r.AppendRecordPar("config", config);
    return msg;
}

// A request of type with a fresh transaction id and one text pair.
inline orvo::cMsg Request(unsigned long type, const char* key = nullptr, const std::string& value = "")
{
    orvo::cMsg msg(type);
    orvo::cUuid tid;
    tid.Create();
    msg.SetTid(tid);
    if (key != nullptr)
        msg.GetRecord().AppendTextPar(key, value);
    return msg;
}

}  // namespace orvo_test
