// scm_bench - the development SCM under load: 100 services register with
// orvo-scm at once (one thread and one connection each); per service the
// time from connect to configuration received, and orvo-scm's CPU time per
// registration (from /proc). Then a service-information request to the SCM
// (0x10018 -> 0x10019) against the library's own service-info request on the
// same connection (0x7006 -> 0x7007) as the baseline round trip.
//
//     scm_bench [--rounds=5] [--rr=5000]
//
// Every registration is checked (accepted, configuration of its own entry)
// before its time counts.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <orvo_record.h>
#include <orvo_uuid.h>

#include "scm_client.h"
#include "scm_process.h"

using namespace orvo;
using namespace orvo_test;

namespace {

const int kServices = 100;

double NowUs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

// Time pid's main thread spent on a CPU, in microseconds (/proc schedstat
// counts nanoseconds; orvo-scm runs on one thread).
double CpuUs(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    unsigned long long ns = 0;
    in >> ns;
    return ns / 1000.0;
}

std::string Name(int round, int i)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "svc-%d-%03d", round, i);
    return buf;
}

double Percentile(std::vector<double> v, double q)
{
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * (v.size() - 1) + 0.5))];
}

// One service: connect, register, ask for the configuration. The elapsed
// microseconds, or a negative value when a step failed or the configuration
// is not its own.
double RegisterOnce(unsigned short port, const std::string& name, int index)
{
    const double start = NowUs();
    cScmClient c;
    if (!c.Connect(port))
        return -1;
    cUuid id;
    id.Create();
    cRecord own;
    own.AppendTextPar("scm-sap", "127.0.0.1");
    cMsg msg;
    if (!c.Send(RegisterMsg(id, name, 1000 + index, own)) || !c.ReceiveType(msg, 0x10001, 30000))
        return -2;
    cMsg request = Request(0x10003);
    request.GetRecord().AppendUuidPar("service-id", id);
    request.GetRecord().AppendTextPar("path", "");
    if (!c.Send(request) || !c.ReceiveType(msg, 0x10004, 30000))
        return -3;
    const double elapsed = NowUs() - start;
    cRecord config;
    msg.GetRecord().GetFirstPar("config").GetRecord(config);
    if (config.GetFirstPar("index").GetUInt() != static_cast<unsigned>(index) ||
        config.GetFirstPar("scm-sap").GetString() != "127.0.0.1")
        return -4;
    return elapsed;
}

// Median and p99 round trip (us) of request type on c, answered by reply.
bool RoundTrips(cScmClient& c, unsigned long type, unsigned long reply, int count,
                std::vector<double>& times)
{
    for (int i = 0; i < count; ++i) {
        cMsg request = type == 0x10018 ? Request(type, "service-name", "svc-0-000") : Request(type);
        cMsg msg;
        const double start = NowUs();
        if (!c.Send(request) || !c.ReceiveType(msg, reply, 10000) || msg.GetTid() != request.GetTid())
            return false;
        times.push_back(NowUs() - start);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = 5, rr = 5000;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rounds=", 9) == 0)
            rounds = std::max(1, std::atoi(argv[i] + 9));
        else if (std::strncmp(argv[i], "--rr=", 5) == 0)
            rr = std::max(10, std::atoi(argv[i] + 5));
    }
    char dir[] = "/tmp/scm-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return 1;
    const std::string file = std::string(dir) + "/scm.json";
    std::string json = "{\"services\": {";
    for (int r = 0; r < rounds; ++r)
        for (int i = 0; i < kServices; ++i)
            json += std::string(r + i == 0 ? "" : ",") + "\"" + Name(r, i) +
                    "\": {\"config\": [{\"name\": \"index\", \"type\": \"uint\", \"value\": " +
                    std::to_string(i) + "}, {\"name\": \"meter\", \"type\": \"record\", \"value\": "
                    "[{\"name\": \"device\", \"type\": \"text\", \"value\": \"/dev/ttyS1\"}, "
                    "{\"name\": \"baud\", \"type\": \"uint\", \"value\": 9600}]}]}";
    json += "}}";
    WriteFile(file, json);
    setenv("ORVO_SCM_BIN", ORVO_SCM_BIN, 0);
    cScmProcess scm;
    if (!scm.Start({"-config", file, "-store", std::string(dir) + "/records", "-wdt-ms", "600000",
                    "-poll-ms", "600000"})) {
        std::fprintf(stderr, "scm_bench: orvo-scm did not start\n");
        return 1;
    }

    std::vector<double> connectToConfig, cpuPerRegistration;
    for (int r = 0; r < rounds; ++r) {
        std::vector<double> times(kServices, 0);
        std::mutex lock;
        std::condition_variable go;
        bool started = false;
        std::vector<std::thread> threads;
        const double cpuBefore = CpuUs(scm.Pid());
        for (int i = 0; i < kServices; ++i)
            threads.emplace_back([&, i] {
                {
                    std::unique_lock<std::mutex> l(lock);
                    go.wait(l, [&] { return started; });
                }
                times[i] = RegisterOnce(scm.Port(), Name(r, i), i);
            });
        usleep(100000);   // every thread waiting
        {
            std::lock_guard<std::mutex> l(lock);
            started = true;
        }
        go.notify_all();
        for (std::thread& t : threads)
            t.join();
        usleep(200000);   // let orvo-scm finish the disconnects it is counted for
        cpuPerRegistration.push_back((CpuUs(scm.Pid()) - cpuBefore) / kServices);
        for (int i = 0; i < kServices; ++i) {
            if (times[i] < 0) {
                std::fprintf(stderr, "scm_bench: registration %s failed (step %d)\n", Name(r, i).c_str(),
                             static_cast<int>(-times[i]));
                return 1;
            }
            connectToConfig.push_back(times[i]);
        }
    }

    // The look-up needs a connected service of that name.
    cScmClient service;
    cUuid id;
    id.Create();
    cMsg msg;
    service.Connect(scm.Port());
    service.Send(RegisterMsg(id, "svc-0-000", 1, cRecord()));
    if (!service.ReceiveType(msg, 0x10001, 10000)) {
        std::fprintf(stderr, "scm_bench: look-up service not registered\n");
        return 1;
    }
    std::vector<double> info, baseline;
    for (int block = 0; block < 10; ++block)   // interleaved, so load from elsewhere hits both
        if (!RoundTrips(service, 0x10018, 0x10019, rr / 10, info) ||
            !RoundTrips(service, 0x7006, 0x7007, rr / 10, baseline)) {
            std::fprintf(stderr, "scm_bench: round trip failed\n");
            return 1;
        }

    std::printf("scm_bench: %d rounds of %d services registering at once\n", rounds, kServices);
    std::printf("  connect -> configuration received   median %8.1f us   p99 %8.1f us\n",
                Percentile(connectToConfig, 0.5), Percentile(connectToConfig, 0.99));
    std::printf("  orvo-scm CPU per registration        median %8.1f us   (per round: ",
                Percentile(cpuPerRegistration, 0.5));
    for (double v : cpuPerRegistration)
        std::printf("%.0f ", v);
    std::printf("us)\n");
    std::printf("  service info 0x10018 -> 0x10019      median %8.1f us   p99 %8.1f us\n",
                Percentile(info, 0.5), Percentile(info, 0.99));
    std::printf("  baseline 0x7006 -> 0x7007 (sap)      median %8.1f us   p99 %8.1f us\n",
                Percentile(baseline, 0.5), Percentile(baseline, 0.99));
    std::printf("  ratio info / baseline (medians)      %.2f\n", Percentile(info, 0.5) / Percentile(baseline, 0.5));
    const int status = scm.Terminate(10000);
    const std::string cmd = std::string("rm -rf '") + dir + "'";
    (void)system(cmd.c_str());
    return status == 0 ? 0 : 1;
}
