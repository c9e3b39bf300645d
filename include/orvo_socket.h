// orvo_socket.h - IPv4 sockets as channels: the socket base cSocket, the
// stream socket cTcpSocket (non-blocking connect, listen/accept, optional TLS
// over an OpenSSL context), the datagram socket cUdpSocket and the listening
// server template cTcpServer<T>.
//
// Sockets report what happens on them as messages (types below) handed to
// their own OnMsg, which forwards to the service (queue) or, when the socket
// has a state machine, straight to it. Every event message names the socket
// as its channel and the socket's state machine as its state machine.
//
// Descriptors: a descriptor at or above FD_SETSIZE never enters the service's
// descriptor sets. Socket() refuses one (it is closed at once, with an ERROR
// trace, and the call fails with errno EMFILE); an accepted connection that
// gets one is closed at once and never announced.
//
// Accepting when the process is out of descriptors (EMFILE/ENFILE): the
// pending connection would keep the listening descriptor readable and the
// loop would spin. A listening socket therefore keeps one spare descriptor
// (opened by Listen on /dev/null): on EMFILE it closes the spare, accepts the
// connection, closes it at once (the peer sees the connection end) and
// re-opens the spare. When the spare cannot be re-opened the listener stops
// watching for connections until one of its accepted connections goes away
// (ClientDeleted) or Listen is called again. Either way the connections
// already accepted go on undisturbed. A run of refusals is traced once, at
// its first refusal (ERROR "cTcpSocket::accept: <why>, refusing new
// connections on <address> until descriptors come free"), and its count
// when a connection is accepted again (WARNING "cTcpSocket::accept:
// accepting again on <address>, <n> connections were refused").
//
// Thread safety: a socket belongs to the thread that runs its service's
// loop; nothing here locks (the framed sockets of orvo_msgsocket.h lock
// their send buffers). A socket must not be deleted while one of its own
// callbacks is on the stack: close it, or mark it with
// SetDeleteAfterClose(true) and let the service delete it after its close
// message (0x4003).
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "orvo_channel.h"
#include "orvo_msg.h"
#include "orvo_msgtypes.h"
#include "orvo_socketaddr.h"

struct ssl_ctx_st;
struct ssl_st;

namespace orvo {

class cService;
class cStateMachine;

// Message types of socket events (names in orvo_msgtypes.h; the numbers are
// the contract).
//   0x3001 data read      "DATA" (data): the bytes; datagram sockets put
//                         "ADDR" (text, "a.b.c.d:port" of the sender) first
//   0x3002 writable       no record
//   0x4000 connect failed "error" (uint): errno; "indic" (text): strerror
//   0x4001 accepted       no record; on the listening socket
//   0x4002 connected      no record (message sockets add "peer-name" and
//                         "peer-id" and send it to the peer instead)
//   0x4003 closed         no record
//   0x4004 TLS failed     "error" (connecting side) or "reason" (accepting
//                         side): "InitSSL", "ConnectSSL" or "AcceptSSL";
//                         "indic" (text): OpenSSL's reason
//   0x1002 undecodable    "indic" (text); made by the message sockets

// cSocket: a channel over one IPv4 socket descriptor, with its local and
// remote address. Abstract (OnClose and Send are the subclasses').
class ORVO_API cSocket : public cChannel {
public:
    // A channel of service and statem (neither owned, either may be null),
    // both addresses zeroed (0.0.0.0:0), object name "cSocket".
    cSocket(cService* service, cStateMachine* statem);
    // Closes the descriptor when one is still open.
    ~cSocket() override;

    // The channel text followed by "{, localAddr=<a:p>, remoteAddr=<a:p>}".
    std::string ToString() const override;
    // Message 0x3001 with "DATA" to OnMsg; returns size (all consumed).
    int OnRead(const void* data, int size) override;
    // Message 0x3002 to OnMsg when the write-ready flag is non-zero (see
    // cChannel::GetWriteReadyMsg); otherwise nothing.
    void OnWrite() override;
    // close() the descriptor when it is above 0, then cChannel::Close(). A
    // descriptor of 0 is neither closed nor detached.
    void Close() override;
    // send(fd, data, size, MSG_NOSIGNAL): a vanished peer gives EPIPE, not
    // SIGPIPE.
    int rawWrite(const void* data, int size) override;
    // recv(fd, buffer, size, 0); a recv that would block (or was
    // interrupted) marks a read retry and returns 0 instead of ending the
    // stream.
    int rawRead(void* buffer, int size) override;

    // socket(domain, type, protocol). On success a descriptor above 0 held
    // before is closed first (Close()), the new one is attached and the
    // channel disabled (not watched until enabled). Returns the channel's
    // descriptor afterwards: the old one (-1 when none) when socket() failed
    // or gave a descriptor >= FD_SETSIZE (closed again, errno EMFILE, ERROR
    // trace).
    virtual int Socket(int domain, int type, int protocol);

    // bind() to the local address; on success the local address is re-read
    // with getsockname() (an ephemeral port becomes known). Returns bind()'s
    // result (0 or -1 with errno).
    int Bind();
    // Stores addr as the local address, then Bind().
    int Bind(const cSocketAddr& addr);
    // SO_REUSEADDR on, then Bind(addr). Returns the bind result.
    int SetLocalAddress(cSocketAddr addr);
    void SetRemoteAddress(cSocketAddr addr) { m_RemoteAddr = addr; }
    cSocketAddr GetLocalAddress() const { return m_LocalAddr; }
    cSocketAddr GetRemoteAddress() const { return m_RemoteAddr; }

    // getsockopt/setsockopt on the descriptor; the system call's result.
    int GetSockOpt(int level, int name, void* value, unsigned int* length);
    int SetSockOpt(int level, int name, const void* value, unsigned int length);

    // strerror(err), or strerror(errno) when err is 0.
    static std::string GetSocketError(int err);

protected:
    // A message of type for this socket: channel this, the socket's state
    // machine.
    cMsg MakeMsg(unsigned long type);
    // Reads the local address back from the descriptor (getsockname).
    void ReadLocalAddress();
    // Closes fd when it is at or above FD_SETSIZE (ERROR trace naming what);
    // returns whether it did.
    static bool RefuseLargeFd(int fd, const char* what);

    cSocketAddr m_LocalAddr;     // bound/connected local end
    cSocketAddr m_RemoteAddr;    // peer: connect target, last sender, SendTo target
};

// cTcpSocket: a stream socket. Client life: Socket(AF_INET, SOCK_STREAM, 0)
// (disabled) -> Connect -> connecting (watched for write and exception) ->
// [TLS handshake] -> connected (enabled; 0x4002) -> closed (0x4003). A
// listening socket stays listening; each accepted connection becomes a new
// socket made by NewSocket() that goes accepting -> connected and announces
// itself with 0x4001 on the listener and 0x4002 on itself.
//
// TLS: with a context (constructor or SetSSL) the connection runs TLS over
// OpenSSL: the handshake is part of connecting/accepting, rawRead/rawWrite
// and Close go through the session. Failures of the TLS steps are reported
// as 0x4004.
class ORVO_API cTcpSocket : public cSocket {
public:
    // A socket without descriptor; ctx (not owned, may be null) is kept as
    // given. The write-ready flag is 1: writability is reported as 0x3002.
    cTcpSocket(cService* service, cStateMachine* statem, ssl_ctx_st* ctx = nullptr);
    // Close(); when accepted by a listening socket, tells it
    // (ClientDeleted(this)); then the cSocket part is destroyed.
    ~cTcpSocket() override;

    // Readiness, decided by the socket's state in this order:
    //  listening:  accept one connection (see NewSocket);
    //  accepting:  the TLS accept step; when done: local address,
    //              OnAccept on the listener, OnConnect(0);
    //  connecting: SO_ERROR of the connect; on success local address, the
    //              TLS set-up and connect step, OnConnect(0), enabled; on
    //              failure OnConnect(err) (or 0x4004) and disabled;
    //  otherwise:  the channel's read/write path.
    void OnSelect(int events) override;
    // Message 0x4003 to OnMsg.
    void OnClose() override;
    // Shuts a TLS session down and frees it, clears the connected,
    // connecting, accepting and listening states, then cSocket::Close().
    void Close() override;
    // TLS-aware send/recv. rawWrite never waits: a session that cannot
    // write now (the peer takes nothing) returns -1 with errno EAGAIN, like
    // a full plain socket, and the caller keeps the bytes queued until the
    // descriptor is writable (the retry may start from another address with
    // the same bytes). Another TLS failure prints "SSL_write failed: %s\n".
    // With or without session a negative result with errno EPIPE marks the
    // write as failed; the loop thread closes the socket (Close(), then
    // OnClose()) once the writer let go (HandleWriteFailure). rawRead with
    // a session returns 0 and marks a read retry when the session wants
    // more input; without one it is cSocket's recv.
    int rawWrite(const void* data, int size) override;
    int rawRead(void* buffer, int size) override;
    // A plain stream socket carries no messages: records itself as msg's
    // channel and returns 0.
    int Send(cMsg& msg) override;

    // Called on the listening socket by each accepted socket's destructor.
    // Base: nothing.
    virtual void ClientDeleted(cTcpSocket* client);
    // Makes the socket that takes an accepted connection. Base: a
    // cTcpSocket of the same service, no state machine, this listener as
    // server, delete-after-close mark set, this listener's TLS context.
    // The caller owns the result (the service deletes it after its 0x4003).
    // Null refuses the connection (it is closed).
    virtual cTcpSocket* NewSocket();
    // err 0: connected: sets the connected state, builds 0x4002 (and shows
    // the peer certificate of a TLS session) and passes it to
    // SendSocketOnConnectMsg. Otherwise clears the connected state and
    // hands 0x4000 with "error" = err and "indic" = its text to OnMsg.
    virtual void OnConnect(int err);
    // On the listening socket for each accepted connection: 0x4001 to OnMsg.
    virtual void OnAccept(cTcpSocket& accepted);
    // Base: msg to this socket's own OnMsg.
    virtual void SendSocketOnConnectMsg(cMsg& msg);

    // Stores addr as the remote address and Connect().
    int Connect(const cSocketAddr& addr);
    // Non-blocking connect to the remote address. Immediate success:
    // OnConnect(0), channel enabled, 0. In progress: connecting, watched for
    // write and exception, 0 (the result arrives as 0x4002, 0x4000 or
    // 0x4004). Any other failure: OnConnect(errno), channel disabled
    // (descriptor left open), -1.
    int Connect();
    // Marks the socket listening, asks the service to watch it for reading
    // and listen(backlog). Returns listen()'s result. Opens the spare
    // descriptor of the EMFILE handling (see the file comment).
    int Listen(int backlog);
    // A null ctx is ignored; otherwise initialises the TLS library and keeps
    // ctx (not owned) for the next connection.
    void SetSSL(ssl_ctx_st* ctx);
    // The listening socket that accepted this one (not owned). Its
    // ClientDeleted is called only while it is alive.
    void SetServer(cTcpSocket* server);
    cTcpSocket* GetServer() const { return m_pServer; }
    ssl_ctx_st* GetSSLCtx() const { return m_pSslCtx; }
    ssl_st* GetSSL() const { return m_pSsl; }

    bool IsListening() const { return m_bListening != 0; }
    bool IsConnecting() const { return m_bConnecting != 0; }
    bool IsAccepting() const { return m_bAccepting != 0; }
    bool IsConnected() const { return m_bConnected != 0; }

    // TLS steps; each does nothing and returns 0 without a context/session.
    // reason receives OpenSSL's reason text of the latest error, if any;
    // failures are traced at ERROR on UnitORVO.
    //  InitSSL: makes the session and binds it to the descriptor. SSL_new
    //    failure: Close(), -1. SSL_set_fd failure is only traced (the
    //    handshake then fails and reports). Otherwise 0.
    //  ConnectSSL / AcceptSSL: one handshake step: 0 done, 1 wants more I/O,
    //    -1 failed (AcceptSSL also closes the socket then).
    int InitSSL(std::string& reason);
    int ConnectSSL(std::string& reason);
    int AcceptSSL(std::string& reason);

protected:
    // Accepts one pending connection of this listening socket.
    void AcceptOne(int events);
    // accept failed for lack of descriptors: refuse the pending connection
    // through the spare descriptor, or pause the listener.
    void RefuseWithoutDescriptor();
    // A connection was refused for lack of descriptors (why); the first of
    // a run is traced at ERROR, the run's count when accepting works again.
    void NoteRefused(const char* why);
    // A TLS handshake step wants more I/O: watch for the direction it needs.
    void WatchHandshake();
    // m_pServer while that listener is alive, else null.
    cTcpSocket* LiveServer() const;
    // Hands 0x4004 with key ("error"/"reason") = step and "indic" = reason
    // to OnMsg.
    void ReportTlsFailure(const char* key, const char* step, const std::string& reason);

    unsigned char m_bListening;     // Listen was called
    unsigned char m_bConnecting;    // non-blocking connect or its TLS handshake running
    unsigned char m_bAccepting;     // accepted; TLS accept not yet done
    unsigned char m_bConnected;     // connection established
    cTcpSocket* m_pServer;          // listener that accepted this socket; not owned
    ssl_ctx_st* m_pSslCtx;          // not owned; null: plain TCP
    ssl_st* m_pSsl;                 // owned; only while a session exists
    int m_SpareFd;                  // listener's reserve for EMFILE; -1 when none
    unsigned char m_bAcceptPaused;  // listener not watched: out of descriptors
    uint32_t m_ServerHandle;        // m_pServer's channel handle
    unsigned m_Refused;             // listener: connections refused since the last accept
};

// cUdpSocket: a datagram socket; watched for reading as soon as it exists.
class ORVO_API cUdpSocket : public cSocket {
public:
    cUdpSocket(cService* service, cStateMachine* statem);
    ~cUdpSocket() override;

    // One recvfrom() of at most 16384 bytes (longer datagrams are cut);
    // a datagram of more than 0 bytes goes to OnReceiveFrom. Then
    // UpdateSelect().
    void OnSelectRead() override;
    // SELECT_READ: OnSelectRead(); otherwise SELECT_WRITE: OnSelectWrite().
    void OnSelect(int events) override;
    // Nothing (a datagram socket has no stream to end).
    void OnClose() override;
    // Nothing; returns size.
    int OnRead(const void* data, int size) override;
    // Nothing.
    void OnWrite() override;
    // A bare datagram socket carries no messages: -1.
    int Send(cMsg& msg) override;
    // As cSocket::Socket, and the channel is enabled at once.
    int Socket(int domain, int type, int protocol) override;

    // Stores from as the remote address; 0x3001 with "ADDR" (from's text)
    // and "DATA" to OnMsg.
    virtual void OnReceiveFrom(const cSocketAddr& from, const void* data, int size);
    // Marks a write pending, stores to as the remote address and sendto()s
    // the bytes in one datagram; when more than 0 bytes went, the
    // registration is updated (writability is then reported through
    // OnWrite). Returns sendto()'s result.
    int SendTo(const cSocketAddr& to, const void* data, int size);

    // Largest datagram read at once.
    static const int kMaxDatagram = 16384;
};

// cTcpServer<T>: a listening stream socket that owns the connections it
// accepts. T must derive from cTcpSocket and be constructible as
// T(cService*, cStateMachine*). Each accepted T gets this server's service
// and state machine, this server as its server, the delete-after-close mark
// and this server's TLS context; it stays in the client list until it is
// deleted (by the service after its 0x4003, or by Close()).
template <class T>
class ORVO_API cTcpServer : public cTcpSocket {
public:
    // A socket of service and statem without TLS context, addr as its local
    // address; not yet listening (see Run).
    cTcpServer(cService* service, const cSocketAddr& addr, cStateMachine* statem)
        : cTcpSocket(service, statem, nullptr), m_bClosing(false)
    {
        m_LocalAddr = addr;
    }
    // Close(): the clients are deleted.
    ~cTcpServer() override { cTcpServer::Close(); }

    // Opens an IPv4 stream socket, SO_REUSEADDR on, binds to the local
    // address and listens with the backlog (5 unless SetBacklog said
    // otherwise). Returns the last step's
    // result: a descriptor or -1 when the socket could not be made, the bind
    // result when binding failed, else listen()'s result (0).
    int Run()
    {
        m_bClosing = false;
        int result = Socket(AF_INET, SOCK_STREAM, 0);
        if (result < 0)
            return result;
        int on = 1;
        SetSockOpt(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        result = Bind();
        if (result == 0)
            result = Listen(m_Backlog);
        return result;
    }

    // The listen backlog of the next Run(); values below 1 mean 5.
    void SetBacklog(int backlog) { m_Backlog = backlog > 0 ? backlog : 5; }
    int GetBacklog() const { return m_Backlog; }

    cTcpSocket* NewSocket() override
    {
        T* client = new T(GetService(), GetStatem());
        client->SetServer(this);
        client->SetDeleteAfterClose(true);
        client->SetSSL(GetSSLCtx());
        m_Clients.push_back(client);
        return client;
    }

    void ClientDeleted(cTcpSocket* client) override
    {
        if (!m_bClosing)
            m_Clients.remove(client);
        cTcpSocket::ClientDeleted(client);
    }

    // Closes and deletes every client, then closes the listening socket.
    void Close() override
    {
        m_bClosing = true;
        std::list<cTcpSocket*> clients;
        clients.swap(m_Clients);
        for (cTcpSocket* client : clients) {
            client->Close();
            delete client;
        }
        cTcpSocket::Close();
    }

    // Accepted connections not yet deleted.
    const std::list<cTcpSocket*>& GetClients() const { return m_Clients; }

private:
    std::list<cTcpSocket*> m_Clients;   // owned
    bool m_bClosing;                    // Close() is deleting the clients
    int m_Backlog = 5;                  // listen backlog of Run
};

}  // namespace orvo
