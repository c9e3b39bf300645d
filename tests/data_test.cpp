// cData and cHelper: hexadecimal forms, comparison, allocation failure,
// conversions against published vectors.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "orvo_data.h"

using namespace orvo;

namespace {

const unsigned char kABC[] = {0x0A, 0x1B, 0x2C};

void* FailingAlloc(size_t) { return nullptr; }

}  // namespace

TEST(DataTest, HexText)
{
    cData d(kABC, 3, false);
    EXPECT_EQ(d.ToString(), "0A.1B.2C");
    d.SetSeparator("-");
    EXPECT_EQ(d.ToString(0), "0A-1B-2C");
    d.SetSeparator("");
    EXPECT_EQ(d.ToString(), "0A1B2C");
    d.SetSeparator(":/");   // one character printed, two cut
    EXPECT_EQ(d.ToString(), "0A:1B:2");
    d.SetSeparator(".");
    d.SetHexLowerCase(true);
    EXPECT_EQ(d.ToString(), "0a.1b.2c");

    const unsigned char five[] = {1, 2, 3, 4, 5};
    cData f(five, 5, true);
    EXPECT_EQ(f.ToString(2), "01.02.03.04....");   // limit N prints N + 2 bytes
    EXPECT_EQ(f.ToString(3), "01.02.03.04.05....");   // dots even after the last byte
    EXPECT_EQ(f.ToString(4), "01.02.03.04.05");
    EXPECT_EQ(cData().ToString(), "");

    // Parsed forms the random round trip below does not produce.
    cData one("A");
    ASSERT_EQ(one.GetLen(), 1u);
    EXPECT_EQ(one[0], 0x0A);
    EXPECT_EQ(cData("0A.1B.2").ToString(), "0A.1B.02");
    EXPECT_EQ(cData("G1FF").ToString(), "00.FF");
    EXPECT_EQ(cData("").GetLen(), 0u);

    // Dotted, compact and lower-case texts read back to the bytes.
    std::mt19937 rng(1);
    for (int i = 0; i < 300; ++i) {
        std::vector<unsigned char> bytes(1 + rng() % 40);
        for (unsigned char& b : bytes)
            b = static_cast<unsigned char>(rng());
        cData src(bytes.data(), static_cast<int>(bytes.size()), false);
        std::string compact;
        for (unsigned char b : bytes) {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02x", b);
            compact += hex;
        }
        src.SetSeparator(i % 2 ? "." : "");
        const std::string text = i % 3 ? src.ToString() : compact;
        cData back(text.c_str());
        ASSERT_TRUE(back == src) << text;
    }
}

TEST(DataTest, OwnershipComparisonAndAllocation)
{
    EXPECT_FALSE(cData() == cData());
    cData a(kABC, 3, true);
    cData b(a);
    EXPECT_TRUE(a == b);
    EXPECT_NE(a.GetData(), b.GetData());
    unsigned char buffer[3] = {1, 2, 3};
    cData borrowed(buffer, 3, false);
    buffer[0] = 9;
    EXPECT_EQ(borrowed[0], 9);
    b = borrowed;
    buffer[0] = 7;
    EXPECT_EQ(b[0], 9);                  // assignment copies

    const unsigned char ab[] = {1, 2};
    const unsigned char abc[] = {1, 2, 3};
    const unsigned char b0[] = {2};
    EXPECT_TRUE(cData(ab, 2, false) < cData(abc, 3, false));
    EXPECT_TRUE(cData(b0, 1, false) < cData(ab, 2, false));    // shorter wins
    EXPECT_FALSE(cData(ab, 2, false) < cData(b0, 1, false));

    a.Append(abc, 3);
    a.Append(a);
    EXPECT_EQ(a.ToString(), "0A.1B.2C.01.02.03.0A.1B.2C.01.02.03");

    cData::SetAllocFunc(&FailingAlloc);
    cData fail(kABC, 3, false);
    EXPECT_EQ(fail.SetData(kABC, 3, true), 0);
    EXPECT_TRUE(fail.IsEmpty());
    EXPECT_EQ(fail.GetLen(), 0u);
    EXPECT_EQ(fail.GetData(), nullptr);
    EXPECT_FALSE(fail.FromString("0A1B"));
    EXPECT_EQ(fail.GetLen(), 0u);
    cData::SetAllocFunc(nullptr);
    EXPECT_EQ(fail.SetData(kABC, 3, true), 1);
    EXPECT_FALSE(fail.IsEmpty());

    EXPECT_DEATH(fail[3], "i < m_Len");
}

TEST(DataTest, Conversions)
{
    const unsigned char edge[] = {0x20, 0x7E, 0x7F, 0x80};
    EXPECT_TRUE(cData(edge, 4, false).IsPrintable());
    const unsigned char low[] = {'a', 0x1F};
    EXPECT_FALSE(cData(low, 2, false).IsPrintable());
    const unsigned char high[] = {0x81};
    EXPECT_FALSE(cData(high, 1, false).IsPrintable());
    EXPECT_TRUE(cData().IsPrintable());
    EXPECT_EQ(cData(low, 2, false).Printable(), "a.");
    EXPECT_EQ(cData(kABC, 3, false).Digitable(2), "10.27...");

    std::mt19937 rng(8);
    for (int i = 0; i < 200; ++i) {
        std::vector<unsigned char> bytes(rng() % 30);
        for (unsigned char& b : bytes)
            b = static_cast<unsigned char>(rng() % 3 ? rng() : 'x');
        cData src(bytes.data(), static_cast<int>(bytes.size()), false);
        unsigned count = 0;
        const std::string text = src.Escape(count);
        cData back;
        ASSERT_TRUE(back.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>(text.c_str())));
        ASSERT_EQ(back.GetLen(), src.GetLen());
        ASSERT_TRUE(src.GetLen() == 0 || back == src) << text;
    }
    unsigned count = 0;
    const unsigned char mixed[] = {'a', '\\', '\n', 0, 0xFF};
    EXPECT_EQ(cData(mixed, 5, false).Escape(count), "a\\\\\\n\\0\\xFF");
    EXPECT_EQ(count, 4u);
    cData esc;
    EXPECT_FALSE(esc.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>("\\q")));
    EXPECT_FALSE(esc.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>("ab\\")));
    EXPECT_FALSE(esc.SetDataFromEsacpe(reinterpret_cast<const unsigned char*>("\\xZ")));

    // RFC 4648 and RFC 1321 test vectors.
    const char* b64[][2] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
                            {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
    for (auto& v : b64) {
        cData d(reinterpret_cast<const unsigned char*>(v[0]), static_cast<int>(strlen(v[0])), false);
        EXPECT_EQ(d.ToBase64(), v[1]);
    }
    EXPECT_EQ(cData::ToMd5HexStr("", true), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(cData::ToMd5HexStr("abc", false), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(cData::ToMd5HexStr("12345678901234567890123456789012345678901234567890123456789012"
                                 "345678901234567890", true),
              "57edf4a22be3c955ac49da2e2107b67a");
    cData digest;
    const unsigned char msg[] = "message digest";
    EXPECT_TRUE(cData(msg, 14, false).CalcMd5(digest));
    EXPECT_EQ(digest.ToString(), "F9.6B.69.7D.7C.B7.93.8D.52.5A.2F.31.AA.F1.61.D0");
}

TEST(DataTest, Helpers)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(cHelper::GetStringTokens("a.b.c", ".", 2), (V{"a", "b.c"}));
    EXPECT_EQ(cHelper::GetStringTokens("1..0", "."), (V{"1", "", "0"}));
    EXPECT_EQ(cHelper::GetStringTokens("abc", "."), (V{"abc"}));
    EXPECT_EQ(cHelper::GetStringTokens("a::b::", "::"), (V{"a", "b", ""}));
    EXPECT_TRUE(cHelper::GetStringTokens("", ".").empty());
    EXPECT_TRUE(cHelper::GetStringTokens("a", "").empty());
    EXPECT_EQ(cHelper::GetStringTokens("a.b", ".", 1), (V{"a.b"}));

    EXPECT_EQ(cHelper::StringReplace("aXbXXc", "X", "YY"), "aYYbYYYYc");
    EXPECT_EQ(cHelper::StringTrimRight(cHelper::StringTrimLeft(" \tab c\n ")), "ab c");
    EXPECT_EQ(cHelper::StringInverse("abc"), "cba");
    EXPECT_TRUE(cHelper::StringCompare("AbC", "aBc", false));
    EXPECT_FALSE(cHelper::StringCompare("AbC", "aBc"));
    const std::string xml = "<a href=\"x\">&'</a>";
    EXPECT_EQ(cHelper::StringXmlDecode(cHelper::StringXmlEncode(xml)), xml);
    EXPECT_EQ(cHelper::StringXmlDecode("&#65;&#x42;&#xE4;&bogus;"), "AB\xC3\xA4&bogus;");
    EXPECT_EQ(cHelper::StringUrlEncode("a b/~ä"), "a%20b%2F~%C3%A4");
    const auto pairs = cHelper::TokensAsNameValue("a=1;;b;c=x=y", ";", "=");
    ASSERT_EQ(pairs.size(), 3u);
    EXPECT_EQ(pairs[2].first + "|" + pairs[2].second, "c|x=y");
    EXPECT_EQ(pairs[1].second, "");
    std::string text;
    EXPECT_FALSE(cHelper::StringFromFile("/nonexistent/orvo", text));
    for (int i = 0; i < 1000; ++i) {
        const int r = cHelper::GetRandom(-3, 3);
        ASSERT_TRUE(r >= -3 && r <= 3);
    }
    EXPECT_EQ(cHelper::GetRandom(5, 5), 5);
}
