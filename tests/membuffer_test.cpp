// cMemBuffer: exact sizing, sharing, copy on write and the invariants.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "orvo_membuffer.h"

using orvo::cMemBuffer;

namespace {

const char kBytes[] = "0123456789abcdef";

// The assertion line for a quoted expression, as a regular expression.
std::string AssertRe(const char* expr)
{
    std::string re = "orvo assertion failed: ";
    for (const char* p = expr; *p != 0; ++p) {
        if (std::strchr("()[]{}*+?.|^$\\", *p) != nullptr)
            re += '\\';
        re += *p;
    }
    return re + " \\(orvo_record: ";
}

}  // namespace

TEST(MemBuffer, CreateSizesExactlyAndZeroFills)
{
    cMemBuffer b;
    EXPECT_EQ(b.GetBuffer(), nullptr);
    EXPECT_EQ(b.GetBufferSize(), 0);

    char* p = b.Create(kBytes, 4, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(b.GetBufferSize(), 16);
    EXPECT_EQ(b.GetCapacity(), 16);
    EXPECT_EQ(std::memcmp(p, "0123", 4), 0);
    for (int i = 4; i < 16; ++i)
        EXPECT_EQ(p[i], 0) << i;

    // Size is cut to NewSize before it is checked: no assertion, empty.
    EXPECT_EQ(b.Create(kBytes, 10, 0), nullptr);
    EXPECT_EQ(b.GetBufferSize(), 0);
    EXPECT_EQ(b.GetRefCount(), 0);

    // NewSize -1 means Size; a null source gives zeros.
    b.Create(kBytes, 5);
    EXPECT_EQ(b.GetBufferSize(), 5);
    b.Create(nullptr, 3, 6);
    EXPECT_EQ(std::string(b.GetBuffer(), 6), std::string(6, '\0'));
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
    EXPECT_EQ(std::string(c.GetBuffer(), 16), std::string(kBytes, 16));
    EXPECT_EQ(c.GetRefCount(), 1);

    // Unshared with the same capacity: the block is reused.
    char* same = a.GetBuffer();
    EXPECT_EQ(a.Create("QR", 2, 16), same);
    EXPECT_EQ(std::string(same, 3), std::string("QR\0", 3));

    // A view at an offset is moved down to the block's start in place.
    cMemBuffer v;
    v.Create(cMemBuffer(kBytes, 16), 4, 8);
    EXPECT_EQ(v.GetRefCount(), 1);
    char* block = v.GetBuffer() - 4;
    EXPECT_EQ(v.Create(v.GetBuffer(), 8, 16), block);
    EXPECT_EQ(std::string(block, 8), "456789ab");

    // Assignment shares; self-assignment keeps the block alive.
    cMemBuffer d;
    d = c;
    cMemBuffer& alias = d;
    d = alias;
    EXPECT_EQ(c.GetRefCount(), 2);
    EXPECT_EQ(std::string(d.GetBuffer(), 4), "0123");
}

TEST(MemBuffer, ResizeCopyAndViews)
{
    cMemBuffer b(kBytes, 4);
    char* p = b.SetBufferSize(8);
    EXPECT_EQ(std::string(p, 8), std::string("0123\0\0\0\0", 8));
    EXPECT_EQ(b.SetBufferSize(0), nullptr);
    EXPECT_EQ(b.GetRefCount(), 0);
    p = b.SetBufferSize(3);   // on an empty buffer: a zero-filled block
    EXPECT_EQ(std::string(p, 3), std::string(3, '\0'));

    cMemBuffer src(kBytes, 16);
    cMemBuffer keep(src);
    src.CreateCopy(2, 3);
    EXPECT_EQ(std::string(src.GetBuffer(), 3), "234");
    EXPECT_EQ(src.GetBufferSize(), 3);
    EXPECT_EQ(keep.GetRefCount(), 1);

    // Sub-view constructor accepts length 0; Create(Buf, Offs, 0) empties.
    cMemBuffer zero(keep, 16, 0);
    EXPECT_EQ(zero.GetRefCount(), 2);
    EXPECT_EQ(zero.GetBufferSize(), 0);
    cMemBuffer e(keep);
    EXPECT_EQ(e.Create(keep, 3, 0), nullptr);
    EXPECT_EQ(keep.GetRefCount(), 2);   // keep and zero
    cMemBuffer sub(keep, 10, 6);
    EXPECT_EQ(std::string(sub.GetBuffer(), 6), "abcdef");
}

TEST(MemBufferDeath, Assertions)
{
    cMemBuffer b(kBytes, 8);
    EXPECT_DEATH(cMemBuffer(b, -1, 2), AssertRe("m_Offset>=0"));
    EXPECT_DEATH(cMemBuffer(b, 0, -1), AssertRe("m_Size>=0"));
    EXPECT_DEATH(cMemBuffer(b, 4, 5),
                 AssertRe("(m_pData==0 && m_Size==0) || (m_pData!=0 && m_Offset+m_Size<=m_pData->m_Size)"));
    EXPECT_DEATH(cMemBuffer().Create(b, 6, 3),
                 AssertRe("(m_pData==0 && m_Size==0) || (m_pData!=0 && m_Size>0 && m_Offset+m_Size<=m_pData->m_Size)"));
    EXPECT_DEATH(b.Create(kBytes, 1, -2), AssertRe("NewSize >= 0"));
    EXPECT_DEATH(b.Create(kBytes, -1, 4), AssertRe("Size >= 0 && Size <= NewSize"));
    EXPECT_DEATH(b.SetBufferSize(-1), AssertRe("Size >= 0"));
    EXPECT_DEATH(b.CreateCopy(0, -1), "char\\* orvo::cMemBuffer::CreateCopy\\(int, int\\)");
}
