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

// A 74-byte payload: blocks of exactly 100 bytes, block i at At(i).
std::string Fixed(unsigned long long n)
{
    std::string p = "block " + std::to_string(n) + ":";
    p.resize(74, static_cast<char>('a' + n % 26));
    return p;
}

size_t At(size_t i)
{
    return 17 + 100 * i;
}

// A 20 KiB payload: a file of these is walked one header read at a time.
std::string Large(unsigned long long n)
{
    return std::string(20 * 1024, 'L') + std::to_string(n);
}

const std::string kNewHeader = std::string("\x01", 1) + std::string(16, '\0');

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

// Creates path anew (bounded to maxCount, 0: unbounded) with the blocks
// payload(i), stamp i, for i below n.
::testing::AssertionResult MakeFile(const std::string& path, unsigned long maxCount, unsigned long long n,
                                    std::string (*payload)(unsigned long long) = Payload)
{
    ::unlink(path.c_str());
    cBlockFile f;
    if (!f.Open(path, true) || !f.SetMaxCount(maxCount))
        return ::testing::AssertionFailure() << "cannot create " << path;
    for (unsigned long long i = 0; i < n; ++i)
        if (AppendText(f, payload(i), i) != BLOCKFILE_OK)
            return ::testing::AssertionFailure() << "append " << i << " failed";
    return ::testing::AssertionSuccess();
}

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

// Open(path, false) with chains read through windows of the file for a
// MapLimit of 0, mapped otherwise.
bool OpenWithMapLimit(cBlockFile& f, const std::string& path, unsigned long long limit)
{
    const unsigned long long saved = blockfile_io::MapLimit;
    blockfile_io::MapLimit = limit;
    const bool opened = f.Open(path, false);
    blockfile_io::MapLimit = saved;
    return opened;
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

// A new file is exactly the header; its reserved words are written as 0
// whatever the file held, by a header rewrite and by Clear.
TEST_F(BlockFile, TheFileHeaderIsWrittenAsSpecified)
{
    cBlockFile f;
    EXPECT_FALSE(f.Open(path, false));
    ASSERT_TRUE(f.Open(path, true));
    EXPECT_TRUE(f.IsValid());
    EXPECT_EQ(ReadFile(path), kNewHeader);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(f.GetHeaderSize(), 17u);
    EXPECT_EQ(cBlock::GetHeaderSize(), 26u);
    f.Close();

    std::string bytes = ReadFile(path);
    PutLe(bytes, 9, 0xDEADBEEF, 4);
    PutLe(bytes, 13, 0x01020304, 4);
    WriteFile(path, bytes);
    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(AppendText(f, "a", 1), BLOCKFILE_OK);     // rewrites the header
    EXPECT_EQ(Le(ReadFile(path), 9, 8), 0u);
    f.Clear();
    EXPECT_EQ(ReadFile(path), kNewHeader);

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

    const char* const names[] = {"", "", "BLOCKFILE_ERR", "BLOCKFILE_CRC_ERR", "BLOCKFILE_WRONG_POS",
                                 "BLOCKFILE_READ_PAYLOAD_ERR", "BLOCKFILE_INVALID", ""};
    for (int code = 0; code <= BLOCKFILE_INVALID + 1; ++code)
        EXPECT_EQ(GetBlockFileErrorText(code), *names[code] ? "error " + std::string(names[code]) + " \n" : "")
            << code;
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

// One file of sixty 100-byte blocks (payload Fixed(i) at At(i)), bounded to
// 99, damaged one way per row and opened three ways. OpenReadOnly never
// changes a byte and reads every block before the damage; Open(name, false)
// opens with those blocks, refuses the file or wipes it; Open(name, true)
// differs where no block of the file can be found and starts it anew. Where a
// writing open succeeds, an append goes on from the last block read and the
// file then opens whole.
TEST_F(BlockFile, DamageEndsTheChainRefusesWipesOrStartsAnew)
{
    ASSERT_TRUE(MakeFile(path, 99, 60, Fixed));
    const std::string good = ReadFile(path);
    ASSERT_EQ(good.size(), At(60));
    auto with = [&](size_t at, uint64_t v, int n) {
        std::string b = good;
        PutLe(b, at, v, n);
        return b;
    };
    auto zeroed = [&](size_t at, size_t len) {
        std::string b = good;
        std::fill_n(b.begin() + static_cast<long>(at), len, '\0');
        return b;
    };
    enum { kRefused = -1, kWiped = -2, kAnew = -3 };
    struct sCase {
        const char* what;
        std::string bytes;
        int open;        // blocks after Open(name, false), kRefused or kWiped
        int create;      // the same for Open(name, true), or kAnew
        int readOnly;    // blocks after OpenReadOnly, or kRefused
        int crcAt;       // the block that reads BLOCKFILE_CRC_ERR, -1: none
        long stopAt;     // GetDamage's position, -1: the walk reached a "next" of 0
    };
    const std::vector<sCase> cases = {
        {"intact", good, 60, 60, 60, -1, -1},
        // A block header whose size is below 26 ends the chain.
        {"header of block 0 zeroed", zeroed(At(0), 26), 0, 0, 0, -1, 17},
        {"header of block 1 zeroed", zeroed(At(1), 26), 1, 1, 1, -1, 117},
        {"header of block 30 zeroed", zeroed(At(30), 26), 30, 30, 30, -1, 3017},
        {"header of block 59 zeroed", zeroed(At(59), 26), 59, 59, 59, -1, 5917},
        // A zeroed 512-byte sector: the block it starts in reads with a bad
        // CRC, and the chain ends at the first header it zeroed or at that
        // block when its "next" was zeroed.
        {"sector 1: block 4's payload end, blocks 5 to 9", zeroed(512, 512), 5, 5, 5, 4, 517},
        {"sector 2: block 10's header from its CRC on, block 11", zeroed(1024, 512), 11, 11, 11, 10, 1117},
        {"sector 10: block 51's header from its next on", zeroed(5120, 512), 52, 52, 52, 51, -1},
        // Links that cannot be followed.
        {"block 1 points at itself", with(At(1) + 4, At(1), 4), kRefused, kRefused, 1, -1, 117},
        {"block 0's next at the end of the file", with(At(0) + 4, At(60), 4), kRefused, kRefused, 1, -1, 6017},
        {"block 59 loops back to block 0", with(At(59) + 4, At(0), 4), kRefused, kRefused, 60, -1, 17},
        {"block 59 loops back to block 30", with(At(59) + 4, At(30), 4), kRefused, kRefused, 60, -1, 3017},
        {"oldest block inside the file header", with(5, 3, 4), kRefused, kRefused, 0, -1, 3},
        {"block 1's next header cut by the end of the file", with(At(1) + 4, At(60) - 10, 4), kWiped, kWiped, 2,
         -1, 6007},
        // File headers: a creating open starts anew only a file shorter than
        // its header (a kill while creating); any other header without
        // version 1 is refused, so blocks behind it are not wiped.
        {"version 2", with(0, 2, 1), kRefused, kRefused, kRefused, -1, -1},
        {"empty", "", kRefused, kAnew, kRefused, -1, -1},
        {"16 bytes of the header", good.substr(0, 16), kRefused, kAnew, kRefused, -1, -1},
        {"17 zero bytes (a power cut before the first Commit)", std::string(17, '\0'), kRefused, kRefused,
         kRefused, -1, -1},
        {"sector 0: the file header and blocks 0 to 4", zeroed(0, 512), kRefused, kRefused, kRefused, -1, -1},
    };
    // how: 0 OpenReadOnly, 1 Open(name, false), 2 Open(name, true).
    auto check = [&](const sCase& c, int want, int how) {
        SCOPED_TRACE(how == 0 ? "OpenReadOnly" : how == 1 ? "Open(name, false)" : "Open(name, true)");
        WriteFile(path, c.bytes);
        cBlockFile f;
        const bool opened = how == 0 ? f.OpenReadOnly(path) : f.Open(path, how == 2);
        ASSERT_EQ(opened, want >= 0 || want == kAnew);
        const std::string after = ReadFile(path);
        if (want == kWiped) {
            ASSERT_EQ(after.size(), 17u);
            EXPECT_EQ(Le(after, 1, 4), 99u);    // the maximum count survives
            EXPECT_EQ(Le(after, 5, 4), 0u);
            return;
        }
        if (want == kAnew) {
            EXPECT_EQ(after, kNewHeader);
            EXPECT_EQ(f.Count(), 0u);
            return;
        }
        ASSERT_EQ(after, c.bytes) << "the open wrote";
        if (!opened)
            return;
        ASSERT_EQ(f.Count(), static_cast<unsigned long>(want));
        const std::string damage = c.stopAt < 0 ? "" : "block " + std::to_string(want) + " at position " +
                                                           std::to_string(c.stopAt) + ": ";
        EXPECT_EQ(f.GetDamage().substr(0, damage.size()), damage) << f.GetDamage();
        EXPECT_EQ(f.GetDamage().empty(), damage.empty());
        for (unsigned long i = 0; i < f.Count(); ++i) {
            const sRead r = ReadAt(f, i);
            ASSERT_EQ(r.result, static_cast<int>(i) == c.crcAt ? BLOCKFILE_CRC_ERR : BLOCKFILE_OK) << i;
            if (r.result == BLOCKFILE_OK) {
                ASSERT_EQ(r.data, Fixed(i));
            }
        }
        if (how == 0) {
            EXPECT_EQ(AppendText(f, "new", 99), BLOCKFILE_ERR);
            return;
        }
        ASSERT_EQ(AppendText(f, "new", 99), BLOCKFILE_OK);
        f.Close();
        ASSERT_TRUE(f.Open(path, false));
        ASSERT_EQ(f.Count(), static_cast<unsigned long>(want) + 1);
        EXPECT_EQ(f.GetDamage(), "");
        EXPECT_EQ(ReadAt(f, f.Count() - 1).data, "new");
    };
    for (const sCase& c : cases) {
        SCOPED_TRACE(c.what);
        check(c, c.readOnly, 0);
        check(c, c.open, 1);
        check(c, c.create, 2);
    }
    EXPECT_FALSE(cBlockFile().OpenReadOnly(dir + "/missing"));
}

TEST_F(BlockFile, AFileOpenedReadOnlyIsNeverWritten)
{
    ASSERT_TRUE(MakeFile(path, 2, 2));
    const std::string before = ReadFile(path);
    cRecordFile f;
    ASSERT_TRUE(f.OpenReadOnly(path));
    EXPECT_EQ(AppendText(f, "c", 3), BLOCKFILE_ERR);
    EXPECT_FALSE(f.SetMaxCount(1));
    EXPECT_FALSE(f.Commit());
    f.Clear();
    EXPECT_TRUE(f.IsValid());
    EXPECT_EQ(f.Count(), 2u);
    EXPECT_EQ(ReadAt(f, 1).data, Payload(1));
    f.Close();
    EXPECT_FALSE(f.IsReadOnly());
    EXPECT_EQ(ReadFile(path), before);
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

// Selection by bstime and by creation time, one rule over one chain whose
// creation times are its stamps 1700000000000 ms on: both bounds 0 the
// smallest, both at the top the largest (first among equals), otherwise the
// range in time order, equal times in chain order.
TEST_F(BlockFile, IndicesByTime)
{
    cBlockFile f;
    std::deque<unsigned long> idx;
    EXPECT_EQ(f.GetIndizesByTime(idx, 0ULL, 0ULL), 0u);
    ASSERT_TRUE(f.Open(path, true));
    EXPECT_EQ(f.GetIndizesByTime(idx, 0ULL, 100ULL), 0u);
    EXPECT_EQ(f.GetIndizesByTime(idx, Ms(0), Ms(0)), 0u);
    const unsigned long long base = 1700000000000ULL, top = 0x1FFFFFFFFULL;
    for (unsigned long long s : {50ULL, 10ULL, top, 30ULL, 10ULL, top, 20ULL})
        ASSERT_EQ(AppendText(f, "x", s, base + s), BLOCKFILE_OK);
    struct sCase {
        unsigned long long from, to;   // bstimes; creation times base + these but for the single ones
        std::vector<unsigned long> want;
    };
    const sCase cases[] = {
        {0, 0, {1}},                       // smallest, first among equals
        {0xFFFFFFFFULL, 0xFFFFFFFFULL, {2}},   // largest, first among equals
        {10, 30, {1, 4, 6, 3}},
        {31, top - 1, {0}},
        {40, 0xFFFFFFFFFFULL, {0, 2, 5}},  // an upper bound alone at the top: a plain range
    };
    for (const sCase& c : cases) {
        EXPECT_EQ(f.GetIndizesByTime(idx, c.from, c.to), c.want.size()) << c.from;
        EXPECT_EQ(std::vector<unsigned long>(idx.begin(), idx.end()), c.want) << "bstime " << c.from;
        const bool single = c.from == c.to;
        const unsigned long long from = single ? (c.from == 0 ? 0 : cBlockFile::kNewestCTimeMs) : base + c.from;
        const unsigned long long to = single ? from : base + c.to;
        EXPECT_EQ(f.GetIndizesByTime(idx, Ms(from), Ms(to)), c.want.size()) << from;
        EXPECT_EQ(std::vector<unsigned long>(idx.begin(), idx.end()), c.want) << "ctime " << from;
    }
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
    const unsigned long n = 4000;    // ~0.3 MB: headers straddle read windows
    ASSERT_TRUE(MakeFile(path, 0, n));
    cBlockFile f;
    for (unsigned long long mapLimit : {blockfile_io::MapLimit, 0ULL}) {
        ASSERT_TRUE(OpenWithMapLimit(f, path, mapLimit));
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
    EXPECT_FALSE(OpenWithMapLimit(f, path, 0));
    EXPECT_EQ(ReadFile(path).size(), 17u);    // wiped
}

// ---- crash consistency ---------------------------------------------------------

namespace {

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

// Clear and the Open that creates a file, on bounded files, killed before and
// after each of their writes and of the appends between them (224 kill
// points, each a known step): every file opens afterwards with
// Open(name, true), its chain intact.
TEST_F(BlockFile, AKilledClearOrCreationLeavesAFileThatOpens)
{
    unsigned long maxCount = 0;
    // From a missing file: the creating Open, five appends into a ring of
    // maxCount, Clear, an append, Clear.
    const auto script = [&] {
        cBlockFile g;
        g.SetMaxCount(maxCount);
        if (!g.Open(path, true))
            _exit(4);
        for (unsigned long long i = 0; i < 5; ++i)
            (void)AppendText(g, Payload(i), i);
        g.Clear();
        (void)AppendText(g, Payload(5), 5);
        g.Clear();
    };
    int runs = 0;
    for (maxCount = 1; maxCount <= 6; ++maxCount) {
        unlink(path.c_str());
        gWrites.clear();
        blockfile_io::Write = RecordWrite;
        script();
        blockfile_io::Write = nullptr;
        // The header of the creation; two writes per append (block, link),
        // three once the ring is full (the header dropping the oldest first);
        // two per Clear (its creation's header, then the bound's).
        ASSERT_EQ(gWrites.size(), 1 + 10 + (maxCount < 5 ? 5 - maxCount : 0) + 2 + 2 + 2) << maxCount;
        for (size_t write = 0; write < gWrites.size(); ++write) {
            for (bool after : {false, true}) {
                SCOPED_TRACE("ring of " + std::to_string(maxCount) + ", killed " + (after ? "after" : "before") +
                             " write " + std::to_string(write));
                unlink(path.c_str());
                RunKilledAt(static_cast<int>(write), after, [&] {
                    blockfile_io::Write = KillingWrite;
                    script();
                });
                cBlockFile f;
                ASSERT_TRUE(f.Open(path, true)) << ReadFile(path).size() << " bytes";
                f.Close();
                long long youngest = -1;
                unsigned long count = 0;
                ASSERT_TRUE(ChainIsIntact(path, &youngest, &count));
                EXPECT_LE(count, maxCount);
                ++runs;
            }
        }
    }
    EXPECT_GE(runs, 200);
}

// In a full ring, Append drops the oldest block (header rewrite) before it
// writes the new one: a kill between the two leaves one block fewer, and
// nothing damaged. With a maximum of 1 that is the only block.
TEST_F(BlockFile, AKillBetweenTheRingsHeaderAndBlockWritesLosesTheOldest)
{
    for (unsigned long maxCount : {3UL, 1UL}) {
        ASSERT_TRUE(MakeFile(path, maxCount, maxCount));
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

// Files of large blocks are walked one header read at a time: the same chain,
// the same damage rules.
TEST_F(BlockFile, LargeBlocksOpenHeaderByHeader)
{
    ASSERT_TRUE(MakeFile(path, 0, 12, Large));
    cBlockFile f;
    ASSERT_TRUE(f.Open(path, false));
    ASSERT_EQ(f.Count(), 12u);
    EXPECT_EQ(ReadAt(f, 11).data, Large(11));
    f.Close();
    std::string bytes = ReadFile(path);
    const size_t fifth = 17 + 5 * (26 + Large(0).size());
    std::fill(bytes.begin() + static_cast<long>(fifth), bytes.begin() + static_cast<long>(fifth) + 26, '\0');
    WriteFile(path, bytes.substr(0, bytes.size() - 5));    // and the last payload cut short
    ASSERT_TRUE(f.OpenReadOnly(path));
    EXPECT_EQ(f.Count(), 5u);
    EXPECT_EQ(ReadAt(f, 4).data, Large(4));
    EXPECT_NE(f.GetDamage().find("block 5 at position " + std::to_string(fifth)), std::string::npos);
}
