// wan_bench: the transfer library against its peers in the same run.
//  1. start-up to the first GetMessage: a service linking liborvo only
//     against the same service with the transfer library (libcurl mapped and
//     started), and the shared objects each maps;
//  2. download of a large file from a local nginx: cWanClient against the
//     curl command-line tool, alternating rounds;
//  3. the service loop during that download: a request/answer pair between a
//     thread service and the service that owns the transfer, p99 against the
//     same pairs while idle; at loopback speed, and with the transfer capped
//     at a WAN-like rate (--cap=N MB/s), the device's own case.
// Options: --mb=N (file size, 200), --rounds=N (3), --starts=N (40), --pings=N (2000),
// --cap=N (20).
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "orvo.h"
#include "orvo_wan.h"

using namespace orvo;
using Clock = std::chrono::steady_clock;

namespace {

long Option(int argc, char** argv, const char* name, long def)
{
    std::string prefix = std::string("--") + name + "=";
    for (int i = 1; i < argc; ++i)
        if (strncmp(argv[i], prefix.c_str(), prefix.size()) == 0)
            return atol(argv[i] + prefix.size());
    return def;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

double Percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

std::string ExeDir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    std::string p(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return p.substr(0, p.rfind('/'));
}

// Runs argv to its end; wall milliseconds, or -1 when it failed. out gets stdout.
double RunTimed(const std::vector<std::string>& argv, std::string* out = nullptr)
{
    int pipefd[2];
    if (pipe(pipefd) != 0)
        return -1;
    auto t0 = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipefd[1], 1);
        close(pipefd[0]);
        std::vector<char*> a;
        for (const std::string& s : argv)
            a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execvp(a[0], a.data());
        _exit(127);
    }
    close(pipefd[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(pipefd[0], buf, sizeof buf)) > 0)
        if (out)
            out->append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
}

bool StartUp(long starts)
{
    std::string dir = ExeDir();
    std::vector<double> plain, wan;
    for (long i = 0; i < starts; ++i) {
        double a = RunTimed({dir + "/startup_probe"});
        double b = RunTimed({dir + "/startup_probe_wan"});
        if (a < 0 || b < 0) {
            fprintf(stderr, "start-up probe failed\n");
            return false;
        }
        plain.push_back(a);
        wan.push_back(b);
    }
    std::string mapsPlain, mapsWan;
    RunTimed({dir + "/startup_probe", "--maps"}, &mapsPlain);
    RunTimed({dir + "/startup_probe_wan", "--maps"}, &mapsWan);
    printf("start-up to first GetMessage (median of %ld, ms): liborvo only %.2f, with the "
           "transfer library and libcurl %.2f, ratio %.2fx\n",
           starts, Median(plain), Median(wan), Median(wan) / Median(plain));
    printf("mapped shared objects, liborvo only: %s", mapsPlain.c_str());
    printf("mapped shared objects, with libcurl: %s", mapsWan.c_str());
    return true;
}

// nginx on a free port of 127.0.0.1 serving dir/www.
struct sNginx {
    std::string dir;
    unsigned short port = 0;
    pid_t pid = -1;

    bool Start(long mb)
    {
        char tmpl[] = "/tmp/orvo-wan-bench-XXXXXX";
        dir = mkdtemp(tmpl);
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        cSocketAddr a("127.0.0.1", 0);
        socklen_t len = sizeof(sockaddr_in);
        bind(fd, a.GetSockAddr(), len);
        getsockname(fd, a.GetSockAddr(), &len);
        close(fd);
        port = a.GetPort();
        std::string conf = "daemon off;\nmaster_process off;\npid " + dir + "/nginx.pid;\nerror_log " +
                           dir + "/error.log;\nevents { worker_connections 16; }\nhttp { access_log off;\n"
                           " sendfile on;\n server { listen 127.0.0.1:" + std::to_string(port) +
                           "; root " + dir + "/www; }\n}\n";
        std::ofstream(dir + "/nginx.conf") << conf;
        std::string mk = "mkdir -p '" + dir + "/www' && head -c " + std::to_string(mb) +
                         "M /dev/urandom >'" + dir + "/www/big.bin'";
        if (system(mk.c_str()) != 0)
            return false;
        pid = fork();
        if (pid == 0) {
            execlp("nginx", "nginx", "-p", dir.c_str(), "-c", (dir + "/nginx.conf").c_str(), "-e",
                   (dir + "/error.log").c_str(), (char*)nullptr);
            _exit(127);
        }
        for (int i = 0; i < 200; ++i) {
            int s = socket(AF_INET, SOCK_STREAM, 0);
            cSocketAddr to("127.0.0.1", port);
            bool up = connect(s, to.GetSockAddr(), sizeof(sockaddr_in)) == 0;
            close(s);
            if (up)
                return true;
            usleep(50000);
        }
        return false;
    }
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(port) + "/big.bin"; }
    ~sNginx()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        if (!dir.empty())
            (void)!system(("rm -rf '" + dir + "'").c_str());
    }
};

struct cBenchService : cService {
    void ThreadMain() override {}
};

// Pings its parent (0x6001) and waits for each answer (0x6002).
class cPinger : public cMsgThread {
public:
    cPinger(cService* parent, long count) : cMsgThread(parent, "pinger"), m_Count(count) {}
    ~cPinger() override { Join(); }
    std::vector<double> rtt;
    std::atomic<bool> stop{false};

protected:
    void ThreadMain() override
    {
        for (long i = 0; (m_Count == 0 || i < m_Count) && !stop; ++i) {
            auto t0 = Clock::now();
            cMsg ping(0x6001);
            SendToParent(ping);
            if (WaitSyncMsg(5000, 0x6002).GetType() != 0x6002)
                break;
            rtt.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            usleep(500);
        }
        cMsg end(0x6003);
        SendToParent(end);
    }

private:
    long m_Count;
};

// Answers pings until the pinger ends; with a request, downloads meanwhile.
// Returns the ping round trips; seconds gets the download's time.
std::vector<double> LoopWhile(const std::string& url, const std::string& file, long pings,
                              double* seconds, bool ping = true, long long capBytesPerSecond = 0)
{
    cBenchService svc;
    svc.Init("bench", cSocketAddr("127.0.0.1", 0));
    cWanClient wan(&svc);
    cPinger pinger(&svc, url.empty() ? pings : 0);
    auto t0 = Clock::now();
    if (!url.empty()) {
        tWanRequest r;
        r.url = url;
        r.file = file;
        r.progressMs = 200;
        r.maxBytesPerSecond = capBytesPerSecond;
        if (wan.Start(r) == 0)
            return {};
    }
    if (ping)
        pinger.Start();
    cMsg msg;
    while (svc.GetMessage(msg)) {
        if (msg.GetType() == 0x6001) {
            cMsg pong(0x6002);
            svc.SendToInternal(&pinger, pong);
        } else if (msg.GetType() == MSG_WAN_DONE) {
            if (seconds)
                *seconds = std::chrono::duration<double>(Clock::now() - t0).count();
            if (msg.GetRecord().GetFirstPar("result").GetSInt() != WAN_OK)
                fprintf(stderr, "download failed: %s\n",
                        msg.GetRecord().GetFirstPar("error").GetString().c_str());
            pinger.stop = true;
            if (!ping)
                break;
        } else if (msg.GetType() == 0x6003) {
            break;
        }
    }
    pinger.Join();
    return pinger.rtt;
}

}  // namespace

int main(int argc, char** argv)
{
    long mb = Option(argc, argv, "mb", 200);
    long rounds = Option(argc, argv, "rounds", 3);
    long starts = Option(argc, argv, "starts", 40);
    long pings = Option(argc, argv, "pings", 2000);
    long cap = Option(argc, argv, "cap", 20);
    if (!StartUp(starts))
        return 1;

    orvoInit(ERROR, OUTPUT_NONE, false);
    sNginx nginx;
    if (!nginx.Start(mb)) {
        fprintf(stderr, "nginx did not start\n");
        return 1;
    }
    std::string out = nginx.dir + "/out.bin";
    std::vector<double> ours, theirs, theirsSynced;
    std::vector<double> busy, capped;
    for (long i = 0; i < rounds; ++i) {
        // Throughput with the loop otherwise idle, as the tool runs; then
        // the same download again while the loop answers pings.
        double s = 0;
        LoopWhile(nginx.Url(), out, 0, &s, false);
        if (s <= 0)
            return 1;
        ours.push_back(mb / s);
        unlink(out.c_str());
        double pinged = 0;
        std::vector<double> r = LoopWhile(nginx.Url(), out, 0, &pinged);
        if (pinged <= 0)
            return 1;
        busy.insert(busy.end(), r.begin(), r.end());
        unlink(out.c_str());
        r = LoopWhile(nginx.Url(), out, 0, &pinged, true, static_cast<long long>(cap) << 20);
        if (pinged <= 0)
            return 1;
        capped.insert(capped.end(), r.begin(), r.end());
        unlink(out.c_str());
        double ms = RunTimed({"curl", "-s", "-o", out, nginx.Url()});
        if (ms < 0) {
            fprintf(stderr, "curl failed\n");
            return 1;
        }
        theirs.push_back(mb / (ms / 1000));
        unlink(out.c_str());
        // The tool with the guarantee liborvo gives (the file's data on the
        // disk before it counts as there): curl, then sync of its file.
        ms = RunTimed({"sh", "-c", "curl -s -o '" + out + "' '" + nginx.Url() + "' && sync '" + out + "'"});
        if (ms < 0) {
            fprintf(stderr, "curl failed\n");
            return 1;
        }
        theirsSynced.push_back(mb / (ms / 1000));
        unlink(out.c_str());
    }
    std::vector<double> idle = LoopWhile("", "", pings, nullptr);
    printf("download of %ld MB (median of %ld, MB/s): liborvo %.1f, curl tool %.1f, ratio %.2fx "
           "(goal >= 0.95x); curl tool then sync %.1f, ratio %.2fx\n",
           mb, rounds, Median(ours), Median(theirs), Median(ours) / Median(theirs), Median(theirsSynced),
           Median(ours) / Median(theirsSynced));
    printf("request/answer through the downloading service (us): idle p50 %.0f p99 %.0f (%zu pairs), "
           "during download p50 %.0f p99 %.0f (%zu pairs), p99 ratio %.2fx (goal <= 2x)\n",
           Percentile(idle, 0.5), Percentile(idle, 0.99), idle.size(), Percentile(busy, 0.5),
           Percentile(busy, 0.99), busy.size(), Percentile(busy, 0.99) / Percentile(idle, 0.99));
    printf("the same during a download capped at %ld MB/s: p50 %.0f p99 %.0f (%zu pairs), "
           "p99 ratio %.2fx (goal <= 2x)\n",
           cap, Percentile(capped, 0.5), Percentile(capped, 0.99), capped.size(),
           Percentile(capped, 0.99) / Percentile(idle, 0.99));
    return 0;
}
