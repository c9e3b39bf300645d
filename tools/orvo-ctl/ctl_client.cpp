#include "ctl_client.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <orvo_time.h>
#include <orvo_uuid.h>

namespace orvo_ctl {

bool cCtlClient::Connect(const std::string& address, int timeoutMs, std::string& error)
{
    Close();
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) {
        error = "'" + address + "' is not host:port";
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(address.substr(0, colon).c_str(), address.substr(colon + 1).c_str(), &hints, &res) != 0 || !res) {
        error = "cannot resolve '" + address + "'";
        return false;
    }
    m_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int rc = m_Fd < 0 ? -1 : connect(m_Fd, res->ai_addr, res->ai_addrlen);
    freeaddrinfo(res);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{m_Fd, POLLOUT, 0};
        int soerr = 0;
        socklen_t len = sizeof soerr;
        if (poll(&p, 1, timeoutMs) == 1 && getsockopt(m_Fd, SOL_SOCKET, SO_ERROR, &soerr, &len) == 0)
            errno = soerr, rc = soerr == 0 ? 0 : -1;
        else
            errno = ETIMEDOUT;
    }
    if (rc != 0) {
        error = "cannot connect to " + address + ": " + std::strerror(errno);
        Close();
        return false;
    }
    fcntl(m_Fd, F_SETFL, fcntl(m_Fd, F_GETFL) & ~O_NONBLOCK);
    const int one = 1;
    setsockopt(m_Fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return true;
}

void cCtlClient::Close()
{
    if (m_Fd >= 0)
        close(m_Fd);
    m_Fd = -1;
    m_In.clear();
}

std::string Frame(const orvo::cMsg& msg)
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
    return frame + payload;
}

bool cCtlClient::Send(const orvo::cMsg& msg)
{
    const std::string frame = Frame(msg);
    size_t done = 0;
    while (done < frame.size()) {
        const ssize_t n = send(m_Fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool cCtlClient::Receive(orvo::cMsg& msg, int timeoutMs, bool& timedOut)
{
    timedOut = false;
    for (;;) {
        if (m_In.size() >= 6) {
            const auto* h = reinterpret_cast<const unsigned char*>(m_In.data());
            const uint32_t total = h[2] | (h[3] << 8) | (h[4] << 16) | (static_cast<uint32_t>(h[5]) << 24);
            if (total < 6)
                return false;
            if (m_In.size() >= total) {
                msg = orvo::cMsg();
                const bool ok = msg.Create(h[1], m_In.data() + 6, static_cast<int>(total - 6), nullptr, nullptr) > 0;
                m_In.erase(0, total);
                return ok;
            }
        }
        pollfd p{m_Fd, POLLIN, 0};
        const int ready = poll(&p, 1, timeoutMs);
        if (ready <= 0) {
            // A signal (Ctrl-C) counts as a time-out: the caller decides.
            timedOut = ready == 0 || errno == EINTR;
            return false;
        }
        char buf[8192];
        const ssize_t n = recv(m_Fd, buf, sizeof buf, 0);
        if (n <= 0)
            return false;
        m_In.append(buf, static_cast<size_t>(n));
    }
}

bool cCtlClient::ReceiveAnswer(orvo::cMsg& msg, const orvo::cUuid& tid, int timeoutMs, bool& timedOut)
{
    const long long end = orvo::GetMsecClock() + timeoutMs;
    for (;;) {
        const long long left = end - orvo::GetMsecClock();
        if (left <= 0) {
            timedOut = true;
            return false;
        }
        if (!Receive(msg, static_cast<int>(left), timedOut))
            return false;
        if (msg.GetTid() == tid)
            return true;
    }
}

orvo::cMsg Request(unsigned long type)
{
    orvo::cMsg msg(type);
    orvo::cUuid tid;
    tid.Create();
    msg.SetTid(tid);
    return msg;
}

}  // namespace orvo_ctl
