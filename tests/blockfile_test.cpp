// Block and record files: the byte layout read back by an independent reader,
// result codes, chain recovery and its damage cases, the ring, selection by
// time; then crash consistency (kill -9 and replayed power cuts).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "x25.h"

using namespace orvo;
using orvo_test::X25;

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

    // A bound set before the open is written into the file it creates.
    cBlockFile bounded;
    const std::string other = path + ".bounded";
    ASSERT_TRUE(bounded.SetMaxCount(3));
    ASSERT_TRUE(bounded.Open(other, true));
    EXPECT_EQ(ReadFile(other), std::string("\x01\x03", 2) + std::string(15, '\0'));
    bounded.Close();
    std::remove(other.c_str());
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

// Three blocks "a", "b", "c" at 17, 44 and 71; each damage case is opened
// read-write and read-only. A read-only open never changes a byte and reads
// every block before the damage.
TEST_F(BlockFile, DamageEndsTheChainRefusesOrWipesAndReadOnlyKeepsWhatIsBefore)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        ASSERT_TRUE(f.SetMaxCount(9));
        for (const char* t : {"a", "b", "c"})
            ASSERT_EQ(AppendText(f, t, static_cast<unsigned long long>(t[0])), BLOCKFILE_OK);
    }
    const std::string good = ReadFile(path);
    auto with = [&](size_t at, uint64_t v, int n) {
        std::string b = good;
        PutLe(b, at, v, n);
        return b;
    };
    auto zeroed = [&](size_t at) {
        std::string b = good;
        std::fill(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at) + 26, '\0');
        return b;
    };
    struct sCase {
        const char* what;
        std::string bytes;
        int readWrite;            // blocks after Open(false); -1 refused, -2 refused and wiped
        unsigned long readOnly;   // blocks after OpenReadOnly
    };
    const std::vector<sCase> cases = {
        {"intact", good, 3, 3},
        {"second header zeroed", zeroed(44), 1, 1},
        {"first header zeroed", zeroed(17), 0, 0},
        {"second block points to itself", with(44 + 4, 44, 4), -1, 1},
        {"first block's next at the end of the file", with(17 + 4, good.size(), 4), -1, 1},
        {"third block loops back to the first", with(71 + 4, 17, 4), -1, 3},
        {"first-block position into the header", with(5, 3, 4), -1, 0},
        {"next header cut by the end of the file", with(44 + 4, good.size() - 10, 4), -2, 2},
    };
    for (const sCase& c : cases) {
        WriteFile(path, c.bytes);
        cBlockFile ro;
        ASSERT_TRUE(ro.OpenReadOnly(path)) << c.what;
        EXPECT_TRUE(ro.IsReadOnly());
        EXPECT_EQ(ro.Count(), c.readOnly) << c.what;
        EXPECT_EQ(ro.GetDamage().empty(), c.readWrite == 3) << c.what << ": " << ro.GetDamage();
        for (unsigned long i = 0; i < ro.Count(); ++i)
            EXPECT_EQ(ReadAt(ro, i).data, std::string(1, static_cast<char>('a' + i))) << c.what;
        ro.Close();
        EXPECT_EQ(ReadFile(path), c.bytes) << c.what << ": the read-only open wrote";

        cBlockFile rw;
        const bool opened = rw.Open(path, false);
        EXPECT_EQ(opened, c.readWrite >= 0) << c.what;
        if (opened) {
            EXPECT_EQ(rw.Count(), static_cast<unsigned long>(c.readWrite)) << c.what;
        }
        if (c.readWrite == -2) {
            const std::string wiped = ReadFile(path);
            ASSERT_EQ(wiped.size(), 17u) << c.what;
            EXPECT_EQ(Le(wiped, 1, 4), 9u);            // the maximum count survives
            EXPECT_EQ(Le(wiped, 5, 4), 0u);
        } else if (c.readWrite == -1) {
            EXPECT_EQ(ReadFile(path), c.bytes) << c.what;
        }
    }
    // Short or foreign headers are refused both ways.
    cBlockFile f;
    for (const std::string& bytes : {good.substr(0, 16), with(0, 2, 1)}) {
        WriteFile(path, bytes);
        EXPECT_FALSE(f.Open(path, false));
        EXPECT_FALSE(f.OpenReadOnly(path));
        EXPECT_FALSE(f.IsValid());
    }
    EXPECT_FALSE(f.OpenReadOnly(dir + "/missing"));
}

TEST_F(BlockFile, AFileOpenedReadOnlyIsNeverWritten)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        ASSERT_TRUE(f.SetMaxCount(2));
        ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);
        ASSERT_EQ(AppendText(f, "b", 2), BLOCKFILE_OK);
    }
    const std::string before = ReadFile(path);
    cRecordFile f;
    ASSERT_TRUE(f.OpenReadOnly(path));
    EXPECT_EQ(AppendText(f, "c", 3), BLOCKFILE_ERR);
    EXPECT_FALSE(f.SetMaxCount(1));
    EXPECT_FALSE(f.Commit());
    f.Clear();
    EXPECT_TRUE(f.IsValid());
    EXPECT_EQ(f.Count(), 2u);
    EXPECT_EQ(ReadAt(f, 1).data, "b");
    f.Close();
    EXPECT_FALSE(f.IsReadOnly());
    EXPECT_EQ(ReadFile(path), before);
}

// A zeroed block header anywhere in a longer file: the file opens with
// exactly the blocks before it, and appending goes on from the last of them.
TEST_F(BlockFile, AZeroedBlockHeaderKeepsEveryBlockBeforeIt)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        for (unsigned long long i = 0; i < 60; ++i)
            ASSERT_EQ(AppendText(f, Payload(i * 7 % 50), i), BLOCKFILE_OK);
    }
    const std::string good = ReadFile(path);
    std::vector<size_t> positions;
    for (size_t pos = 17; pos < good.size(); pos += Le(good, pos, 4))
        positions.push_back(pos);
    ASSERT_EQ(positions.size(), 60u);
    for (size_t k : {size_t(0), size_t(1), size_t(9), size_t(30), size_t(59)}) {
        std::string bytes = good;
        std::fill(bytes.begin() + static_cast<long>(positions[k]),
                  bytes.begin() + static_cast<long>(positions[k]) + 26, '\0');
        WriteFile(path, bytes);
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, false)) << "block " << k;
        ASSERT_EQ(f.Count(), k);
        EXPECT_NE(f.GetDamage().find("block " + std::to_string(k) + " at position " + std::to_string(positions[k])),
                  std::string::npos)
            << f.GetDamage();
        for (unsigned long i = 0; i < k; ++i)
            ASSERT_EQ(ReadAt(f, i).result, BLOCKFILE_OK);
        ASSERT_EQ(AppendText(f, "new", 99), BLOCKFILE_OK);
        f.Close();
        ASSERT_TRUE(f.Open(path, false));
        EXPECT_EQ(f.Count(), k + 1);
        EXPECT_EQ(ReadAt(f, k).data, "new");
        EXPECT_EQ(f.GetDamage(), "");
    }
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
    f.Close();

    // A damaged payload gives 3 and no record: the one passed in stays.
    std::string file = ReadFile(path);
    file[17 + 26 + 2] ^= 0x01;
    WriteFile(path, file);
    ASSERT_TRUE(f.Open(path, false));
    cRecord kept;
    kept.AppendTextPar("kept", "yes");
    EXPECT_EQ(f.GetAt(0, kept, ctime, bstime), BLOCKFILE_CRC_ERR);
    cRecord expected;
    expected.AppendTextPar("kept", "yes");
    EXPECT_EQ(orvo_test::BytesOf(kept), orvo_test::BytesOf(expected));
}

TEST_F(BlockFile, ManyBlocksReopenMappedAndThroughReadWindows)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    const unsigned long n = 4000;    // ~0.3 MB: headers straddle read windows
    for (unsigned long i = 0; i < n; ++i)
        ASSERT_EQ(AppendText(f, Payload(i), i), BLOCKFILE_OK);
    f.Close();
    for (unsigned long long mapLimit : {blockfile_io::MapLimit, 0ULL}) {
        const unsigned long long saved = blockfile_io::MapLimit;
        blockfile_io::MapLimit = mapLimit;
        const bool opened = f.Open(path, false);
        blockfile_io::MapLimit = saved;
        ASSERT_TRUE(opened);
        ASSERT_EQ(f.Count(), n);
        for (unsigned long i = 0; i < n; ++i) {
            sRead r = ReadAt(f, i);
            ASSERT_EQ(r.result, BLOCKFILE_OK);
            ASSERT_EQ(r.bstime, i);
            ASSERT_EQ(r.data, Payload(i));
        }
    }
    // The window path also meets the end of the file inside a header.
    std::string file = ReadFile(path);
    const size_t last = file.size() - (26 + Payload(n - 1).size());
    PutLe(file, last + 4, file.size() - 5, 4);
    WriteFile(path, file);
    const unsigned long long saved = blockfile_io::MapLimit;
    blockfile_io::MapLimit = 0;
    EXPECT_FALSE(f.Open(path, false));
    blockfile_io::MapLimit = saved;
    EXPECT_EQ(ReadFile(path).size(), 17u);    // wiped
}

// ---- crash consistency ---------------------------------------------------------

namespace {

// Checks that the file opens and its chain is a run of intact test-stream
// blocks with consecutive stamps; returns the youngest stamp (-1 when empty)
// and the count through the pointers.
::testing::AssertionResult ChainIsIntact(const std::string& path, long long* youngest,
                                         unsigned long* count)
{
    cBlockFile f;
    if (!f.Open(path, false))
        return ::testing::AssertionFailure() << "file does not open";
    *count = f.Count();
    *youngest = -1;
    for (unsigned long i = 0; i < f.Count(); ++i) {
        sRead r = ReadAt(f, i);
        if (r.result != BLOCKFILE_OK || r.data != Payload(r.bstime))
            return ::testing::AssertionFailure() << "block " << i << " reads " << r.result;
        if (i > 0 && static_cast<long long>(r.bstime) != *youngest + 1)
            return ::testing::AssertionFailure() << "stamp " << r.bstime << " follows " << *youngest;
        *youngest = static_cast<long long>(r.bstime);
    }
    return ::testing::AssertionSuccess();
}

struct sWrite {
    off_t pos;
    std::string bytes;
};
std::vector<sWrite> gWrites;

ssize_t RecordWrite(int fd, const void* data, size_t len, off_t pos)
{
    gWrites.push_back({pos, std::string(static_cast<const char*>(data), len)});
    return pwrite(fd, data, len, pos);
}

void Apply(std::string& image, const sWrite& w, size_t len)
{
    if (image.size() < w.pos + len)
        image.resize(w.pos + len, '\0');
    image.replace(static_cast<size_t>(w.pos), len, w.bytes, 0, len);
}

// Where a write may be cut by a power failure: at every 512-byte sector
// boundary inside it; a block write (nothing points at it yet) anywhere.
std::vector<size_t> TearPoints(const sWrite& w)
{
    std::vector<size_t> cuts;
    for (size_t t = 1; t < w.bytes.size(); ++t) {
        const bool sector = (w.pos + t) % 512 == 0;
        const bool block = w.bytes.size() >= 26 + 1 && (t == 13 || t == 26 || t == w.bytes.size() / 2 ||
                                                         t == w.bytes.size() - 1);
        if (sector || block)
            cuts.push_back(t);
    }
    return cuts;
}

// Appends n stream blocks while recording the writes, then replays every
// prefix of them (and every prefix with its last write torn) onto a copy of
// the file as it was before the first append.
void ReplayPowerCuts(const std::string& dir, unsigned long maxCount, bool commit)
{
    const std::string path = dir + "/recorded";
    const std::string copy = dir + "/replayed";
    unlink(path.c_str());
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_TRUE(f.SetMaxCount(maxCount));
    const std::string base = ReadFile(path);
    gWrites.clear();
    blockfile_io::Write = RecordWrite;
    std::vector<size_t> appendEnds;     // writes done when append i returned
    const unsigned long n = 60;
    for (unsigned long i = 0; i < n; ++i) {
        const int rc = AppendText(f, Payload(i * 13 % 97), i * 13 % 97);
        appendEnds.push_back(gWrites.size());
        if (rc != BLOCKFILE_OK || (commit && !f.Commit()))
            break;
    }
    blockfile_io::Write = nullptr;
    ASSERT_EQ(appendEnds.size(), n);
    // The stream's stamps are not consecutive: map them back to append order.
    std::vector<long long> order(97, -1);
    for (unsigned long i = 0; i < n; ++i)
        order[i * 13 % 97] = static_cast<long long>(i);

    size_t images = 0;
    for (size_t k = 0; k <= gWrites.size(); ++k) {
        std::vector<size_t> cuts = {0};
        if (k < gWrites.size())
            cuts = TearPoints(gWrites[k]), cuts.insert(cuts.begin(), 0);
        for (size_t cut : cuts) {
            std::string image = base;
            for (size_t j = 0; j < k; ++j)
                Apply(image, gWrites[j], gWrites[j].bytes.size());
            if (cut > 0)
                Apply(image, gWrites[k], cut);
            WriteFile(copy, image);
            ++images;
            size_t completed = std::upper_bound(appendEnds.begin(), appendEnds.end(), k) - appendEnds.begin();
            cBlockFile g;
            ASSERT_TRUE(g.Open(copy, false)) << "after " << k << " writes, cut " << cut;
            std::vector<long long> seq;
            for (unsigned long i = 0; i < g.Count(); ++i) {
                sRead r = ReadAt(g, i);
                ASSERT_EQ(r.result, BLOCKFILE_OK) << "after " << k << " writes, cut " << cut;
                ASSERT_EQ(r.data, Payload(r.bstime));
                seq.push_back(order.at(r.bstime));
            }
            // A torn last write of an append can still hold all its bytes that
            // differ (the high bytes of a link are often zero already).
            if (cut > 0 && completed < n && appendEnds[completed] == k + 1 && !seq.empty() &&
                seq.back() == static_cast<long long>(completed))
                ++completed;
            // A consecutive run of appends ending with the last completed one;
            // a full ring may already have dropped one more of its oldest.
            const size_t kept = maxCount == 0 ? completed : std::min<size_t>(completed, maxCount);
            ASSERT_TRUE(seq.size() == kept || (maxCount != 0 && completed >= maxCount && seq.size() + 1 == kept))
                << "after " << k << " writes: " << seq.size() << " blocks, " << completed << " appends done";
            for (size_t i = 0; i < seq.size(); ++i)
                ASSERT_EQ(seq[i], static_cast<long long>(completed - seq.size() + i))
                    << "max " << maxCount << " after " << k << " writes, cut " << cut << " size " << seq.size();
        }
    }
    EXPECT_GT(images, gWrites.size());
}

}  // namespace

TEST_F(BlockFile, PowerCutAtAnyWriteKeepsEveryCompletedBlock)
{
    ReplayPowerCuts(dir, 0, false);
    ReplayPowerCuts(dir, 5, false);
    ReplayPowerCuts(dir, 7, true);
}

// A writer killed with SIGKILL at random moments, again and again, on the same
// file: every block whose append it reported survives, intact and in order.
TEST_F(BlockFile, KillDuringAppendsLosesNoCompletedBlock)
{
    for (unsigned long maxCount : {0UL, 50UL}) {
        const std::string file = dir + "/killed" + std::to_string(maxCount);
        long long last = -1;    // youngest stamp known to be complete
        for (int round = 0; round < 6; ++round) {
            orvo_test::sChild child = orvo_test::StartChild(
                [&](int toParent) {
                    cBlockFile w;
                    if (!w.Open(file, true) || !w.SetMaxCount(maxCount))
                        return 1;
                    unsigned long long next = 0;
                    if (w.Count() > 0)
                        next = ReadAt(w, w.Count() - 1).bstime + 1;
                    for (;; ++next) {
                        if (AppendText(w, Payload(next), next) != BLOCKFILE_OK)
                            return 2;
                        (void)!write(toParent, &next, sizeof next);
                    }
                },
                30);
            unsigned long long reported = 0;
            const int wanted = 200 + round * 150;
            for (int i = 0; i < wanted; ++i)
                ASSERT_EQ(read(child.pipe, &reported, sizeof reported), static_cast<ssize_t>(sizeof reported));
            usleep(static_cast<useconds_t>(round * 300));
            kill(child.pid, SIGKILL);
            while (read(child.pipe, &reported, sizeof reported) == static_cast<ssize_t>(sizeof reported)) {
            }
            EXPECT_EQ(orvo_test::EndChild(child), -1);
            long long youngest = -1;
            unsigned long count = 0;
            ASSERT_TRUE(ChainIsIntact(file, &youngest, &count)) << "round " << round;
            ASSERT_GE(youngest, static_cast<long long>(reported));
            ASSERT_LE(youngest, static_cast<long long>(reported) + 1);
            ASSERT_GT(youngest, last);
            if (maxCount == 0)
                ASSERT_EQ(count, static_cast<unsigned long>(youngest + 1));
            else
                ASSERT_GE(count, maxCount - 1);
            last = youngest;
        }
    }
}

TEST_F(BlockFile, CommitSyncsOnlyAnOpenFile)
{
    cBlockFile f;
    EXPECT_FALSE(f.Commit());
    ASSERT_TRUE(f.Open(path, true));
    EXPECT_TRUE(f.Commit());
    ASSERT_EQ(AppendText(f, Payload(0), 0), BLOCKFILE_OK);
    EXPECT_TRUE(f.Commit());
    long long youngest = -1;
    unsigned long count = 0;
    EXPECT_TRUE(ChainIsIntact(path, &youngest, &count));
    EXPECT_EQ(count, 1u);
}

TEST_F(BlockFile, LongRunningRingKeepsTheNewestBlocks)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    ASSERT_TRUE(f.SetMaxCount(100));
    const unsigned long n = 5000;    // the front passes several chunks of the chain
    for (unsigned long i = 0; i < n; ++i)
        ASSERT_EQ(AppendText(f, Payload(i), i), BLOCKFILE_OK);
    const std::vector<unsigned long long> stamps = Stamps(f);
    ASSERT_EQ(stamps.size(), 100u);
    EXPECT_EQ(stamps.front(), n - 100);
    EXPECT_EQ(stamps.back(), n - 1);
    // Blocks of up to 106 bytes reuse the space of dropped ones.
    EXPECT_LT(ReadFile(path).size(), 100u * (26 + 106) * 2);
    f.Close();
    long long youngest = -1;
    unsigned long count = 0;
    ASSERT_TRUE(ChainIsIntact(path, &youngest, &count));
    EXPECT_EQ(count, 100u);
    EXPECT_EQ(youngest, static_cast<long long>(n - 1));
}

namespace {

// A writer that kills itself with SIGKILL around its n-th write (0 = the
// first write after the hook is installed): before the write, or just after
// it.
int gKillAtWrite = -1;
bool gKillAfterWrite = false;

ssize_t KillingWrite(int fd, const void* data, size_t len, off_t pos)
{
    if (gKillAtWrite-- == 0) {
        if (gKillAfterWrite)
            (void)!pwrite(fd, data, len, pos);
        kill(getpid(), SIGKILL);
    }
    return pwrite(fd, data, len, pos);
}

// Runs Body in a child process with the killing write installed; the child
// must die by the signal.
void RunKilledAt(int write, bool after, const std::function<void()>& body)
{
    orvo_test::sChild child = orvo_test::StartChild(
        [&](int) {
            gKillAtWrite = write;
            gKillAfterWrite = after;
            body();
            return 3;    // not killed: the write never came
        },
        30);
    ASSERT_EQ(orvo_test::EndChild(child), -1) << "write " << write << (after ? " after" : " before");
}

}  // namespace

// Clear and the Open that creates a file, killed before and after each of
// their writes, and at random moments: every file opens again afterwards.
TEST_F(BlockFile, AKilledClearOrCreationLeavesAFileThatOpens)
{
    for (bool after : {false, true}) {
        // Creation: the header is its one write.
        unlink(path.c_str());
        RunKilledAt(0, after, [&] {
            blockfile_io::Write = KillingWrite;
            cBlockFile f;
            (void)f.Open(path, true);
        });
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true)) << (after ? "after" : "before") << " the creating write";
        EXPECT_EQ(f.Count(), 0u);
        ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);
        f.Close();
        // Clear of a file with blocks: its header write (and the maximum count's).
        for (int write : {0, 1}) {
            RunKilledAt(write, after, [&] {
                cBlockFile g;
                if (!g.Open(path, true) || !g.SetMaxCount(5))
                    _exit(4);
                blockfile_io::Write = KillingWrite;
                g.Clear();
            });
            ASSERT_TRUE(f.Open(path, true)) << "write " << write;
            EXPECT_LE(f.Count(), 1u);
            ASSERT_EQ(AppendText(f, "b", 2), BLOCKFILE_OK);
            f.Close();
        }
    }
    // Random moments in a loop of clears and appends.
    for (int run = 0; run < 200; ++run) {
        orvo_test::sChild child = orvo_test::StartChild(
            [&](int toParent) {
                cBlockFile g;
                char ready = 1;
                (void)!write(toParent, &ready, 1);
                for (unsigned long long i = 0;; ++i) {
                    if (!g.Open(path, true))
                        return 5;
                    (void)AppendText(g, "x", i);
                    g.Clear();
                }
            },
            30);
        char ready = 0;
        ASSERT_EQ(read(child.pipe, &ready, 1), 1);
        usleep(static_cast<useconds_t>(run % 20) * 50);
        kill(child.pid, SIGKILL);
        ASSERT_EQ(orvo_test::EndChild(child), -1) << "run " << run;
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true)) << "run " << run << ": " << ReadFile(path).size() << " bytes";
    }
}

// In a full ring, Append drops the oldest block (header rewrite) before it
// writes the new one: a kill between the two leaves one block fewer, and
// nothing damaged. With a maximum of 1 that is the only block.
TEST_F(BlockFile, AKillBetweenTheRingsHeaderAndBlockWritesLosesTheOldest)
{
    for (unsigned long maxCount : {3UL, 1UL}) {
        unlink(path.c_str());
        {
            cBlockFile f;
            ASSERT_TRUE(f.Open(path, true));
            ASSERT_TRUE(f.SetMaxCount(maxCount));
            for (unsigned long long i = 0; i < maxCount; ++i)
                ASSERT_EQ(AppendText(f, Payload(i), i), BLOCKFILE_OK);
        }
        RunKilledAt(0, true, [&] {
            cBlockFile g;
            if (!g.Open(path, true))
                _exit(4);
            blockfile_io::Write = KillingWrite;
            (void)AppendText(g, Payload(maxCount), maxCount);
        });
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, false));
        EXPECT_EQ(f.GetDamage(), "");
        ASSERT_EQ(f.Count(), maxCount - 1);
        for (unsigned long i = 0; i < f.Count(); ++i) {
            const sRead r = ReadAt(f, i);
            ASSERT_EQ(r.result, BLOCKFILE_OK);
            EXPECT_EQ(r.bstime, i + 1);
        }
    }
}

TEST_F(BlockFile, EqualStampsKeepChainOrderInARange)
{
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, true));
    for (unsigned long i = 0; i < 40; ++i)
        ASSERT_EQ(AppendText(f, "x", i % 5 == 0 ? 7 : 9, 1700000000000ULL + (i % 3)), BLOCKFILE_OK);
    std::deque<unsigned long> byStamp, byCTime;
    ASSERT_EQ(f.GetIndizesByTime(byStamp, 1ULL, 100ULL), 40u);
    ASSERT_EQ(f.GetIndizesByTime(byCTime, Ms(1), Ms(1800000000000ULL)), 40u);
    std::vector<unsigned long> stamp7, stamp9, ctimes[3];
    for (unsigned long i = 0; i < 40; ++i) {
        (i % 5 == 0 ? stamp7 : stamp9).push_back(i);
        ctimes[i % 3].push_back(i);
    }
    std::vector<unsigned long> wanted = stamp7;
    wanted.insert(wanted.end(), stamp9.begin(), stamp9.end());
    EXPECT_EQ(std::vector<unsigned long>(byStamp.begin(), byStamp.end()), wanted);
    wanted = ctimes[0];
    wanted.insert(wanted.end(), ctimes[1].begin(), ctimes[1].end());
    wanted.insert(wanted.end(), ctimes[2].begin(), ctimes[2].end());
    EXPECT_EQ(std::vector<unsigned long>(byCTime.begin(), byCTime.end()), wanted);
}

// The reserved header words are written as 0 whatever the file held.
TEST_F(BlockFile, ReservedHeaderWordsAreWrittenAsZero)
{
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
    }
    std::string bytes = ReadFile(path);
    PutLe(bytes, 9, 0xDEADBEEF, 4);
    PutLe(bytes, 13, 0x01020304, 4);
    WriteFile(path, bytes);
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);     // rewrites the header
    EXPECT_EQ(Le(ReadFile(path), 9, 4), 0u);
    EXPECT_EQ(Le(ReadFile(path), 13, 4), 0u);
    f.Clear();
    EXPECT_EQ(ReadFile(path), std::string("\x01\x00\x00\x00\x00", 5) + std::string(12, '\0'));
}

// Files of large blocks are walked one header read at a time: the same chain,
// the same damage rules.
TEST_F(BlockFile, LargeBlocksOpenHeaderByHeader)
{
    const std::string big(20 * 1024, 'L');
    {
        cBlockFile f;
        ASSERT_TRUE(f.Open(path, true));
        for (unsigned long long i = 0; i < 12; ++i)
            ASSERT_EQ(AppendText(f, big + std::to_string(i), i), BLOCKFILE_OK);
    }
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(f.Count(), 12u);
    EXPECT_EQ(ReadAt(f, 11).data, big + "11");
    f.Close();
    std::string bytes = ReadFile(path);
    const size_t fifth = 17 + 5 * (26 + big.size() + 1);
    std::fill(bytes.begin() + static_cast<long>(fifth), bytes.begin() + static_cast<long>(fifth) + 26, '\0');
    WriteFile(path, bytes.substr(0, bytes.size() - 5));    // and the last payload cut short
    ASSERT_TRUE(f.OpenReadOnly(path));
    EXPECT_EQ(f.Count(), 5u);
    EXPECT_EQ(ReadAt(f, 4).data, big + "4");
    EXPECT_NE(f.GetDamage().find("block 5 at position " + std::to_string(fifth)), std::string::npos);
}
