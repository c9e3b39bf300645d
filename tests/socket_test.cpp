// Base sockets in a running service on 127.0.0.1: the event messages of a
// connection's life, connect failure, datagrams, and descriptors the select
// loop must never see (at or above FD_SETSIZE, none left at all), a stalled
// TLS peer that must not hold up other sockets' sends. Tests that
// change the descriptor limit run in a child process with a time limit.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_service.h"
#include "orvo_socket.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

struct cTestService : orvo_test::cTestService {
    cTestService() { Init("svc", cSocketAddr("127.0.0.1", 0)); }
};

// Waits for a message of type (from channel ch when given); others of that
// type go back in the queue. 0x2015 when none came.
cMsg Await(cService& svc, unsigned long type, cChannel* ch = nullptr, unsigned long ms = 30000)
{
    std::vector<cMsg> other;
    cMsg m;
    for (;;) {
        m = svc.WaitSyncMsg(ms, type);
        if (m != type || ch == nullptr || m.GetChannel() == ch)
            break;
        other.push_back(m);
    }
    for (cMsg& o : other)
        svc.OnMsg(o);
    return m;
}

std::string Data(const cMsg& m)
{
    cRecordPar p = m.GetRecord().GetFirstPar("DATA");
    return std::string(p.GetData(), size_t(p.GetSize()));
}

// A port on 127.0.0.1 that nothing listens on.
unsigned short ClosedPort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    cSocketAddr a("127.0.0.1", 0);
    socklen_t len = sizeof(sockaddr_in);
    bind(fd, a.GetSockAddr(), len);
    getsockname(fd, a.GetSockAddr(), &len);
    close(fd);
    return a.GetPort();
}

int RawSocket()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

bool PeerClosed(int fd)
{
    char c;
    ssize_t r = recv(fd, &c, 1, 0);
    return r == 0 || (r < 0 && errno == ECONNRESET);
}

// Opens /dev/null until the process limit is reached or the descriptor
// reaches stop; returns them.
std::vector<int> FillDescriptors(int stop)
{
    std::vector<int> fds;
    for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
        if (fd >= stop) {
            close(fd);
            break;
        }
        fds.push_back(fd);
    }
    return fds;
}

}  // namespace

TEST(TcpSocket, ConnectionLifeIsReportedAsMessages)
{
    cTestService svc;
    cTcpServer<cTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    ASSERT_EQ(server.Run(), 0);
    EXPECT_TRUE(server.IsListening());
    const unsigned short port = server.GetLocalAddress().GetPort();
    ASSERT_NE(port, 0);

    cTcpSocket client(&svc, nullptr);
    ASSERT_GT(client.Socket(AF_INET, SOCK_STREAM, 0), 0);
    ASSERT_EQ(client.Connect(cSocketAddr("127.0.0.1", port)), 0);
    EXPECT_EQ(Await(svc, MSG_SOCKET_ACCEPTED, &server), MSG_SOCKET_ACCEPTED);
    EXPECT_EQ(Await(svc, MSG_SOCKET_CONNECTED, &client), MSG_SOCKET_CONNECTED);
    ASSERT_EQ(server.GetClients().size(), 1u);
    cTcpSocket* accepted = server.GetClients().front();
    EXPECT_EQ(Await(svc, MSG_SOCKET_CONNECTED, accepted), MSG_SOCKET_CONNECTED);
    EXPECT_TRUE(client.IsConnected() && accepted->IsConnected());
    EXPECT_TRUE(accepted->GetDeleteAfterClose());
    EXPECT_EQ(accepted->GetServer(), &server);
    EXPECT_EQ(accepted->GetRemoteAddress(), client.GetLocalAddress());
    EXPECT_EQ(accepted->GetLocalAddress(), client.GetRemoteAddress());
    EXPECT_EQ(client.ToString(), "name=cSocket, fd=" + std::to_string(client.GetFd()) + "{, localAddr=" +
                                     client.GetLocalAddress().ToString() + ", remoteAddr=127.0.0.1:" +
                                     std::to_string(port) + "}");

    // Bytes arrive as 0x3001; the writer hears 0x3002 when it may write again.
    EXPECT_EQ(client.Write("ping", 4), 4);
    EXPECT_EQ(Await(svc, MSG_SOCKET_WRITABLE, &client), MSG_SOCKET_WRITABLE);
    cMsg m = Await(svc, MSG_SOCKET_DATA, accepted);
    EXPECT_EQ(Data(m), "ping");
    EXPECT_EQ(client.Send(m), 0);

    // The peer closing: 0x4003, then the service deletes the accepted socket.
    client.Close();
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(Await(svc, MSG_SOCKET_CLOSED, accepted), MSG_SOCKET_CLOSED);
    svc.WaitSyncMsg(50, 0xFFFFFE);
    svc.WaitSyncMsg(50, 0xFFFFFE);
    EXPECT_TRUE(server.GetClients().empty());
}

TEST(TcpSocket, ConnectToClosedPortReportsTheError)
{
    cTestService svc;
    cTcpSocket c(&svc, nullptr);
    ASSERT_GT(c.Socket(AF_INET, SOCK_STREAM, 0), 0);
    c.Connect(cSocketAddr("127.0.0.1", ClosedPort()));
    cMsg m = Await(svc, MSG_SOCKET_CONNECT_FAILED, &c);
    ASSERT_EQ(m, MSG_SOCKET_CONNECT_FAILED);
    EXPECT_EQ(m.GetRecord().GetFirstPar("error").GetUInt(), unsigned(ECONNREFUSED));
    EXPECT_EQ(m.GetRecord().GetFirstPar("indic").GetString(), strerror(ECONNREFUSED));
    EXPECT_FALSE(c.IsConnected() || c.IsConnecting());
    EXPECT_GT(c.GetFd(), 0);    // the owner closes or retries
    EXPECT_EQ(svc.GetSelectEvents(c.GetFd()), 0);
}

TEST(UdpSocket, DatagramsCarrySenderAndAreCutAt16384)
{
    cTestService svc;
    cUdpSocket a(&svc, nullptr), b(&svc, nullptr);
    for (cUdpSocket* s : {&a, &b}) {
        ASSERT_GT(s->Socket(AF_INET, SOCK_DGRAM, 0), 0);
        ASSERT_EQ(s->Bind(cSocketAddr("127.0.0.1", 0)), 0);
        EXPECT_EQ(svc.GetSelectEvents(s->GetFd()), SELECT_READ);
    }
    EXPECT_EQ(a.SendTo(b.GetLocalAddress(), "hello", 5), 5);
    EXPECT_EQ(a.GetRemoteAddress(), b.GetLocalAddress());
    cMsg m = Await(svc, MSG_SOCKET_DATA, &b);
    EXPECT_EQ(m.GetRecord().GetFirstPar("ADDR").GetString(), a.GetLocalAddress().ToString());
    EXPECT_EQ(Data(m), "hello");
    EXPECT_EQ(b.GetRemoteAddress(), a.GetLocalAddress());

    std::string big(20000, 'a');
    big[16383] = 'z';
    EXPECT_EQ(a.SendTo(b.GetLocalAddress(), big.data(), int(big.size())), 20000);
    EXPECT_EQ(Data(Await(svc, MSG_SOCKET_DATA, &b)), big.substr(0, 16384));
    EXPECT_EQ(a.Send(m), -1);
}

TEST(TcpSocket, AcceptedSocketOutlivesItsListener)
{
    cTestService svc;
    cTcpSocket* listener = new cTcpSocket(&svc, nullptr);
    ASSERT_GT(listener->Socket(AF_INET, SOCK_STREAM, 0), 0);
    ASSERT_EQ(listener->Bind(cSocketAddr("127.0.0.1", 0)), 0);
    ASSERT_EQ(listener->Listen(5), 0);
    cTcpSocket client(&svc, nullptr);
    client.Socket(AF_INET, SOCK_STREAM, 0);
    client.Connect(listener->GetLocalAddress());
    cMsg m = Await(svc, MSG_SOCKET_ACCEPTED, listener);
    do {
        m = Await(svc, MSG_SOCKET_CONNECTED);
    } while (m == MSG_SOCKET_CONNECTED && m.GetChannel() == &client);
    ASSERT_EQ(m, MSG_SOCKET_CONNECTED);
    cTcpSocket* accepted = static_cast<cTcpSocket*>(m.GetChannel());
    EXPECT_EQ(accepted->GetServer(), listener);
    delete listener;
    delete accepted;    // must not call back into the deleted listener
}

TEST(TcpSocket, DescriptorsTheLoopCannotWatchAreRefused)
{
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_max < FD_SETSIZE + 64)
        GTEST_SKIP() << "RLIMIT_NOFILE hard limit " << rl.rlim_max << " does not reach above FD_SETSIZE";
    auto body = [] {
        rlimit raised = {FD_SETSIZE + 64, FD_SETSIZE + 64};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
        cTestService svc;
        cTcpServer<cTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
        ASSERT_EQ(server.Run(), 0);
        const cSocketAddr to = server.GetLocalAddress();
        // One whole connection first, while descriptors are free: the
        // undefined-behaviour sanitizer checks each object type the first
        // time with the help of a pipe, which it could not open below.
        const int warm = RawSocket();
        ASSERT_EQ(connect(warm, to.GetSockAddr(), sizeof(sockaddr_in)), 0);
        ASSERT_EQ(Await(svc, MSG_SOCKET_ACCEPTED, &server), MSG_SOCKET_ACCEPTED);
        close(warm);
        ASSERT_EQ(Await(svc, MSG_SOCKET_CLOSED), MSG_SOCKET_CLOSED);
        std::vector<int> low = FillDescriptors(FD_SETSIZE);
        cTcpSocket s(&svc, nullptr);
        errno = 0;
        EXPECT_EQ(s.Socket(AF_INET, SOCK_STREAM, 0), -1);
        EXPECT_EQ(errno, EMFILE);

        // An accepted connection would get a descriptor above the sets:
        // closed at once, never announced.
        int peers[3];
        for (int& p : peers)
            p = RawSocket();
        ASSERT_EQ(connect(peers[0], to.GetSockAddr(), sizeof(sockaddr_in)), 0);
        EXPECT_EQ(Await(svc, MSG_SOCKET_ACCEPTED, &server, 500), 0x2015u);
        EXPECT_TRUE(PeerClosed(peers[0]));

        // No descriptor at all: refused through the spare descriptor, and the
        // loop then sleeps instead of retrying accept.
        std::vector<int> high = FillDescriptors(INT32_MAX);
        ASSERT_EQ(errno, EMFILE);
        ASSERT_EQ(connect(peers[1], to.GetSockAddr(), sizeof(sockaddr_in)), 0);
        EXPECT_EQ(Await(svc, MSG_SOCKET_ACCEPTED, &server, 500), 0x2015u);
        EXPECT_TRUE(PeerClosed(peers[1]));
        rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        svc.WaitSyncMsg(1000, 0xFFFFFE);
        getrusage(RUSAGE_SELF, &after);
        auto ms = [](const rusage& r) {
            return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000L + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1000;
        };
        EXPECT_LT(ms(after) - ms(before), 500);

        // Room below FD_SETSIZE again: accepted.
        close(low[0]);
        ASSERT_EQ(connect(peers[2], to.GetSockAddr(), sizeof(sockaddr_in)), 0);
        EXPECT_EQ(Await(svc, MSG_SOCKET_ACCEPTED, &server), MSG_SOCKET_ACCEPTED);
        EXPECT_EQ(server.GetClients().size(), 1u);
    };
    // In a child (its own descriptor limit) that the alarm ends if it hangs.
    EXPECT_EQ(orvo_test::RunInChild([&] { return body(), ::testing::Test::HasFailure() ? 1 : 0; },
                                    nullptr, false, 120), 0);
}

namespace {

// A TLS server context with a fresh self-signed P-256 certificate.
SSL_CTX* ServerContext()
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(cert));
    X509_sign(cert, key, EVP_sha256());
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    const bool ok = SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1;
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

}  // namespace

// A connection whose TLS set-up fails on the accepting side is reported once,
// as 0x4004 with "reason" AcceptSSL, and closed; no close message follows,
// and the service still deletes the socket it owns.
TEST(TcpSocket, FailedTlsAcceptIsReportedWithoutACloseMessage)
{
    SSL_CTX* ctx = ServerContext();
    ASSERT_NE(ctx, nullptr);
    cTestService svc;
    svc.GetSapSocket()->SetSSL(ctx);
    int fd = RawSocket();
    ASSERT_EQ(connect(fd, svc.GetSapAddress().GetSockAddr(), sizeof(sockaddr_in)), 0);
    const char plain[] = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_EQ(send(fd, plain, sizeof plain - 1, MSG_NOSIGNAL), ssize_t(sizeof plain - 1));

    const cMsg failed = Await(svc, MSG_SOCKET_TLS_FAILED);
    ASSERT_EQ(failed.GetType(), unsigned(MSG_SOCKET_TLS_FAILED));
    EXPECT_EQ(failed.GetRecord().GetFirstPar("reason").GetString(), "AcceptSSL");
    EXPECT_TRUE(PeerClosed(fd));
    EXPECT_EQ(Await(svc, MSG_SOCKET_CLOSED, nullptr, 300).GetType(), 0x2015u);
    EXPECT_TRUE(svc.GetSapSocket()->GetClients().empty());
    close(fd);
    SSL_CTX_free(ctx);
}

namespace {

// Reads exactly n bytes through ssl (blocking); false on failure.
bool SslReadAll(SSL* ssl, unsigned char* p, int n)
{
    while (n > 0) {
        const int got = SSL_read(ssl, p, n);
        if (got <= 0)
            return false;
        p += got;
        n -= got;
    }
    return true;
}

}  // namespace

// A TLS peer that stops reading stalls nobody but itself: a send to it that
// the socket cannot take leaves the frames queued (no waiting under the
// frame lock), a send on another framed socket from another thread meanwhile
// completes at once, and once the peer reads again every queued frame
// arrives whole, in order.
TEST(TcpSocket, StalledTlsPeerDoesNotHoldUpSendsOnOtherSockets)
{
    SSL_CTX* serverCtx = ServerContext();
    SSL_CTX* clientCtx = SSL_CTX_new(TLS_client_method());
    ASSERT_NE(serverCtx, nullptr);
    ASSERT_NE(clientCtx, nullptr);
    cTestService svc;
    svc.GetSapSocket()->SetSSL(serverCtx);

    // The peer: a blocking TLS client with a small receive buffer.
    const int fd = RawSocket();
    int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_EQ(connect(fd, svc.GetSapAddress().GetSockAddr(), sizeof(sockaddr_in)), 0);
    SSL* peer = SSL_new(clientCtx);
    SSL_set_fd(peer, fd);
    std::atomic<int> handshake{0};
    std::thread connector([&] { handshake = SSL_connect(peer) == 1 ? 1 : -1; });
    const cMsg accepted = Await(svc, MSG_SOCKET_ACCEPTED);
    ASSERT_EQ(accepted.GetType(), unsigned(MSG_SOCKET_ACCEPTED));
    for (int i = 0; i < 2000 && handshake == 0; ++i)
        Await(svc, 0x7FFFFF, nullptr, 5);   // passes until the handshake is through
    connector.join();
    ASSERT_EQ(handshake, 1);
    ASSERT_EQ(svc.GetSapSocket()->GetClients().size(), 1u);
    auto* tls = dynamic_cast<cMsgTcpSocket*>(svc.GetSapSocket()->GetClients().front());
    ASSERT_NE(tls, nullptr);
    tls->SetSockOpt(SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    cMsgTcpSocket other(&svc, nullptr);
    other.Attach(pair[0]);

    // Another thread sends small messages on the other socket while this one
    // sends large ones to the stalled peer.
    using tClock = std::chrono::steady_clock;
    std::atomic<bool> go{false}, stop{false};
    std::atomic<long long> slowestUs{0};
    std::atomic<int> otherSent{0};
    std::thread sender([&] {
        while (!go)
            std::this_thread::yield();
        while (!stop) {
            cMsg m(0x5A0010);
            m.GetRecord().AppendUIntPar("n", 1);
            const auto t0 = tClock::now();
            if (other.Send(m) > 0)
                ++otherSent;
            const long long us =
                std::chrono::duration_cast<std::chrono::microseconds>(tClock::now() - t0).count();
            if (us > slowestUs)
                slowestUs = us;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    const std::string payload(60000, 'p');
    int queuedFrames = 0;
    go = true;
    const auto t0 = tClock::now();
    for (int i = 0; i < 4; ++i) {
        cMsg big(0x5A0011);
        big.GetRecord().AppendTextPar("p", payload, 0);
        if (tls->Send(big) > 0)
            ++queuedFrames;
    }
    const long long sendsTookMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(tClock::now() - t0).count();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    sender.join();
    EXPECT_LT(sendsTookMs, 1000) << "sends to the stalled peer waited";
    EXPECT_LT(slowestUs.load(), 500000) << "a send on the other socket waited for the stalled peer";
    EXPECT_GT(otherSent.load(), 0);
    EXPECT_GE(queuedFrames, 2);
    EXPECT_TRUE(tls->IsWritePending()) << "bytes wait for writability";

    // The peer reads again: the loop flushes the queue; every large frame
    // arrives whole (the peer identification comes first).
    std::atomic<int> bigFrames{0};
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        std::vector<unsigned char> frame(kFrameMaxSize);
        while (bigFrames < queuedFrames) {
            if (!SslReadAll(peer, frame.data(), kFrameHeaderSize))
                break;
            const uint32_t n = uint32_t(frame[2]) | uint32_t(frame[3]) << 8 |
                               uint32_t(frame[4]) << 16 | uint32_t(frame[5]) << 24;
            if (n < uint32_t(kFrameHeaderSize) || n > frame.size() ||
                !SslReadAll(peer, frame.data() + kFrameHeaderSize, int(n) - kFrameHeaderSize))
                break;
            if (std::string(reinterpret_cast<char*>(frame.data()), n).find(payload) != std::string::npos)
                ++bigFrames;
        }
        reading = false;
    });
    for (int i = 0; i < 4000 && reading; ++i)
        Await(svc, 0x7FFFFF, nullptr, 5);
    shutdown(fd, SHUT_RDWR);
    reader.join();
    EXPECT_EQ(bigFrames.load(), queuedFrames);
    EXPECT_FALSE(tls->IsWritePending());

    other.Close();
    close(pair[1]);
    SSL_free(peer);
    close(fd);
    SSL_CTX_free(clientCtx);
    SSL_CTX_free(serverCtx);
}
