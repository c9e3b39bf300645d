// orvo_hash.h - message digests and HMAC: cHashCalculator (MD5, SHA-1,
// SHA-256, each plain or keyed as HMAC) and the named forms cSHA256Calculator,
// cSHA1Calculator, cMD5Calculator and cHMACSHA256Calculator, all on OpenSSL's
// EVP interface.
//
// Streaming use: Add bytes or whole files in any number of pieces, then Finish
// into digest bytes or hexadecimal text. A calculator is ready to Add right
// after construction and again right after Finish (it starts over); Start
// discards whatever was added since the last Finish. MD5 and SHA-1 are for
// legacy peers only: neither resists collisions.
//
// Not thread-safe: one calculator per thread. Results never throw; functions
// return false when OpenSSL refuses (which leaves the calculator to be
// restarted with Start) or a file cannot be read.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "orvo_object.h"

namespace orvo {

enum class eHashAlg { MD5, SHA1, SHA256 };

class ORVO_API cHashCalculator {
public:
    explicit cHashCalculator(eHashAlg alg);
    // HMAC over alg with the key's bytes (any length, zero included). The
    // calculator keeps a copy of the key, wiped when it goes.
    cHashCalculator(eHashAlg alg, const void* key, size_t keyLen);
    virtual ~cHashCalculator();
    cHashCalculator(const cHashCalculator&) = delete;
    cHashCalculator& operator=(const cHashCalculator&) = delete;

    // Drops the bytes added so far and starts a new digest.
    bool Start();
    bool Add(const void* data, size_t len);
    bool Add(const std::string& bytes);
    // Adds the file's whole content, read in pieces; false (and the digest
    // to be restarted) when it cannot be opened or read.
    bool AddFile(const std::string& path);
    // The digest of everything added since the last start, then starts over.
    bool Finish(std::vector<unsigned char>& digest);
    // The same as hexadecimal digits; "" on failure.
    std::string FinishHex(bool lowerCase = true);

    eHashAlg GetAlg() const { return m_Alg; }
    bool IsHmac() const { return m_IsHmac; }
    size_t GetDigestSize() const;  // 16, 20 or 32 bytes

    // One-shot forms.
    static std::vector<unsigned char> Digest(eHashAlg alg, const void* data, size_t len);
    static std::string DigestHex(eHashAlg alg, const void* data, size_t len, bool lowerCase = true);
    static std::string ToHex(const unsigned char* bytes, size_t len, bool lowerCase = true);

private:
    bool Fail();

    eHashAlg m_Alg;
    bool m_IsHmac;
    bool m_Ok = false;                 // the running digest accepted every step
    std::vector<unsigned char> m_Key;  // HMAC key, wiped on destruction
    void* m_pMdCtx = nullptr;          // EVP_MD_CTX (plain digest)
    void* m_pMacCtx = nullptr;         // EVP_MAC_CTX (HMAC)
};

class ORVO_API cSHA256Calculator : public cHashCalculator {
public:
    cSHA256Calculator() : cHashCalculator(eHashAlg::SHA256) {}
};

class ORVO_API cSHA1Calculator : public cHashCalculator {
public:
    cSHA1Calculator() : cHashCalculator(eHashAlg::SHA1) {}
};

class ORVO_API cMD5Calculator : public cHashCalculator {
public:
    cMD5Calculator() : cHashCalculator(eHashAlg::MD5) {}
};

class ORVO_API cHMACSHA256Calculator : public cHashCalculator {
public:
    cHMACSHA256Calculator(const void* key, size_t keyLen)
        : cHashCalculator(eHashAlg::SHA256, key, keyLen) {}
};

}  // namespace orvo
