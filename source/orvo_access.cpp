#define ORVO_SOURCE "orvo_access"
#include "orvo_access.h"

#include <cstdlib>

#include "orvo_trace.h"

namespace orvo {

namespace {

const uint32_t kLoopbackNet = 0x7F000000u;   // 127.0.0.0/8

uint32_t MaskOf(int bits)
{
    return bits <= 0 ? 0u : bits >= 32 ? 0xFFFFFFFFu : ~((1u << (32 - bits)) - 1u);
}

// "a.b.c.d" with each part 0..255, nothing else.
bool ParseDotted(const std::string& text, uint32_t& ip)
{
    ip = 0;
    size_t at = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (at >= text.size() || text[at] != '.')
                return false;
            ++at;
        }
        size_t digits = 0;
        unsigned value = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 3) {
            value = value * 10 + static_cast<unsigned>(text[at] - '0');
            ++at;
            ++digits;
        }
        if (digits == 0 || value > 255)
            return false;
        ip = (ip << 8) | value;
    }
    return at == text.size();
}

// One list entry: "loopback", "a.b.c.d" or "a.b.c.d/bits".
bool ParseEntry(const std::string& word, uint32_t& ip, int& bits)
{
    if (word == "loopback") {
        ip = kLoopbackNet;
        bits = 8;
        return true;
    }
    const size_t slash = word.find('/');
    bits = 32;
    if (slash != std::string::npos) {
        const std::string b = word.substr(slash + 1);
        if (b.empty() || b.size() > 2 || b.find_first_not_of("0123456789") != std::string::npos)
            return false;
        bits = std::atoi(b.c_str());
        if (bits > 32)
            return false;
    }
    return ParseDotted(word.substr(0, slash), ip);
}

std::vector<std::string> Words(const std::string& text)
{
    std::vector<std::string> words;
    std::string word;
    for (char c : text + " ") {
        if (c == ' ' || c == ',' || c == '\t' || c == '\n') {
            if (!word.empty())
                words.push_back(word);
            word.clear();
        } else {
            word += c;
        }
    }
    return words;
}

}  // namespace

cControlAccess::cControlAccess() : m_Mode(CONTROL_ANY)
{
}

cControlAccess cControlAccess::Loopback()
{
    cControlAccess a;
    a.m_Mode = CONTROL_LOOPBACK;
    return a;
}

cControlAccess cControlAccess::None()
{
    cControlAccess a;
    a.m_Mode = CONTROL_NONE;
    return a;
}

void cControlAccess::AddNetwork(uint32_t ip, int bits)
{
    const uint32_t mask = MaskOf(bits);
    m_Nets.push_back(sNet{ip & mask, mask});
    m_Mode = CONTROL_LIST;
}

bool cControlAccess::Parse(const std::string& text, std::string* error)
{
    const std::vector<std::string> words = Words(text);
    if (words.empty() || (words.size() == 1 && words[0] == "any")) {
        *this = Any();
        return true;
    }
    if (words.size() == 1 && words[0] == "none") {
        *this = None();
        return true;
    }
    if (words.size() == 1 && words[0] == "loopback") {
        *this = Loopback();
        return true;
    }
    cControlAccess list;
    for (const std::string& w : words) {
        uint32_t ip = 0;
        int bits = 32;
        if (!ParseEntry(w, ip, bits)) {
            if (error != nullptr)
                *error = "control access: \"" + w + "\" is no address, network or keyword";
            return false;
        }
        list.AddNetwork(ip, bits);
    }
    *this = list;
    return true;
}

bool cControlAccess::Allows(const cSocketAddr& peer, std::string* why) const
{
    const uint32_t ip = static_cast<uint32_t>(peer.GetIP());
    switch (m_Mode) {
    case CONTROL_ANY:
        return true;
    case CONTROL_LOOPBACK:
        if ((ip & 0xFF000000u) == kLoopbackNet)
            return true;
        if (why != nullptr)
            *why = "control access is loopback only";
        return false;
    case CONTROL_LIST:
        for (const sNet& n : m_Nets) {
            if ((ip & n.mask) == n.ip)
                return true;
        }
        if (why != nullptr)
            *why = peer.GetIPString() + " is not in the control access list";
        return false;
    case CONTROL_NONE:
    default:
        if (why != nullptr)
            *why = "control messages are switched off";
        return false;
    }
}

bool cControlAccess::AllowsUnaddressed(std::string* why) const
{
    if (m_Mode == CONTROL_ANY)
        return true;
    if (why != nullptr)
        *why = m_Mode == CONTROL_NONE ? "control messages are switched off"
                                      : "the channel has no network address to check";
    return false;
}

std::string cControlAccess::ToString() const
{
    switch (m_Mode) {
    case CONTROL_ANY:
        return "any";
    case CONTROL_LOOPBACK:
        return "loopback";
    case CONTROL_NONE:
        return "none";
    default:
        break;
    }
    std::string text;
    for (const sNet& n : m_Nets) {
        if (!text.empty())
            text += ", ";
        int bits = 0;
        for (uint32_t m = n.mask; m != 0; m <<= 1)
            ++bits;
        text += cSocketAddr(n.ip, 0).GetIPString() + FormatString("/%i", bits);
    }
    return text;
}

}  // namespace orvo
