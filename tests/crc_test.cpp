// CRC-16/X-25 against its published check value and a bitwise reference.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "orvo_crc.h"

using namespace orvo;

namespace {

// Bit-at-a-time CRC over the reflected polynomial, independent of the table.
unsigned short BitwiseRegister(const std::vector<char>& data, size_t n, unsigned short crc)
{
    for (size_t i = 0; i < n; ++i) {
        crc ^= static_cast<unsigned char>(data[i]);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<unsigned short>((crc >> 1) ^ 0x8408) : crc >> 1;
    }
    return crc;
}

}  // namespace

TEST(CrcTest, CheckValueAndReference)
{
    EXPECT_EQ(initCRC16(), 0xFFFF);
    EXPECT_EQ(createCRC16("123456789", 9, 0xFFFF), 0x906E);
    EXPECT_TRUE(checkCRC16("123456789", 9, 0x906E));
    EXPECT_FALSE(checkCRC16("123456788", 9, 0x906E));
    EXPECT_EQ(createCRC16(nullptr, 5, 0xFFFF), 0x0000);
    EXPECT_EQ(createCRC16("x", 0, 0x1234), 0xEDCB);

    std::mt19937 rng(42);
    for (int round = 0; round < 300; ++round) {
        std::vector<char> data(rng() % 300);
        for (char& c : data)
            c = static_cast<char>(rng());
        const unsigned short init = static_cast<unsigned short>(round == 0 ? 0xFFFF : rng());
        const unsigned short expect = static_cast<unsigned short>(~BitwiseRegister(data, data.size(), init));
        ASSERT_EQ(createCRC16(data.data(), static_cast<int>(data.size()), init), expect);
        unsigned short reg = init;
        for (char c : data)
            reg = addByte2CRC16(static_cast<unsigned char>(c), reg);
        ASSERT_EQ(static_cast<unsigned short>(~reg), expect);
    }
}

TEST(CrcTest, VerifyStoredCrc)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 100; ++round) {
        std::vector<char> data(1 + rng() % 64);
        for (char& c : data)
            c = static_cast<char>(rng());
        const unsigned short crc = createCRC16(data.data(), static_cast<int>(data.size()), 0xFFFF);
        data.push_back(static_cast<char>(crc & 0xFF));   // low byte first
        data.push_back(static_cast<char>(crc >> 8));
        ASSERT_EQ(BitwiseRegister(data, data.size(), 0xFFFF), 0xF0B8);
        ASSERT_TRUE(verifyCRC16(data.data(), static_cast<int>(data.size())));
        // Any single flipped bit, data or CRC, is caught.
        const size_t bit = rng() % (data.size() * 8);
        data[bit / 8] = static_cast<char>(data[bit / 8] ^ (1 << (bit % 8)));
        ASSERT_FALSE(verifyCRC16(data.data(), static_cast<int>(data.size())));
    }
    EXPECT_FALSE(verifyCRC16(nullptr, 2));
}
