// Fuzzes AES-GCM decryption with arbitrary key size, IV, AAD, ciphertext and
// tag: it never crashes, refuses every tag but the right one, and accepts the
// right one (found by encrypting the bytes behind the ciphertext back).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "orvo_aes.h"

using orvo::cAES;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Layout: key-size selector, AAD length, key (32), IV (12), tag (16), AAD, ciphertext.
    if (size < 2 + 32 + 12 + 16)
        return 0;
    const size_t keyLen = 16 + 8 * (data[0] % 3);
    size_t aadLen = data[1];
    const uint8_t* key = data + 2;
    const uint8_t* iv = key + 32;
    const uint8_t* tag = iv + 12;
    const uint8_t* rest = tag + 16;
    const size_t restLen = size - (rest - data);
    if (aadLen > restLen)
        aadLen = restLen;
    const std::vector<uint8_t> aad(rest, rest + aadLen);
    const std::vector<uint8_t> cipher(rest + aadLen, data + size);

    cAES aes;
    if (aes.SetKey(key, keyLen, orvo::eAesMode::GCM, orvo::eAesPadding::None, orvo::eAesPath::OpenSSL) != 1)
        std::abort();
    std::vector<uint8_t> plain(cipher.size() + 1);
    const int rc = aes.DecryptGcm(iv, 12, aad.data(), aad.size(), cipher.data(), cipher.size(),
                                  plain.data(), tag);
    if (rc != 1 && rc != cAES::ERR_AUTH)
        std::abort();
    // The plaintext behind the ciphertext (streaming hands it out before the
    // tag check); encrypting it gives the ciphertext back and the one tag
    // that fits.
    size_t n = 0;
    if (aes.Begin(false, iv, 12) != 1 || aes.AddAad(aad.data(), aad.size()) != 1 ||
        aes.Update(cipher.data(), cipher.size(), plain.data(), n) != 1 || n != cipher.size())
        std::abort();
    std::vector<uint8_t> again(cipher.size() + 1);
    unsigned char realTag[16];
    if (aes.EncryptGcm(iv, 12, aad.data(), aad.size(), plain.data(), n, again.data(), realTag) != 1)
        std::abort();
    if (n > 0 && std::memcmp(again.data(), cipher.data(), n) != 0)
        std::abort();
    if ((rc == 1) != (std::memcmp(realTag, tag, 16) == 0))
        std::abort();  // a wrong tag accepted or the right one refused
    if (rc != 1 && aes.DecryptGcm(iv, 12, aad.data(), aad.size(), cipher.data(), cipher.size(),
                                  plain.data(), realTag) != 1)
        std::abort();
    return 0;
}
