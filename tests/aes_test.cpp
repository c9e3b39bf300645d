// AES against the NIST SP 800-38A (ECB, CBC) and the published GCM test vectors on
// every path this machine offers, the refusals (tag, padding, misuse) and the
// choice between the kernel cipher and EVP from crafted cipher lists.
#include <gtest/gtest.h>

#include <linux/if_alg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "orvo_aes.h"

#ifndef SOL_ALG
#define SOL_ALG 279
#endif

using namespace orvo;

namespace {

using tBytes = std::vector<unsigned char>;

tBytes Hex(const std::string& hex)
{
    tBytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        b.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return b;
}

struct tVector {
    const char* m_Name;
    eAesMode m_Mode;
    const char* m_Key;
    const char* m_Iv;
    const char* m_Aad;
    const char* m_Plain;
    const char* m_Cipher;
    const char* m_Tag;
};

#define NIST_PLAIN                                                                               \
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e5130c81c46a35ce411e5fbc119" \
    "1a0a52eff69f2445df4f9b17ad2b417be66c3710"
#define K128 "2b7e151628aed2a6abf7158809cf4f3c"
#define K192 "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"
#define K256 "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"
#define CBC_IV "000102030405060708090a0b0c0d0e0f"
#define GCM_KEY "feffe9928665731c6d6a8f9467308308"
#define GCM_IV "cafebabefacedbaddecaf888"
#define GCM_AAD "feedfacedeadbeeffeedfacedeadbeefabaddad2"
#define GCM_P60                                                                                  \
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e24" \
    "49a6b525b16aedf5aa0de657ba637b39"
#define Z12 "000000000000000000000000"
#define Z16 "00000000000000000000000000000000"

const tVector kVectors[] = {
    // NIST SP 800-38A F.1 and F.2
    {"ECB-AES128", eAesMode::ECB, K128, "", "", NIST_PLAIN,
     "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf43b1cd7f598ece23881b00e3ed03"
     "06887b0c785e27e8ad3f8223207104725dd4", ""},
    {"ECB-AES192", eAesMode::ECB, K192, "", "", NIST_PLAIN,
     "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eefef7afd2270e2e60adce0ba2face6"
     "444e9a4b41ba738d6c72fb16691603c18e0e", ""},
    {"ECB-AES256", eAesMode::ECB, K256, "", "", NIST_PLAIN,
     "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870b6ed21b99ca6f4f9f153e7b1beaf"
     "ed1d23304b7a39f9f3ff067d8d8f9e24ecc7", ""},
    {"CBC-AES128", eAesMode::CBC, K128, CBC_IV, "", NIST_PLAIN,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b273bed6b8e3c1743b7116e69e2222"
     "95163ff1caa1681fac09120eca307586e1a7", ""},
    {"CBC-AES192", eAesMode::CBC, K192, CBC_IV, "", NIST_PLAIN,
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a571b242012fb7ae07fa9baac3df1"
     "02e008b0e27988598881d920a9e64f5615cd", ""},
    {"CBC-AES256", eAesMode::CBC, K256, CBC_IV, "", NIST_PLAIN,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d39f23369a9d9bacfa530e2630423"
     "1461b2eb05e2c39be9fcda6c19078c6a9d1b", ""},
    // GCM's published test cases 1-4, 7-8 and 13-16 (the ones with a 96-bit IV)
    {"GCM-1", eAesMode::GCM, Z16, Z12, "", "", "", "58e2fccefa7e3061367f1d57a4e7455a"},
    {"GCM-2", eAesMode::GCM, Z16, Z12, "", Z16, "0388dace60b6a392f328c2b971b2fe78",
     "ab6e47d42cec13bdf53a67b21257bddf"},
    {"GCM-3", eAesMode::GCM, GCM_KEY, GCM_IV, "", GCM_P60 "1aafd255",
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84"
     "aa051ba30b396a0aac973d58e091473f5985", "4d5c2af327cd64a62cf35abd2ba6fab4"},
    {"GCM-4", eAesMode::GCM, GCM_KEY, GCM_IV, GCM_AAD, GCM_P60,
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84"
     "aa051ba30b396a0aac973d58e091", "5bc94fbc3221a5db94fae95ae7121a47"},
    {"GCM-7", eAesMode::GCM, Z16 "0000000000000000", Z12, "", "", "", "cd33b28ac773f74ba00ed1f312572435"},
    {"GCM-8", eAesMode::GCM, Z16 "0000000000000000", Z12, "", Z16, "98e7247c07f0fe411c267e4384b0f600",
     "2ff58d80033927ab8ef4d4587514f0fb"},
    {"GCM-13", eAesMode::GCM, Z16 Z16, Z12, "", "", "", "530f8afbc74536b9a963b4f1c4cb738b"},
    {"GCM-14", eAesMode::GCM, Z16 Z16, Z12, "", Z16, "cea7403d4d606b6e074ec5d3baf39d18",
     "d0d1c8a799996bf0265b98b5d48ab919"},
    {"GCM-15", eAesMode::GCM, GCM_KEY GCM_KEY, GCM_IV, "", GCM_P60 "1aafd255",
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056"
     "828838c5f61e6393ba7a0abcc9f662898015ad", "b094dac5d93471bdec1a502270e3cc6c"},
    {"GCM-16", eAesMode::GCM, GCM_KEY GCM_KEY, GCM_IV, GCM_AAD, GCM_P60,
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056"
     "828838c5f61e6393ba7a0abcc9f662", "76fc6ece0f4e1768cddf8853bb2d551b"},
};

// Streams in through Update in uneven pieces, in place, then Finish.
int Stream(cAES& aes, bool encrypt, const tBytes& iv, const tBytes& aad, tBytes data, tBytes& out,
           const tBytes& tag = tBytes())
{
    int rc = aes.Begin(encrypt, iv.data(), iv.size());
    if (rc == 1 && !aad.empty()) {
        const size_t half = aad.size() / 2;
        rc = aes.AddAad(aad.data(), half);
        if (rc == 1)
            rc = aes.AddAad(aad.data() + half, aad.size() - half);
    }
    // In place: the output lands where the bytes returned so far end, which
    // never passes the input still to be read.
    out = data;
    out.resize(data.size() + 2 * cAES::BLOCK_SIZE);
    size_t done = 0;
    for (size_t pos = 0, step = 7; rc == 1 && pos < data.size(); pos += step, step = step * 2 + 3) {
        const size_t n = std::min(step, data.size() - pos);
        size_t got = 0;
        rc = aes.Update(&out[pos], n, &out[done], got);
        done += got;
    }
    if (rc == 1 && !tag.empty())
        rc = aes.SetTag(tag.data(), tag.size());
    size_t tail = 0;
    if (rc == 1)
        rc = aes.Finish(&out[done], tail);
    out.resize(done + tail);
    return rc;
}

void CheckVectors(eAesPath path)
{
    for (const tVector& v : kVectors) {
        SCOPED_TRACE(v.m_Name);
        const tBytes key = Hex(v.m_Key), iv = Hex(v.m_Iv), aad = Hex(v.m_Aad);
        const tBytes plain = Hex(v.m_Plain), cipher = Hex(v.m_Cipher), tag = Hex(v.m_Tag);
        cAES aes;
        ASSERT_EQ(aes.SetKey(key.data(), key.size(), v.m_Mode, eAesPadding::None, path), 1) << aes.GetError();
        EXPECT_EQ(aes.GetPath(), path);
        tBytes out;
        ASSERT_EQ(Stream(aes, true, iv, aad, plain, out), 1) << aes.GetError();
        EXPECT_EQ(out, cipher);
        ASSERT_EQ(Stream(aes, false, iv, aad, cipher, out, tag), 1) << aes.GetError();
        EXPECT_EQ(out, plain);
        if (v.m_Mode != eAesMode::GCM)
            continue;
        tBytes got(plain.size() + 1), gotTag(16);
        ASSERT_EQ(aes.EncryptGcm(iv.data(), 12, aad.data(), aad.size(), plain.data(), plain.size(),
                                 got.data(), gotTag.data()), 1);
        got.resize(plain.size());
        EXPECT_EQ(got, cipher);
        EXPECT_EQ(gotTag, tag);
        // A changed tag, ciphertext byte or AAD byte is refused and the output wiped.
        for (int what = 0; what < 3; ++what) {
            tBytes t = tag, c = cipher, a = aad;
            tBytes& victim = what == 0 ? t : what == 1 ? c : a;
            if (victim.empty())
                continue;
            victim[victim.size() / 2] ^= 0x01;
            tBytes dec(c.size() + 1, 0xEE);
            EXPECT_EQ(aes.DecryptGcm(iv.data(), 12, a.data(), a.size(), c.data(), c.size(), dec.data(),
                                     t.data()), cAES::ERR_AUTH) << "changed part " << what;
            dec.resize(c.size());
            EXPECT_EQ(dec, tBytes(c.size(), 0));
        }
    }
}

bool KernelCipherReachable(int* why = nullptr)
{
    const int fd = socket(AF_ALG, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        if (why != nullptr)
            *why = errno;
        return false;
    }
    close(fd);
    return true;
}

// True when this kernel opens driver (an skcipher, or an aead for GCM) through
// AF_ALG with a 128-bit key: what Auto needs to take the kernel path. A kernel
// may offer AF_ALG without the listed hardware driver.
bool KernelDriverBinds(const std::string& driver, eAesMode mode)
{
    const int fd = socket(AF_ALG, SOCK_SEQPACKET, 0);
    if (fd < 0)
        return false;
    sockaddr_alg sa{};
    sa.salg_family = AF_ALG;
    std::snprintf(reinterpret_cast<char*>(sa.salg_type), sizeof(sa.salg_type), "%s",
                  mode == eAesMode::GCM ? "aead" : "skcipher");
    std::snprintf(reinterpret_cast<char*>(sa.salg_name), sizeof(sa.salg_name), "%s", driver.c_str());
    const unsigned char key[16] = {0};
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
                    setsockopt(fd, SOL_ALG, ALG_SET_KEY, key, sizeof(key)) == 0;
    close(fd);
    return ok;
}

// A /proc/crypto stand-in, named through ORVO_PROC_CRYPTO while it lives.
class cCipherList {
public:
    explicit cCipherList(const std::string& content)
    {
        char name[] = "/tmp/orvo_proc_crypto_XXXXXX";
        const int fd = mkstemp(name);
        m_Name = name;
        if (fd >= 0) {
            EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
            close(fd);
        }
        setenv("ORVO_PROC_CRYPTO", name, 1);
    }
    ~cCipherList()
    {
        unsetenv("ORVO_PROC_CRYPTO");
        unlink(m_Name.c_str());
    }

private:
    std::string m_Name;
};

std::string Entry(const std::string& name, const std::string& driver, int priority,
                  const std::string& type, const std::string& extra = "")
{
    return "name         : " + name + "\ndriver       : " + driver +
           "\nmodule       : kernel\npriority     : " + std::to_string(priority) +
           "\nrefcnt       : 1\nselftest     : passed\ninternal     : no\n" + extra +
           "type         : " + type + "\nblocksize    : 16\n\n";
}

}  // namespace

TEST(AesTest, StandardVectorsOnOpenSsl)
{
    CheckVectors(eAesPath::OpenSSL);
}

TEST(AesTest, KernelCipherGivesTheSameBytes)
{
    int why = 0;
    if (!KernelCipherReachable(&why))
        GTEST_SKIP() << "the kernel refuses AF_ALG sockets here (" << strerror(why)
                     << "): kernel cipher path not run";
    CheckVectors(eAesPath::Kernel);
    // Random messages of every awkward length, both paths side by side, in
    // every mode and key size. ECB takes no padding: both paths refuse a
    // partial block alike.
    std::mt19937 rng(3);
    for (eAesMode mode : {eAesMode::ECB, eAesMode::CBC, eAesMode::GCM}) {
        for (size_t keyLen : {16u, 24u, 32u}) {
            for (size_t len : {0u, 1u, 15u, 16u, 17u, 1000u, 1008u, 40000u, 70000u}) {
                SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << " key "
                                                << keyLen * 8 << " length " << len);
                const bool gcm = mode == eAesMode::GCM;
                tBytes key(keyLen), iv(gcm ? 12 : mode == eAesMode::CBC ? 16 : 0), aad(gcm ? len % 50 : 0),
                    data(len);
                for (tBytes* b : {&key, &iv, &aad, &data})
                    for (auto& x : *b)
                        x = static_cast<unsigned char>(rng());
                cAES kernel, evp;
                ASSERT_EQ(kernel.SetKey(key.data(), keyLen, mode, eAesPadding::PKCS7, eAesPath::Kernel), 1)
                    << kernel.GetError();
                ASSERT_EQ(evp.SetKey(key.data(), keyLen, mode, eAesPadding::PKCS7, eAesPath::OpenSSL), 1);
                tBytes a, b;
                const int rcKernel = Stream(kernel, true, iv, aad, data, a);
                const int rcEvp = Stream(evp, true, iv, aad, data, b);
                if (gcm && len + aad.size() > 64 * 1024) {
                    ASSERT_EQ(rcEvp, 1);
                    EXPECT_EQ(rcKernel, cAES::ERR_PARAM);  // too big for one kernel request
                    continue;
                }
                if (mode == eAesMode::ECB && len % cAES::BLOCK_SIZE != 0) {
                    EXPECT_EQ(rcEvp, cAES::ERR_PADDING);
                    EXPECT_EQ(rcKernel, cAES::ERR_PADDING) << kernel.GetError();
                    continue;
                }
                ASSERT_EQ(rcEvp, 1) << evp.GetError();
                ASSERT_EQ(rcKernel, 1) << kernel.GetError();
                EXPECT_EQ(a, b);
                // And back on the other path.
                tBytes tag(cAES::GCM_TAG_SIZE), back;
                if (gcm) {
                    ASSERT_EQ(evp.GetTag(tag.data(), tag.size()), 1);
                }
                ASSERT_EQ(Stream(kernel, false, iv, aad, b, back, gcm ? tag : tBytes()), 1)
                    << kernel.GetError();
                EXPECT_EQ(back, data);
            }
        }
    }
}

TEST(AesTest, Pkcs7PaddingAndRefusedBlocks)
{
    const tBytes key = Hex(K128), iv = Hex(CBC_IV), plain = Hex(NIST_PLAIN);
    cAES aes;
    ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::CBC, eAesPadding::PKCS7, eAesPath::OpenSSL), 1);
    tBytes out, back;
    ASSERT_EQ(aes.Encrypt(iv.data(), 16, plain.data(), plain.size(), out), 1);
    ASSERT_EQ(out.size(), 80u);  // a whole block of padding after whole blocks
    EXPECT_EQ(tBytes(out.begin(), out.begin() + 64), Hex(kVectors[3].m_Cipher));
    for (size_t len = 0; len <= 33; ++len) {
        ASSERT_EQ(aes.Encrypt(iv.data(), 16, plain.data(), len, out), 1);
        EXPECT_EQ(out.size(), (len / 16 + 1) * 16);
        ASSERT_EQ(aes.Decrypt(iv.data(), 16, out.data(), out.size(), back), 1);
        EXPECT_EQ(back, tBytes(plain.begin(), plain.begin() + len));
    }
    // Blocks whose plaintext ends in no valid padding: 0x00, 0x11, mixed.
    cAES raw;
    ASSERT_EQ(raw.SetKey(key.data(), 16, eAesMode::CBC, eAesPadding::None, eAesPath::OpenSSL), 1);
    for (const char* last : {"000102030405060708090a0b0c0d0e00", "11111111111111111111111111111111",
                             "00000000000000000000000000030203"}) {
        const tBytes block = Hex(last);
        ASSERT_EQ(raw.Encrypt(iv.data(), 16, block.data(), 16, out), 1);
        EXPECT_EQ(aes.Decrypt(iv.data(), 16, out.data(), out.size(), back), cAES::ERR_PADDING) << last;
        EXPECT_TRUE(back.empty());
    }
    EXPECT_EQ(aes.Decrypt(iv.data(), 16, out.data(), 15, back), cAES::ERR_PADDING);  // partial block
    EXPECT_EQ(raw.Encrypt(iv.data(), 16, plain.data(), 17, out), cAES::ERR_PADDING);
}

TEST(AesTest, MisuseIsRefusedWithACode)
{
    const tBytes key(16, 1), iv(16, 2);
    unsigned char buf[64] = {0};
    size_t n = 0;
    cAES aes;
    EXPECT_EQ(aes.Begin(true, iv.data(), 16), cAES::ERR_STATE);
    for (size_t len : {0u, 15u, 17u, 33u})
        EXPECT_EQ(aes.SetKey(key.data(), len, eAesMode::GCM), cAES::ERR_PARAM) << len;
    ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::GCM, eAesPadding::None, eAesPath::OpenSSL), 1);
    EXPECT_EQ(aes.Update(buf, 16, buf, n), cAES::ERR_STATE);
    EXPECT_EQ(aes.Begin(true, iv.data(), 16), cAES::ERR_PARAM);  // GCM takes 12 bytes
    ASSERT_EQ(aes.Begin(false, iv.data(), 12), 1);
    ASSERT_EQ(aes.Update(buf, 16, buf, n), 1);
    EXPECT_EQ(aes.AddAad(buf, 4), cAES::ERR_STATE);   // AAD after data
    EXPECT_EQ(aes.Finish(buf, n), cAES::ERR_STATE);   // no tag set
    EXPECT_EQ(aes.SetTag(buf, 12), cAES::ERR_PARAM);  // short tag
    EXPECT_EQ(aes.GetTag(buf, 16), cAES::ERR_STATE);
    ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::CBC), 1);
    EXPECT_EQ(aes.Begin(true, iv.data(), 12), cAES::ERR_PARAM);
    EXPECT_EQ(aes.EncryptGcm(iv.data(), 12, nullptr, 0, buf, 16, buf, buf + 32), cAES::ERR_PARAM);
}

TEST(AesTest, HardwareDriverRule)
{
    const struct {
        const char* m_Driver;
        bool m_Hardware;
    } kCases[] = {
        {"cbc-aes-dcp", true},       {"ecb-aes-dcp", true},        {"gcm-aes-sec", true},
        {"cbc-aes-engine", true},      {"aes-generic", false},       {"cbc(aes-generic)", false},
        {"gcm_base(ctr(aes-generic),ghash-generic)", false},       {"cbc-aes-aesni", false},
        {"__cbc-aes-aesni", false},  {"generic-gcm-aesni", false}, {"cbc-aes-ce", false},
        {"cbc-aes-neonbs", false},   {"cbc-aes-neon", false},      {"ecb-aes-vaes-avx2", false},
        {"cbc-aes-arm", false},      {"", false},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(cAES::IsHardwareDriver(c.m_Driver), c.m_Hardware) << c.m_Driver;
}

TEST(AesTest, CipherListChoosesTheBestHardwareDriverPerMode)
{
    const std::string list =
        Entry("cbc(aes)", "cbc(aes-generic)", 100, "skcipher") +
        Entry("cbc(aes)", "cbc-aes-dcp", 400, "skcipher") +
        Entry("cbc(aes)", "cbc-aes-sec", 3000, "skcipher", "async       : yes\n") +
        Entry("cbc(aes)", "cbc-aes-neonbs", 4000, "skcipher") +  // higher, but CPU code
        Entry("ecb(aes)", "ecb-aes-dcp", 400, "cipher") +        // wrong type
        Entry("ecb(aes)", "ecb-aes-engine", 300, "skcipher", "selftest     : unknown\n") +
        Entry("gcm(aes)", "gcm_base(ctr(aes-generic),ghash-generic)", 100, "aead") +
        "name         : gcm(aes)\ndriver       : gcm-aes-internal\ninternal     : yes\n"
        "priority     : 9000\ntype         : aead\n";  // last block, no blank line after it
    cCipherList file(list);
    EXPECT_EQ(cAES::FindHardwareDriver(eAesMode::CBC), "cbc-aes-sec");
    // The self-test line of the engine block comes later and overrides "passed".
    EXPECT_EQ(cAES::FindHardwareDriver(eAesMode::ECB), "");
    EXPECT_EQ(cAES::FindHardwareDriver(eAesMode::GCM), "");
}

TEST(AesTest, PathChoiceAndClearErrors)
{
    const tBytes key = Hex(K128);
    {
        // A hardware driver listed: Auto tries it, and falls back to EVP
        // where the kernel has no AF_ALG or cannot open that driver (a
        // kernel with AF_ALG but without the DCP).
        cCipherList file(Entry("cbc(aes)", "cbc-aes-dcp", 400, "skcipher"));
        EXPECT_EQ(cAES::FindHardwareDriver(eAesMode::CBC), "cbc-aes-dcp");
        cAES aes;
        ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::CBC), 1);
        EXPECT_EQ(aes.GetPath(), KernelDriverBinds("cbc-aes-dcp", eAesMode::CBC) ? eAesPath::Kernel
                                                                                 : eAesPath::OpenSSL);
    }
    {
        cCipherList file(Entry("cbc(aes)", "cbc(aes-generic)", 100, "skcipher"));
        cAES aes;
        ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::CBC), 1);
        EXPECT_EQ(aes.GetPath(), eAesPath::OpenSSL);  // software only: EVP
    }
    {
        cCipherList file("");  // unreadable or empty list: EVP
        cAES aes;
        ASSERT_EQ(aes.SetKey(key.data(), 16, eAesMode::GCM), 1);
        EXPECT_EQ(aes.GetPath(), eAesPath::OpenSSL);
    }
    setenv("ORVO_PROC_CRYPTO", "/nonexistent/crypto", 1);
    EXPECT_EQ(cAES::FindHardwareDriver(eAesMode::GCM), "");
    unsetenv("ORVO_PROC_CRYPTO");
    if (!KernelCipherReachable()) {
        cAES aes;
        EXPECT_EQ(aes.SetKey(key.data(), 16, eAesMode::GCM, eAesPadding::None, eAesPath::Kernel),
                  cAES::ERR_UNAVAILABLE);
        EXPECT_NE(aes.GetError().find("AF_ALG"), std::string::npos) << aes.GetError();
        unsigned char buf[16];
        EXPECT_EQ(aes.Begin(true, buf, 12), cAES::ERR_STATE);  // no key after the failure
    }
}
