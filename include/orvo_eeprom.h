// orvo_eeprom.h - cEEPROM, CRC-protected items in the device's 512-byte
// EEPROM, and cEEPROM_Pattern, the layout of the device's identity and
// counters in it (docs/eeprom_pattern.md).
//
// The device is "/dev/eeprom0"; the environment variable ORVO_EEPROM_DEVICE,
// read at every open, names another path (a 512-byte file for tests and
// desktop runs). Every item of n bytes is followed by the CRC-16/X-25 of those
// bytes, low byte first. Reads verify the CRC, writes read the item back and
// compare; each access makes up to three attempts. Diagnostics go to standard
// output with fixed texts; results are booleans.
//
// Threads and processes: none coordinated. One object per user.
#pragma once

#include <string>

#include "orvo_object.h"

namespace orvo {

class ORVO_API cEEPROM {
public:
    static constexpr unsigned kDeviceSize = 512;

    cEEPROM() = default;
    cEEPROM(const cEEPROM&) = delete;
    cEEPROM& operator=(const cEEPROM&) = delete;
    // Close().
    ~cEEPROM();

    // Close(), then opens the device read-write and returns the descriptor.
    // Below 1 prints "cEEPROM::Open() error, dev=<path> \n". A negative
    // descriptor stays: later accessors do not retry until Close().
    int Open();
    // Closes an open descriptor; afterwards not open (0).
    void Close();
    // The descriptor: 0 not open, negative after a failed open.
    int GetFd() const { return m_fd; }

    // One item of len bytes at offset (its CRC behind it). Both need an open
    // device ("cEEPROM::Read() eeprom not opened " otherwise) and refuse
    // offsets of 512 and more, and items longer than 510 bytes.
    bool Read(char* buf, unsigned int len, long offset);
    bool Write(const char* buf, unsigned int len, long offset);

    // Read or Write, opening the device first when it is not open (false
    // when that fails). The device stays open.
    bool getData(long offset, char* buf, unsigned int len);
    bool setData(long offset, const char* buf, unsigned int len);

    // sizeof(T) bytes of value in host order (little-endian on the device);
    // instantiated for unsigned int and unsigned char.
    template <class T>
    bool getInteger(long offset, T& value);
    template <class T>
    bool setInteger(long offset, T value);

    // Writes 512 zero bytes from offset 0 and closes the device (also on
    // failure, which prints "cEEPROM::Erase() error \n"). Afterwards no item
    // verifies until it is written again.
    bool Erase();
    // All 512 bytes as hexadecimal text "00.1A.…" (no CRC check).
    bool Dump(std::string& out);

private:
    bool EnsureOpen();
    bool CanAccess(const void* buf, unsigned int len, long offset, const char* notOpened) const;

    int m_fd = 0;    // 0: not open; negative after a failed open
};

extern template ORVO_API bool cEEPROM::getInteger<unsigned int>(long, unsigned int&);
extern template ORVO_API bool cEEPROM::getInteger<unsigned char>(long, unsigned char&);
extern template ORVO_API bool cEEPROM::setInteger<unsigned int>(long, unsigned int);
extern template ORVO_API bool cEEPROM::setInteger<unsigned char>(long, unsigned char);

// cEEPROM_Pattern: the device's items. Text items are fixed-size byte fields
// padded with zero bytes: getters return exactly the field's size (padding
// included), setters cut longer values without notice. Key and password hash
// are opaque bytes.
class ORVO_API cEEPROM_Pattern : public cEEPROM {
public:
    bool getVersion(unsigned char& v) { return getInteger(0, v); }
    bool setVersion(unsigned char v) { return setInteger(0, v); }
    bool getOsc(unsigned int& v) { return getInteger(3, v); }
    bool setOsc(unsigned int v) { return setInteger(3, v); }
    bool getBootCount(unsigned int& v) { return getInteger(9, v); }
    bool setBootCount(unsigned int v) { return setInteger(9, v); }

    bool getHardwareID(std::string& v) { return getX(15, 6, v); }
    bool setHardwareID(const std::string& v) { return setX(15, 6, v); }
    bool getSoftwareID(std::string& v) { return getX(23, 6, v); }
    bool setSoftwareID(const std::string& v) { return setX(23, 6, v); }
    bool getSerialNumber(std::string& v) { return getX(31, 16, v); }
    bool setSerialNumber(const std::string& v) { return setX(31, 16, v); }
    bool getProdDate(std::string& v) { return getX(49, 8, v); }
    bool setProdDate(const std::string& v) { return setX(49, 8, v); }
    bool getHardwareVersion(std::string& v) { return getX(59, 5, v); }
    bool setHardwareVersion(const std::string& v) { return setX(59, 5, v); }
    // "00:1a:2B:3c:4D:5e": six two-digit hexadecimal numbers and colons.
    bool getMacEth0(std::string& v) { return getX(66, 17, v); }
    bool setMacEth0(const std::string& v) { return setMacEth(66, v); }
    bool getMacEth1(std::string& v) { return getX(85, 17, v); }
    bool setMacEth1(const std::string& v) { return setMacEth(85, v); }
    bool getKey(std::string& v) { return getX(104, 12, v); }
    bool setKey(const std::string& v) { return setX(104, 12, v); }
    bool getFlag(std::string& v) { return getX(118, 3, v); }
    bool setFlag(const std::string& v) { return setX(118, 3, v); }
    bool getOEM(std::string& v) { return getX(123, 48, v); }
    bool setOEM(const std::string& v) { return setX(123, 48, v); }
    bool getWbusAddr(std::string& v) { return getX(173, 16, v); }
    bool setWbusAddr(const std::string& v) { return setX(173, 16, v); }
    bool getPwHash(std::string& v) { return getX(191, 32, v); }
    bool setPwHash(const std::string& v) { return setX(191, 32, v); }

    // A text item of size bytes at offset.
    bool getX(long offset, unsigned int size, std::string& value);
    bool setX(long offset, unsigned int size, const std::string& value);
    // Checks the MAC form (17 characters; ':' allowed at positions 2, 5, 8,
    // 11 and 14, hexadecimal digits everywhere else) and writes the 17 bytes;
    // false without writing when the form is wrong.
    bool setMacEth(long offset, const std::string& mac);
};

}  // namespace orvo
