#define ORVO_SOURCE "orvo_data"
#include "orvo_data.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "orvo_base64.h"
#include "orvo_hash.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

std::atomic<cData::tAllocFunc> gAllocFunc{nullptr};

// Owned bytes always come from here. At least one byte is requested so that
// a value holding zero bytes still "has data" (operator== tells these apart
// from a value that was never set).
unsigned char* AllocBytes(size_t size)
{
    if (size == 0)
        size = 1;
    const cData::tAllocFunc func = gAllocFunc.load();
    void* p = func != nullptr ? func(size) : std::malloc(size);
    return static_cast<unsigned char*>(p);
}

bool IsPlain(unsigned char b)
{
    return b >= 0x20 && b < 0x7F;
}

// Appends "..." when a print limit cut the value short.
size_t PrintCount(unsigned maxBytes, uint32_t len, bool& cut)
{
    cut = maxBytes != 0 && len > maxBytes;
    return cut ? maxBytes : len;
}

int HexValue(unsigned char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

// ---- cData: construction and storage ------------------------------------------

void cData::SetAllocFunc(tAllocFunc func)
{
    gAllocFunc.store(func);
}

cData::cData() = default;

cData::cData(unsigned char const* p, int len, bool copy)
{
    SetData(p, len, copy);
}

cData::cData(char const* hexText)
{
    FromString(hexText);
}

cData::cData(const cData& other)
    : m_Separator(other.m_Separator), m_HexLowerCase(other.m_HexLowerCase)
{
    if (other.m_Data != nullptr)
        SetData(other.m_Data, static_cast<int>(other.m_Len), true);
    else
        m_Empty = other.m_Empty;
}

cData& cData::operator=(const cData& other)
{
    if (this == &other)
        return *this;
    m_Separator = other.m_Separator;
    m_HexLowerCase = other.m_HexLowerCase;
    if (other.m_Data != nullptr) {
        SetData(other.m_Data, static_cast<int>(other.m_Len), true);
    } else {
        Release();
        m_Empty = other.m_Empty;
    }
    return *this;
}

cData::~cData()
{
    Release();
}

void cData::Release()
{
    if (m_Owner)
        std::free(m_Data);
    m_Owner = false;
    m_Data = nullptr;
    m_Len = 0;
}

int cData::SetData(unsigned char const* p, int len, bool copy)
{
    if (p == nullptr || len < 0)
        len = 0;
    if (!copy) {
        Release();
        m_Data = const_cast<unsigned char*>(p);
        m_Len = static_cast<uint32_t>(len);
        m_Empty = false;
        return 1;
    }
    // Allocate before releasing: p may point into the bytes we own.
    unsigned char* bytes = AllocBytes(static_cast<size_t>(len));
    if (bytes == nullptr) {
        Release();
        m_Empty = true;
        return 0;
    }
    if (len > 0)
        std::memcpy(bytes, p, static_cast<size_t>(len));
    Release();
    m_Data = bytes;
    m_Len = static_cast<uint32_t>(len);
    m_Owner = true;
    m_Empty = false;
    return 1;
}

void cData::Append(unsigned char const* p, int len)
{
    if (p == nullptr || len <= 0)
        return;
    const uint64_t total = static_cast<uint64_t>(m_Len) + static_cast<uint64_t>(len);
    if (total > static_cast<uint64_t>(INT_MAX))
        return;
    unsigned char* bytes = AllocBytes(static_cast<size_t>(total));
    if (bytes == nullptr)
        return;
    if (m_Data != nullptr && m_Len > 0)
        std::memcpy(bytes, m_Data, m_Len);
    std::memcpy(bytes + m_Len, p, static_cast<size_t>(len));
    Release();
    m_Data = bytes;
    m_Len = static_cast<uint32_t>(total);
    m_Owner = true;
    m_Empty = false;
}

void cData::Append(cData const& other)
{
    // Safe when other is this object: Append copies before it releases.
    if (other.m_Len > static_cast<uint32_t>(INT_MAX))
        return;
    Append(other.m_Data, static_cast<int>(other.m_Len));
}

unsigned char& cData::operator[](unsigned i)
{
    ORVO_ASSERT(i < m_Len);
    return m_Data[i];
}

unsigned char cData::operator[](unsigned i) const
{
    ORVO_ASSERT(i < m_Len);
    return m_Data[i];
}

// ---- cData: hexadecimal text --------------------------------------------------

std::string cData::ToString(unsigned maxBytes) const
{
    std::string text;
    const char* format = m_HexLowerCase ? "%02x%s" : "%02X%s";
    const uint32_t len = m_Data != nullptr ? m_Len : 0;
    for (uint32_t i = 0; i < len; ++i) {
        // Four characters: two digits and only the separator's first one.
        char buffer[4];
        std::snprintf(buffer, sizeof buffer, format, m_Data[i], m_Separator.c_str());
        text += buffer;
        if (maxBytes != 0 && i > maxBytes) {
            text += "....";
            break;
        }
    }
    if (!m_Separator.empty()) {
        const size_t cut = m_Separator.size() < text.size() ? m_Separator.size() : text.size();
        text.erase(text.size() - cut);
    }
    return text;
}

bool cData::FromString(char const* text)
{
    Release();
    m_Scratch = 0;
    if (text == nullptr)
        text = "";
    const size_t length = std::strlen(text);
    size_t count;
    size_t stride;
    if (length < 3 || text[2] == '.') {
        count = length == 0 ? 0 : length / 3 + 1;
        stride = 3;
    } else {
        count = length / 2;
        stride = 2;
    }
    if (count > static_cast<size_t>(INT_MAX)) {
        m_Empty = true;
        return false;
    }
    unsigned char* bytes = AllocBytes(count);
    if (bytes == nullptr) {
        m_Empty = true;
        return false;
    }
    for (size_t k = 0; k < count; ++k) {
        // k * stride never passes the terminator; copy at most two characters
        // so strtol cannot read on into the next byte.
        const char* at = text + k * stride;
        char pair[3] = {0, 0, 0};
        pair[0] = at[0];
        if (pair[0] != '\0')
            pair[1] = at[1];
        bytes[k] = static_cast<unsigned char>(std::strtol(pair, nullptr, 16));
    }
    m_Data = bytes;
    m_Len = static_cast<uint32_t>(count);
    m_Owner = true;
    m_Empty = false;
    return true;
}

// ---- cData: further conversions ------------------------------------------------

bool cData::IsPrintable() const
{
    for (uint32_t i = 0; m_Data != nullptr && i < m_Len; ++i)
        if (static_cast<unsigned char>(m_Data[i] - 0x20) >= 0x61)
            return false;
    return true;
}

std::string cData::Printable(unsigned maxBytes) const
{
    bool cut = false;
    const size_t n = m_Data != nullptr ? PrintCount(maxBytes, m_Len, cut) : 0;
    std::string text;
    text.reserve(n + 3);
    for (size_t i = 0; i < n; ++i)
        text += IsPlain(m_Data[i]) ? static_cast<char>(m_Data[i]) : '.';
    if (cut)
        text += "...";
    return text;
}

std::string cData::Digitable(unsigned maxBytes) const
{
    bool cut = false;
    const size_t n = m_Data != nullptr ? PrintCount(maxBytes, m_Len, cut) : 0;
    std::string text;
    for (size_t i = 0; i < n; ++i) {
        if (i > 0)
            text += m_Separator;
        text += std::to_string(static_cast<unsigned>(m_Data[i]));
    }
    if (cut)
        text += "...";
    return text;
}

std::string cData::Escape(unsigned& count) const
{
    count = 0;
    std::string text;
    for (uint32_t i = 0; m_Data != nullptr && i < m_Len; ++i) {
        const unsigned char b = m_Data[i];
        if (IsPlain(b) && b != '\\') {
            text += static_cast<char>(b);
            continue;
        }
        ++count;
        switch (b) {
        case '\\': text += "\\\\"; break;
        case '\n': text += "\\n"; break;
        case '\r': text += "\\r"; break;
        case '\t': text += "\\t"; break;
        case '\0': text += "\\0"; break;
        default: {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\x%02X", b);
            text += buffer;
        }
        }
    }
    return text;
}

bool cData::SetDataFromEsacpe(unsigned char const* text)
{
    if (text == nullptr)
        return false;
    std::string bytes;
    for (const unsigned char* p = text; *p != '\0'; ++p) {
        if (*p != '\\') {
            bytes += static_cast<char>(*p);
            continue;
        }
        ++p;
        switch (*p) {
        case '\\': bytes += '\\'; break;
        case '"': bytes += '"'; break;
        case '\'': bytes += '\''; break;
        case 'n': bytes += '\n'; break;
        case 'r': bytes += '\r'; break;
        case 't': bytes += '\t'; break;
        case '0': bytes += '\0'; break;
        case 'a': bytes += '\a'; break;
        case 'b': bytes += '\b'; break;
        case 'f': bytes += '\f'; break;
        case 'v': bytes += '\v'; break;
        case 'x': {
            const int high = HexValue(p[1]);
            if (high < 0)
                return false;
            ++p;
            int value = high;
            const int low = HexValue(p[1]);
            if (low >= 0) {
                value = value * 16 + low;
                ++p;
            }
            bytes += static_cast<char>(value);
            break;
        }
        default:   // unknown escape, or '\' at the very end
            return false;
        }
    }
    if (bytes.size() > static_cast<size_t>(INT_MAX))
        return false;
    return SetData(reinterpret_cast<const unsigned char*>(bytes.data()),
                   static_cast<int>(bytes.size()), true) == 1;
}

std::string cData::ToBase64() const
{
    return cBase64::Encode(m_Data, m_Data != nullptr ? m_Len : 0);
}

bool cData::CalcMd5(cData& digest) const
{
    std::vector<unsigned char> out =
        cHashCalculator::Digest(eHashAlg::MD5, m_Data, m_Data != nullptr ? m_Len : 0);
    if (out.size() != 16)
        return false;
    return digest.SetData(out.data(), 16, true) == 1;
}

std::string cData::ToMd5HexStr(std::string const& text, bool lowerCase)
{
    return cHashCalculator::DigestHex(eHashAlg::MD5, text.data(), text.size(), lowerCase);
}

// ---- cData: comparison -------------------------------------------------------

bool cData::operator==(cData const& other) const
{
    return m_Data != nullptr && other.m_Data != nullptr && m_Len == other.m_Len &&
           std::memcmp(m_Data, other.m_Data, m_Len) == 0;
}

bool cData::operator<(cData const& other) const
{
    if (m_Data != nullptr && other.m_Data != nullptr && m_Len <= other.m_Len &&
        std::memcmp(m_Data, other.m_Data, m_Len) < 0)
        return true;
    return m_Len < other.m_Len;
}

// ---- cHelper --------------------------------------------------------------------

std::vector<std::string> cHelper::GetStringTokens(std::string const& text,
                                                  std::string const& separator,
                                                  unsigned maxCount)
{
    std::vector<std::string> tokens;
    if (text.empty() || separator.empty())
        return tokens;
    size_t pos = 0;
    unsigned count = 0;
    for (;;) {
        const size_t found = text.find(separator, pos);
        if (found == std::string::npos)
            break;
        ++count;
        if (maxCount != 0 && count == maxCount)
            break;
        tokens.push_back(text.substr(pos, found - pos));
        pos = found + separator.size();
    }
    tokens.push_back(text.substr(pos));
    return tokens;
}

std::string cHelper::StringToUppercase(std::string const& text)
{
    std::string out = text;
    for (char& c : out)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return out;
}

std::string cHelper::StringToLowercase(std::string const& text)
{
    std::string out = text;
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string cHelper::StringInverse(std::string const& text)
{
    return std::string(text.rbegin(), text.rend());
}

bool cHelper::StringCompare(std::string const& a, std::string const& b, bool caseSensitive)
{
    if (caseSensitive)
        return a == b;
    return StringToLowercase(a) == StringToLowercase(b);
}

bool cHelper::StringFromFile(std::string const& path, std::string& text)
{
    text.clear();
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad())
        return false;
    text = buffer.str();
    return true;
}

std::string cHelper::StringTrimLeft(std::string const& text, std::string const& chars)
{
    const size_t start = text.find_first_not_of(chars);
    return start == std::string::npos ? std::string() : text.substr(start);
}

std::string cHelper::StringTrimRight(std::string const& text, std::string const& chars)
{
    const size_t end = text.find_last_not_of(chars);
    return end == std::string::npos ? std::string() : text.substr(0, end + 1);
}

bool cHelper::StringContains(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

std::string cHelper::StringReplace(std::string const& text, std::string const& from,
                                   std::string const& to)
{
    if (from.empty())
        return text;
    std::string out;
    size_t pos = 0;
    for (;;) {
        const size_t found = text.find(from, pos);
        if (found == std::string::npos)
            break;
        out.append(text, pos, found - pos);
        out += to;
        pos = found + from.size();
    }
    out.append(text, pos, std::string::npos);
    return out;
}

std::string cHelper::StringXmlEncode(std::string const& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

namespace {

void AppendUtf8(std::string& out, unsigned long cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Decodes the entity starting at text[pos] ('&'); returns its length, 0 when
// it is not one we know.
size_t DecodeEntity(std::string const& text, size_t pos, std::string& out)
{
    static const struct {
        const char* name;
        char value;
    } kNamed[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    for (const auto& e : kNamed) {
        const size_t n = std::strlen(e.name);
        if (text.compare(pos, n, e.name) == 0) {
            out += e.value;
            return n;
        }
    }
    if (text.compare(pos, 2, "&#") != 0)
        return 0;
    size_t i = pos + 2;
    const bool hex = i < text.size() && (text[i] == 'x' || text[i] == 'X');
    if (hex)
        ++i;
    const size_t digitsStart = i;
    unsigned long cp = 0;
    while (i < text.size() && i - digitsStart < 8) {
        const int v = HexValue(static_cast<unsigned char>(text[i]));
        if (v < 0 || (!hex && v > 9))
            break;
        cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(v);
        ++i;
    }
    if (i == digitsStart || i >= text.size() || text[i] != ';' || cp > 0x10FFFF)
        return 0;
    AppendUtf8(out, cp);
    return i + 1 - pos;
}

}  // namespace

std::string cHelper::StringXmlDecode(std::string const& text)
{
    std::string out;
    for (size_t pos = 0; pos < text.size();) {
        if (text[pos] == '&') {
            const size_t used = DecodeEntity(text, pos, out);
            if (used > 0) {
                pos += used;
                continue;
            }
        }
        out += text[pos++];
    }
    return out;
}

std::string cHelper::StringUrlEncode(std::string const& text)
{
    std::string out;
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        const bool alnum = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (alnum || c == '-' || c == '_' || c == '.' || c == '~') {
            out += ch;
        } else {
            char buffer[4];
            std::snprintf(buffer, sizeof buffer, "%%%02X", c);
            out += buffer;
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> cHelper::TokensAsNameValue(
    std::string const& text, std::string const& pairSeparator, std::string const& valueSeparator)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string& piece : GetStringTokens(text, pairSeparator)) {
        if (piece.empty())
            continue;
        const size_t at = valueSeparator.empty() ? std::string::npos : piece.find(valueSeparator);
        if (at == std::string::npos)
            pairs.emplace_back(piece, std::string());
        else
            pairs.emplace_back(piece.substr(0, at), piece.substr(at + valueSeparator.size()));
    }
    return pairs;
}

int cHelper::GetRandom(int min, int max)
{
    if (max <= min)
        return min;
    const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(max) - min) + 1;
    // random() gives 31 bits; two calls cover any span of an int range.
    const uint64_t r = static_cast<uint64_t>(random()) << 31 | static_cast<uint64_t>(random());
    return static_cast<int>(static_cast<int64_t>(min) + static_cast<int64_t>(r % span));
}

}  // namespace orvo
