// Base64 against the RFC 4648 vectors, both alphabets, padding choices, line
// breaks and the texts decoding must refuse.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "orvo_base64.h"
#include "orvo_data.h"

using namespace orvo;

namespace {

std::string Bytes(const std::vector<unsigned char>& v)
{
    return std::string(v.begin(), v.end());
}

// Decodes from a heap block of exactly the text's size, so a sanitizer build
// catches any read past the end.
bool DecodeExact(const std::string& text, std::string& out, eBase64Alphabet a = eBase64Alphabet::Standard)
{
    std::vector<char> exact(text.begin(), text.end());
    std::vector<unsigned char> bytes;
    const bool ok = cBase64::Decode(exact.data(), exact.size(), bytes, a);
    out = Bytes(bytes);
    return ok;
}

}  // namespace

TEST(Base64Test, Rfc4648VectorsBothWays)
{
    const char* const kVectors[][3] = {
        {"", "", ""},           {"f", "Zg==", "Zg"},         {"fo", "Zm8=", "Zm8"},
        {"foo", "Zm9v", "Zm9v"}, {"foob", "Zm9vYg==", "Zm9vYg"}, {"fooba", "Zm9vYmE=", "Zm9vYmE"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
    };
    for (const auto& v : kVectors) {
        SCOPED_TRACE(v[1]);
        EXPECT_EQ(cBase64::Encode(std::string(v[0])), v[1]);
        EXPECT_EQ(cBase64::Encode(std::string(v[0]), eBase64Alphabet::UrlSafe, false), v[2]);
        std::string out;
        EXPECT_TRUE(DecodeExact(v[1], out));
        EXPECT_EQ(out, v[0]);
        EXPECT_TRUE(DecodeExact(v[2], out));  // padding is optional when decoding
        EXPECT_EQ(out, v[0]);
        std::string text = "unchanged";
        EXPECT_TRUE(cBase64::Decode(std::string(v[1]), text));
        EXPECT_EQ(text, v[0]);
        const std::string s(v[0]);
        EXPECT_EQ(cData(reinterpret_cast<const unsigned char*>(s.data()), int(s.size()), false).ToBase64(), v[1]);
    }
}

TEST(Base64Test, AlphabetsDifferOnlyInTheLastTwoCharacters)
{
    const std::string bytes("\xfb\xff\xbf\x00", 4);
    EXPECT_EQ(cBase64::Encode(bytes), "+/+/AA==");
    EXPECT_EQ(cBase64::Encode(bytes, eBase64Alphabet::UrlSafe), "-_-_AA==");
    std::string out;
    EXPECT_TRUE(DecodeExact("-_-_AA", out, eBase64Alphabet::UrlSafe));
    EXPECT_EQ(out, bytes);
    EXPECT_FALSE(DecodeExact("-_-_AA==", out));                            // URL-safe text, standard alphabet
    EXPECT_FALSE(DecodeExact("+/+/AA==", out, eBase64Alphabet::UrlSafe));  // and the other way
}

TEST(Base64Test, DecodingToleratesLineBreaksOnly)
{
    const struct {
        const char* m_Text;
        bool m_Ok;
        const char* m_Bytes;
    } kCases[] = {
        {"Zm9v\r\nYmFy\r\n", true, "foobar"},
        {"Zm9vYmE=\n", true, "fooba"},
        {"Zm\n9v\nYg\n=\n=", true, "foob"},  // breaks anywhere, even inside padding
        {"\r\n\r\n", true, ""},
        {"Zm9v YmFy", false, ""},      // space
        {"Zm9v\tYmFy", false, ""},     // tab
        {"Zm9vYmFy\0", false, ""},     // a zero byte counts (length taken below)
        {"Zm9v=YmFy", false, ""},      // padding inside
        {"Zg=", false, ""},            // short padding
        {"Zg===", false, ""},          // surplus padding
        {"Zm9v====", false, ""},       // padding after a whole group
        {"=", false, ""},
        {"Z", false, ""},              // a lone character carries no byte
        {"Zm9vY", false, ""},
        {"Zh==", false, ""},           // unused bits not zero
        {"Zm9=", false, ""},
        {"Zm9vYmFy*", false, ""},
        {"\x80\x81\x82\x83", false, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Text);
        std::string text(c.m_Text);
        if (text == "Zm9vYmFy")
            text.push_back('\0');
        std::string out = "unchanged";
        EXPECT_EQ(DecodeExact(text, out), c.m_Ok);
        EXPECT_EQ(out, c.m_Bytes);
    }
}

TEST(Base64Test, RandomRoundTripsInEveryForm)
{
    std::mt19937 rng(17);
    for (size_t len = 0; len < 300; len += 1 + len / 16) {
        std::string bytes(len, '\0');
        for (char& b : bytes)
            b = static_cast<char>(rng());
        for (eBase64Alphabet a : {eBase64Alphabet::Standard, eBase64Alphabet::UrlSafe}) {
            for (bool pad : {true, false}) {
                const std::string text = cBase64::Encode(bytes, a, pad);
                EXPECT_EQ(text.size(), cBase64::EncodedSize(len, pad));
                std::string out;
                ASSERT_TRUE(DecodeExact(text, out, a)) << text;
                EXPECT_EQ(out, bytes);
            }
        }
        // MIME and PEM bodies.
        for (size_t line : {76u, 64u}) {
            const std::string text = cBase64::EncodeLines(bytes.data(), bytes.size(), line, line == 76 ? "\r\n" : "\n");
            for (size_t pos = 0, end; (end = text.find('\n', pos)) != std::string::npos; pos = end + 1)
                EXPECT_LE(end - pos, line + 1);
            std::string out;
            ASSERT_TRUE(DecodeExact(text, out)) << text;
            EXPECT_EQ(out, bytes);
        }
    }
}
