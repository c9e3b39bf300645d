#define ORVO_SOURCE "orvo_base64"
#include "orvo_base64.h"

#include <cstdint>
#include <cstring>

namespace orvo {

namespace {

constexpr char kStandard[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrlSafe[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// Encoding looks up two output characters per 12 input bits: half the table
// steps of a character-at-a-time loop.
struct tEncodeTable {
    char m_Pair[4096][2];
};

constexpr tEncodeTable MakeEncodeTable(const char* alphabet)
{
    tEncodeTable t{};
    for (int i = 0; i < 4096; ++i) {
        t.m_Pair[i][0] = alphabet[i >> 6];
        t.m_Pair[i][1] = alphabet[i & 63];
    }
    return t;
}

// Decoding ORs four pre-shifted 24-bit values per group of four characters;
// a character outside the alphabet carries bit 24 and spoils the whole group,
// so the hot loop needs one test per three output bytes.
constexpr uint32_t kBad = 0x01000000;

struct tDecodeTable {
    uint32_t m_Shift[4][256];  // value << 18, << 12, << 6, << 0
};

constexpr tDecodeTable MakeDecodeTable(const char* alphabet)
{
    tDecodeTable t{};
    for (int s = 0; s < 4; ++s)
        for (int c = 0; c < 256; ++c)
            t.m_Shift[s][c] = kBad;
    for (uint32_t v = 0; v < 64; ++v) {
        const unsigned char c = static_cast<unsigned char>(alphabet[v]);
        t.m_Shift[0][c] = v << 18;
        t.m_Shift[1][c] = v << 12;
        t.m_Shift[2][c] = v << 6;
        t.m_Shift[3][c] = v;
    }
    return t;
}

constexpr tEncodeTable kEncodeStandard = MakeEncodeTable(kStandard);
constexpr tEncodeTable kEncodeUrlSafe = MakeEncodeTable(kUrlSafe);
constexpr tDecodeTable kDecodeStandard = MakeDecodeTable(kStandard);
constexpr tDecodeTable kDecodeUrlSafe = MakeDecodeTable(kUrlSafe);

inline bool IsLineBreak(unsigned char c)
{
    return c == '\r' || c == '\n';
}

inline void Put3(unsigned char* out, uint32_t v)
{
    out[0] = static_cast<unsigned char>(v >> 16);
    out[1] = static_cast<unsigned char>(v >> 8);
    out[2] = static_cast<unsigned char>(v);
}

}  // namespace

size_t cBase64::EncodedSize(size_t len, bool pad)
{
    const size_t rest = len % 3;
    return len / 3 * 4 + (rest == 0 ? 0 : pad ? 4 : rest + 1);
}

size_t cBase64::Encode(const void* data, size_t len, char* out, eBase64Alphabet alphabet, bool pad)
{
    const tEncodeTable& t = alphabet == eBase64Alphabet::UrlSafe ? kEncodeUrlSafe : kEncodeStandard;
    const unsigned char* in = static_cast<const unsigned char*>(data);
    char* o = out;
    size_t i = 0;
    for (; i + 3 <= len; i += 3, o += 4) {
        const uint32_t v = uint32_t(in[i]) << 16 | uint32_t(in[i + 1]) << 8 | in[i + 2];
        std::memcpy(o, t.m_Pair[v >> 12], 2);
        std::memcpy(o + 2, t.m_Pair[v & 0xFFF], 2);
    }
    const size_t rest = len - i;
    if (rest > 0) {
        const uint32_t v = uint32_t(in[i]) << 16 | (rest == 2 ? uint32_t(in[i + 1]) << 8 : 0);
        std::memcpy(o, t.m_Pair[v >> 12], 2);
        o += 2;
        if (rest == 2)
            *o++ = t.m_Pair[v & 0xFFF][0];
        if (pad) {
            *o++ = '=';
            if (rest == 1)
                *o++ = '=';
        }
    }
    return static_cast<size_t>(o - out);
}

std::string cBase64::Encode(const void* data, size_t len, eBase64Alphabet alphabet, bool pad)
{
    std::string text(EncodedSize(len, pad), '\0');
    if (len > 0)
        Encode(data, len, &text[0], alphabet, pad);
    return text;
}

std::string cBase64::Encode(const std::string& bytes, eBase64Alphabet alphabet, bool pad)
{
    return Encode(bytes.data(), bytes.size(), alphabet, pad);
}

std::string cBase64::EncodeLines(const void* data, size_t len, size_t lineLength, const char* eol)
{
    const std::string flat = Encode(data, len);
    if (lineLength == 0)
        return flat;
    const std::string end = eol != nullptr ? eol : "";
    std::string text;
    text.reserve(flat.size() + (flat.size() / lineLength + 1) * end.size());
    for (size_t pos = 0; pos < flat.size(); pos += lineLength) {
        text.append(flat, pos, lineLength);
        text += end;
    }
    return text;
}

bool cBase64::Decode(const char* text, size_t len, unsigned char* out, size_t& outLen,
                     eBase64Alphabet alphabet)
{
    const tDecodeTable& t = alphabet == eBase64Alphabet::UrlSafe ? kDecodeUrlSafe : kDecodeStandard;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    unsigned char* o = out;
    outLen = 0;
    size_t i = 0;
    uint32_t acc = 0;  // characters of an unfinished group, 6 bits each
    int n = 0;
    while (i < len) {
        if (n == 0) {
            // Whole groups without line breaks or padding: the common case.
            for (; i + 4 <= len; i += 4, o += 3) {
                const uint32_t v = t.m_Shift[0][in[i]] | t.m_Shift[1][in[i + 1]] |
                                   t.m_Shift[2][in[i + 2]] | t.m_Shift[3][in[i + 3]];
                if (v & kBad)
                    break;
                Put3(o, v);
            }
            if (i >= len)
                break;
        }
        const unsigned char c = in[i];
        if (c == '=')
            break;
        ++i;
        if (IsLineBreak(c))
            continue;
        const uint32_t v = t.m_Shift[3][c];
        if (v & kBad)
            return false;
        acc = acc << 6 | v;
        if (++n == 4) {
            Put3(o, acc);
            o += 3;
            acc = 0;
            n = 0;
        }
    }
    // Padding: only '=' and line breaks may follow the first '='.
    int pads = 0;
    for (; i < len; ++i) {
        if (in[i] == '=')
            ++pads;
        else if (!IsLineBreak(in[i]))
            return false;
    }
    if (n == 1 || (pads > 0 && (n == 0 || n + pads != 4)))
        return false;
    if (n == 2) {
        if (acc & 0xF)
            return false;
        *o++ = static_cast<unsigned char>(acc >> 4);
    } else if (n == 3) {
        if (acc & 0x3)
            return false;
        *o++ = static_cast<unsigned char>(acc >> 10);
        *o++ = static_cast<unsigned char>(acc >> 2);
    }
    outLen = static_cast<size_t>(o - out);
    return true;
}

bool cBase64::Decode(const char* text, size_t len, std::vector<unsigned char>& out,
                     eBase64Alphabet alphabet)
{
    out.resize(DecodedMaxSize(len));
    size_t outLen = 0;
    if (!Decode(text, len, out.data(), outLen, alphabet)) {
        out.clear();
        return false;
    }
    out.resize(outLen);
    return true;
}

bool cBase64::Decode(const std::string& text, std::vector<unsigned char>& out, eBase64Alphabet alphabet)
{
    return Decode(text.data(), text.size(), out, alphabet);
}

bool cBase64::Decode(const std::string& text, std::string& out, eBase64Alphabet alphabet)
{
    out.assign(DecodedMaxSize(text.size()), '\0');
    size_t outLen = 0;
    if (!Decode(text.data(), text.size(), reinterpret_cast<unsigned char*>(&out[0]), outLen, alphabet)) {
        out.clear();
        return false;
    }
    out.resize(outLen);
    return true;
}

}  // namespace orvo
