#define ORVO_SOURCE "orvo_eeprom"
#include "orvo_eeprom.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orvo_crc.h"
#include "orvo_data.h"

namespace orvo {

namespace {

const char* DevicePath()
{
    const char* path = std::getenv("ORVO_EEPROM_DEVICE");
    return path != nullptr && *path != '\0' ? path : "/dev/eeprom0";
}

// Diagnostics go to standard output at once: a service's output is usually
// a pipe, and these lines matter most just before it dies.
void Say(const char* text)
{
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void SayLen(const char* format, int a, int b)
{
    std::printf(format, a, b);
    std::fflush(stdout);
}

// The item's bytes start at offset; len + 2 bytes must fit the device.
bool ItemFits(unsigned int len, long offset)
{
    return offset >= 0 && offset < static_cast<long>(cEEPROM::kDeviceSize) &&
           len <= cEEPROM::kDeviceSize - 2;
}

ssize_t ReadAt(int fd, char* buf, size_t len, long offset)
{
    if (::lseek(fd, offset, SEEK_SET) != offset)
        return -1;
    return ::read(fd, buf, len);
}

ssize_t WriteAt(int fd, const char* buf, size_t len, long offset)
{
    if (::lseek(fd, offset, SEEK_SET) != offset)
        return -1;
    return ::write(fd, buf, len);
}

}  // namespace

cEEPROM::~cEEPROM()
{
    Close();
}

int cEEPROM::Open()
{
    Close();
    const char* path = DevicePath();
    m_fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (m_fd < 1) {
        std::printf("cEEPROM::Open() error, dev=%s \n", path);
        std::fflush(stdout);
    }
    return m_fd;
}

void cEEPROM::Close()
{
    if (m_fd > 0)
        ::close(m_fd);
    m_fd = 0;
}

bool cEEPROM::EnsureOpen()
{
    return m_fd != 0 || Open() > 0;
}

// The checks in front of every item access: an open device (else the caller's
// "not opened" message), an offset inside it and an item that fits.
bool cEEPROM::CanAccess(const void* buf, unsigned int len, long offset, const char* notOpened) const
{
    if (buf == nullptr || m_fd <= 0) {
        Say(notOpened);
        return false;
    }
    return ItemFits(len, offset);
}

bool cEEPROM::Read(char* buf, unsigned int len, long offset)
{
    if (!CanAccess(buf, len, offset, "cEEPROM::Read() eeprom not opened \n"))
        return false;
    char work[kDeviceSize];
    const int want = static_cast<int>(len + 2);
    for (int attempt = 0; attempt < 3; ++attempt) {
        const ssize_t got = ReadAt(m_fd, work, len + 2, offset);
        if (got == want && verifyCRC16(work, want)) {
            std::memcpy(buf, work, len);
            return true;
        }
        SayLen("cEEPROM::Read() verifyCRC16 error, len=%i, rlen=%i \n", want, static_cast<int>(got));
    }
    return false;
}

bool cEEPROM::Write(const char* buf, unsigned int len, long offset)
{
    if (!CanAccess(buf, len, offset, "cEEPROM::Write() eeprom not opened \n"))
        return false;
    char work[kDeviceSize];
    std::memcpy(work, buf, len);
    const unsigned short crc = createCRC16(buf, static_cast<int>(len), 0xFFFF);
    work[len] = static_cast<char>(crc & 0xFF);
    work[len + 1] = static_cast<char>(crc >> 8);
    const int want = static_cast<int>(len + 2);
    char back[kDeviceSize];
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int wrote = static_cast<int>(WriteAt(m_fd, work, len + 2, offset));
        if (wrote < want)
            SayLen("cEEPROM::Write() write error len=%i, wlen=%i \n", want, wrote);
        else if (!Read(back, len, offset))
            SayLen("cEEPROM::Write() read error len=%i, wlen=%i \n", wrote, wrote);
        else if (std::memcmp(back, buf, len) != 0)
            SayLen("cEEPROM::Write() compare error, len=%i, wlen=%i \n", wrote, wrote);
        else
            return true;
    }
    return false;
}

bool cEEPROM::getData(long offset, char* buf, unsigned int len)
{
    return EnsureOpen() && Read(buf, len, offset);
}

bool cEEPROM::setData(long offset, const char* buf, unsigned int len)
{
    return EnsureOpen() && Write(buf, len, offset);
}

template <class T>
bool cEEPROM::getInteger(long offset, T& value)
{
    char bytes[sizeof(T)];
    if (!getData(offset, bytes, sizeof bytes))
        return false;
    std::memcpy(&value, bytes, sizeof bytes);
    return true;
}

template <class T>
bool cEEPROM::setInteger(long offset, T value)
{
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof bytes);
    return setData(offset, bytes, sizeof bytes);
}

template ORVO_API bool cEEPROM::getInteger<unsigned int>(long, unsigned int&);
template ORVO_API bool cEEPROM::getInteger<unsigned char>(long, unsigned char&);
template ORVO_API bool cEEPROM::setInteger<unsigned int>(long, unsigned int);
template ORVO_API bool cEEPROM::setInteger<unsigned char>(long, unsigned char);

bool cEEPROM::Erase()
{
    if (!EnsureOpen())
        return false;
    const char zeros[kDeviceSize] = {};
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (WriteAt(m_fd, zeros, sizeof zeros, 0) == static_cast<ssize_t>(sizeof zeros)) {
            Close();
            return true;
        }
    }
    Close();
    Say("cEEPROM::Erase() error \n");
    return false;
}

bool cEEPROM::Dump(std::string& out)
{
    out.clear();
    if (!EnsureOpen())
        return false;
    unsigned char bytes[kDeviceSize];
    bool complete = false;
    for (int attempt = 0; attempt < 3 && !complete; ++attempt) {
        std::memset(bytes, 0, sizeof bytes);
        complete = ReadAt(m_fd, reinterpret_cast<char*>(bytes), sizeof bytes, 0) ==
                   static_cast<ssize_t>(sizeof bytes);
    }
    if (!complete)
        return false;
    cData data(bytes, sizeof bytes, false);
    data.SetSeparator(".");
    out = data.ToString();
    return true;
}

// ---- cEEPROM_Pattern ---------------------------------------------------------

bool cEEPROM_Pattern::getX(long offset, unsigned int size, std::string& value)
{
    char buf[kDeviceSize];
    if (size > sizeof buf || !getData(offset, buf, size))
        return false;
    value.assign(buf, size);
    return true;
}

bool cEEPROM_Pattern::setX(long offset, unsigned int size, const std::string& value)
{
    char buf[kDeviceSize] = {};
    if (size > sizeof buf)
        return false;
    std::memcpy(buf, value.data(), value.size() < size ? value.size() : size);
    return setData(offset, buf, size);
}

bool cEEPROM_Pattern::setMacEth(long offset, const std::string& mac)
{
    char buf[17] = {};
    std::memcpy(buf, mac.data(), mac.size() < sizeof buf ? mac.size() : sizeof buf);
    for (int i = 0; i < 17; ++i) {
        const bool colonPlace = i % 3 == 2;
        if (colonPlace && buf[i] == ':')
            continue;
        const char c = buf[i];
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return setData(offset, buf, sizeof buf);
}

}  // namespace orvo
