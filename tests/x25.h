// An independent CRC-16/X-25 (bit by bit, not the library's table) for tests
// that check stored CRCs byte for byte.
#pragma once

#include <cstdint>
#include <string>

namespace orvo_test {

inline uint16_t X25(const std::string& data)
{
    uint16_t crc = 0xFFFF;
    for (unsigned char c : data) {
        crc ^= c;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0x8408) : static_cast<uint16_t>(crc >> 1);
    }
    return static_cast<uint16_t>(~crc);
}

}  // namespace orvo_test
