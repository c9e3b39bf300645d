#define ORVO_SOURCE "orvo_aes_kernel"
#include "orvo_aes_kernel.h"

#include <linux/if_alg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

#ifndef SOL_ALG
#define SOL_ALG 279
#endif

namespace orvo {

const char* KernelAlgName(eAesMode mode)
{
    switch (mode) {
    case eAesMode::ECB: return "ecb(aes)";
    case eAesMode::CBC: return "cbc(aes)";
    case eAesMode::GCM: return "gcm(aes)";
    }
    return "gcm(aes)";
}

cAES::sKernel::~sKernel()
{
    if (m_Op >= 0)
        ::close(m_Op);
    if (m_Tfm >= 0)
        ::close(m_Tfm);
}

cAES::sKernel* cAES::sKernel::Open(eAesMode mode, const std::string& alg, const unsigned char* key,
                                   size_t keyLen, std::string& error)
{
    sockaddr_alg sa{};
    sa.salg_family = AF_ALG;
    const char* type = mode == eAesMode::GCM ? "aead" : "skcipher";
    std::strncpy(reinterpret_cast<char*>(sa.salg_type), type, sizeof(sa.salg_type) - 1);
    if (alg.size() >= sizeof(sa.salg_name)) {
        error = "kernel cipher: algorithm name too long: " + alg;
        return nullptr;
    }
    std::strncpy(reinterpret_cast<char*>(sa.salg_name), alg.c_str(), sizeof(sa.salg_name) - 1);

    sKernel* k = new sKernel;
    k->m_Aead = mode == eAesMode::GCM;
    auto fail = [&](const char* step) {
        error = std::string("kernel cipher ") + alg + ": " + step + ": " + std::strerror(errno);
        delete k;
        return nullptr;
    };
    k->m_Tfm = ::socket(AF_ALG, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (k->m_Tfm < 0)
        return fail("AF_ALG socket");
    if (::bind(k->m_Tfm, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0)
        return fail("bind");
    if (::setsockopt(k->m_Tfm, SOL_ALG, ALG_SET_KEY, key, static_cast<socklen_t>(keyLen)) != 0)
        return fail("set key");
    if (k->m_Aead &&
        ::setsockopt(k->m_Tfm, SOL_ALG, ALG_SET_AEAD_AUTHSIZE, nullptr, cAES::GCM_TAG_SIZE) != 0)
        return fail("set tag size");
    k->m_Op = ::accept4(k->m_Tfm, nullptr, nullptr, SOCK_CLOEXEC);
    if (k->m_Op < 0)
        return fail("accept");
    return k;
}

ssize_t cAES::sKernel::Run(bool encrypt, const unsigned char* iv, size_t ivLen, size_t assocLen,
                           const unsigned char* in, size_t len, unsigned char* out, size_t outLen)
{
    // Control messages: direction, IV and (AEAD) the AAD length.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(uint32_t)) +
                                  CMSG_SPACE(sizeof(af_alg_iv) + cAES::BLOCK_SIZE) +
                                  CMSG_SPACE(sizeof(uint32_t))] = {0};
    iovec iov{const_cast<unsigned char*>(in), len};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(sizeof(uint32_t)) +
                         (ivLen > 0 ? CMSG_SPACE(sizeof(af_alg_iv) + ivLen) : 0) +
                         (m_Aead ? CMSG_SPACE(sizeof(uint32_t)) : 0);

    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_ALG;
    c->cmsg_type = ALG_SET_OP;
    c->cmsg_len = CMSG_LEN(sizeof(uint32_t));
    const uint32_t op = encrypt ? ALG_OP_ENCRYPT : ALG_OP_DECRYPT;
    std::memcpy(CMSG_DATA(c), &op, sizeof(op));
    if (ivLen > 0) {
        c = CMSG_NXTHDR(&msg, c);
        c->cmsg_level = SOL_ALG;
        c->cmsg_type = ALG_SET_IV;
        c->cmsg_len = CMSG_LEN(sizeof(af_alg_iv) + ivLen);
        const uint32_t n = static_cast<uint32_t>(ivLen);
        std::memcpy(CMSG_DATA(c), &n, sizeof(n));
        std::memcpy(CMSG_DATA(c) + sizeof(n), iv, ivLen);
    }
    if (m_Aead) {
        c = CMSG_NXTHDR(&msg, c);
        c->cmsg_level = SOL_ALG;
        c->cmsg_type = ALG_SET_AEAD_ASSOCLEN;
        c->cmsg_len = CMSG_LEN(sizeof(uint32_t));
        const uint32_t n = static_cast<uint32_t>(assocLen);
        std::memcpy(CMSG_DATA(c), &n, sizeof(n));
    }
    ssize_t sent;
    do
        sent = ::sendmsg(m_Op, &msg, 0);
    while (sent < 0 && errno == EINTR);
    if (sent < 0)
        return -errno;
    if (static_cast<size_t>(sent) != len)
        return -EMSGSIZE;
    // The request ends with this send: reads return its output in order.
    size_t got = 0;
    while (got < outLen) {
        const ssize_t n = ::read(m_Op, out + got, outLen - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -errno;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
        if (m_Aead)
            break;  // an AEAD request comes back in one read
    }
    return static_cast<ssize_t>(got);
}

// ---- the kernel's cipher list --------------------------------------------------

bool cAES::IsHardwareDriver(const std::string& driver)
{
    if (driver.empty() || driver.find('(') != std::string::npos || driver.compare(0, 2, "__") == 0)
        return false;
    // Name parts of implementations that run on the CPU.
    static const std::set<std::string> kCpuParts = {
        "generic", "aesni", "ce", "neon", "neonbs", "bs", "arm", "arm64", "asm", "avx", "avx2",
        "avx512", "avx10", "vaes", "x86", "x86_64", "ppc", "p8", "vmx", "riscv", "riscv64",
        "zvkned", "sse2", "ssse3", "lib", "soft", "fixed", "sparc64", "mips", "s390"};
    size_t start = 0;
    for (size_t i = 0; i <= driver.size(); ++i) {
        if (i == driver.size() || driver[i] == '-' || driver[i] == '_') {
            if (kCpuParts.count(driver.substr(start, i - start)) != 0)
                return false;
            start = i + 1;
        }
    }
    return true;
}

namespace {

struct tCipherEntry {
    std::string m_Name, m_Driver, m_Type, m_Selftest, m_Internal;
    long m_Priority = 0;
};

std::string Trim(const std::string& s)
{
    const size_t a = s.find_first_not_of(" \t\r");
    const size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

}  // namespace

std::string cAES::FindHardwareDriver(eAesMode mode)
{
    const char* env = std::getenv("ORVO_PROC_CRYPTO");
    std::ifstream file(env != nullptr && *env != '\0' ? env : "/proc/crypto");
    const std::string name = KernelAlgName(mode);
    const std::string type = mode == eAesMode::GCM ? "aead" : "skcipher";
    std::string best;
    long bestPriority = 0;
    tCipherEntry e;
    auto consider = [&]() {
        if (e.m_Name == name && e.m_Type == type && IsHardwareDriver(e.m_Driver) &&
            e.m_Internal != "yes" && (e.m_Selftest.empty() || e.m_Selftest == "passed") &&
            (best.empty() || e.m_Priority > bestPriority)) {
            best = e.m_Driver;
            bestPriority = e.m_Priority;
        }
        e = tCipherEntry();
    };
    // Blocks of "key : value" lines, separated by empty lines.
    std::string line;
    while (std::getline(file, line)) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            if (Trim(line).empty())
                consider();
            continue;
        }
        const std::string key = Trim(line.substr(0, colon));
        const std::string value = Trim(line.substr(colon + 1));
        if (key == "name") {
            if (!e.m_Name.empty())
                consider();  // a block without the blank line before it
            e.m_Name = value;
        } else if (key == "driver") {
            e.m_Driver = value;
        } else if (key == "type") {
            e.m_Type = value;
        } else if (key == "selftest") {
            e.m_Selftest = value;
        } else if (key == "internal") {
            e.m_Internal = value;
        } else if (key == "priority") {
            e.m_Priority = std::strtol(value.c_str(), nullptr, 10);
        }
    }
    consider();
    return best;
}

}  // namespace orvo
