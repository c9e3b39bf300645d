#define ORVO_SOURCE "orvo_hash"
#include "orvo_hash.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace orvo {

namespace {

const char* AlgName(eHashAlg alg)
{
    switch (alg) {
    case eHashAlg::MD5: return "MD5";
    case eHashAlg::SHA1: return "SHA1";
    case eHashAlg::SHA256: return "SHA256";
    }
    return "SHA256";
}

// Fetched once per process: looking an algorithm up on every start would
// cost more than hashing a short message.
const EVP_MD* FetchedMd(eHashAlg alg)
{
    static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static const EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    switch (alg) {
    case eHashAlg::MD5: return md5;
    case eHashAlg::SHA1: return sha1;
    case eHashAlg::SHA256: return sha256;
    }
    return sha256;
}

EVP_MAC* FetchedHmac()
{
    static EVP_MAC* const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    return mac;
}

}  // namespace

cHashCalculator::cHashCalculator(eHashAlg alg) : m_Alg(alg), m_IsHmac(false)
{
    m_pMdCtx = EVP_MD_CTX_new();
    Start();
}

cHashCalculator::cHashCalculator(eHashAlg alg, const void* key, size_t keyLen)
    : m_Alg(alg), m_IsHmac(true)
{
    if (key != nullptr && keyLen > 0)
        m_Key.assign(static_cast<const unsigned char*>(key),
                     static_cast<const unsigned char*>(key) + keyLen);
    if (FetchedHmac() != nullptr)
        m_pMacCtx = EVP_MAC_CTX_new(FetchedHmac());
    Start();
}

cHashCalculator::~cHashCalculator()
{
    if (!m_Key.empty())
        OPENSSL_cleanse(m_Key.data(), m_Key.size());
    EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(m_pMdCtx));
    EVP_MAC_CTX_free(static_cast<EVP_MAC_CTX*>(m_pMacCtx));
}

bool cHashCalculator::Fail()
{
    m_Ok = false;
    return false;
}

bool cHashCalculator::Start()
{
    m_Ok = false;
    if (m_IsHmac) {
        auto* ctx = static_cast<EVP_MAC_CTX*>(m_pMacCtx);
        if (ctx == nullptr)
            return false;
        OSSL_PARAM params[2];
        params[0] = OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST,
                                                     const_cast<char*>(AlgName(m_Alg)), 0);
        params[1] = OSSL_PARAM_construct_end();
        // An empty key still has to be passed as a key (not as "keep the old").
        static const unsigned char kNoKey[1] = {0};
        const unsigned char* key = m_Key.empty() ? kNoKey : m_Key.data();
        m_Ok = EVP_MAC_init(ctx, key, m_Key.size(), params) == 1;
        return m_Ok;
    }
    auto* ctx = static_cast<EVP_MD_CTX*>(m_pMdCtx);
    const EVP_MD* md = FetchedMd(m_Alg);
    m_Ok = ctx != nullptr && md != nullptr && EVP_DigestInit_ex(ctx, md, nullptr) == 1;
    return m_Ok;
}

bool cHashCalculator::Add(const void* data, size_t len)
{
    if (!m_Ok)
        return false;
    if (len == 0)
        return true;
    if (data == nullptr)
        return Fail();
    const int rc = m_IsHmac
        ? EVP_MAC_update(static_cast<EVP_MAC_CTX*>(m_pMacCtx),
                         static_cast<const unsigned char*>(data), len)
        : EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(m_pMdCtx), data, len);
    return rc == 1 ? true : Fail();
}

bool cHashCalculator::Add(const std::string& bytes)
{
    return Add(bytes.data(), bytes.size());
}

bool cHashCalculator::AddFile(const std::string& path)
{
    if (!m_Ok)
        return false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return Fail();
    unsigned char buf[64 * 1024];
    bool ok = true;
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        if (!Add(buf, static_cast<size_t>(n))) {
            ok = false;
            break;
        }
    }
    ::close(fd);
    return ok ? true : Fail();
}

bool cHashCalculator::Finish(std::vector<unsigned char>& digest)
{
    digest.clear();
    bool ok = m_Ok;
    if (ok) {
        unsigned char out[EVP_MAX_MD_SIZE];
        size_t len = 0;
        if (m_IsHmac) {
            ok = EVP_MAC_final(static_cast<EVP_MAC_CTX*>(m_pMacCtx), out, &len, sizeof(out)) == 1;
        } else {
            unsigned int mdLen = 0;
            ok = EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(m_pMdCtx), out, &mdLen) == 1;
            len = mdLen;
        }
        if (ok)
            digest.assign(out, out + len);
    }
    Start();
    return ok;
}

std::string cHashCalculator::FinishHex(bool lowerCase)
{
    std::vector<unsigned char> digest;
    if (!Finish(digest))
        return std::string();
    return ToHex(digest.data(), digest.size(), lowerCase);
}

size_t cHashCalculator::GetDigestSize() const
{
    switch (m_Alg) {
    case eHashAlg::MD5: return 16;
    case eHashAlg::SHA1: return 20;
    case eHashAlg::SHA256: return 32;
    }
    return 32;
}

std::vector<unsigned char> cHashCalculator::Digest(eHashAlg alg, const void* data, size_t len)
{
    cHashCalculator calc(alg);
    std::vector<unsigned char> digest;
    calc.Add(data, len);
    calc.Finish(digest);
    return digest;
}

std::string cHashCalculator::DigestHex(eHashAlg alg, const void* data, size_t len, bool lowerCase)
{
    const std::vector<unsigned char> digest = Digest(alg, data, len);
    return digest.empty() ? std::string() : ToHex(digest.data(), digest.size(), lowerCase);
}

std::string cHashCalculator::ToHex(const unsigned char* bytes, size_t len, bool lowerCase)
{
    const char* digits = lowerCase ? "0123456789abcdef" : "0123456789ABCDEF";
    std::string hex(len * 2, '0');
    for (size_t i = 0; i < len; ++i) {
        hex[2 * i] = digits[bytes[i] >> 4];
        hex[2 * i + 1] = digits[bytes[i] & 15];
    }
    return hex;
}

}  // namespace orvo
