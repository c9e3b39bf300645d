// Fuzzes AES-GCM decryption with arbitrary key size, IV, AAD, ciphertext and
// tag: it never crashes, refuses every tag but the right one, and accepts the
// right one (taken from encrypting the decrypted bytes back).
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
    // Encrypting what came out gives the ciphertext back and the only tag that fits.
    std::vector<uint8_t> again(cipher.size() + 1);
    unsigned char realTag[16];
    if (aes.EncryptGcm(iv, 12, aad.data(), aad.size(), plain.data(), cipher.size(), again.data(), realTag) != 1)
        std::abort();
    const bool tagRight = std::memcmp(realTag, tag, 16) == 0;
    if (rc == 1) {
        if (!tagRight || (!cipher.empty() && std::memcmp(again.data(), cipher.data(), cipher.size()) != 0))
            std::abort();
    } else if (rc != cAES::ERR_AUTH || tagRight) {
        std::abort();
    }
    if (rc != 1) {
        // The right tag for this ciphertext is accepted.
        if (aes.EncryptGcm(iv, 12, aad.data(), aad.size(), cipher.data(), cipher.size(), again.data(), realTag) != 1)
            std::abort();
        // again holds a ciphertext whose plaintext is `cipher`; realTag fits it.
        if (aes.DecryptGcm(iv, 12, aad.data(), aad.size(), again.data(), cipher.size(), plain.data(), realTag) != 1 ||
            (!cipher.empty() && std::memcmp(plain.data(), cipher.data(), cipher.size()) != 0))
            std::abort();
    }
    return 0;
}
