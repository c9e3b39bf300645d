// orvo_crc.h - CRC-16/X-25, the HDLC frame check sequence (ISO/IEC 13239,
// RFC 1662): reflected polynomial 0x8408 (x^16 + x^12 + x^5 + 1), start value
// 0xFFFF, result complemented, computed with a 256-entry table. Check value
// of "123456789": 0x906E. Stored little-endian (low byte first) after the
// data it protects; running the register over data plus stored CRC (without
// the final complement) then ends at 0xF0B8. Also used to derive semaphore
// keys from names. All functions are pure and thread-safe; a null pointer or
// a length below 1 counts as no data.
#pragma once

#include "orvo_object.h"

namespace orvo {

// The complemented CRC of len bytes, the register starting at init (0xFFFF
// for X-25).
ORVO_API unsigned short createCRC16(const char* data, int len, unsigned short init);
// The register's start value, 0xFFFF.
ORVO_API unsigned short initCRC16();
// One table step: the register crc after the byte (no complement).
ORVO_API unsigned short addByte2CRC16(unsigned char byte, unsigned short crc);
// True when createCRC16(data, len, 0xFFFF) equals crc.
ORVO_API bool checkCRC16(const char* data, int len, unsigned short crc);
// True when data's last two bytes are the CRC (low byte first) of the bytes
// before them: the register over all len bytes ends at 0xF0B8.
ORVO_API bool verifyCRC16(const char* data, int len);

}  // namespace orvo
