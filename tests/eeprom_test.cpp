// EEPROM items and the device pattern, on a 512-byte file standing in for the
// device (ORVO_EEPROM_DEVICE): exact bytes and CRCs, the three attempts and
// their messages, the MAC form, erase and dump.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_eeprom.h"
#include "test_helpers.h"
#include "x25.h"

using namespace orvo;
using orvo_test::X25;
using orvo_test::RunInChild;

namespace {


std::string WithCrc(const std::string& data)
{
    const uint16_t crc = X25(data);
    return data + static_cast<char>(crc & 0xFF) + static_cast<char>(crc >> 8);
}

class Eeprom : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/orvo_eeprom_XXXXXX";
        const int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path = tmpl;
        Store(std::string(512, '\0'));
        setenv("ORVO_EEPROM_DEVICE", path.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("ORVO_EEPROM_DEVICE");
        unlink(path.c_str());
    }
    std::string Image() const
    {
        std::string bytes;
        FILE* f = std::fopen(path.c_str(), "rb");
        char buf[1024];
        size_t n = std::fread(buf, 1, sizeof buf, f);
        std::fclose(f);
        return std::string(buf, n);
    }
    void Store(const std::string& bytes) const
    {
        FILE* f = std::fopen(path.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    // Standard output of body run in a child.
    static std::string Output(const std::function<int()>& body)
    {
        std::string out;
        EXPECT_EQ(RunInChild(body, &out), 0) << out;
        return out;
    }

    std::string path;
};

}  // namespace

TEST_F(Eeprom, OscIsLittleEndianWithItsCrc)
{
    cEEPROM_Pattern e;
    ASSERT_TRUE(e.setOsc(123456));
    const std::string image = Image();
    EXPECT_EQ(image.substr(3, 6), WithCrc(std::string("\x40\xE2\x01\x00", 4)));
    EXPECT_EQ(image.substr(0, 3), std::string(3, '\0'));
    EXPECT_EQ(image.substr(9), std::string(503, '\0'));
    unsigned int osc = 0;
    cEEPROM_Pattern other;
    ASSERT_TRUE(other.getOsc(osc));
    EXPECT_EQ(osc, 123456u);
    EXPECT_GT(other.GetFd(), 0);     // stays open after an accessor
}

TEST_F(Eeprom, EveryItemAtItsOffsetAndSize)
{
    struct sItem {
        long offset;
        unsigned size;
        bool (cEEPROM_Pattern::*set)(const std::string&);
        bool (cEEPROM_Pattern::*get)(std::string&);
    };
    const std::vector<sItem> items = {
        {15, 6, &cEEPROM_Pattern::setHardwareID, &cEEPROM_Pattern::getHardwareID},
        {23, 6, &cEEPROM_Pattern::setSoftwareID, &cEEPROM_Pattern::getSoftwareID},
        {31, 16, &cEEPROM_Pattern::setSerialNumber, &cEEPROM_Pattern::getSerialNumber},
        {49, 8, &cEEPROM_Pattern::setProdDate, &cEEPROM_Pattern::getProdDate},
        {59, 5, &cEEPROM_Pattern::setHardwareVersion, &cEEPROM_Pattern::getHardwareVersion},
        {104, 12, &cEEPROM_Pattern::setKey, &cEEPROM_Pattern::getKey},
        {118, 3, &cEEPROM_Pattern::setFlag, &cEEPROM_Pattern::getFlag},
        {123, 48, &cEEPROM_Pattern::setOEM, &cEEPROM_Pattern::getOEM},
        {173, 16, &cEEPROM_Pattern::setWbusAddr, &cEEPROM_Pattern::getWbusAddr},
        {191, 32, &cEEPROM_Pattern::setPwHash, &cEEPROM_Pattern::getPwHash},
    };
    cEEPROM_Pattern e;
    ASSERT_TRUE(e.setVersion(7));
    ASSERT_TRUE(e.setOsc(0xA1B2C3D4u));
    ASSERT_TRUE(e.setBootCount(99));
    ASSERT_TRUE(e.setMacEth0("00:1a:2B:3c:4D:5e"));
    ASSERT_TRUE(e.setMacEth1("ffffffffffffffff0"));   // colons are optional
    for (size_t i = 0; i < items.size(); ++i)         // each filled to its size with its own byte
        ASSERT_TRUE((e.*items[i].set)(std::string(items[i].size, static_cast<char>('A' + i))));

    const std::string image = Image();
    EXPECT_EQ(image.substr(0, 3), WithCrc("\x07"));
    EXPECT_EQ(image.substr(3, 6), WithCrc("\xD4\xC3\xB2\xA1"));
    EXPECT_EQ(image.substr(9, 6), WithCrc(std::string("\x63\0\0\0", 4)));
    EXPECT_EQ(image.substr(66, 19), WithCrc("00:1a:2B:3c:4D:5e"));
    EXPECT_EQ(image.substr(85, 19), WithCrc("ffffffffffffffff0"));
    for (size_t i = 0; i < items.size(); ++i)
        EXPECT_EQ(image.substr(items[i].offset, items[i].size + 2),
                  WithCrc(std::string(items[i].size, static_cast<char>('A' + i))))
            << "item at " << items[i].offset;
    EXPECT_EQ(image.substr(225), std::string(287, '\0'));   // the pattern ends at 224

    cEEPROM_Pattern back;
    for (size_t i = 0; i < items.size(); ++i) {
        std::string v;
        ASSERT_TRUE((back.*items[i].get)(v));
        EXPECT_EQ(v, std::string(items[i].size, static_cast<char>('A' + i)));
    }
    unsigned char version = 0;
    unsigned int boots = 0;
    std::string mac;
    EXPECT_TRUE(back.getVersion(version) && version == 7);
    EXPECT_TRUE(back.getBootCount(boots) && boots == 99);
    EXPECT_TRUE(back.getMacEth0(mac) && mac == "00:1a:2B:3c:4D:5e");
}

TEST_F(Eeprom, TextIsPaddedAndCut)
{
    cEEPROM_Pattern e;
    std::string v;
    ASSERT_TRUE(e.setSerialNumber("1234"));
    ASSERT_TRUE(e.getSerialNumber(v));
    EXPECT_EQ(v, std::string("1234") + std::string(12, '\0'));
    ASSERT_TRUE(e.setSerialNumber("ABCDEFGHIJKLMNOPQRST"));
    ASSERT_TRUE(e.getSerialNumber(v));
    EXPECT_EQ(v, "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(Image().substr(31, 18), WithCrc("ABCDEFGHIJKLMNOP"));
}

TEST_F(Eeprom, MacFormsOtherThanColonsWriteNothing)
{
    cEEPROM_Pattern e;
    EXPECT_FALSE(e.setMacEth0("00-1a-2B-3c-4D-5e"));
    EXPECT_FALSE(e.setMacEth0("001a2B3c4D5e"));
    EXPECT_FALSE(e.setMacEth1("00:1a:2B:3c:4D:5g"));
    EXPECT_FALSE(e.setMacEth1(":0:1a:2B:3c:4D:5e"));
    EXPECT_EQ(Image(), std::string(512, '\0'));
    EXPECT_TRUE(e.setMacEth1("00:1A:2b:3C:4d:5E:ff"));     // cut to 17
    EXPECT_EQ(Image().substr(85, 17), "00:1A:2b:3C:4d:5E");
}

TEST_F(Eeprom, FlippedBitFailsAfterThreeAttempts)
{
    {
        cEEPROM_Pattern e;
        ASSERT_TRUE(e.setSerialNumber("SN-0001"));
    }
    std::string image = Image();
    image[33] ^= 0x10;
    Store(image);
    const std::string out = Output([] {
        cEEPROM_Pattern e;
        std::string v = "unchanged";
        return !e.getSerialNumber(v) && v == "unchanged" ? 0 : 1;
    });
    const std::string line = "cEEPROM::Read() verifyCRC16 error, len=18, rlen=18 \n";
    EXPECT_EQ(out, line + line + line);
}

TEST_F(Eeprom, OffsetsAndLengthsOutsideTheDevice)
{
    const std::string out = Output([] {
        cEEPROM e;
        char buf[4] = {};
        if (e.Read(buf, 2, 0))       // not open yet
            return 1;
        if (e.Open() <= 0)
            return 2;
        // Offset 512: refused without a message or a device access.
        if (e.Read(buf, 2, 512) || e.Write(buf, 2, 512) || e.getData(600, buf, 1))
            return 3;
        std::printf("--\n");
        // An item reaching past the end of the device: a short read.
        return e.Read(buf, 2, 511) ? 4 : 0;
    });
    const std::string shortRead = "cEEPROM::Read() verifyCRC16 error, len=4, rlen=1 \n";
    EXPECT_EQ(out, "cEEPROM::Read() eeprom not opened \n--\n" + shortRead + shortRead + shortRead);
}

TEST_F(Eeprom, FailedOpenIsReportedAndNotRetried)
{
    const std::string missing = path + ".missing";
    const std::string out = Output([&] {
        setenv("ORVO_EEPROM_DEVICE", missing.c_str(), 1);
        cEEPROM_Pattern e;
        unsigned int osc = 0;
        if (e.getOsc(osc) || e.GetFd() >= 0)
            return 1;
        if (e.setOsc(1))                 // sees the negative descriptor as open
            return 2;
        e.Close();
        return e.GetFd() == 0 ? 0 : 3;
    });
    EXPECT_EQ(out, "cEEPROM::Open() error, dev=" + missing + " \ncEEPROM::Write() eeprom not opened \n");
}

TEST_F(Eeprom, WriteErrorsAreRetriedThreeTimes)
{
    // A device that takes no byte: three write errors.
    std::string out = Output([] {
        setenv("ORVO_EEPROM_DEVICE", "/dev/full", 1);
        cEEPROM_Pattern e;
        return e.setOsc(5) ? 1 : 0;
    });
    const std::string full = "cEEPROM::Write() write error len=6, wlen=-1 \n";
    EXPECT_EQ(out, full + full + full);

    // A device that takes every byte and gives none back: each attempt reads
    // back three times, then reports a read error with the count written.
    out = Output([] {
        setenv("ORVO_EEPROM_DEVICE", "/dev/null", 1);
        cEEPROM_Pattern e;
        return e.setVersion(1) ? 1 : 0;
    });
    const std::string crc = "cEEPROM::Read() verifyCRC16 error, len=3, rlen=0 \n";
    const std::string attempt = crc + crc + crc + "cEEPROM::Write() read error len=3, wlen=3 \n";
    EXPECT_EQ(out, attempt + attempt + attempt);
}

TEST_F(Eeprom, EraseZeroesAndClosesDumpShowsAll)
{
    cEEPROM_Pattern e;
    ASSERT_TRUE(e.setVersion(0xAB));
    std::string dump;
    ASSERT_TRUE(e.Dump(dump));
    const uint16_t crc = X25("\xAB");
    char head[16];
    std::snprintf(head, sizeof head, "AB.%02X.%02X.00.", crc & 0xFF, crc >> 8);
    EXPECT_EQ(dump.substr(0, 12), head);
    EXPECT_EQ(dump.size(), 512u * 3 - 1);
    EXPECT_EQ(dump.substr(dump.size() - 5), "00.00");

    ASSERT_TRUE(e.Erase());
    EXPECT_EQ(e.GetFd(), 0);
    EXPECT_EQ(Image(), std::string(512, '\0'));
    std::string out = Output([] {
        cEEPROM_Pattern again;
        unsigned char v = 0;
        return again.getVersion(v) ? 1 : 0;    // zeros do not verify
    });
    EXPECT_EQ(out.size(), 3 * std::string("cEEPROM::Read() verifyCRC16 error, len=3, rlen=3 \n").size());
}
