// crypto_bench: liborvo's hashing, AES-GCM and Base64 against their peers in
// the same run.
//   SHA-256 and AES-128-GCM on 16 kB blocks: cSHA256Calculator (one digest
//   per block) and cAES (one GCM message per block, tag included) against
//   `openssl speed -evp <alg> -bytes 16384` run as a child process.
//   Base64 encode/decode of 16 kB blocks: cBase64 against EVP_EncodeBlock /
//   EVP_DecodeBlock in this process.
// Both sides are measured in CPU time (openssl speed's own figure is too), in
// alternating rounds; the ratio printed is the median over the rounds
// (liborvo throughput / peer throughput, above 1 = liborvo faster).
//   crypto_bench [--seconds=S] [--rounds=N]
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "orvo_aes.h"
#include "orvo_base64.h"
#include "orvo_hash.h"

using namespace orvo;

namespace {

constexpr size_t kBlock = 16384;
double gSeconds = 1.0;
int gRounds = 5;

double CpuNow()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// Bytes per CPU second of step (which handles `bytes` bytes per call).
double Throughput(size_t bytes, const std::function<void()>& step)
{
    const double start = CpuNow();
    double now = start;
    size_t calls = 0;
    while (now - start < gSeconds) {
        for (int i = 0; i < 64; ++i)
            step();
        calls += 64;
        now = CpuNow();
    }
    return static_cast<double>(calls) * bytes / (now - start);
}

// openssl speed's own figure (bytes per CPU second) for one algorithm.
double OpensslSpeed(const char* alg)
{
    char cmd[256];
    std::snprintf(cmd, sizeof(cmd), "openssl speed -mr -evp %s -bytes %zu -seconds %d 2>/dev/null", alg,
                  kBlock, std::max(1, static_cast<int>(gSeconds + 0.5)));
    FILE* p = popen(cmd, "r");
    if (p == nullptr)
        return 0;
    char line[512];
    double value = 0;
    while (std::fgets(line, sizeof(line), p) != nullptr) {
        if (std::strncmp(line, "+F:", 3) == 0) {
            const char* last = std::strrchr(line, ':');
            value = last != nullptr ? std::atof(last + 1) : 0;
        }
    }
    pclose(p);
    return value;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void Report(const char* name, const std::vector<double>& ours, const std::vector<double>& peer,
            const char* peerName, double goal)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < ours.size() && i < peer.size(); ++i)
        ratios.push_back(peer[i] > 0 ? ours[i] / peer[i] : 0);
    const double r = Median(ratios);
    std::printf("%-22s liborvo %8.1f MB/s  %-22s %8.1f MB/s  ratio %.3f (goal >= %.2f) %s\n", name,
                Median(ours) / 1e6, peerName, Median(peer) / 1e6, r, goal, r >= goal ? "met" : "NOT met");
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--seconds=", 10) == 0)
            gSeconds = std::atof(argv[i] + 10);
        else if (std::strncmp(argv[i], "--rounds=", 9) == 0)
            gRounds = std::max(1, std::atoi(argv[i] + 9));
    }
    std::vector<unsigned char> data(kBlock), out(kBlock + 64);
    for (size_t i = 0; i < kBlock; ++i)
        data[i] = static_cast<unsigned char>(i * 131 + 7);

    // SHA-256
    cSHA256Calculator sha;
    std::vector<unsigned char> digest;
    std::vector<double> oursSha, peerSha;
    // AES-128-GCM
    cAES aes;
    const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    unsigned char iv[12] = {0}, tag[16];
    if (aes.SetKey(key, 16, eAesMode::GCM, eAesPadding::None, eAesPath::OpenSSL) != 1)
        return 1;
    std::vector<double> oursGcm, peerGcm;
    // Base64
    const std::string text = cBase64::Encode(data.data(), data.size());
    std::vector<char> textOut(cBase64::EncodedSize(kBlock) + 1);
    std::vector<double> oursEnc, peerEnc, oursDec, peerDec;
    size_t decoded = 0;

    for (int round = 0; round < gRounds; ++round) {
        oursSha.push_back(Throughput(kBlock, [&] {
            sha.Add(data.data(), kBlock);
            sha.Finish(digest);
        }));
        peerSha.push_back(OpensslSpeed("sha256"));
        oursGcm.push_back(Throughput(kBlock, [&] {
            ++iv[11];
            aes.EncryptGcm(iv, 12, nullptr, 0, data.data(), kBlock, out.data(), tag);
        }));
        peerGcm.push_back(OpensslSpeed("aes-128-gcm"));
        oursEnc.push_back(Throughput(kBlock, [&] { cBase64::Encode(data.data(), kBlock, textOut.data()); }));
        peerEnc.push_back(Throughput(kBlock, [&] {
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(textOut.data()), data.data(), kBlock);
        }));
        oursDec.push_back(Throughput(kBlock, [&] { cBase64::Decode(text.data(), text.size(), out.data(), decoded); }));
        peerDec.push_back(Throughput(kBlock, [&] {
            EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
        }));
    }
    // The bytes each side produced agree.
    if (!cBase64::Decode(text.data(), text.size(), out.data(), decoded) || decoded != kBlock ||
        std::memcmp(out.data(), data.data(), kBlock) != 0) {
        std::fprintf(stderr, "Base64 round trip failed\n");
        return 1;
    }
    std::printf("16 kB blocks, %d rounds of %.1f s, median CPU-time throughput\n", gRounds, gSeconds);
    Report("SHA-256", oursSha, peerSha, "openssl speed -evp", 0.95);
    Report("AES-128-GCM encrypt", oursGcm, peerGcm, "openssl speed -evp", 0.95);
    Report("Base64 encode", oursEnc, peerEnc, "EVP_EncodeBlock", 1.0);
    Report("Base64 decode", oursDec, peerDec, "EVP_DecodeBlock", 1.0);
    return 0;
}
