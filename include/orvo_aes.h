// orvo_aes.h - cAES: AES-128/192/256 in ECB, CBC (PKCS#7 padding or none) and
// GCM (additional authenticated data, 12-byte IV, 16-byte tag), on the
// kernel's cipher (AF_ALG sockets) when it has a hardware driver for the mode,
// on OpenSSL's EVP interface otherwise. Both give the same bytes.
//
// Path choice (eAesPath::Auto): the kernel's cipher list (/proc/crypto, or the
// file named by ORVO_PROC_CRYPTO; read at every SetKey) is searched for a
// driver of the mode ("ecb(aes)", "cbc(aes)" of type skcipher, "gcm(aes)" of
// type aead) that passed its self-test, is not internal and counts as
// hardware; the one with the highest priority is bound by its driver name. A
// driver counts as hardware unless it is generic C code ("generic" in the
// name), a template the kernel assembled from other algorithms (a '(' in the
// name, e.g. "cbc(aes-generic)"), an internal helper ("__" prefix) or a CPU
// instruction implementation (a name part such as aesni, ce, neon, bs, arm,
// asm, avx, vaes, x86_64, ppc, vmx): those run on the CPU, where OpenSSL is
// at least as fast without the system calls. When the kernel refuses the
// socket, Auto falls back to EVP. eAesPath::Kernel asks for the kernel cipher
// of the mode whatever its driver and fails with ERR_UNAVAILABLE (GetError()
// says why) when there is none; eAesPath::OpenSSL never uses the kernel.
//
// Streaming: Begin (direction, IV), for GCM AddAad, Update any number of
// times, for GCM decryption SetTag, Finish; for GCM encryption GetTag after
// Finish. Update's out needs room for len + 16 bytes and may overlap in the
// way in-place use does: out where the output returned so far ends, never
// after in (out == in for whole blocks). Finish writes at most
// GetPendingSize() bytes: the last block of ECB/CBC, and in GCM on the kernel
// path every byte since Begin, as the kernel takes a GCM message whole (so no
// plaintext leaves before its tag is checked). GCM decryption with a wrong
// tag fails with ERR_AUTH; the caller must discard whatever Update wrote.
// Kernel GCM messages are limited to 64 kB (AAD included); Auto uses EVP for
// longer ones.
//
// Keys are wiped from memory (SetKey again, or destruction). Not
// thread-safe: one object per thread. Results: 1 or a negative ERR_ code.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "orvo_object.h"

namespace orvo {

enum class eAesMode { ECB, CBC, GCM };
enum class eAesPadding { None, PKCS7 };
enum class eAesPath { Auto, Kernel, OpenSSL };

class ORVO_API cAES {
public:
    static constexpr int ERR_PARAM = -1;        // key size, IV size, mode mismatch, ...
    static constexpr int ERR_UNAVAILABLE = -2;  // the asked path is missing
    static constexpr int ERR_AUTH = -3;         // GCM tag mismatch
    static constexpr int ERR_PADDING = -4;      // bad PKCS#7 padding or a partial block
    static constexpr int ERR_STATE = -5;        // call out of order
    static constexpr int ERR_CIPHER = -6;       // the cipher itself failed
    static constexpr size_t BLOCK_SIZE = 16;
    static constexpr size_t GCM_IV_SIZE = 12;
    static constexpr size_t GCM_TAG_SIZE = 16;

    cAES();
    ~cAES();
    cAES(const cAES&) = delete;
    cAES& operator=(const cAES&) = delete;

    // key: 16, 24 or 32 bytes. Padding applies to CBC only (ECB is always
    // whole blocks, GCM a stream).
    int SetKey(const void* key, size_t keyLen, eAesMode mode,
               eAesPadding padding = eAesPadding::PKCS7, eAesPath path = eAesPath::Auto);
    // The path in use after SetKey: Kernel or OpenSSL (Auto before).
    eAesPath GetPath() const { return m_Path; }
    eAesMode GetMode() const { return m_Mode; }
    const std::string& GetError() const { return m_Error; }

    // iv: none for ECB, 16 bytes for CBC, 12 bytes for GCM.
    int Begin(bool encrypt, const void* iv = nullptr, size_t ivLen = 0);
    int AddAad(const void* aad, size_t len);
    int Update(const void* in, size_t len, void* out, size_t& outLen);
    size_t GetPendingSize() const;
    int SetTag(const void* tag, size_t len);
    int Finish(void* out, size_t& outLen);
    int GetTag(void* tag, size_t len) const;

    // One-shot ECB/CBC; out is resized to the result.
    int Encrypt(const void* iv, size_t ivLen, const void* in, size_t len, std::vector<unsigned char>& out);
    int Decrypt(const void* iv, size_t ivLen, const void* in, size_t len, std::vector<unsigned char>& out);
    // One-shot GCM; out (len bytes) may be in.
    int EncryptGcm(const void* iv, size_t ivLen, const void* aad, size_t aadLen, const void* in,
                   size_t len, void* out, unsigned char tag[GCM_TAG_SIZE]);
    int DecryptGcm(const void* iv, size_t ivLen, const void* aad, size_t aadLen, const void* in,
                   size_t len, void* out, const unsigned char tag[GCM_TAG_SIZE]);

    // The best hardware driver for the mode in the kernel's cipher list
    // (ORVO_PROC_CRYPTO or /proc/crypto), "" when there is none.
    static std::string FindHardwareDriver(eAesMode mode);
    // The rule above for one driver name.
    static bool IsHardwareDriver(const std::string& driver);

    struct sKernel;  // the AF_ALG path (orvo_aes_kernel.cpp)

private:
    int Fail(int code, const std::string& text);
    void Clear();
    int UpdateKernel(const unsigned char* in, size_t len, unsigned char* out, size_t& outLen);
    int FinishKernel(unsigned char* out, size_t& outLen);
    int FinishKernelGcm(unsigned char* out, size_t& outLen);
    int RunKernel(const unsigned char* in, size_t len, unsigned char* out);
    int BeginEvp(bool encrypt, const unsigned char* iv);
    int UpdateEvp(const unsigned char* in, size_t len, unsigned char* out, size_t& outLen);
    int FinishEvp(unsigned char* out, size_t& outLen);

    eAesMode m_Mode = eAesMode::GCM;
    eAesPadding m_Padding = eAesPadding::PKCS7;
    eAesPath m_Path = eAesPath::Auto;
    eAesPath m_AskedPath = eAesPath::Auto;
    std::string m_Error;
    std::vector<unsigned char> m_Key;
    void* m_pEvp = nullptr;  // EVP_CIPHER_CTX
    sKernel* m_pKernel = nullptr;
    bool m_Keyed = false;
    bool m_Running = false;    // between Begin and Finish
    bool m_Encrypt = true;
    bool m_TagSet = false;
    bool m_TagReady = false;   // GCM encryption finished
    bool m_DataStarted = false;  // Update called: no more AAD
    int m_EvpDir = -1;           // direction the EVP key schedule is set up for
    unsigned char m_Tag[GCM_TAG_SIZE] = {0};
    unsigned char m_Iv[BLOCK_SIZE] = {0};
    std::vector<unsigned char> m_Aad;   // kernel GCM: the message's AAD
    std::vector<unsigned char> m_Held;  // kernel path: bytes not yet ciphered
};

}  // namespace orvo
