#define ORVO_SOURCE "orvo_aes"
#include "orvo_aes.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "orvo_aes_kernel.h"

namespace orvo {

namespace {

// Kernel GCM takes a message whole; larger ones than this go to EVP (Auto)
// or are refused (Kernel), as the socket's buffer bounds a request.
constexpr size_t kKernelGcmMax = 64 * 1024;
// ECB/CBC requests on the kernel path carry at most this many bytes.
constexpr size_t kKernelPiece = 32 * 1024;

const EVP_CIPHER* Cipher(eAesMode mode, size_t keyLen)
{
    const int bits = static_cast<int>(keyLen * 8);
    switch (mode) {
    case eAesMode::ECB:
        return bits == 128 ? EVP_aes_128_ecb() : bits == 192 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
    case eAesMode::CBC:
        return bits == 128 ? EVP_aes_128_cbc() : bits == 192 ? EVP_aes_192_cbc() : EVP_aes_256_cbc();
    case eAesMode::GCM:
        return bits == 128 ? EVP_aes_128_gcm() : bits == 192 ? EVP_aes_192_gcm() : EVP_aes_256_gcm();
    }
    return nullptr;
}

EVP_CIPHER_CTX* Ctx(void* p)
{
    return static_cast<EVP_CIPHER_CTX*>(p);
}

}  // namespace

cAES::cAES() = default;

cAES::~cAES()
{
    Clear();
}

void cAES::Clear()
{
    if (!m_Key.empty())
        OPENSSL_cleanse(m_Key.data(), m_Key.size());
    m_Key.clear();
    if (!m_Held.empty())
        OPENSSL_cleanse(m_Held.data(), m_Held.size());
    m_Held.clear();
    m_Aad.clear();
    OPENSSL_cleanse(m_Iv, sizeof(m_Iv));
    EVP_CIPHER_CTX_free(Ctx(m_pEvp));  // wipes its key schedule
    m_pEvp = nullptr;
    delete m_pKernel;                   // the kernel wipes its copy on close
    m_pKernel = nullptr;
    m_Keyed = m_Running = m_TagSet = m_TagReady = m_DataStarted = false;
    m_EvpDir = -1;
    m_Path = eAesPath::Auto;
}

int cAES::Fail(int code, const std::string& text)
{
    m_Error = text;
    if (code != ERR_STATE && code != ERR_PARAM)
        m_Running = false;
    return code;
}

int cAES::SetKey(const void* key, size_t keyLen, eAesMode mode, eAesPadding padding, eAesPath path)
{
    Clear();
    m_Error.clear();
    if (key == nullptr || (keyLen != 16 && keyLen != 24 && keyLen != 32))
        return Fail(ERR_PARAM, "AES key must be 16, 24 or 32 bytes");
    m_Mode = mode;
    m_Padding = padding;
    m_AskedPath = path;
    m_Key.assign(static_cast<const unsigned char*>(key), static_cast<const unsigned char*>(key) + keyLen);
    m_pEvp = EVP_CIPHER_CTX_new();
    if (m_pEvp == nullptr)
        return Fail(ERR_CIPHER, "EVP_CIPHER_CTX_new failed");

    if (path == eAesPath::Kernel) {
        m_pKernel = sKernel::Open(mode, KernelAlgName(mode), m_Key.data(), keyLen, m_Error);
        if (m_pKernel == nullptr) {
            Clear();
            return ERR_UNAVAILABLE;
        }
    } else if (path == eAesPath::Auto) {
        const std::string driver = FindHardwareDriver(mode);
        std::string why;
        if (!driver.empty())
            m_pKernel = sKernel::Open(mode, driver, m_Key.data(), keyLen, why);
        // Without the hardware cipher EVP gives the same bytes.
    }
    m_Path = m_pKernel != nullptr ? eAesPath::Kernel : eAesPath::OpenSSL;
    m_Keyed = true;
    return 1;
}

int cAES::Begin(bool encrypt, const void* iv, size_t ivLen)
{
    if (!m_Keyed)
        return Fail(ERR_STATE, "Begin before SetKey");
    const size_t want = m_Mode == eAesMode::ECB ? 0 : m_Mode == eAesMode::CBC ? BLOCK_SIZE : GCM_IV_SIZE;
    if (ivLen != want || (want > 0 && iv == nullptr))
        return Fail(ERR_PARAM, "IV must be " + std::to_string(want) + " bytes");
    m_Encrypt = encrypt;
    m_Running = true;
    m_TagSet = m_TagReady = m_DataStarted = false;
    // Bytes held back by an unfinished message are plaintext (or its
    // cipher): wiped like Clear() does.
    if (!m_Held.empty())
        OPENSSL_cleanse(m_Held.data(), m_Held.size());
    m_Held.clear();
    m_Aad.clear();
    std::memset(m_Iv, 0, sizeof(m_Iv));
    if (want > 0)
        std::memcpy(m_Iv, iv, want);
    if (m_Path == eAesPath::Kernel)
        return 1;
    return BeginEvp(encrypt, m_Iv);
}

int cAES::BeginEvp(bool encrypt, const unsigned char* iv)
{
    EVP_CIPHER_CTX* ctx = Ctx(m_pEvp);
    const int dir = encrypt ? 1 : 0;
    int ok;
    if (m_EvpDir == dir) {
        ok = EVP_CipherInit_ex(ctx, nullptr, nullptr, nullptr, iv, dir);  // keep the key schedule
    } else {
        ok = EVP_CipherInit_ex(ctx, Cipher(m_Mode, m_Key.size()), nullptr, m_Key.data(), iv, dir);
        m_EvpDir = ok == 1 ? dir : -1;
    }
    if (ok != 1)
        return Fail(ERR_CIPHER, "EVP cipher initialisation failed");
    EVP_CIPHER_CTX_set_padding(ctx, m_Mode == eAesMode::CBC && m_Padding == eAesPadding::PKCS7);
    return 1;
}

int cAES::AddAad(const void* aad, size_t len)
{
    if (!m_Running || m_Mode != eAesMode::GCM || m_DataStarted)
        return Fail(ERR_STATE, "AAD only in GCM, after Begin and before the data");
    if (len == 0)
        return 1;
    if (aad == nullptr || len > INT_MAX)
        return Fail(ERR_PARAM, "bad AAD");
    const unsigned char* p = static_cast<const unsigned char*>(aad);
    if (m_Path == eAesPath::Kernel) {
        m_Aad.insert(m_Aad.end(), p, p + len);
        return 1;
    }
    int outl = 0;
    if (EVP_CipherUpdate(Ctx(m_pEvp), nullptr, &outl, p, static_cast<int>(len)) != 1)
        return Fail(ERR_CIPHER, "EVP AAD update failed");
    return 1;
}

int cAES::Update(const void* in, size_t len, void* out, size_t& outLen)
{
    outLen = 0;
    if (!m_Running)
        return Fail(ERR_STATE, "Update outside Begin/Finish");
    if (len == 0)
        return 1;
    if (in == nullptr || out == nullptr || len > INT_MAX / 2)
        return Fail(ERR_PARAM, "bad Update buffers");
    m_DataStarted = true;
    const unsigned char* pin = static_cast<const unsigned char*>(in);
    unsigned char* pout = static_cast<unsigned char*>(out);
    if (m_Path == eAesPath::Kernel)
        return UpdateKernel(pin, len, pout, outLen);
    return UpdateEvp(pin, len, pout, outLen);
}

int cAES::UpdateEvp(const unsigned char* in, size_t len, unsigned char* out, size_t& outLen)
{
    int outl = 0;
    if (EVP_CipherUpdate(Ctx(m_pEvp), out, &outl, in, static_cast<int>(len)) != 1)
        return Fail(ERR_CIPHER, "EVP cipher update failed");
    outLen = static_cast<size_t>(outl);
    return 1;
}

size_t cAES::GetPendingSize() const
{
    if (m_Mode != eAesMode::GCM)
        return BLOCK_SIZE;
    return m_Path == eAesPath::Kernel ? m_Held.size() : 0;
}

int cAES::SetTag(const void* tag, size_t len)
{
    if (!m_Running || m_Mode != eAesMode::GCM || m_Encrypt)
        return Fail(ERR_STATE, "SetTag only while decrypting GCM");
    if (tag == nullptr || len != GCM_TAG_SIZE)
        return Fail(ERR_PARAM, "GCM tag must be 16 bytes");
    std::memcpy(m_Tag, tag, GCM_TAG_SIZE);
    m_TagSet = true;
    return 1;
}

int cAES::Finish(void* out, size_t& outLen)
{
    outLen = 0;
    if (!m_Running)
        return Fail(ERR_STATE, "Finish outside Begin/Finish");
    if (m_Mode == eAesMode::GCM && !m_Encrypt && !m_TagSet)
        return Fail(ERR_STATE, "GCM decryption needs SetTag before Finish");
    if (out == nullptr && GetPendingSize() > 0)
        return Fail(ERR_PARAM, "Finish needs an output buffer");
    unsigned char* pout = static_cast<unsigned char*>(out);
    const int rc = m_Path == eAesPath::Kernel ? FinishKernel(pout, outLen) : FinishEvp(pout, outLen);
    m_Running = false;
    if (rc == 1 && m_Mode == eAesMode::GCM && m_Encrypt)
        m_TagReady = true;
    return rc;
}

int cAES::FinishEvp(unsigned char* out, size_t& outLen)
{
    EVP_CIPHER_CTX* ctx = Ctx(m_pEvp);
    if (m_Mode == eAesMode::GCM && !m_Encrypt &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, GCM_TAG_SIZE, m_Tag) != 1)
        return Fail(ERR_CIPHER, "EVP set tag failed");
    unsigned char scratch[BLOCK_SIZE];
    int outl = 0;
    if (EVP_CipherFinal_ex(ctx, out != nullptr ? out : scratch, &outl) != 1) {
        if (m_Mode == eAesMode::GCM)
            return Fail(ERR_AUTH, "GCM tag mismatch: message refused");
        return Fail(ERR_PADDING, m_Encrypt ? "data is not a whole number of blocks"
                                           : "bad padding or partial block");
    }
    outLen = static_cast<size_t>(outl);
    if (m_Mode == eAesMode::GCM && m_Encrypt &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, GCM_TAG_SIZE, m_Tag) != 1)
        return Fail(ERR_CIPHER, "EVP get tag failed");
    return 1;
}

int cAES::GetTag(void* tag, size_t len) const
{
    if (!m_TagReady || tag == nullptr || len < GCM_TAG_SIZE)
        return ERR_STATE;
    std::memcpy(tag, m_Tag, GCM_TAG_SIZE);
    return 1;
}

// ---- kernel path ------------------------------------------------------------

// Whole blocks of ECB/CBC through the kernel, CBC's chaining value carried
// from request to request in m_Iv.
int cAES::RunKernel(const unsigned char* in, size_t len, unsigned char* out)
{
    const size_t ivLen = m_Mode == eAesMode::CBC ? BLOCK_SIZE : 0;
    for (size_t pos = 0; pos < len; pos += kKernelPiece) {
        const size_t n = std::min(kKernelPiece, len - pos);
        unsigned char nextIv[BLOCK_SIZE];
        if (!m_Encrypt && ivLen > 0)
            std::memcpy(nextIv, in + pos + n - BLOCK_SIZE, BLOCK_SIZE);  // before out overwrites it
        const ssize_t got = m_pKernel->Run(m_Encrypt, m_Iv, ivLen, 0, in + pos, n, out + pos, n);
        if (got != static_cast<ssize_t>(n))
            return Fail(ERR_CIPHER, std::string("kernel cipher request failed: ") +
                                        (got < 0 ? std::strerror(static_cast<int>(-got)) : "short"));
        if (ivLen > 0)
            std::memcpy(m_Iv, m_Encrypt ? out + pos + n - BLOCK_SIZE : nextIv, BLOCK_SIZE);
    }
    return 1;
}

int cAES::UpdateKernel(const unsigned char* in, size_t len, unsigned char* out, size_t& outLen)
{
    if (m_Mode == eAesMode::GCM) {
        m_Held.insert(m_Held.end(), in, in + len);  // out at Finish
        return 1;
    }
    const size_t total = m_Held.size() + len;
    size_t take = total - total % BLOCK_SIZE;
    // Decryption with padding keeps the last block: Finish strips the padding.
    if (!m_Encrypt && m_Mode == eAesMode::CBC && m_Padding == eAesPadding::PKCS7 && take == total)
        take = take >= BLOCK_SIZE ? take - BLOCK_SIZE : 0;
    if (take == 0) {
        m_Held.insert(m_Held.end(), in, in + len);
        return 1;
    }
    // Gather the input first: out may be in, and the output runs ahead of it.
    std::vector<unsigned char> work(m_Held);
    work.insert(work.end(), in, in + len);
    const int rc = RunKernel(work.data(), take, out);
    m_Held.assign(work.begin() + static_cast<std::ptrdiff_t>(take), work.end());
    OPENSSL_cleanse(work.data(), work.size());
    if (rc != 1)
        return rc;
    outLen = take;
    return 1;
}

int cAES::FinishKernel(unsigned char* out, size_t& outLen)
{
    if (m_Mode == eAesMode::GCM)
        return FinishKernelGcm(out, outLen);
    const bool padded = m_Mode == eAesMode::CBC && m_Padding == eAesPadding::PKCS7;
    unsigned char block[BLOCK_SIZE];
    if (m_Encrypt) {
        if (!padded) {
            if (!m_Held.empty())
                return Fail(ERR_PADDING, "data is not a whole number of blocks");
            return 1;
        }
        const size_t pad = BLOCK_SIZE - m_Held.size();
        if (!m_Held.empty())
            std::memcpy(block, m_Held.data(), m_Held.size());
        std::memset(block + m_Held.size(), static_cast<int>(pad), pad);
        const int rc = RunKernel(block, BLOCK_SIZE, out);
        OPENSSL_cleanse(block, sizeof(block));
        if (rc == 1)
            outLen = BLOCK_SIZE;
        return rc;
    }
    if (!padded) {
        if (!m_Held.empty())
            return Fail(ERR_PADDING, "bad padding or partial block");
        return 1;
    }
    if (m_Held.size() != BLOCK_SIZE)
        return Fail(ERR_PADDING, "bad padding or partial block");
    const int rc = RunKernel(m_Held.data(), BLOCK_SIZE, block);
    if (rc != 1)
        return rc;
    const unsigned pad = block[BLOCK_SIZE - 1];
    bool ok = pad >= 1 && pad <= BLOCK_SIZE;
    for (unsigned i = 0; ok && i < pad; ++i)
        ok = block[BLOCK_SIZE - 1 - i] == pad;
    if (!ok) {
        OPENSSL_cleanse(block, sizeof(block));
        return Fail(ERR_PADDING, "bad padding or partial block");
    }
    outLen = BLOCK_SIZE - pad;
    std::memcpy(out, block, outLen);
    OPENSSL_cleanse(block, sizeof(block));
    return 1;
}

int cAES::FinishKernelGcm(unsigned char* out, size_t& outLen)
{
    const size_t len = m_Held.size();
    if (m_Aad.size() + len > kKernelGcmMax) {
        if (m_AskedPath == eAesPath::Kernel)
            return Fail(ERR_PARAM, "kernel GCM message above 64 kB");
        // Same bytes through EVP.
        int rc = BeginEvp(m_Encrypt, m_Iv);
        int outl = 0;
        if (rc == 1 && !m_Aad.empty() &&
            EVP_CipherUpdate(Ctx(m_pEvp), nullptr, &outl, m_Aad.data(), static_cast<int>(m_Aad.size())) != 1)
            rc = Fail(ERR_CIPHER, "EVP AAD update failed");
        size_t n = 0, tail = 0;
        if (rc == 1 && len > 0)
            rc = UpdateEvp(m_Held.data(), len, out, n);
        if (rc == 1)
            rc = FinishEvp(out + n, tail);
        outLen = rc == 1 ? n + tail : 0;
        return rc;
    }
    // In: AAD, data, (decrypting) tag. Out: AAD, data, (encrypting) tag.
    std::vector<unsigned char> buf(m_Aad);
    buf.insert(buf.end(), m_Held.begin(), m_Held.end());
    if (!m_Encrypt)
        buf.insert(buf.end(), m_Tag, m_Tag + GCM_TAG_SIZE);
    std::vector<unsigned char> result(m_Aad.size() + len + GCM_TAG_SIZE);
    const ssize_t got = m_pKernel->Run(m_Encrypt, m_Iv, GCM_IV_SIZE, m_Aad.size(), buf.data(), buf.size(),
                                       result.data(), result.size());
    OPENSSL_cleanse(buf.data(), buf.size());
    if (!m_Held.empty())
        OPENSSL_cleanse(m_Held.data(), m_Held.size());
    m_Held.clear();
    const size_t want = m_Aad.size() + len + (m_Encrypt ? GCM_TAG_SIZE : 0);
    if (got < 0 || static_cast<size_t>(got) < want) {
        OPENSSL_cleanse(result.data(), result.size());
        if (got == -EBADMSG)
            return Fail(ERR_AUTH, "GCM tag mismatch: message refused");
        return Fail(ERR_CIPHER, std::string("kernel GCM request failed: ") +
                                    (got < 0 ? std::strerror(static_cast<int>(-got)) : "short"));
    }
    if (len > 0)
        std::memcpy(out, result.data() + m_Aad.size(), len);
    if (m_Encrypt)
        std::memcpy(m_Tag, result.data() + m_Aad.size() + len, GCM_TAG_SIZE);
    OPENSSL_cleanse(result.data(), result.size());
    outLen = len;
    return 1;
}

// ---- one-shot forms ---------------------------------------------------------

int cAES::Encrypt(const void* iv, size_t ivLen, const void* in, size_t len, std::vector<unsigned char>& out)
{
    out.assign(len + BLOCK_SIZE, 0);
    size_t n = 0, tail = 0;
    int rc = Begin(true, iv, ivLen);
    if (rc == 1)
        rc = Update(in, len, out.data(), n);
    if (rc == 1)
        rc = Finish(out.data() + n, tail);
    out.resize(rc == 1 ? n + tail : 0);
    return rc;
}

int cAES::Decrypt(const void* iv, size_t ivLen, const void* in, size_t len, std::vector<unsigned char>& out)
{
    out.assign(len + BLOCK_SIZE, 0);
    size_t n = 0, tail = 0;
    int rc = Begin(false, iv, ivLen);
    if (rc == 1)
        rc = Update(in, len, out.data(), n);
    if (rc == 1)
        rc = Finish(out.data() + n, tail);
    if (rc != 1)
        OPENSSL_cleanse(out.data(), out.size());
    out.resize(rc == 1 ? n + tail : 0);
    return rc;
}

int cAES::EncryptGcm(const void* iv, size_t ivLen, const void* aad, size_t aadLen, const void* in,
                     size_t len, void* out, unsigned char tag[GCM_TAG_SIZE])
{
    if (m_Mode != eAesMode::GCM)
        return Fail(ERR_PARAM, "EncryptGcm needs a GCM key");
    size_t n = 0, tail = 0;
    int rc = Begin(true, iv, ivLen);
    if (rc == 1)
        rc = AddAad(aad, aadLen);
    if (rc == 1)
        rc = Update(in, len, out, n);
    if (rc == 1)
        rc = Finish(static_cast<unsigned char*>(out) + n, tail);
    if (rc == 1)
        rc = GetTag(tag, GCM_TAG_SIZE);
    return rc;
}

int cAES::DecryptGcm(const void* iv, size_t ivLen, const void* aad, size_t aadLen, const void* in,
                     size_t len, void* out, const unsigned char tag[GCM_TAG_SIZE])
{
    if (m_Mode != eAesMode::GCM)
        return Fail(ERR_PARAM, "DecryptGcm needs a GCM key");
    size_t n = 0, tail = 0;
    int rc = Begin(false, iv, ivLen);
    if (rc == 1)
        rc = AddAad(aad, aadLen);
    if (rc == 1)
        rc = Update(in, len, out, n);
    if (rc == 1)
        rc = SetTag(tag, GCM_TAG_SIZE);
    if (rc == 1)
        rc = Finish(static_cast<unsigned char*>(out) + n, tail);
    if (rc == ERR_AUTH && out != nullptr && len > 0)
        OPENSSL_cleanse(out, len);  // never leave unauthenticated plaintext
    return rc;
}

}  // namespace orvo
