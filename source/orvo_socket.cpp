#define ORVO_SOURCE "orvo_socket"
#include "orvo_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "orvo_handle.h"
#include "orvo_selectloop.h"
#include "orvo_service.h"
#include "orvo_tls.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

// OpenSSL's reason text of the most recent queued error (the queue is
// emptied), or strerror of errno after a system call failure; "" when
// neither says anything.
std::string TlsReason(int sslError)
{
    const int savedErrno = errno;
    std::string text = openssl_error_reason();
    if (text.empty() && sslError == SSL_ERROR_SYSCALL && savedErrno != 0)
        return strerror(savedErrno);
    return text;
}

}  // namespace

// ------------------------------------------------------------------ cSocket

cSocket::cSocket(cService* service, cStateMachine* statem) : cChannel(service, statem)
{
    SetObjName("cSocket");
}

cSocket::~cSocket()
{
    cSocket::Close();
}

std::string cSocket::ToString() const
{
    return cChannel::ToString() + "{" + ", localAddr=" + m_LocalAddr.ToString() +
           ", remoteAddr=" + m_RemoteAddr.ToString() + "}";
}

int cSocket::OnRead(const void* data, int size)
{
    cMsg msg = MakeMsg(MSG_SOCKET_DATA);
    msg.GetRecord().AppendDataPar("DATA", data, size);
    OnMsg(msg);
    return size;
}

void cSocket::OnWrite()
{
    if (GetWriteReadyMsg() != 0) {
        cMsg msg = MakeMsg(MSG_SOCKET_WRITABLE);
        OnMsg(msg);
    }
}

void cSocket::Close()
{
    if (m_fd > 0)
        ::close(m_fd);
    cChannel::Close();
}

int cSocket::rawWrite(const void* data, int size)
{
    // MSG_NOSIGNAL: a peer that went away gives EPIPE, never SIGPIPE, also
    // in programs that did not ignore the signal.
    return static_cast<int>(::send(m_fd, data, static_cast<size_t>(size), MSG_NOSIGNAL));
}

int cSocket::rawRead(void* buffer, int size)
{
    int n = static_cast<int>(::recv(m_fd, buffer, static_cast<size_t>(size), 0));
    // A readiness that turned out to have nothing to read is not the end of
    // the stream.
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        SetReadRetry();
        return 0;
    }
    return n;
}

int cSocket::Socket(int domain, int type, int protocol)
{
    int fd = ::socket(domain, type, protocol);
    if (fd < 0)
        return m_fd;
    if (RefuseLargeFd(fd, "cSocket::Socket")) {
        errno = EMFILE;
        return m_fd;
    }
    if (m_fd > 0)
        Close();
    else if (m_fd == 0)
        Dettach();      // descriptor 0 is never closed here, only let go
    Attach(fd);
    Enable(false);
    return m_fd;
}

int cSocket::Bind()
{
    int result = ::bind(m_fd, m_LocalAddr.GetSockAddr(), sizeof(sockaddr_in));
    if (result == 0)
        ReadLocalAddress();
    return result;
}

int cSocket::Bind(const cSocketAddr& addr)
{
    m_LocalAddr = addr;
    return Bind();
}

int cSocket::SetLocalAddress(cSocketAddr addr)
{
    int on = 1;
    SetSockOpt(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return Bind(addr);
}

int cSocket::GetSockOpt(int level, int name, void* value, unsigned int* length)
{
    socklen_t len = length != nullptr ? *length : 0;
    int result = ::getsockopt(m_fd, level, name, value, &len);
    if (length != nullptr)
        *length = len;
    return result;
}

int cSocket::SetSockOpt(int level, int name, const void* value, unsigned int length)
{
    return ::setsockopt(m_fd, level, name, value, length);
}

std::string cSocket::GetSocketError(int err)
{
    return strerror(err != 0 ? err : errno);
}

cMsg cSocket::MakeMsg(unsigned long type)
{
    return cMsg(type, this, GetStatem());
}

void cSocket::ReadLocalAddress()
{
    sockaddr_in addr;
    socklen_t len = sizeof addr;
    if (::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        m_LocalAddr = cSocketAddr(addr);
}

bool cSocket::RefuseLargeFd(int fd, const char* what)
{
    if (fd < FD_SETSIZE)
        return false;
    ::close(fd);
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("%s: descriptor %i is not below FD_SETSIZE (%i), closed", what, fd,
                            static_cast<int>(FD_SETSIZE)));
    return true;
}

// --------------------------------------------------------------- cTcpSocket

cTcpSocket::cTcpSocket(cService* service, cStateMachine* statem, ssl_ctx_st* ctx)
    : cSocket(service, statem),
      m_bListening(0),
      m_bConnecting(0),
      m_bAccepting(0),
      m_bConnected(0),
      m_pServer(nullptr),
      m_pSslCtx(ctx),
      m_pSsl(nullptr),
      m_SpareFd(-1),
      m_bAcceptPaused(0),
      m_ServerHandle(0),
      m_Refused(0)
{
    SetWriteReadyMsg(1);
}

cTcpSocket::~cTcpSocket()
{
    cTcpSocket::Close();
    if (cTcpSocket* server = LiveServer())
        server->ClientDeleted(this);
}

void cTcpSocket::SetServer(cTcpSocket* server)
{
    m_pServer = server;
    m_ServerHandle = server != nullptr ? server->GetHandle() : 0;
}

cTcpSocket* cTcpSocket::LiveServer() const
{
    // The listener may have been deleted before the connections it accepted;
    // its handle then no longer resolves.
    if (!HandleAlive(m_pServer, HANDLE_CHANNEL, m_ServerHandle))
        return nullptr;
    return m_pServer;
}

ORVO_HOT void cTcpSocket::OnSelect(int events)
{
    if (m_bListening) {
        AcceptOne(events);
        return;
    }

    if (m_bAccepting) {
        std::string reason;
        int result = AcceptSSL(reason);
        if (result == 0) {
            ReadLocalAddress();
            m_bAccepting = 0;
            if (cTcpSocket* server = LiveServer())
                server->OnAccept(*this);
            OnConnect(0);
        } else if (result == 1) {
            WatchHandshake();
        } else {
            // Closed before the report goes out: the service deletes a socket
            // it owns after handing out this 0x4004 (PostHdlMessage), as it
            // would after a close message.
            Close();
            m_bAccepting = 0;
            ReportTlsFailure("reason", "AcceptSSL", reason);
        }
        return;
    }

    if (m_bConnecting) {
        int err = -1;
        unsigned int len = sizeof err;
        GetSockOpt(SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) {
            m_bConnecting = 0;
            OnConnect(err);
            Enable(false);
            return;
        }
        ReadLocalAddress();
        std::string reason;
        if (InitSSL(reason) != 0) {
            m_bConnected = 0;
            m_bConnecting = 0;
            ReportTlsFailure("error", "InitSSL", reason);
            Enable(false);
            return;
        }
        int result = ConnectSSL(reason);
        if (result == 0) {
            m_bConnecting = 0;
            OnConnect(0);
            Enable(true);
        } else if (result == 1) {
            WatchHandshake();
        } else {
            m_bConnected = 0;
            m_bConnecting = 0;
            ReportTlsFailure("error", "ConnectSSL", reason);
            Enable(false);
        }
        return;
    }

    cChannel::OnSelect(events);
}

void cTcpSocket::WatchHandshake()
{
    // Wait for the direction the handshake needs; asking for writability
    // while it waits for the peer would make select return at once, again
    // and again.
    if (GetService() == nullptr || m_pSsl == nullptr)
        return;
    const bool wantWrite = SSL_want_write(m_pSsl);
    GetService()->ChannelAsyncSelect(this, (wantWrite ? SELECT_WRITE : SELECT_READ) | SELECT_EXCEPT,
                                     nullptr);
}

void cTcpSocket::AcceptOne(int events)
{
    sockaddr_in peer;
    std::memset(&peer, 0, sizeof peer);
    socklen_t len = sizeof peer;
    int fd = ::accept(m_fd, reinterpret_cast<sockaddr*>(&peer), &len);
    if (fd <= 0) {
        const int err = errno;
        if (fd == 0)
            ::close(fd);    // descriptor 0 from accept is dropped, never used
        else if (err == EMFILE || err == ENFILE)
            RefuseWithoutDescriptor();
        return;
    }
    if (fd >= FD_SETSIZE) {
        // The select table ends there: refused, the listener goes on.
        ::close(fd);
        NoteRefused(FormatString("descriptor %i is not below FD_SETSIZE (%i)", fd,
                                 static_cast<int>(FD_SETSIZE)).c_str());
        return;
    }
    if (m_Refused != 0) {
        ORVO_TRACE(UnitORVO, WARNING,
                   FormatString("cTcpSocket::accept: accepting again on %s, %u connections "
                                "were refused",
                                m_LocalAddr.ToString().c_str(), m_Refused));
        m_Refused = 0;
    }

    cTcpSocket* client = NewSocket();
    if (client == nullptr) {
        ::close(fd);
        return;
    }
    client->m_bAccepting = 1;
    client->Attach(fd);
    client->SetRemoteAddress(cSocketAddr(peer));
    std::string reason;
    if (client->InitSSL(reason) < 0) {
        ReportTlsFailure("reason", "InitSSL", reason);
        client->Close();
        // Never announced and no message names it: a socket the framework
        // owns can go at once.
        if (client->GetDeleteAfterClose())
            delete client;
        return;
    }
    client->OnSelect(events);
}

void cTcpSocket::RefuseWithoutDescriptor()
{
    // The pending connection keeps the listener readable; unless it is
    // taken off the queue the loop would spin. The spare descriptor makes
    // room for exactly that.
    if (m_SpareFd >= 0) {
        ::close(m_SpareFd);
        m_SpareFd = -1;
        int fd = ::accept(m_fd, nullptr, nullptr);
        if (fd >= 0)
            ::close(fd);
        m_SpareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        NoteRefused("out of descriptors");
        if (m_SpareFd >= 0)
            return;
    }
    // No spare to free: stop watching the listener until a descriptor is
    // given back (ClientDeleted) or Listen is called again.
    m_bAcceptPaused = 1;
    if (GetService() != nullptr)
        GetService()->ChannelAsyncSelect(this, 0, nullptr);
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("cTcpSocket::accept: out of descriptors, not accepting on %s for now",
                            m_LocalAddr.ToString().c_str()));
}

void cTcpSocket::NoteRefused(const char* why)
{
    // Said once per run of refusals: a crowd of peers knocking on a full
    // table must not flood the log (the count comes with the recovery).
    if (m_Refused++ == 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cTcpSocket::accept: %s, refusing new connections on %s until "
                                "descriptors come free",
                                why, m_LocalAddr.ToString().c_str()));
}

void cTcpSocket::OnClose()
{
    cMsg msg = MakeMsg(MSG_SOCKET_CLOSED);
    OnMsg(msg);
}

void cTcpSocket::Close()
{
    if (m_pSsl != nullptr) {
        SSL_shutdown(m_pSsl);
        SSL_free(m_pSsl);
        m_pSsl = nullptr;
    }
    m_bConnected = 0;
    m_bConnecting = 0;
    m_bAccepting = 0;
    m_bListening = 0;
    m_bAcceptPaused = 0;
    if (m_SpareFd >= 0) {
        ::close(m_SpareFd);
        m_SpareFd = -1;
    }
    cSocket::Close();
}

ORVO_HOT int cTcpSocket::rawWrite(const void* data, int size)
{
    int result;
    if (m_pSsl != nullptr) {
        if (size <= 0)
            return 0;
        result = SSL_write(m_pSsl, data, size);
        if (result <= 0) {
            const int err = SSL_get_error(m_pSsl, result);
            if (err == SSL_ERROR_WANT_WRITE || err == SSL_ERROR_WANT_READ) {
                // The peer takes nothing now: nothing is waited for here (the
                // writer may hold g_FrameLock). Like a full plain socket: the
                // caller keeps the bytes queued and the loop waits for
                // writability; the retry starts with the same bytes, from
                // the queue (SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER).
                errno = EAGAIN;
                return -1;
            }
            std::printf("SSL_write failed: %s\n", TlsReason(err).c_str());
        }
    } else {
        result = static_cast<int>(::send(m_fd, data, static_cast<size_t>(size), MSG_NOSIGNAL));
    }
    // The writer may hold g_FrameLock or run on another thread: the close
    // happens on the loop thread once the writer let go (HandleWriteFailure).
    if (result < 0 && errno == EPIPE)
        SetWriteFailed();
    return result;
}

ORVO_HOT int cTcpSocket::rawRead(void* buffer, int size)
{
    if (m_pSsl == nullptr)
        return cSocket::rawRead(buffer, size);
    int result = SSL_read(m_pSsl, buffer, size);
    if (result <= 0 && SSL_get_error(m_pSsl, result) == SSL_ERROR_WANT_READ) {
        SetReadRetry();
        return 0;
    }
    return result;
}

int cTcpSocket::Send(cMsg& msg)
{
    msg.SetChannel(this);
    return 0;
}

void cTcpSocket::ClientDeleted(cTcpSocket* /*client*/)
{
    // A descriptor came free: a listener paused for lack of descriptors
    // tries again.
    if (m_bAcceptPaused && m_bListening) {
        m_bAcceptPaused = 0;
        if (m_SpareFd < 0)
            m_SpareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (GetService() != nullptr)
            GetService()->ChannelAsyncSelect(this, SELECT_READ, nullptr);
    }
}

cTcpSocket* cTcpSocket::NewSocket()
{
    cTcpSocket* client = new cTcpSocket(GetService(), nullptr, nullptr);
    client->SetServer(this);
    client->SetDeleteAfterClose(true);
    client->SetSSL(m_pSslCtx);
    return client;
}

void cTcpSocket::OnConnect(int err)
{
    if (err == 0) {
        m_bConnected = 1;
        cMsg msg = MakeMsg(MSG_SOCKET_CONNECTED);
        if (m_pSsl != nullptr)
            openssl_show_peer_certificate(m_pSsl);
        SendSocketOnConnectMsg(msg);
    } else {
        m_bConnected = 0;
        cMsg msg = MakeMsg(MSG_SOCKET_CONNECT_FAILED);
        msg.GetRecord().AppendUIntPar("error", static_cast<unsigned int>(err));
        msg.GetRecord().AppendTextPar("indic", GetSocketError(err));
        OnMsg(msg);
    }
}

void cTcpSocket::OnAccept(cTcpSocket& /*accepted*/)
{
    cMsg msg = MakeMsg(MSG_SOCKET_ACCEPTED);
    OnMsg(msg);
}

void cTcpSocket::SendSocketOnConnectMsg(cMsg& msg)
{
    OnMsg(msg);
}

int cTcpSocket::Connect(const cSocketAddr& addr)
{
    m_RemoteAddr = addr;
    return Connect();
}

int cTcpSocket::Connect()
{
    int result = ::connect(m_fd, m_RemoteAddr.GetSockAddr(), sizeof(sockaddr_in));
    // A TLS connection that the kernel completed at once still needs its
    // handshake, so it goes the in-progress way.
    if (result == 0 && m_pSslCtx == nullptr) {
        ReadLocalAddress();
        OnConnect(0);
        Enable(true);
        return 0;
    }
    if (result == 0 || errno == EINPROGRESS) {
        m_bConnecting = 1;
        if (GetService() != nullptr)
            GetService()->ChannelAsyncSelect(this, SELECT_WRITE | SELECT_EXCEPT, nullptr);
        return 0;
    }
    const int err = errno;
    OnConnect(err);
    Enable(false);
    errno = err;
    return -1;
}

int cTcpSocket::Listen(int backlog)
{
    m_bListening = 1;
    m_bAcceptPaused = 0;
    if (GetService() != nullptr)
        GetService()->ChannelAsyncSelect(this, SELECT_READ, nullptr);
    int result = ::listen(m_fd, backlog);
    if (m_SpareFd < 0)
        m_SpareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return result;
}

void cTcpSocket::SetSSL(ssl_ctx_st* ctx)
{
    if (ctx == nullptr)
        return;
    openssl_lib_init();
    m_pSslCtx = ctx;
}

void cTcpSocket::ReportTlsFailure(const char* key, const char* step, const std::string& reason)
{
    cMsg msg = MakeMsg(MSG_SOCKET_TLS_FAILED);
    msg.GetRecord().AppendTextPar(key, step);
    msg.GetRecord().AppendTextPar("indic", reason);
    OnMsg(msg);
}

int cTcpSocket::InitSSL(std::string& reason)
{
    if (m_pSslCtx == nullptr || m_pSsl != nullptr)
        return 0;
    m_pSsl = SSL_new(m_pSslCtx);
    if (m_pSsl == nullptr) {
        std::string text = TlsReason(0);
        if (!text.empty())
            reason = text;
        ORVO_TRACE(UnitORVO, ERROR, FormatString("SSL_new error, reason=%s", reason.c_str()));
        Close();
        return -1;
    }
    // A write the peer could not take is retried from the send queue, whose
    // front holds the same bytes at another address.
    SSL_set_mode(m_pSsl, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_set_fd(m_pSsl, m_fd) != 1) {
        std::string text = TlsReason(0);
        if (!text.empty())
            reason = text;
        ORVO_TRACE(UnitORVO, ERROR, FormatString("SSL_set_fd error, reason=%s", reason.c_str()));
    }
    return 0;
}

// One TLS handshake call's outcome: 0 done, 1 the call wants more I/O, -1
// failed (traced as "<what> error, reason=..."; reason takes OpenSSL's text
// when it has one).
static int HandshakeStep(SSL* ssl, int result, const char* what, std::string& reason)
{
    if (result == 1)
        return 0;
    int err = SSL_get_error(ssl, result);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE)
        return 1;
    std::string text = TlsReason(err);
    if (!text.empty())
        reason = text;
    ORVO_TRACE(UnitORVO, ERROR, FormatString("%s error, reason=%s", what, reason.c_str()));
    return -1;
}

int cTcpSocket::ConnectSSL(std::string& reason)
{
    if (m_pSsl == nullptr)
        return 0;
    return HandshakeStep(m_pSsl, SSL_connect(m_pSsl), "SSL_connect", reason);
}

int cTcpSocket::AcceptSSL(std::string& reason)
{
    if (m_pSsl == nullptr)
        return 0;
    int step = HandshakeStep(m_pSsl, SSL_accept(m_pSsl), "AcceptSSL", reason);
    if (step < 0)
        Close();
    return step;
}

// --------------------------------------------------------------- cUdpSocket

cUdpSocket::cUdpSocket(cService* service, cStateMachine* statem) : cSocket(service, statem)
{
}

cUdpSocket::~cUdpSocket() = default;

void cUdpSocket::OnSelectRead()
{
    unsigned char buffer[kMaxDatagram];
    sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    socklen_t len = sizeof from;
    int n = static_cast<int>(
        ::recvfrom(m_fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &len));
    if (n > 0)
        OnReceiveFrom(cSocketAddr(from), buffer, n);
    UpdateSelect();
}

void cUdpSocket::OnSelect(int events)
{
    if (events & SELECT_READ)
        OnSelectRead();
    else if (events & SELECT_WRITE)
        OnSelectWrite();
}

void cUdpSocket::OnClose()
{
}

int cUdpSocket::OnRead(const void* /*data*/, int size)
{
    return size;
}

void cUdpSocket::OnWrite()
{
}

int cUdpSocket::Send(cMsg& /*msg*/)
{
    return -1;
}

int cUdpSocket::Socket(int domain, int type, int protocol)
{
    int fd = cSocket::Socket(domain, type, protocol);
    if (fd >= 0)
        Enable(true);
    return fd;
}

void cUdpSocket::OnReceiveFrom(const cSocketAddr& from, const void* data, int size)
{
    m_RemoteAddr = from;
    cMsg msg = MakeMsg(MSG_SOCKET_DATA);
    msg.GetRecord().AppendTextPar("ADDR", from.ToString());
    msg.GetRecord().AppendDataPar("DATA", data, size);
    OnMsg(msg);
}

int cUdpSocket::SendTo(const cSocketAddr& to, const void* data, int size)
{
    SetWritePending(true);
    m_RemoteAddr = to;
    int result = static_cast<int>(::sendto(m_fd, data, static_cast<size_t>(size), MSG_NOSIGNAL,
                                           to.GetSockAddr(), sizeof(sockaddr_in)));
    if (result > 0)
        loop::WantWriteReady(*this, false);
    return result;
}

}  // namespace orvo
