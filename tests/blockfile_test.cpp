// Block and record files: the byte layout read back by an independent reader,
// result codes, chain recovery and its damage cases, the ring, selection by
// time; then crash consistency (kill -9 and replayed power cuts).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../source/orvo_blockfile_io.h"
#include "orvo_blockfile.h"
#include "orvo_record.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

std::string ReadFile(const std::string& path)
{
    std::string bytes;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return bytes;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
        bytes.append(buf, n);
    std::fclose(f);
    return bytes;
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
}

uint64_t Le(const std::string& b, size_t at, int n)
{
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(b.at(at + i));
    return v;
}

void PutLe(std::string& b, size_t at, uint64_t v, int n)
{
    for (int i = 0; i < n; ++i)
        b.at(at + i) = static_cast<char>(v >> (8 * i));
}

// CRC-16/X-25 bit by bit, independent of the library's table.
uint16_t X25(const std::string& data)
{
    uint16_t crc = 0xFFFF;
    for (unsigned char c : data) {
        crc ^= c;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0x8408) : static_cast<uint16_t>(crc >> 1);
    }
    return static_cast<uint16_t>(~crc);
}

// One block as an independent reader sees it at pos.
struct sRawBlock {
    uint32_t size, next;
    uint16_t crc;
    uint64_t ctime, bstime;
    std::string payload;
};

sRawBlock RawBlock(const std::string& file, size_t pos)
{
    sRawBlock b;
    b.size = static_cast<uint32_t>(Le(file, pos, 4));
    b.next = static_cast<uint32_t>(Le(file, pos + 4, 4));
    b.crc = static_cast<uint16_t>(Le(file, pos + 8, 2));
    b.ctime = Le(file, pos + 10, 8);
    b.bstime = Le(file, pos + 18, 8);
    b.payload = file.substr(pos + 26, b.size - 26);
    return b;
}

cTime Ms(unsigned long long ms)
{
    cTime t;
    t.FromMilliSeconds(ms, true);
    return t;
}

// The payload of block number n of a test stream: its length varies.
std::string Payload(unsigned long long n)
{
    std::string p = "block " + std::to_string(n) + ":";
    p.append(static_cast<size_t>(n * 7 % 90), static_cast<char>('a' + n % 26));
    return p;
}

int AppendText(cBlockFile& f, const std::string& text, unsigned long long bstime,
               unsigned long long ctimeMs = 1700000000000ULL)
{
    return f.Append(text.data(), text.size(), Ms(ctimeMs), bstime);
}

struct sRead {
    int result = 0;
    std::string data;
    unsigned long long ctime = 0, bstime = 0;
};

sRead ReadAt(cBlockFile& f, unsigned long index)
{
    sRead r;
    void* data = nullptr;
    unsigned long size = 0;
    cTime ctime;
    r.result = f.GetAt(index, data, size, ctime, r.bstime);
    if (r.result == BLOCKFILE_OK || r.result == BLOCKFILE_CRC_ERR) {
        r.data.assign(static_cast<const char*>(data), size);
        r.ctime = static_cast<unsigned long long>(ctime.ToMilliSeconds());
    }
    return r;
}

// The bstimes of the chain, oldest first.
std::vector<unsigned long long> Stamps(cBlockFile& f)
{
    std::vector<unsigned long long> v;
    for (unsigned long i = 0; i < f.Count(); ++i)
        v.push_back(ReadAt(f, i).bstime);
    return v;
}

class BlockFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/orvo_blockfile_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/journal";
    }
    void TearDown() override { (void)!std::system(("rm -rf '" + dir + "'").c_str()); }

    std::string dir, path;
};

}  // namespace

TEST(BlockFileCrc, IndependentCrcMatchesTheCheckValue)
{
    EXPECT_EQ(X25("123456789"), 0x906E);
}

TEST_F(BlockFile, NewFileIsExactlyTheHeader)
{
    cBlockFile f;
    EXPECT_FALSE(f.Open(path, false));
    ASSERT_TRUE(f.Open(path, true));
    EXPECT_TRUE(f.IsValid());
    EXPECT_EQ(ReadFile(path), std::string("\x01", 1) + std::string(16, '\0'));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(f.GetHeaderSize(), 17u);
    EXPECT_EQ(cBlock::GetHeaderSize(), 26u);
}

TEST_F(BlockFile, BlocksAreLaidOutLittleEndianAndChained)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_EQ(AppendText(f, "first", 0x0102030405060708ULL, 1700000000123ULL), BLOCKFILE_OK);
    ASSERT_EQ(AppendText(f, "", 7, 1700000000456ULL), BLOCKFILE_OK);
    ASSERT_EQ(AppendText(f, "third!", 9, 1700000000789ULL), BLOCKFILE_OK);
    f.Close();

    const std::string file = ReadFile(path);
    ASSERT_EQ(file.size(), 17u + 31 + 26 + 32);
    EXPECT_EQ(file[0], 1);
    EXPECT_EQ(Le(file, 1, 4), 0u);      // unbounded
    EXPECT_EQ(Le(file, 5, 4), 17u);     // oldest block
    EXPECT_EQ(Le(file, 9, 8), 0u);      // reserved words
    sRawBlock a = RawBlock(file, 17);
    EXPECT_EQ(a.size, 31u);
    EXPECT_EQ(a.next, 48u);
    EXPECT_EQ(a.crc, X25("first"));
    EXPECT_EQ(a.ctime, 1700000000123ULL);
    EXPECT_EQ(a.bstime, 0x0102030405060708ULL);
    EXPECT_EQ(file.substr(35, 8), std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8));
    EXPECT_EQ(a.payload, "first");
    sRawBlock b = RawBlock(file, 48);
    EXPECT_EQ(b.size, 26u);
    EXPECT_EQ(b.next, 74u);
    EXPECT_EQ(b.crc, X25(""));
    sRawBlock c = RawBlock(file, 74);
    EXPECT_EQ(c.next, 0u);
    EXPECT_EQ(c.payload, "third!");
    EXPECT_EQ(c.ctime, 1700000000789ULL);

    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(f.Count(), 3u);
    sRead r = ReadAt(f, 0);
    EXPECT_EQ(r.result, BLOCKFILE_OK);
    EXPECT_EQ(r.data, "first");
    EXPECT_EQ(r.ctime, 1700000000123ULL);
    EXPECT_EQ(r.bstime, 0x0102030405060708ULL);
    EXPECT_EQ(ReadAt(f, 1).data, "");
    EXPECT_EQ(ReadAt(f, 2).data, "third!");
}

TEST_F(BlockFile, ResultCodes)
{
    cBlockFile f;
    EXPECT_EQ(AppendText(f, "x", 1), BLOCKFILE_INVALID);
    EXPECT_EQ(ReadAt(f, 0).result, BLOCKFILE_INVALID);
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_EQ(AppendText(f, "payload one", 1), BLOCKFILE_OK);
    ASSERT_EQ(AppendText(f, std::string(3000, 'z'), 2), BLOCKFILE_OK);
    EXPECT_EQ(ReadAt(f, f.Count()).result, BLOCKFILE_WRONG_POS);
    EXPECT_EQ(ReadAt(f, 1).data, std::string(3000, 'z'));    // read buffer grows
    f.Close();
    EXPECT_EQ(ReadAt(f, 0).result, BLOCKFILE_INVALID);

    // A payload altered on disk: 3, data delivered, later blocks unaffected.
    std::string file = ReadFile(path);
    file[17 + 26 + 3] = 'X';
    WriteFile(path, file);
    ASSERT_TRUE(f.Open(path, false));
    sRead bad = ReadAt(f, 0);
    EXPECT_EQ(bad.result, BLOCKFILE_CRC_ERR);
    EXPECT_EQ(bad.data, "payXoad one");
    EXPECT_EQ(bad.bstime, 1u);
    EXPECT_EQ(ReadAt(f, 1).result, BLOCKFILE_OK);
    f.Close();

    // The file cut inside the second payload: that read fails with 5.
    WriteFile(path, file.substr(0, file.size() - 10));
    ASSERT_TRUE(f.Open(path, false));
    EXPECT_EQ(ReadAt(f, 1).result, BLOCKFILE_READ_PAYLOAD_ERR);

    EXPECT_STREQ(GetBlockFileErrorText(BLOCKFILE_ERR), "error BLOCKFILE_ERR \n");
    EXPECT_STREQ(GetBlockFileErrorText(BLOCKFILE_CRC_ERR), "error BLOCKFILE_CRC_ERR \n");
    EXPECT_STREQ(GetBlockFileErrorText(BLOCKFILE_WRONG_POS), "error BLOCKFILE_WRONG_POS \n");
    EXPECT_STREQ(GetBlockFileErrorText(BLOCKFILE_READ_PAYLOAD_ERR), "error BLOCKFILE_READ_PAYLOAD_ERR \n");
    EXPECT_STREQ(GetBlockFileErrorText(BLOCKFILE_INVALID), "error BLOCKFILE_INVALID \n");
}

TEST_F(BlockFile, AWriteThatFailsGivesTwoAndLeavesTheChain)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_EQ(AppendText(f, "kept", 1), BLOCKFILE_OK);
    const std::string before = ReadFile(path);
    blockfile_io::Write = [](int, const void*, size_t len, off_t) -> ssize_t {
        return static_cast<ssize_t>(len) - 1;
    };
    EXPECT_EQ(AppendText(f, "lost", 2), BLOCKFILE_ERR);
    blockfile_io::Write = nullptr;
    EXPECT_EQ(ReadFile(path), before);
    EXPECT_EQ(f.Count(), 1u);
    ASSERT_EQ(AppendText(f, "next", 3), BLOCKFILE_OK);
    f.Close();
    ASSERT_TRUE(f.Open(path, false));
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{1, 3}));
}

TEST_F(BlockFile, HeaderDamageRefusesTheOpen)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);
        ASSERT_EQ(AppendText(f, "b", 2), BLOCKFILE_OK);
        ASSERT_EQ(AppendText(f, "c", 3), BLOCKFILE_OK);
    }
    const std::string good = ReadFile(path);
    cBlockFile f;
    auto opensAs = [&](std::string bytes) {
        WriteFile(path, bytes);
        return f.Open(path, false);
    };
    std::string v2 = good;
    v2[0] = 2;
    EXPECT_FALSE(opensAs(v2));
    EXPECT_FALSE(f.IsValid());
    EXPECT_FALSE(opensAs(good.substr(0, 16)));

    std::string self = good;                 // second block points to itself
    PutLe(self, 44 + 4, 44, 4);
    EXPECT_FALSE(opensAs(self));
    std::string beyond = good;               // next at the end of the file
    PutLe(beyond, 17 + 4, good.size(), 4);
    EXPECT_FALSE(opensAs(beyond));
    std::string loop = good;                 // third block back to the first
    PutLe(loop, 71 + 4, 17, 4);
    EXPECT_FALSE(opensAs(loop));
    std::string intoHeader = good;
    PutLe(intoHeader, 5, 3, 4);
    EXPECT_FALSE(opensAs(intoHeader));
    EXPECT_TRUE(opensAs(good));
    EXPECT_EQ(f.Count(), 3u);
}

TEST_F(BlockFile, ShortHeaderReadWipesTheFile)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        ASSERT_TRUE(f.SetMaxCount(9));
        ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);
    }
    std::string file = ReadFile(path);
    PutLe(file, 17 + 4, file.size() - 10, 4);   // next block 10 bytes before the end
    WriteFile(path, file);
    cBlockFile f;
    EXPECT_FALSE(f.Open(path, false));
    const std::string wiped = ReadFile(path);
    ASSERT_EQ(wiped.size(), 17u);
    EXPECT_EQ(Le(wiped, 1, 4), 9u);             // the maximum count survives
    EXPECT_EQ(Le(wiped, 5, 4), 0u);
}

TEST_F(BlockFile, RingDropsTheOldestAndReusesItsSpace)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_TRUE(f.SetMaxCount(3));
    for (int i = 1; i <= 3; ++i)
        ASSERT_EQ(AppendText(f, "0123456789", i), BLOCKFILE_OK);
    const size_t fullSize = ReadFile(path).size();
    ASSERT_EQ(AppendText(f, "abcdefghij", 4), BLOCKFILE_OK);    // into block 1's space
    EXPECT_EQ(ReadFile(path).size(), fullSize);
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{2, 3, 4}));
    std::string file = ReadFile(path);
    EXPECT_EQ(Le(file, 5, 4), 17u + 36);            // oldest is now block 2
    EXPECT_EQ(RawBlock(file, 17).payload, "abcdefghij");
    EXPECT_EQ(RawBlock(file, 17 + 72).next, 17u);   // block 3 -> block 4

    // Too large for block 2's space: behind the last block.
    ASSERT_EQ(AppendText(f, std::string(40, 'L'), 5), BLOCKFILE_OK);
    EXPECT_EQ(ReadFile(path).size(), fullSize + 66);
    // Block 3 is dropped next; with block 2's space the gap holds 72 bytes.
    ASSERT_EQ(AppendText(f, std::string(46, 'M'), 6), BLOCKFILE_OK);
    file = ReadFile(path);
    EXPECT_EQ(RawBlock(file, 53).payload, std::string(46, 'M'));
    f.Close();

    ASSERT_TRUE(f.Open(path, false));
    EXPECT_EQ(f.GetMaxCount(), 3u);
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{4, 5, 6}));
    EXPECT_EQ(ReadAt(f, 2).data, std::string(46, 'M'));
}

TEST_F(BlockFile, SetMaxCountTrimsOnlyBelowTheStoredBound)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    for (int i = 1; i <= 5; ++i)
        ASSERT_EQ(AppendText(f, "x", i), BLOCKFILE_OK);
    ASSERT_TRUE(f.SetMaxCount(2));           // from unbounded: nothing trimmed now
    EXPECT_EQ(f.Count(), 5u);
    ASSERT_EQ(AppendText(f, "x", 6), BLOCKFILE_OK);
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{2, 3, 4, 5, 6}));
    ASSERT_TRUE(f.SetMaxCount(10));
    ASSERT_TRUE(f.SetMaxCount(3));           // below 10: trims to 3
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{4, 5, 6}));
    f.Close();
    ASSERT_TRUE(f.Open(path, false));
    EXPECT_EQ(f.GetMaxCount(), 3u);
    EXPECT_EQ(Stamps(f), (std::vector<unsigned long long>{4, 5, 6}));
}

TEST_F(BlockFile, ClearKeepsTheBoundAndToStringCounts)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_TRUE(f.SetMaxCount(4));
    ASSERT_EQ(AppendText(f, "x", 1), BLOCKFILE_OK);
    f.Clear();
    EXPECT_TRUE(f.IsValid());
    EXPECT_EQ(f.Count(), 0u);
    EXPECT_EQ(f.GetMaxCount(), 4u);
    const std::string file = ReadFile(path);
    ASSERT_EQ(file.size(), 17u);
    EXPECT_EQ(Le(file, 1, 4), 4u);
    ASSERT_EQ(AppendText(f, "y", 2), BLOCKFILE_OK);
    const std::string text = f.ToString();
    const std::string head = "name=" + path + ", count=1, maxcount=4, fd=";
    ASSERT_EQ(text.substr(0, head.size()), head);
    EXPECT_GT(std::stoi(text.substr(head.size())), 2);
    f.Close();
    EXPECT_EQ(f.ToString(), "name=" + path + ", count=0, maxcount=4, fd=-1");
}

TEST_F(BlockFile, IndicesByBsTime)
{
    cBlockFile f;
    std::deque<unsigned long> idx;
    EXPECT_EQ(f.GetIndizesByTime(idx, 0ULL, 0ULL), 0u);
    ASSERT_TRUE(f.Open(path, true));
    EXPECT_EQ(f.GetIndizesByTime(idx, 0ULL, 100ULL), 0u);
    const unsigned long long stamps[] = {50, 10, 0x1FFFFFFFFULL, 30, 10, 0x1FFFFFFFFULL, 20};
    for (unsigned long long s : stamps)
        ASSERT_EQ(AppendText(f, "x", s), BLOCKFILE_OK);
    ASSERT_EQ(f.GetIndizesByTime(idx, 0ULL, 0ULL), 1u);
    EXPECT_EQ(idx[0], 1u);                             // smallest, first among equals
    ASSERT_EQ(f.GetIndizesByTime(idx, 0xFFFFFFFFULL, 0xFFFFFFFFULL), 1u);
    EXPECT_EQ(idx[0], 2u);                             // largest, first among equals
    ASSERT_EQ(f.GetIndizesByTime(idx, 10ULL, 30ULL), 4u);
    EXPECT_EQ(f.Count(), 7u);
    EXPECT_EQ(std::vector<unsigned long>(idx.begin() + 2, idx.end()), (std::vector<unsigned long>{6, 3}));
    EXPECT_TRUE((idx[0] == 1 && idx[1] == 4) || (idx[0] == 4 && idx[1] == 1));
    ASSERT_EQ(f.GetIndizesByTime(idx, 31ULL, 0x1FFFFFFFEULL), 1u);
    EXPECT_EQ(idx[0], 0u);
    // A range whose upper bound alone is huge is a plain range.
    ASSERT_EQ(f.GetIndizesByTime(idx, 40ULL, 0xFFFFFFFFFFULL), 3u);
    EXPECT_EQ(idx[0], 0u);
}

TEST_F(BlockFile, IndicesByCreationTime)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    const unsigned long long created[] = {3000, 1000, 5000, 2000};
    for (unsigned long long ms : created)
        ASSERT_EQ(AppendText(f, "x", 0, 1700000000000ULL + ms), BLOCKFILE_OK);
    std::deque<unsigned long> idx;
    ASSERT_EQ(f.GetIndizesByTime(idx, Ms(0), Ms(0)), 1u);
    EXPECT_EQ(idx[0], 1u);
    ASSERT_EQ(f.GetIndizesByTime(idx, Ms(cBlockFile::kNewestCTimeMs), Ms(cBlockFile::kNewestCTimeMs)), 1u);
    EXPECT_EQ(idx[0], 2u);
    ASSERT_EQ(f.GetIndizesByTime(idx, Ms(1700000001500ULL), Ms(1700000003000ULL)), 2u);
    EXPECT_EQ(std::vector<unsigned long>(idx.begin(), idx.end()), (std::vector<unsigned long>{3, 0}));
}

TEST_F(BlockFile, RecordFileStoresRecords)
{
    cRecordFile f;
    ASSERT_TRUE(f.Open(path, true));
    cRecord meter;
    meter.AppendTextPar("id", "M-17");
    meter.AppendUIntPar("wh", 123456);
    ASSERT_EQ(f.Append(meter, Ms(1700000000000ULL), 42ULL), BLOCKFILE_OK);
    ASSERT_EQ(f.Append(cRecord(), Ms(1700000000001ULL), 43ULL), BLOCKFILE_OK);
    f.Close();
    ASSERT_TRUE(f.Open(path, false));
    cRecord back;
    cTime ctime;
    unsigned long long bstime = 0;
    ASSERT_EQ(f.GetAt(0, back, ctime, bstime), BLOCKFILE_OK);
    EXPECT_EQ(orvo_test::BytesOf(back), orvo_test::BytesOf(meter));
    EXPECT_EQ(bstime, 42u);
    EXPECT_EQ(ctime.ToMilliSeconds(), 1700000000000LL);
    const std::string text = f.ToString();
    EXPECT_NE(text.find(", count=2, maxcount=0, fd="), std::string::npos) << text;
    EXPECT_NE(text.find("\nrecord=" + meter.ToString() + ", ctime=" + Ms(1700000000000ULL).ToString() +
                        ", bstime=42"),
              std::string::npos)
        << text;
    EXPECT_EQ(f.GetAt(2, back, ctime, bstime), BLOCKFILE_WRONG_POS);
}

TEST_F(BlockFile, ManyBlocksReopenAcrossReadWindows)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    const unsigned long n = 4000;    // ~0.3 MB: headers straddle read windows
    for (unsigned long i = 0; i < n; ++i)
        ASSERT_EQ(AppendText(f, Payload(i), i), BLOCKFILE_OK);
    f.Close();
    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(f.Count(), n);
    for (unsigned long i = 0; i < n; ++i) {
        sRead r = ReadAt(f, i);
        ASSERT_EQ(r.result, BLOCKFILE_OK);
        ASSERT_EQ(r.bstime, i);
        ASSERT_EQ(r.data, Payload(i));
    }
}
