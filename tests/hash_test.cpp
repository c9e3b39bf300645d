// Digests and HMAC against the published known-answer vectors, and the
// streaming contract (pieces, files, reuse).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "orvo_hash.h"

using namespace orvo;

namespace {

struct tVector {
    eHashAlg m_Alg;
    std::string m_Message;
    const char* m_Hex;
};

const std::string k448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

const tVector kDigests[] = {
    // SHA-256 examples of FIPS 180-4
    {eHashAlg::SHA256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {eHashAlg::SHA256, k448, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {eHashAlg::SHA256, std::string(1000000, 'a'),
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    // SHA-1 examples of FIPS 180-4
    {eHashAlg::SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {eHashAlg::SHA1, k448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {eHashAlg::SHA1, std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    // The MD5 test suite of RFC 1321
    {eHashAlg::MD5, "", "d41d8cd98f00b204e9800998ecf8427e"},
    {eHashAlg::MD5, "a", "0cc175b9c0f1b6a831c399e269772661"},
    {eHashAlg::MD5, "abc", "900150983cd24fb0d6963f7d28e17f72"},
    {eHashAlg::MD5, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {eHashAlg::MD5, "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {eHashAlg::MD5, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {eHashAlg::MD5,
     "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

struct tHmacVector {
    std::string m_Key;
    std::string m_Data;
    const char* m_Hex;  // may be a prefix (the truncation case)
};

// RFC 4231 test cases 1 to 7
const tHmacVector kHmacs[] = {
    {std::string(20, '\x0b'), "Hi There",
     "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
    {"Jefe", "what do ya want for nothing?",
     "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    {std::string(20, '\xaa'), std::string(50, '\xdd'),
     "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
    {"\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13\x14\x15\x16"
     "\x17\x18\x19",
     std::string(50, '\xcd'), "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
    {std::string(20, '\x0c'), "Test With Truncation", "a3b6167473100ee06e0c796c2955552b"},
    {std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
     "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    {std::string(131, '\xaa'),
     "This is a test using a larger than block-size key and a larger than block-size data. The "
     "key needs to be hashed before being used by the HMAC algorithm.",
     "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
};

std::string Upper(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

TEST(HashTest, KnownAnswersOneShotAndInPieces)
{
    for (const tVector& v : kDigests) {
        SCOPED_TRACE(v.m_Hex);
        EXPECT_EQ(cHashCalculator::DigestHex(v.m_Alg, v.m_Message.data(), v.m_Message.size()),
                  v.m_Hex);
        // Uneven pieces straddling the 64-byte block edges.
        cHashCalculator calc(v.m_Alg);
        for (size_t pos = 0, step = 1; pos < v.m_Message.size(); pos += step, step = step * 3 % 97 + 1)
            ASSERT_TRUE(calc.Add(v.m_Message.data() + pos, std::min(step, v.m_Message.size() - pos)));
        std::vector<unsigned char> digest;
        ASSERT_TRUE(calc.Finish(digest));
        EXPECT_EQ(digest.size(), calc.GetDigestSize());
        EXPECT_EQ(cHashCalculator::ToHex(digest.data(), digest.size(), false), Upper(v.m_Hex));
    }
}

TEST(HashTest, HmacSha256KnownAnswers)
{
    for (const tHmacVector& v : kHmacs) {
        SCOPED_TRACE(v.m_Hex);
        cHMACSHA256Calculator mac(v.m_Key.data(), v.m_Key.size());
        EXPECT_TRUE(mac.IsHmac());
        ASSERT_TRUE(mac.Add(v.m_Data.substr(0, 5)));
        ASSERT_TRUE(mac.Add(v.m_Data.substr(5)));
        EXPECT_EQ(mac.FinishHex().substr(0, strlen(v.m_Hex)), v.m_Hex);
        // Reused with the same key after finishing.
        ASSERT_TRUE(mac.Add(v.m_Data));
        EXPECT_EQ(mac.FinishHex().substr(0, strlen(v.m_Hex)), v.m_Hex);
    }
}

TEST(HashTest, StartDiscardsAndFinishStartsOver)
{
    cSHA256Calculator calc;
    calc.Add("garbage");
    ASSERT_TRUE(calc.Start());
    calc.Add("abc");
    EXPECT_EQ(calc.FinishHex(), kDigests[0].m_Hex);
    calc.Add("abc");
    EXPECT_EQ(calc.FinishHex(), kDigests[0].m_Hex);
    // Nothing added: the digest of no bytes.
    EXPECT_EQ(calc.FinishHex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    cMD5Calculator md5;
    EXPECT_EQ(md5.FinishHex(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(HashTest, AddFileHashesWholeContentAndRefusesMissingFiles)
{
    char name[] = "/tmp/orvo_hash_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    // Larger than the read piece, so the file is read in several reads.
    const std::string content(200000, 'a');
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);

    cSHA1Calculator calc;
    ASSERT_TRUE(calc.Add("prefix"));
    ASSERT_TRUE(calc.AddFile(name));
    const std::string expected = cHashCalculator::DigestHex(eHashAlg::SHA1, ("prefix" + content).data(),
                                                            content.size() + 6);
    EXPECT_EQ(calc.FinishHex(), expected);

    EXPECT_FALSE(calc.AddFile(std::string(name) + ".missing"));
    EXPECT_FALSE(calc.Add("x"));  // a failed digest stays failed until restarted
    EXPECT_EQ(calc.FinishHex(), "");
    ASSERT_TRUE(calc.AddFile(name));  // Finish started it over
    EXPECT_EQ(calc.FinishHex(), cHashCalculator::DigestHex(eHashAlg::SHA1, content.data(), content.size()));
    EXPECT_FALSE(calc.AddFile("/proc/self/mem"));  // opens, but reading offset 0 fails
    unlink(name);
}
