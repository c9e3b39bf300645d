// Record lists, text and structured paths, and the record text forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::BytesOf;

namespace {

cRecord UInt(const char* name, unsigned v)
{
    cRecord r;
    r.AppendUIntPar(name, v, 0);
    return r;
}

// A list given as raw bytes.
cRecordList ListOf(const std::string& bytes)
{
    cRecord holder;
    holder.AppendIRecPar("l", cRecordList(cMemBuffer(bytes.data(), static_cast<int>(bytes.size())), 0,
                                          static_cast<int>(bytes.size())), 0);
    cRecordList list;
    holder.GetFirstPar().GetIRec(list);
    return list;
}

}  // namespace

TEST(RecordList, BytesAndIteration)
{
    cRecordList list;
    EXPECT_EQ(list.GetCount(), 0);
    cRecord rec;
    EXPECT_FALSE(list.GetFirst(rec));

    list.AddTail(UInt("a", 1));
    list.AddTail(cRecord());
    list.AddTail(UInt("b", 2));
    EXPECT_EQ(BytesOf(list), std::string("\x05\x03\x03" "a\0\x01" "\x00" "\x05\x03\x03" "b\0\x02", 13));
    EXPECT_EQ(list.GetCount(), 3);

    // Walk: views into the list, the empty entry included.
    ASSERT_TRUE(list.GetFirst(rec));
    EXPECT_EQ(rec.GetFirstPar("a").GetUInt(), 1u);
    EXPECT_GE(rec.GetBuffer(), list.GetBuffer());
    ASSERT_TRUE(list.GetNext(rec));
    EXPECT_TRUE(rec.IsEmpty());
    ASSERT_TRUE(list.GetNext(rec));
    EXPECT_EQ(rec.GetFirstPar("b").GetUInt(), 2u);
    const char* last = rec.GetBuffer();
    EXPECT_FALSE(list.GetNext(rec));
    EXPECT_EQ(rec.GetBuffer(), last);

    // Appending to an entry view copies it out; the list is unchanged.
    const std::string before = BytesOf(list);
    rec.AppendBoolPar("c", true, 0);
    EXPECT_EQ(BytesOf(list), before);

    // Copies share; AddTail and Remove give the list a new block.
    cRecordList copy(list);
    EXPECT_EQ(copy.GetBuffer(), list.GetBuffer());
    cRecordList more;
    more.AddTail(UInt("z", 9));
    list.AddTail(more);
    EXPECT_EQ(list.GetCount(), 4);
    EXPECT_EQ(copy.GetCount(), 3);
    cRecord first;
    list.GetFirst(first);
    list.Remove(first);
    EXPECT_EQ(list.GetCount(), 3);
    EXPECT_EQ(BytesOf(list).substr(0, 1), std::string("\x00", 1));
    EXPECT_EQ(first.GetFirstPar("a").GetUInt(), 1u);   // still the old bytes

    // A single empty child: one entry, an empty record.
    cRecordList one;
    one.AddTail(cRecord());
    cRecord e = UInt("x", 1);
    EXPECT_TRUE(one.GetCount() == 1 && one.GetFirst(e) && e.IsEmpty());
}

TEST(RecordList, DamagedListsEndTheWalk)
{
    std::string good("\x05\x03\x03" "a\0\x01", 6);
    // Second entry of 32001 bytes, all present: treated as damage.
    std::string big = good + "\x81\xFA\x01" + std::string(32001, '\0');
    EXPECT_EQ(ListOf(big).GetCount(), 1);
    // 32000 bytes still pass.
    std::string limit = good + "\x80\xFA\x01" + std::string(32000, '\0');
    EXPECT_EQ(ListOf(limit).GetCount(), 2);
    // The first entry is not limited.
    EXPECT_EQ(ListOf(std::string("\x81\xFA\x01", 3) + std::string(32001, '\0')).GetCount(), 1);
    // Entry running past the end, and a cut size varint.
    EXPECT_EQ(ListOf(good + "\x09\x01").GetCount(), 1);
    EXPECT_EQ(ListOf(good + "\x80").GetCount(), 1);
    EXPECT_EQ(ListOf(std::string("\x07\x01", 2)).GetCount(), 0);
}

TEST(RecordListDeath, EntryViewsOnly)
{
    cRecordList list;
    list.AddTail(UInt("a", 1));
    cRecord foreign = UInt("a", 1);
    cRecord none;
    EXPECT_DEATH(list.GetNext(none), "orvo assertion failed: pRec>pList \\(orvo_record: ");
    cRecord inside;
    list.GetFirst(inside);
    cRecordList shorter(list.GetMemBuffer(), 0, 3);
    EXPECT_DEATH(shorter.GetNext(inside), "orvo assertion failed: pRec<=pEnd \\(orvo_record: ");
    EXPECT_DEATH(list.Remove(foreign), "orvo assertion failed: Offs(>=0|\\+Size<=m_Buffer.GetBufferSize\\(\\))");
}

TEST(RecordPath, TextPaths)
{
    cRecord c;
    c.AppendUIntPar("c", 3, 0);
    c.AppendUIntPar("leaf", 4, 0);
    cRecord b;
    b.AppendRecordPar("b", c, 0);
    cRecord root;
    root.AppendUIntPar("x", 1, 0);
    root.AppendRecordPar("a", b, 0);

    EXPECT_EQ(root.GetFirstParByPath("a.b.c", ".").GetUInt(), 3u);
    EXPECT_EQ(root.GetFirstParByPath("a..b", ".") == root.GetFirstParByPath("a.b", "."), true);
    EXPECT_STREQ(root.GetFirstParByPath("/a/b/", "/").GetName(), "b");
    EXPECT_FALSE(root.GetFirstParByPath("a.missing.c", ".").IsValid());
    EXPECT_FALSE(root.GetFirstParByPath("a.b.none", ".").IsValid());
    // A token behind a leaf is ignored: the leaf is kept.
    EXPECT_STREQ(root.GetFirstParByPath("x.y.z", ".").GetName(), "x");
    // The type filter applies to the intermediate levels too.
    EXPECT_FALSE(root.GetFirstParByPath("a.b.c", ".", RECORD_UINT, RECORD_SEL_TYPE).IsValid());
    EXPECT_FALSE(root.GetFirstParByPath(nullptr, ".").IsValid());
    EXPECT_FALSE(root.GetFirstParByPath("a", nullptr).IsValid());
    // 255 characters are accepted, 256 are refused.
    const std::string pad = "a" + std::string(251, '.') + "b.c";
    ASSERT_EQ(pad.size(), 255u);
    EXPECT_EQ(root.GetFirstParByPath(pad.c_str(), ".").GetUInt(), 3u);
    EXPECT_FALSE(root.GetFirstParByPath((pad + ".").c_str(), ".").IsValid());
}

TEST(RecordPath, StructuredLevels)
{
    cRecordPath path;
    EXPECT_FALSE(path.GetFirstEntry().IsValid());
    EXPECT_EQ(path.ToString(), "root");

    path.AddLevel("x", cRecord());
    path.AddLevel("y", UInt("k", 1));
    cRecordPathEntry e = path.GetFirstEntry();
    ASSERT_TRUE(e.IsValid());
    EXPECT_EQ(e.GetLevel(), "x");
    cRecord filter = UInt("stale", 1);
    EXPECT_TRUE(e.GetFilter(filter));
    EXPECT_TRUE(filter.IsEmpty());
    ASSERT_TRUE(path.SeekNextEntry(e));
    EXPECT_EQ(e.GetLevel(), "x.y");
    EXPECT_TRUE(e.GetFilter(filter));
    EXPECT_EQ(filter.GetFirstPar("k").GetUInt(), 1u);
    EXPECT_FALSE(path.SeekNextEntry(e));
    EXPECT_FALSE(e.IsValid());
    EXPECT_EQ(path.ToString(), "x<empty>= y<{k=1 }>=");

    // A root level "." adds nothing to the names below it.
    cRecordPath dotted;
    dotted.AddLevel(".", cRecord());
    dotted.AddLevel("y", cRecord());
    cRecordPathEntry d = dotted.GetFirstEntry();
    EXPECT_EQ(d.GetLevel(), ".");
    dotted.SeekNextEntry(d);
    EXPECT_EQ(d.GetLevel(), "y");
    EXPECT_EQ(cRecordPath(path.GetRecord()).GetFirstEntry().GetLevel(), "x");
}

TEST(RecordText, TokenAndIndentedForms)
{
    cRecord r;
    r.AppendUIntPar("a", 1, 0);
    r.AppendEmtpyPar("b", RECORD_TEXT);
    EXPECT_EQ(r.ToString(), "{a=1, b= }");
    r.AppendPar("n", 0);   // type none has no text, not the previous one
    EXPECT_EQ(r.ToString(), "{a=1, b=, n= }");
    EXPECT_EQ(std::string(r.GetTokenStr(false, " ").GetBuffer()), " ");
    cRecord nested;
    nested.AppendRecordPar("r", UInt("x", 1), 0);
    EXPECT_EQ(nested.ToString(), "{r={ x=1  } }");
    EXPECT_EQ(nested.GetFirstPar().ToString(), "r={ x=1  }");

    const struct { const char* value; const char* token; } quoting[] = {
        {"ABC", "t=ABC"}, {"abc", "t=\"abc\""}, {"X\"Y", "t=\"X\"\"Y\""}, {"(A", "t=\"(A\""},
        {"A B", "t=\"A B\""}, {"A;B", "t=\"A;B\""}, {"A=B", "t=\"A=B\""}, {"A-1.5", "t=A-1.5"},
        {"", "t="}};
    for (const auto& q : quoting) {
        cRecord t;
        t.AppendTextPar("t", q.value, 0);
        EXPECT_EQ(t.GetFirstPar().ToString(), q.token) << q.value;
    }

    // Exactly 1024 bytes print, 1025 give the size message.
    const std::vector<char> fill(1020, 'x');
    cRecord big;
    big.AppendDataPar("d", fill.data(), 1019, 0);
    ASSERT_EQ(big.GetSize(), 1024);
    EXPECT_EQ(big.ToString().substr(0, 8), "{d=78.78");
    big.Create();
    big.AppendDataPar("d", fill.data(), 1020, 0);
    EXPECT_EQ(big.ToString(), "{record to large for printing, size=1025; size must be less-than 1024; }");

    cRecord two;
    two.AppendSIntPar("s", -1, RECORD_FLAG_MARKED | RECORD_FLAG_TEMPLATE);
    two.AppendTextPar("l", "cfg[a=b]=42", RECORD_FLAG_EXTERNAL);
    two.AppendRecordPar("r", UInt("x", 255), 0);
    two.AppendRecordPar("e", cRecord(), 0);
    EXPECT_EQ(two.ToString2(),
              "s <sint> =  [marked] [template]-1 (0xFFFFFFFF)\n"
              "l <text> =  [external cfg[a=b]]42\n"
              "r <record> = \n"
              "   x <uint> = 255 (0xFF)\n"
              "e <record> = [-empty-]\n");
    EXPECT_EQ(cRecord().ToString2(1), "   .[empty].\n");
    cRecord deep = UInt("x", 1);
    for (int i = 0; i < 3; ++i) {
        cRecord outer;
        outer.AppendRecordPar("n", deep, 0);
        deep = outer;
    }
    EXPECT_EQ(deep.ToString2(0, 1), "n <record> = \n   n <record> = \n      ...\n");
}
