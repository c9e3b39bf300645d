// TLS over the stream sockets against real OpenSSL peers: `openssl s_server`
// and `openssl s_client` on 127.0.0.1 whose standard input and output are one
// FIFO, so they send back every byte they receive (a framed message comes
// back as itself). Certificates are made per run in a temporary directory.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "orvo_msgsocket.h"
#include "orvo_service.h"
#include "orvo_tls.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

const unsigned long kEchoType = 0x20001;

struct cTestService : orvo_test::cTestService {
    cTestService() { Init("tls", cSocketAddr("127.0.0.1", 0)); }
};

// Certificates of one run: a root CA and its server (CN localhost, also
// valid for 127.0.0.1) and client, a stranger CA with a server of its own,
// chains through two and three intermediates, an encrypted key and a file
// holding certificate and key together.
const char* const kMakeCertificates = R"(set -e
cd "$1"
printf 'basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign,cRLSign\n' > ca.ext
printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' > leaf.ext
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null; }
root() { key "$1"; openssl req -x509 -new -key "$1.key" -out "$1.crt" -days 2 -subj "/CN=$2" \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign,cRLSign; }
signed() { key "$1"; openssl req -new -key "$1.key" -out "$1.csr" -subj "/CN=$2"
    openssl x509 -req -in "$1.csr" -CA "$3.crt" -CAkey "$3.key" -CAcreateserial -days 2 \
        -extfile "$4" -out "$1.crt" 2>/dev/null; }
root ca "Test Root"
signed server localhost ca leaf.ext
signed client client ca leaf.ext
root stranger "Stranger Root"
signed strangerserver localhost stranger leaf.ext
signed int1 "Intermediate 1" ca ca.ext
signed int2 "Intermediate 2" int1 ca.ext
signed int3 "Intermediate 3" int2 ca.ext
signed shallow localhost int2 leaf.ext
signed deep localhost int3 leaf.ext
cat int2.crt int1.crt > shallow-chain.crt
cat int3.crt int2.crt int1.crt > deep-chain.crt
openssl pkey -in server.key -aes256 -passout pass:orange -out server-enc.key
cat server.crt server.key > server-combined.pem
)";

// TLS 1.0 needs OpenSSL's security level 0 on the peer as well.
const std::vector<std::string> kTls10 = {"-tls1", "-cipher", "DEFAULT@SECLEVEL=0"};

class Tls : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/orvo-tls-XXXXXX";
        if (mkdtemp(tmpl) == nullptr || std::system("openssl version >/dev/null 2>&1") != 0)
            return;
        s_Dir = tmpl;
        const std::string script = s_Dir + "/make.sh";
        std::ofstream(script) << kMakeCertificates;
        if (std::system(("sh " + script + " " + s_Dir + " >/dev/null 2>&1").c_str()) != 0)
            s_Dir.clear();
    }
    static void TearDownTestSuite()
    {
        if (!s_Dir.empty())
            (void)!std::system(("rm -rf " + s_Dir).c_str());
    }
    void SetUp() override
    {
        if (s_Dir.empty())
            GTEST_SKIP() << "no openssl command, or it could not make the test certificates";
    }
    void TearDown() override
    {
        for (pid_t pid : m_Peers) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        for (ssl_ctx_st* ctx : m_Contexts)
            openssl_free_ssl_ctx(ctx);
    }

    static std::string File(const char* name) { return s_Dir + "/" + name; }

    ssl_ctx_st* Keep(ssl_ctx_st* ctx)
    {
        if (ctx != nullptr)
            m_Contexts.push_back(ctx);
        return ctx;
    }
    // The TLS 1.0 context trusting our root CA (client side).
    ssl_ctx_st* ClientCtx() { return Keep(openssl_create_ssl_ctx(nullptr, File("ca.crt").c_str(), nullptr, nullptr, nullptr, nullptr)); }

    // Starts `openssl <args>` echoing through a FIFO; its standard error goes
    // to a log file. The process id, -1 when it could not start.
    pid_t StartOpenssl(std::vector<std::string> args)
    {
        const std::string fifo = File(("fifo" + std::to_string(m_Peers.size()) + "-" + std::to_string(m_Started++)).c_str());
        mkfifo(fifo.c_str(), 0600);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int fd = open(fifo.c_str(), O_RDWR);
            const int log = open((fifo + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 0);
            dup2(fd, 1);
            dup2(log, 2);
            std::vector<char*> argv;
            args.insert(args.begin(), "openssl");
            for (std::string& a : args)
                argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execvp("openssl", argv.data());
            _exit(127);
        }
        if (pid > 0)
            m_Peers.push_back(pid);
        return pid;
    }

    // An `openssl s_server` with the certificate files and more arguments,
    // listening on a free port of 127.0.0.1 (a port another process took
    // meanwhile is replaced by a new one). The port, 0 when none worked.
    unsigned short StartServer(const char* cert, const char* key, std::vector<std::string> more)
    {
        for (int attempt = 0; attempt < 5; ++attempt) {
            const unsigned short port = orvo_test::FreeLoopbackPort();
            std::vector<std::string> args = {"s_server", "-quiet", "-accept", "127.0.0.1:" + std::to_string(port),
                                             "-cert", File(cert), "-key", File(key)};
            args.insert(args.end(), more.begin(), more.end());
            const pid_t pid = StartOpenssl(args);
            if (WaitListening(pid, port))
                return port;
        }
        return 0;
    }

    pid_t StartClient(unsigned short port, std::vector<std::string> more)
    {
        std::vector<std::string> args = {"s_client", "-quiet", "-connect", "127.0.0.1:" + std::to_string(port)};
        args.insert(args.end(), more.begin(), more.end());
        return StartOpenssl(args);
    }

    // Whether port shows up as listening (state 0A in /proc/net/tcp) while
    // pid still runs; up to 10 s.
    static bool WaitListening(pid_t pid, unsigned short port)
    {
        char want[32];
        std::snprintf(want, sizeof want, ":%04X 00000000:0000 0A", port);
        for (int i = 0; i < 1000; ++i, usleep(10000)) {
            if (waitpid(pid, nullptr, WNOHANG) == pid)
                return false;
            std::ifstream tcp("/proc/net/tcp");
            std::stringstream text;
            text << tcp.rdbuf();
            if (text.str().find(want) != std::string::npos)
                return true;
        }
        return false;
    }

    static std::string s_Dir;
    std::vector<pid_t> m_Peers;
    std::vector<ssl_ctx_st*> m_Contexts;
    int m_Started = 0;
};

std::string Tls::s_Dir;

using orvo_test::AwaitFrom;

std::string Text(const cMsg& m, const char* key)
{
    return m.GetRecord().GetFirstPar(key).GetString();
}

// Sends a message of kEchoType with a text and checks it comes back whole.
void ExpectEcho(cService& svc, cChannel& socket, const std::string& text)
{
    cMsg request(kEchoType);
    request.GetRecord().AppendTextPar("text", text);
    request.GetRecord().AppendUIntPar("n", 4711);
    ASSERT_GT(socket.Send(request), 0);
    cMsg back = AwaitFrom(svc, kEchoType, &socket);
    ASSERT_EQ(back, kEchoType);
    EXPECT_EQ(Text(back, "text"), text);
    EXPECT_EQ(back.GetRecord().GetFirstPar("n").GetUInt(), 4711u);
}

// A client socket of svc with ctx connecting to port; connection started.
void Connect(cMsgTcpSocket& client, ssl_ctx_st* ctx, unsigned short port)
{
    client.SetSSL(ctx);
    ASSERT_GT(client.Socket(AF_INET, SOCK_STREAM, 0), 0);
    ASSERT_EQ(client.Connect(cSocketAddr("127.0.0.1", port)), 0);
}

}  // namespace

TEST_F(Tls, ContextCreationLoadsKeysAndReportsEachFailingStep)
{
    EXPECT_EQ(openssl_lib_init(), 1);
    EXPECT_EQ(openssl_lib_init(), 1);
    EXPECT_NE(Keep(openssl_create_ssl_ctx(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)), nullptr);

    ::testing::internal::CaptureStdout();
    const std::string combined = File("server-combined.pem");
    EXPECT_NE(Keep(openssl_create_ssl_ctx(nullptr, nullptr, nullptr, combined.c_str(), nullptr, nullptr)), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "openssl_create_ssl_ctx: using cert as key: " + combined + "\n");

    const std::string cert = File("server.crt"), encrypted = File("server-enc.key");
    EXPECT_NE(Keep(openssl_create_ssl_ctx(nullptr, nullptr, nullptr, cert.c_str(), encrypted.c_str(), "orange")),
              nullptr);

    struct {
        const char* ciphers;
        std::string cert, key;
        const char* password;
        const char* ca;
        const char* printed;
    } failures[] = {
        {nullptr, cert, encrypted, "apple", nullptr, "SSL_CTX_use_PrivateKey_file failed: "},
        {nullptr, cert, File("client.key"), nullptr, nullptr, "SSL_CTX_use_PrivateKey_file failed: key values mismatch\n"},
        {nullptr, File("missing.crt"), File("server.key"), nullptr, nullptr, "SSL_CTX_use_certificate_file failed: "},
        {"NO-SUCH-CIPHER", cert, File("server.key"), nullptr, nullptr, "SSL_CTX_set_cipher_list failed: "},
        {nullptr, cert, File("server.key"), nullptr, "/nonexistent/ca.crt", "SSL_CTX_load_verify_locations failed: "},
    };
    for (const auto& f : failures) {
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(openssl_create_ssl_ctx(f.ciphers, f.ca, nullptr, f.cert.c_str(), f.key.c_str(), f.password), nullptr)
            << f.printed;
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind(std::string("openssl_create_ssl_ctx: ") + f.printed, 0), 0u) << out;
        EXPECT_GT(out.size(), out.find("failed: ") + 9) << "no OpenSSL reason in: " << out;
        EXPECT_EQ(out.find('\n'), out.size() - 1) << out;
    }
}

TEST_F(Tls, ClientTls10HandshakePrintsPeerAndExchangesFrames)
{
    const unsigned short port = StartServer("server.crt", "server.key", kTls10);
    ASSERT_NE(port, 0);
    cTestService svc;
    cMsgTcpSocket client(&svc, nullptr);
    ::testing::internal::CaptureStdout();
    Connect(client, ClientCtx(), port);
    // The message socket announces itself to the peer, which sends it back.
    cMsg connected = AwaitFrom(svc, MSG_SOCKET_CONNECTED, &client);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(connected, MSG_SOCKET_CONNECTED);
    EXPECT_TRUE(client.IsConnected());
    EXPECT_EQ(Text(connected, "peer-name"), "tls");

    const std::string fn = "openssl_show_peer_certificate: ";
    EXPECT_EQ(printed.rfind("\n" + fn + "TLSv1 connection using ", 0), 0u) << printed;
    EXPECT_NE(printed.find(" bits)\nCertificate subject:\n  commonName                = localhost\n" + fn +
                           "commonName: localhost\nCertificate issuer:\n  commonName                = Test Root\n" +
                           fn + "Server public key is 256 bit\n\n"),
              std::string::npos)
        << printed;

    ExpectEcho(svc, client, "first");
    ExpectEcho(svc, client, std::string(20000, 'x'));   // several TLS records
    client.Close();
}

TEST_F(Tls, ClientRefusesUnknownCaAndTooDeepChain)
{
    struct {
        const char* cert;
        const char* key;
        const char* chain;
        bool accepted;
        const char* printed;
    } cases[] = {
        {"strangerserver.crt", "strangerserver.key", nullptr, false,
         "verify_callback: verify_callback failed: unable to get local issuer certificate\n"},
        {"shallow.crt", "shallow.key", "shallow-chain.crt", true, ""},
        {"deep.crt", "deep.key", "deep-chain.crt", false,
         "verify_callback: verify_callback failed: certificate chain too long\nMaximum depth 3, current depth 4\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cert);
        std::vector<std::string> more = kTls10;
        if (c.chain != nullptr)
            more.insert(more.end(), {"-cert_chain", File(c.chain)});
        const unsigned short port = StartServer(c.cert, c.key, more);
        ASSERT_NE(port, 0);
        cTestService svc;
        cMsgTcpSocket client(&svc, nullptr);
        ::testing::internal::CaptureStdout();
        Connect(client, ClientCtx(), port);
        cMsg m = svc.WaitSyncMsg(20000, MSG_SOCKET_CONNECTED, MSG_SOCKET_TLS_FAILED);
        const std::string printed = ::testing::internal::GetCapturedStdout();
        if (c.accepted) {
            EXPECT_EQ(m, MSG_SOCKET_CONNECTED);
            continue;
        }
        ASSERT_EQ(m, MSG_SOCKET_TLS_FAILED);
        EXPECT_EQ(Text(m, "error"), "ConnectSSL");
        EXPECT_FALSE(m.GetRecord().GetFirstPar("reason").IsValid());
        EXPECT_EQ(Text(m, "indic"), "certificate verify failed");
        EXPECT_EQ(printed, c.printed);
        EXPECT_FALSE(client.IsConnected());
    }
}

TEST_F(Tls, ServerTls10HandshakeWithClientCertificates)
{
    ssl_ctx_st* ctx = Keep(openssl_create_ssl_ctx(nullptr, File("ca.crt").c_str(), nullptr,
                                                  File("server.crt").c_str(), File("server.key").c_str(), nullptr));
    ASSERT_NE(ctx, nullptr);
    cTestService svc;
    cTcpServer<cMsgTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    server.SetSSL(ctx);
    ASSERT_EQ(server.Run(), 0);
    const unsigned short port = server.GetLocalAddress().GetPort();

    // A client of our CA is accepted and talks framed messages.
    std::vector<std::string> trusted = kTls10;
    trusted.insert(trusted.end(), {"-cert", File("client.crt"), "-key", File("client.key")});
    ::testing::internal::CaptureStdout();
    ASSERT_GT(StartClient(port, trusted), 0);
    ASSERT_EQ(AwaitFrom(svc, MSG_SOCKET_ACCEPTED, &server), MSG_SOCKET_ACCEPTED);
    ASSERT_EQ(server.GetClients().size(), 1u);
    cTcpSocket* accepted = server.GetClients().front();
    ASSERT_EQ(AwaitFrom(svc, MSG_SOCKET_CONNECTED, accepted), MSG_SOCKET_CONNECTED);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("openssl_show_peer_certificate: commonName: client\n"), std::string::npos) << printed;
    ExpectEcho(svc, *accepted, "from the server");

    // A client certificate of another CA: the accepting side reports.
    std::vector<std::string> stranger = kTls10;
    stranger.insert(stranger.end(), {"-cert", File("strangerserver.crt"), "-key", File("strangerserver.key")});
    ::testing::internal::CaptureStdout();
    ASSERT_GT(StartClient(port, stranger), 0);
    cMsg failed = AwaitFrom(svc, MSG_SOCKET_TLS_FAILED);
    ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(failed, MSG_SOCKET_TLS_FAILED);
    EXPECT_EQ(Text(failed, "reason"), "AcceptSSL");
    EXPECT_FALSE(failed.GetRecord().GetFirstPar("error").IsValid());
    EXPECT_EQ(Text(failed, "indic"), "certificate verify failed");
    // The first connection goes on.
    ExpectEcho(svc, *accepted, "still here");
}

TEST_F(Tls, StalledAndGarbagePeersCostOnlyTheirOwnConnection)
{
    ssl_ctx_st* ctx = Keep(openssl_create_ssl_ctx(nullptr, nullptr, nullptr, File("server.crt").c_str(),
                                                  File("server.key").c_str(), nullptr));
    cTestService svc;
    cTcpServer<cMsgTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    server.SetSSL(ctx);
    ASSERT_EQ(server.Run(), 0);
    const cSocketAddr addr("127.0.0.1", server.GetLocalAddress().GetPort());

    // One peer sends the first bytes of a handshake record and stalls;
    // another sends plain text.
    const int stalled = socket(AF_INET, SOCK_STREAM, 0), garbage = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(stalled, addr.GetSockAddr(), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(send(stalled, "\x16\x03\x01\x02\x00\x01", 6, 0), 6);
    ASSERT_EQ(connect(garbage, addr.GetSockAddr(), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(send(garbage, "GET / HTTP/1.0\r\n\r\n", 18, 0), 18);
    ::testing::internal::CaptureStdout();
    cMsg failed = AwaitFrom(svc, MSG_SOCKET_TLS_FAILED);
    ASSERT_EQ(failed, MSG_SOCKET_TLS_FAILED);
    EXPECT_EQ(Text(failed, "reason"), "AcceptSSL");
    char c;
    EXPECT_LE(recv(garbage, &c, 1, 0), 0) << "the garbage connection is closed";

    // A real client still gets through while the stalled one waits.
    ASSERT_GT(StartClient(addr.GetPort(), kTls10), 0);
    cTcpSocket* good = nullptr;
    for (int i = 0; i < 3 && good == nullptr; ++i) {
        cMsg m = AwaitFrom(svc, MSG_SOCKET_CONNECTED);
        ASSERT_EQ(m, MSG_SOCKET_CONNECTED);
        good = static_cast<cTcpSocket*>(m.GetChannel());
    }
    ::testing::internal::GetCapturedStdout();
    ExpectEcho(svc, *good, "unaffected");
    const auto& clients = server.GetClients();
    EXPECT_EQ(std::count_if(clients.begin(), clients.end(), [](cTcpSocket* t) { return t->IsAccepting(); }), 1)
        << "the stalled connection is still waiting";
    close(stalled);
    close(garbage);
}

TEST_F(Tls, ModernContextVerifiesHostAndRefusesTls10)
{
    sTlsOptions options;
    const std::string ca = File("ca.crt");
    options.caFile = ca.c_str();
    options.peerHost = "localhost";
    ssl_ctx_st* good = Keep(openssl_create_modern_ssl_ctx(options));
    options.peerHost = "meter.example";
    ssl_ctx_st* wrongName = Keep(openssl_create_modern_ssl_ctx(options));
    options.peerHost = "127.0.0.1";
    ssl_ctx_st* byAddress = Keep(openssl_create_modern_ssl_ctx(options));
    ASSERT_TRUE(good && wrongName && byAddress);

    const unsigned short tls13 = StartServer("server.crt", "server.key", {"-tls1_3"});
    const unsigned short tls10 = StartServer("server.crt", "server.key", kTls10);
    // Presents the trusted certificate only to a client that names
    // "localhost" in SNI, a stranger's to everyone else.
    const unsigned short bySni = StartServer("strangerserver.crt", "strangerserver.key",
                                             {"-servername", "localhost", "-cert2", File("server.crt"), "-key2",
                                              File("server.key")});
    ASSERT_TRUE(tls13 && tls10 && bySni);
    struct {
        ssl_ctx_st* ctx;
        unsigned short port;
        bool accepted;
    } cases[] = {{good, tls13, true},       {byAddress, tls13, true}, {good, bySni, true},
                 {wrongName, tls13, false}, {good, tls10, false},     {byAddress, bySni, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        cTestService svc;
        cMsgTcpSocket client(&svc, nullptr);
        ::testing::internal::CaptureStdout();
        Connect(client, c.ctx, c.port);
        cMsg m = svc.WaitSyncMsg(20000, MSG_SOCKET_CONNECTED, MSG_SOCKET_TLS_FAILED);
        const std::string printed = ::testing::internal::GetCapturedStdout();
        if (c.accepted) {
            ASSERT_EQ(m, MSG_SOCKET_CONNECTED);
            EXPECT_NE(printed.find("TLSv1.3 connection using"), std::string::npos) << printed;
            ExpectEcho(svc, client, "modern");
        } else {
            ASSERT_EQ(m, MSG_SOCKET_TLS_FAILED);
            EXPECT_EQ(Text(m, "error"), "ConnectSSL");
        }
        client.Close();
    }

    // The modern server refuses a TLS 1.0 client.
    options = sTlsOptions();
    const std::string cert = File("server.crt"), key = File("server.key");
    options.server = true;
    options.certFile = cert.c_str();
    options.keyFile = key.c_str();
    cTestService svc;
    cTcpServer<cMsgTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    server.SetSSL(Keep(openssl_create_modern_ssl_ctx(options)));
    ASSERT_EQ(server.Run(), 0);
    ASSERT_GT(StartClient(server.GetLocalAddress().GetPort(), kTls10), 0);
    cMsg refused = AwaitFrom(svc, MSG_SOCKET_TLS_FAILED);
    ASSERT_EQ(refused, MSG_SOCKET_TLS_FAILED);
    EXPECT_EQ(Text(refused, "reason"), "AcceptSSL");

    // A server that requires client certificates: a client without one is
    // refused, a client of the trusted CA gets through.
    options.caFile = ca.c_str();
    options.requireClientCert = true;
    cTcpServer<cMsgTcpSocket> strict(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    strict.SetSSL(Keep(openssl_create_modern_ssl_ctx(options)));
    ASSERT_EQ(strict.Run(), 0);
    const unsigned short strictPort = strict.GetLocalAddress().GetPort();
    ASSERT_GT(StartClient(strictPort, {}), 0);
    cMsg anonymous = AwaitFrom(svc, MSG_SOCKET_TLS_FAILED);
    ASSERT_EQ(anonymous, MSG_SOCKET_TLS_FAILED);
    EXPECT_EQ(Text(anonymous, "reason"), "AcceptSSL");
    ::testing::internal::CaptureStdout();
    ASSERT_GT(StartClient(strictPort, {"-cert", File("client.crt"), "-key", File("client.key")}), 0);
    cMsg accepted = AwaitFrom(svc, MSG_SOCKET_ACCEPTED, &strict);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(accepted, MSG_SOCKET_ACCEPTED);
    EXPECT_NE(printed.find("commonName: client\n"), std::string::npos) << printed;
}
