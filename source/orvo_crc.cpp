#define ORVO_SOURCE "orvo_crc"
#include "orvo_crc.h"

#include <array>

namespace orvo {

namespace {

// Register value that a correct frame check sequence leaves behind.
constexpr unsigned short kGoodResidue = 0xF0B8;

constexpr std::array<unsigned short, 256> MakeTable()
{
    std::array<unsigned short, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned v = i;
        for (int bit = 0; bit < 8; ++bit)
            v = (v & 1u) ? (v >> 1) ^ 0x8408u : v >> 1;
        table[i] = static_cast<unsigned short>(v);
    }
    return table;
}

constexpr std::array<unsigned short, 256> kTable = MakeTable();

unsigned short RunRegister(const char* data, int len, unsigned short crc)
{
    if (data == nullptr)
        return crc;
    for (int i = 0; i < len; ++i)
        crc = addByte2CRC16(static_cast<unsigned char>(data[i]), crc);
    return crc;
}

}  // namespace

unsigned short initCRC16()
{
    return 0xFFFF;
}

unsigned short addByte2CRC16(unsigned char byte, unsigned short crc)
{
    return static_cast<unsigned short>((crc >> 8) ^ kTable[(crc ^ byte) & 0xFF]);
}

unsigned short createCRC16(const char* data, int len, unsigned short init)
{
    return static_cast<unsigned short>(~RunRegister(data, len, init));
}

bool checkCRC16(const char* data, int len, unsigned short crc)
{
    return createCRC16(data, len, initCRC16()) == crc;
}

bool verifyCRC16(const char* data, int len)
{
    return RunRegister(data, len, initCRC16()) == kGoodResidue;
}

}  // namespace orvo
