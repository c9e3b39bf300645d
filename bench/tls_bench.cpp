// tls_bench.cpp - what TLS costs the framed sockets: bulk transfer of 20 MB
// in framed messages over the modern TLS context against the same over
// plain TCP, and full TLS 1.3 handshakes per second of the library (as
// client and as server) against `openssl s_time` on the same certificate.
//
// The receiving service and the library server run in forked children on
// 127.0.0.1; the peer for handshakes is `openssl s_server`. Certificates (an
// EC P-256 CA and server certificate for "localhost") are made per run in a
// temporary directory. Every transfer is checked (byte count and checksum
// reported back by the receiver) before its time counts.
//
// Options:
//   --bytes=<n>       bytes per transfer (default 20000000)
//   --handshakes=<n>  library handshakes per side (default 300)
//   --seconds=<s>     duration of each `openssl s_time` run (default 5)
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orvo_msgsocket.h"
#include "orvo_msgtypes.h"
#include "orvo_service.h"
#include "orvo_tls.h"

using namespace orvo;

namespace {

const unsigned long kChunk = 0x20010;     // a piece of the transfer ("DATA")
const unsigned long kEnd = 0x20011;       // sender is done
const unsigned long kReceived = 0x20012;  // "bytes", "sum" as the receiver saw them
const int kChunkSize = 60000;

struct cBenchService : cService {
    void ThreadMain() override {}
};

double Now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

uint64_t Sum(uint64_t sum, const unsigned char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        sum = (sum ^ p[i]) * 1099511628211ull;
    return sum;
}

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "tls_bench: %s\n", what);
    std::exit(1);
}

std::string g_Dir;

std::string File(const char* name)
{
    return g_Dir + "/" + name;
}

void MakeCertificates()
{
    char tmpl[] = "/tmp/orvo-tls-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        Fail("no temporary directory");
    g_Dir = tmpl;
    const std::string script =
        "set -e; cd " + g_Dir +
        "; openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ca.key"
        "; openssl req -x509 -new -key ca.key -out ca.crt -days 2 -subj /CN=Bench-CA"
        " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign"
        "; openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out server.key"
        "; openssl req -new -key server.key -out server.csr -subj /CN=localhost"
        "; printf 'subjectAltName=DNS:localhost\\n' > leaf.ext"
        "; openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2"
        " -extfile leaf.ext -out server.crt";
    if (std::system(("(" + script + ") >/dev/null 2>&1").c_str()) != 0)
        Fail("could not make certificates (is the openssl command installed?)");
}

ssl_ctx_st* ServerCtx()
{
    static const std::string cert = File("server.crt"), key = File("server.key");
    sTlsOptions o;
    o.server = true;
    o.certFile = cert.c_str();
    o.keyFile = key.c_str();
    ssl_ctx_st* ctx = openssl_create_modern_ssl_ctx(o);
    if (ctx == nullptr)
        Fail("server context");
    return ctx;
}

ssl_ctx_st* ClientCtx()
{
    static const std::string ca = File("ca.crt");
    sTlsOptions o;
    o.caFile = ca.c_str();
    o.peerHost = "localhost";
    ssl_ctx_st* ctx = openssl_create_modern_ssl_ctx(o);
    if (ctx == nullptr)
        Fail("client context");
    return ctx;
}

// Standard output to /dev/null while quiet (each TLS connection prints
// the peer certificate); returns the saved descriptor.
int Quiet()
{
    std::fflush(stdout);
    const int saved = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    return saved;
}

void Loud(int saved)
{
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
}

// Forks a service on 127.0.0.1 whose cTcpServer<T> (TLS when ctx is given)
// listens on an ephemeral port; every message goes to handle until the
// child is killed. Its pid; port receives the port.
template <class T, class Handler>
pid_t ForkServer(ssl_ctx_st* ctx, unsigned short& port, Handler handle)
{
    int fds[2];
    if (pipe(fds) != 0)
        Fail("pipe");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(600);
        Quiet();
        cBenchService svc;
        svc.Init("server", cSocketAddr("127.0.0.1", 0));
        cTcpServer<T> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
        server.SetSSL(ctx);
        if (server.Run() != 0)
            _exit(3);
        const uint16_t p = server.GetLocalAddress().GetPort();
        (void)!write(fds[1], &p, sizeof p);
        cMsg m;
        while (svc.GetMessage(m))
            handle(m);
        _exit(0);
    }
    close(fds[1]);
    uint16_t p = 0;
    if (read(fds[0], &p, sizeof p) != sizeof p)
        Fail("server child did not start");
    close(fds[0]);
    port = p;
    return pid;
}

// A receiver that sums every chunk and answers kEnd with kReceived.
pid_t StartReceiver(ssl_ctx_st* ctx, unsigned short& port)
{
    uint64_t bytes = 0, sum = 14695981039346656037ull;
    return ForkServer<cMsgTcpSocket>(ctx, port, [bytes, sum](cMsg& m) mutable {
        if (m == kChunk) {
            cRecordPar d = m.GetRecord().GetFirstPar("DATA");
            bytes += unsigned(d.GetSize());
            sum = Sum(sum, reinterpret_cast<const unsigned char*>(d.GetData()), size_t(d.GetSize()));
        } else if (m == kEnd) {
            cMsg r(kReceived);
            r.GetRecord().AppendDataPar("bytes", &bytes, sizeof bytes);
            r.GetRecord().AppendDataPar("sum", &sum, sizeof sum);
            m.GetChannel()->Send(r);
            bytes = 0;
            sum = 14695981039346656037ull;
        }
    });
}

uint64_t Get64(const cMsg& m, const char* key)
{
    uint64_t v = 0;
    cRecordPar p = m.GetRecord().GetFirstPar(key);
    if (p.IsValid() && p.GetSize() == int(sizeof v))
        std::memcpy(&v, p.GetData(), sizeof v);
    return v;
}

// Sends total bytes in chunks over one framed connection (TLS with ctx);
// seconds from the first chunk to the receiver's confirmation.
double Transfer(ssl_ctx_st* serverCtx, ssl_ctx_st* clientCtx, uint64_t total)
{
    unsigned short port = 0;
    const pid_t pid = StartReceiver(serverCtx, port);
    cBenchService svc;
    svc.Init("sender", cSocketAddr("127.0.0.1", 0));
    cMsgTcpSocket sock(&svc, nullptr);
    sock.SetSSL(clientCtx);
    sock.SetWriteReadyMsg(1);
    const int saved = Quiet();
    if (sock.Socket(AF_INET, SOCK_STREAM, 0) < 0 || sock.Connect(cSocketAddr("127.0.0.1", port)) != 0)
        Fail("connect");
    // The message socket announces itself to the peer; the local side
    // knows it is up when the connection state says so.
    for (int i = 0; i < 1000 && !sock.IsConnected(); ++i)
        svc.WaitSyncMsg(10, kReceived);
    Loud(saved);
    if (!sock.IsConnected())
        Fail("no connection");

    std::vector<unsigned char> chunk(kChunkSize);
    uint64_t sum = 14695981039346656037ull, sent = 0;
    const double start = Now();
    while (sent < total) {
        const int n = int(std::min<uint64_t>(kChunkSize, total - sent));
        for (int i = 0; i < n; ++i)
            chunk[size_t(i)] = static_cast<unsigned char>((sent + uint64_t(i)) * 131 >> 7);
        cMsg m(kChunk);
        m.GetRecord().AppendDataPar("DATA", chunk.data(), n);
        int r;
        while ((r = sock.Send(m)) == -2)
            if (svc.WaitSyncMsg(10000, MSG_SOCKET_WRITABLE) != MSG_SOCKET_WRITABLE)
                Fail("send buffer never drained");
        if (r < 0)
            Fail("send failed");
        sum = Sum(sum, chunk.data(), size_t(n));
        sent += uint64_t(n);
    }
    cMsg end(kEnd);
    while (sock.Send(end) == -2)
        svc.WaitSyncMsg(10000, MSG_SOCKET_WRITABLE);
    cMsg reply = svc.WaitSyncMsg(60000, kReceived);
    const double seconds = Now() - start;
    if (reply != kReceived || Get64(reply, "bytes") != total || Get64(reply, "sum") != sum)
        Fail("the receiver did not get the bytes that were sent");
    sock.Close();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return seconds;
}

pid_t Spawn(const std::vector<std::string>& args, const char* out)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

unsigned short FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    cSocketAddr a("127.0.0.1", 0);
    socklen_t len = sizeof(sockaddr_in);
    bind(fd, a.GetSockAddr(), len);
    getsockname(fd, a.GetSockAddr(), &len);
    close(fd);
    return a.GetPort();
}

// One full handshake of a library client against port; whether it
// completed.
bool ClientHandshake(cService& svc, ssl_ctx_st* ctx, unsigned short port)
{
    cTcpSocket sock(&svc, nullptr, ctx);
    if (sock.Socket(AF_INET, SOCK_STREAM, 0) < 0 || sock.Connect(cSocketAddr("127.0.0.1", port)) != 0)
        return false;
    cMsg m = svc.WaitSyncMsg(10000, MSG_SOCKET_CONNECTED, MSG_SOCKET_TLS_FAILED, MSG_SOCKET_CONNECT_FAILED);
    sock.Close();
    return m == MSG_SOCKET_CONNECTED;
}

// Library client handshakes per second against an `openssl s_server`
// (started on port, retried while it is not listening yet).
double ClientHandshakesPerSecond(ssl_ctx_st* ctx, unsigned short port, int count)
{
    cBenchService svc;
    svc.Init("client", cSocketAddr("127.0.0.1", 0));
    const int saved = Quiet();
    bool up = false;
    for (int i = 0; i < 500 && !up; ++i)
        up = ClientHandshake(svc, ctx, port) || (usleep(10000), false);
    if (!up) {
        Loud(saved);
        Fail("openssl s_server did not answer");
    }
    const double start = Now();
    int done = 0;
    for (int i = 0; i < count; ++i)
        done += ClientHandshake(svc, ctx, port);
    const double seconds = Now() - start;
    Loud(saved);
    if (done != count)
        Fail("a library handshake failed");
    return count / seconds;
}

// Runs `openssl s_time -new` against port for seconds; connections per
// real second from its summary ("<n> connections in <s> real seconds").
double STime(unsigned short port, int seconds)
{
    const std::string out = File("s_time.out");
    const pid_t pid = Spawn({"openssl", "s_time", "-connect", "127.0.0.1:" + std::to_string(port), "-new",
                             "-time", std::to_string(seconds)},
                            out.c_str());
    int status = 0;
    waitpid(pid, &status, 0);
    FILE* f = std::fopen(out.c_str(), "r");
    double result = 0;
    char line[512];
    while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr) {
        long n = 0, real = 0;
        if (std::sscanf(line, "%ld connections in %ld real seconds", &n, &real) == 2 && real > 0)
            result = double(n) / double(real);
    }
    if (f != nullptr)
        std::fclose(f);
    if (result <= 0)
        Fail("openssl s_time gave no result");
    return result;
}

long ParseCount(const char* text, long fallback)
{
    const long v = std::atol(text);
    return v > 0 ? v : fallback;
}

}  // namespace

int main(int argc, char** argv)
{
    long bytes = 20000000, handshakes = 300, seconds = 5;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--bytes=", 8) == 0)
            bytes = ParseCount(argv[i] + 8, bytes);
        else if (std::strncmp(argv[i], "--handshakes=", 13) == 0)
            handshakes = ParseCount(argv[i] + 13, handshakes);
        else if (std::strncmp(argv[i], "--seconds=", 10) == 0)
            seconds = ParseCount(argv[i] + 10, seconds);
        else {
            std::fprintf(stderr, "usage: %s [--bytes=<n>] [--handshakes=<n>] [--seconds=<s>]\n", argv[0]);
            return 2;
        }
    }
    alarm(900);
    signal(SIGPIPE, SIG_IGN);
    MakeCertificates();
    ssl_ctx_st* serverCtx = ServerCtx();
    ssl_ctx_st* clientCtx = ClientCtx();

    // Bulk transfer, plain and TLS alternating, best of three each.
    double plain = 1e9, tls = 1e9;
    for (int round = 0; round < 3; ++round) {
        plain = std::min(plain, Transfer(nullptr, nullptr, uint64_t(bytes)));
        tls = std::min(tls, Transfer(serverCtx, clientCtx, uint64_t(bytes)));
    }
    const double mb = double(bytes) / 1e6;
    std::printf("bulk transfer, %.0f MB in %d-byte framed messages (best of 3):\n", mb, kChunkSize);
    std::printf("  plain TCP         %8.1f MB/s\n", mb / plain);
    std::printf("  TLS (modern ctx)  %8.1f MB/s   (%.2fx the plain time, %s)\n", mb / tls, tls / plain,
                "TLS 1.3");

    // Handshakes: the library as client against s_server, s_time against
    // the same s_server, s_time against the library as server.
    unsigned short port = FreePort();
    const pid_t sserver =
        Spawn({"openssl", "s_server", "-quiet", "-accept", "127.0.0.1:" + std::to_string(port), "-cert",
               File("server.crt"), "-key", File("server.key"), "-no_cache"},
              File("s_server.out").c_str());
    const double libClient = ClientHandshakesPerSecond(clientCtx, port, int(handshakes));
    const double sTimeOpenssl = STime(port, int(seconds));
    kill(sserver, SIGTERM);
    waitpid(sserver, nullptr, 0);
    unsigned short libPort = 0;
    // Accepted connections are deleted by the framework when s_time ends them.
    const pid_t libServer = ForkServer<cTcpSocket>(serverCtx, libPort, [](cMsg&) {});
    const double sTimeLibrary = STime(libPort, int(seconds));
    kill(libServer, SIGTERM);
    waitpid(libServer, nullptr, 0);

    std::printf("full TLS 1.3 handshakes per second (EC P-256 certificate, no session reuse):\n");
    std::printf("  library client -> openssl s_server  %8.0f /s\n", libClient);
    std::printf("  openssl s_time -> openssl s_server  %8.0f /s\n", sTimeOpenssl);
    std::printf("  openssl s_time -> library server    %8.0f /s\n", sTimeLibrary);
    openssl_free_ssl_ctx(serverCtx);
    openssl_free_ssl_ctx(clientCtx);
    (void)!std::system(("rm -rf " + g_Dir).c_str());
    return 0;
}
