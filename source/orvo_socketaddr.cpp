#define ORVO_SOURCE "orvo_socketaddr"
#include "orvo_socketaddr.h"

#include <arpa/inet.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvo {

static_assert(sizeof(cSocketAddr) == 16, "cSocketAddr must be exactly a sockaddr_in");
static_assert(sizeof(sockaddr_in) == 16, "sockaddr_in must be 16 bytes");

namespace {

// strtol as the device's 32-bit long reads it: a 64-bit host would otherwise
// keep digits the device clamps.
long Strtol32(const char* text, char** end)
{
    const long v = std::strtol(text, end, 10);
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return v;
}

}  // namespace

cSocketAddr::cSocketAddr()
{
    std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
    sin_family = AF_INET;
}

cSocketAddr::cSocketAddr(unsigned long ip, unsigned short port)
{
    std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
    sin_family = AF_INET;
    sin_port = htons(port);
    sin_addr.s_addr = htonl(static_cast<uint32_t>(ip));
}

cSocketAddr::cSocketAddr(const sockaddr_in& addr)
{
    std::memcpy(static_cast<sockaddr_in*>(this), &addr, sizeof(sockaddr_in));
}

cSocketAddr::cSocketAddr(const char* text, unsigned short port)
{
    std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
    if (text == nullptr)
        return;

    uint32_t ip = 0;
    unsigned long portValue = port;
    char* end = nullptr;
    if (text[0] == ':') {
        portValue = static_cast<unsigned long>(Strtol32(text + 1, &end));
        ip = 0x7F000001u;
    } else {
        const char* p = text;
        uint32_t parts[4];
        for (int i = 0; i < 4; ++i) {
            parts[i] = static_cast<uint32_t>(Strtol32(p, &end));
            if (i < 3) {
                // A text without all four numbers is no address at all.
                if (*end != '.')
                    return;
                p = end + 1;
            }
        }
        ip = (parts[0] << 24) | (parts[1] << 16) | (parts[2] << 8) | parts[3];
        if (*end == ':' && port == 0)
            portValue = static_cast<unsigned long>(Strtol32(end + 1, &end));
    }
    sin_family = AF_INET;
    sin_port = htons(static_cast<uint16_t>(portValue));
    sin_addr.s_addr = htonl(ip);
}

unsigned long cSocketAddr::GetIP() const
{
    return ntohl(sin_addr.s_addr);
}

unsigned short cSocketAddr::GetPort() const
{
    return ntohs(sin_port);
}

unsigned char cSocketAddr::operator[](int i) const
{
    ORVO_ASSERT(i>=0 && i<4);
    return reinterpret_cast<const unsigned char*>(&sin_addr.s_addr)[i];
}

bool cSocketAddr::IsEmpty() const
{
    return sin_addr.s_addr == 0 && sin_port == 0;
}

char* cSocketAddr::GetIPStr(char* buf, int size) const
{
    if (buf == nullptr || size <= 0)
        return buf;
    std::snprintf(buf, static_cast<size_t>(size), "%li.%li.%li.%li", static_cast<long>((*this)[0]),
                  static_cast<long>((*this)[1]), static_cast<long>((*this)[2]),
                  static_cast<long>((*this)[3]));
    return buf;
}

std::string cSocketAddr::GetIPString() const
{
    char buf[64];
    return GetIPStr(buf, sizeof buf);
}

std::string cSocketAddr::GetPortString() const
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%i", static_cast<int>(GetPort()));
    return buf;
}

std::string cSocketAddr::ToString() const
{
    char ip[64];
    char buf[96];
    std::snprintf(buf, sizeof buf, "%s:%i", GetIPStr(ip, sizeof ip), static_cast<int>(GetPort()));
    return buf;
}

bool cSocketAddr::operator==(const cSocketAddr& other) const
{
    return std::memcmp(static_cast<const sockaddr_in*>(this),
                       static_cast<const sockaddr_in*>(&other), sizeof(sockaddr_in)) == 0;
}

}  // namespace orvo
