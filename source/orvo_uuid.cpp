#define ORVO_SOURCE "orvo_uuid"
#include "orvo_uuid.h"

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orvo_trace.h"

namespace orvo {

namespace {

unsigned char gNodeAddr[6] = {0, 0, 0, 0, 0, 0};

// Storage index of each printed byte, in print order.
const int kPrintOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

// The two %n record where the last byte's digits start and end: a text whose
// last group is one digit short is not a complete value.
const char kTextFormat[] =
    "%2X%2X%2X%2X-%2X%2X-%2X%2X-%2X%2X-%2X%2X%2X%2X%2X%n%2X%n";

void PutLe32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v & 0xFF);
        v >>= 8;
    }
}

}  // namespace

bool cUuid::Create()
{
    m_Valid = true;
    std::memset(m_Bytes, 0, sizeof m_Bytes);
    std::memcpy(m_Bytes, gNodeAddr, sizeof gNodeAddr);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // 32 bits each, as on the device, whatever the host's time_t width.
    PutLe32(m_Bytes + 6, static_cast<uint32_t>(tv.tv_sec));
    PutLe32(m_Bytes + 10, static_cast<uint32_t>(tv.tv_usec));
    m_Bytes[14] = static_cast<unsigned char>(random() & 0xFF);
    m_Bytes[15] = static_cast<unsigned char>(random() & 0xFF);
    for (unsigned char& b : m_Bytes)
        b ^= 0x67;
    return true;
}

ORVO_HOT bool cUuid::Create(const void* data, int size)
{
    Clear();
    if (data == nullptr || size != 16)
        return false;
    std::memcpy(m_Bytes, data, sizeof m_Bytes);
    m_Valid = true;
    return true;
}

bool cUuid::Create(const char* text)
{
    Clear();
    if (text == nullptr)
        return false;
    unsigned int v[16] = {0};
    int lastStart = 0, lastEnd = 0;
    int n = std::sscanf(text, kTextFormat, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
                        &v[6], &v[7], &v[8], &v[9], &v[10], &v[11], &v[12], &v[13],
                        &v[14], &lastStart, &v[15], &lastEnd);
    if (n == 16 && lastEnd - lastStart < 2) {
        v[15] = 0;  // a lone last digit does not make the sixteenth byte
        n = 15;
    }
    // Values sscanf did not reach stay 0, so every slot can be stored.
    for (int i = 0; i < 16; ++i)
        m_Bytes[kPrintOrder[i]] = static_cast<unsigned char>(v[i] & 0xFF);
    m_Valid = n == 16;
    return m_Valid;
}

void cUuid::SetMacAddr(unsigned char* mac)
{
    if (mac != nullptr)
        std::memcpy(gNodeAddr, mac, sizeof gNodeAddr);
}

bool cUuid::operator<(const cUuid& other) const
{
    return std::memcmp(m_Bytes, other.m_Bytes, sizeof m_Bytes) < 0;
}

std::string cUuid::ToString() const
{
    const unsigned char* b = m_Bytes;
    return FormatString("%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                        b[kPrintOrder[0]], b[kPrintOrder[1]], b[kPrintOrder[2]],
                        b[kPrintOrder[3]], b[kPrintOrder[4]], b[kPrintOrder[5]],
                        b[kPrintOrder[6]], b[kPrintOrder[7]], b[kPrintOrder[8]],
                        b[kPrintOrder[9]], b[kPrintOrder[10]], b[kPrintOrder[11]],
                        b[kPrintOrder[12]], b[kPrintOrder[13]], b[kPrintOrder[14]],
                        b[kPrintOrder[15]]);
}

}  // namespace orvo
