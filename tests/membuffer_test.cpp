// cMemBuffer: exact sizing, sharing, copy on write and the invariants.
#include <gtest/gtest.h>

#include <malloc.h>

#include <string>
#include <thread>
#include <vector>

#include "orvo_membuffer.h"
#include "test_helpers.h"

using orvo::cMemBuffer;

namespace {

const char kBytes[] = "0123456789abcdef";

std::string Held(const char* p, int n) { return std::string(p, static_cast<size_t>(n)); }

std::string Re(const char* expr) { return orvo_test::AssertRe(expr, "orvo_record"); }

}  // namespace

TEST(MemBuffer, CreateSizesExactlyAndZeroFills)
{
    cMemBuffer b;
    char* p = b.Create(kBytes, 4, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(b.GetBufferSize(), 16);
    EXPECT_EQ(b.GetCapacity(), 16);
    EXPECT_EQ(Held(p, 16), std::string("0123") + std::string(12, '\0'));

    // Size is cut to NewSize before it is checked: no assertion, empty.
    EXPECT_EQ(b.Create(kBytes, 10, 0), nullptr);
    EXPECT_EQ(b.GetBufferSize(), 0);
    EXPECT_EQ(b.GetRefCount(), 0);

    // NewSize -1 means Size; a null source gives zeros.
    b.Create(kBytes, 5);
    EXPECT_EQ(b.GetBufferSize(), 5);
    b.Create(nullptr, 3, 6);
    EXPECT_EQ(Held(b.GetBuffer(), 6), std::string(6, '\0'));
}

TEST(MemBuffer, SharingAndCopyOnWrite)
{
    cMemBuffer a(kBytes, 16);
    cMemBuffer c(a);
    EXPECT_EQ(c.GetBuffer(), a.GetBuffer());
    EXPECT_EQ(a.GetRefCount(), 2);

    // Shared: a new block even though the capacity would fit; c keeps its bytes.
    char* old = a.GetBuffer();
    a.Create("XYZ", 3, 16);
    EXPECT_NE(a.GetBuffer(), old);
    EXPECT_EQ(Held(c.GetBuffer(), 16), Held(kBytes, 16));
    EXPECT_EQ(c.GetRefCount(), 1);

    // Unshared with the same capacity: the block is reused.
    char* same = a.GetBuffer();
    EXPECT_EQ(a.Create("QR", 2, 16), same);
    EXPECT_EQ(Held(same, 3), Held("QR", 3));

    // A view at an offset is moved down to the block's start in place.
    cMemBuffer v;
    v.Create(cMemBuffer(kBytes, 16), 4, 8);
    EXPECT_EQ(v.GetRefCount(), 1);
    char* block = v.GetBuffer() - 4;
    EXPECT_EQ(v.Create(v.GetBuffer(), 8, 16), block);
    EXPECT_EQ(Held(block, 8), "456789ab");

    // Assignment shares; self-assignment keeps the block alive.
    cMemBuffer d;
    d = c;
    cMemBuffer& alias = d;
    d = alias;
    EXPECT_EQ(c.GetRefCount(), 2);
    EXPECT_EQ(Held(d.GetBuffer(), 4), "0123");
}

TEST(MemBuffer, ResizeCopyAndViews)
{
    cMemBuffer b(kBytes, 4);
    EXPECT_EQ(Held(b.SetBufferSize(8), 8), Held("0123\0\0\0\0", 8));
    EXPECT_EQ(b.SetBufferSize(0), nullptr);
    EXPECT_EQ(b.GetRefCount(), 0);
    EXPECT_EQ(Held(b.SetBufferSize(3), 3), std::string(3, '\0'));   // empty: a zeroed block

    cMemBuffer src(kBytes, 16);
    cMemBuffer keep(src);
    src.CreateCopy(2, 3);
    EXPECT_EQ(Held(src.GetBuffer(), 3), "234");
    EXPECT_EQ(src.GetBufferSize(), 3);
    EXPECT_EQ(keep.GetRefCount(), 1);

    // Sub-view constructor accepts length 0; Create(Buf, Offs, 0) empties.
    cMemBuffer zero(keep, 16, 0);
    EXPECT_EQ(zero.GetRefCount(), 2);
    EXPECT_EQ(zero.GetBufferSize(), 0);
    cMemBuffer e(keep);
    EXPECT_EQ(e.Create(keep, 3, 0), nullptr);
    EXPECT_EQ(keep.GetRefCount(), 2);   // keep and zero
    EXPECT_EQ(Held(cMemBuffer(keep, 10, 6).GetBuffer(), 6), "abcdef");
}

TEST(MemBufferDeath, Assertions)
{
    cMemBuffer b(kBytes, 8);
    EXPECT_DEATH(cMemBuffer(b, -1, 2), Re("m_Offset>=0"));
    EXPECT_DEATH(cMemBuffer(b, 0, -1), Re("m_Size>=0"));
    EXPECT_DEATH(cMemBuffer(b, 4, 5),
                 Re("(m_pData==0 && m_Size==0) || (m_pData!=0 && m_Offset+m_Size<=m_pData->m_Size)"));
    EXPECT_DEATH(cMemBuffer().Create(b, 6, 3),
                 Re("(m_pData==0 && m_Size==0) || (m_pData!=0 && m_Size>0 && m_Offset+m_Size<=m_pData->m_Size)"));
    EXPECT_DEATH(b.Create(kBytes, 1, -2), Re("NewSize >= 0"));
    EXPECT_DEATH(b.Create(kBytes, -1, 4), Re("Size >= 0 && Size <= NewSize"));
    EXPECT_DEATH(b.SetBufferSize(-1), Re("Size >= 0"));
    EXPECT_DEATH(b.CreateCopy(0, -1), "char\\* orvo::cMemBuffer::CreateCopy\\(int, int\\)");
}

// In place (sole holder, same capacity): a null source keeps the first Size
// bytes and zeroes only those behind them; with a new block there is
// nothing to keep.
TEST(MemBuffer, InPlaceCreateWithoutSourceKeepsTheLeadingBytes)
{
    cMemBuffer b;
    char* block = b.Create(kBytes, 8);
    EXPECT_EQ(b.Create(nullptr, 3, 8), block);
    EXPECT_EQ(Held(block, 8), std::string("012") + std::string(5, '\0'));

    cMemBuffer shared(b);
    char* fresh = b.Create(nullptr, 3, 8);
    EXPECT_NE(fresh, block);
    EXPECT_EQ(Held(fresh, 8), std::string(8, '\0'));
}

// A small block let go of is kept by its thread for the next block of about
// its size: the next one gets the same memory, sized and zeroed as a new
// block would be; a much smaller request gets its own block.
TEST(MemBuffer, ALetGoSmallBlockServesTheNextOfAboutItsSize)
{
    cMemBuffer a;
    char* first = a.Create(kBytes, 16);
    a.Create();

    cMemBuffer b;
    char* again = b.Create(nullptr, 0, 12);
    EXPECT_EQ(again, first);
    EXPECT_EQ(b.GetCapacity(), 12);
    EXPECT_EQ(Held(again, 12), std::string(12, '\0'));   // nothing of the old bytes
    b.Create(kBytes, 16, 64);
    char* big = b.GetBuffer();
    b.Create();

    // Over twice the request: the spare stays for a better fit.
    cMemBuffer tiny;
    EXPECT_NE(tiny.Create(kBytes, 16), big);
    cMemBuffer fits;
    EXPECT_EQ(fits.Create(kBytes, 16, 40), big);
    EXPECT_EQ(Held(fits.GetBuffer(), 40), std::string(kBytes, 16) + std::string(24, '\0'));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The block a thread keeps is freed when the thread ends, whichever thread
// made it: threads that each let go of a block and end leave nothing held.
TEST(MemBuffer, AThreadsKeptBlockIsFreedWhenItEnds)
{
    auto run = [] {
        std::vector<cMemBuffer> made(40);
        for (cMemBuffer& b : made)
            b.Create(nullptr, 0, 1000);
        std::vector<std::thread> threads;
        for (cMemBuffer& b : made)
            threads.emplace_back([&b] { b.Create(); });
        for (std::thread& t : threads)
            t.join();
    };
    run();   // the C library's own per-thread allocations settle first
    const size_t before = mallinfo2().uordblks;
    run();
    run();
    const size_t after = mallinfo2().uordblks;
    // 80 kept blocks would be 80 kB.
    EXPECT_LT(after, before + 8000) << before << " -> " << after;
}
#endif
