// cRecord / cRecordPar: byte-exact element encoding, copy on write, capacity
// steps, set/delete semantics, typed getters and damaged bytes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "orvo_obis.h"
#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "orvo_time.h"
#include "orvo_uuid.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Of(const cRecord& r)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(r.GetBuffer());
    return r.IsEmpty() ? Bytes() : Bytes(p, p + r.GetSize());
}

// Reference LEB128 encoder, written independently of the library's.
Bytes Leb(uint64_t v)
{
    Bytes out;
    for (;;) {
        uint8_t b = v % 128;
        v /= 128;
        out.push_back(v ? b + 128 : b);
        if (!v)
            return out;
    }
}

Bytes Element(uint32_t type, const std::string& name, const Bytes& value)
{
    Bytes body(name.begin(), name.end());
    body.push_back(0);
    body.insert(body.end(), value.begin(), value.end());
    Bytes out = Leb(type);
    Bytes len = Leb(body.size());
    out.insert(out.end(), len.begin(), len.end());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// Appends the elements to out.
void Add(Bytes& out, std::initializer_list<Bytes> elements)
{
    for (const Bytes& e : elements)
        out.insert(out.end(), e.begin(), e.end());
}

}  // namespace

TEST(RecordEncoding, ExactBytes)
{
    // Vectors computed outside the library (Python LEB128).
    const struct { void (*append)(cRecord&); Bytes bytes; } cases[] = {
        {[](cRecord& r) { r.AppendSIntPar("a", -1, 0); }, {0x02, 0x07, 0x61, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}},
        {[](cRecord& r) { r.AppendUIntPar("n", 300, 0); }, {0x03, 0x04, 0x6E, 0x00, 0xAC, 0x02}},
        {[](cRecord& r) { r.AppendBoolPar("b", true, 0); }, {0x0A, 0x03, 0x62, 0x00, 0x01}},
        {[](cRecord& r) { r.AppendTextPar("t", nullptr, 0); }, {0x11, 0x02, 0x74, 0x00}},
        {[](cRecord& r) { r.AppendTextPar("t", "hi", 0); }, {0x01, 0x05, 0x74, 0x00, 0x68, 0x69, 0x00}},
        {[](cRecord& r) { r.AppendSIntPar("s", INT32_MIN, 0); }, {0x02, 0x07, 0x73, 0x00, 0x80, 0x80, 0x80, 0x80, 0x08}},
        {[](cRecord& r) { r.AppendSInt64Par("x", -1, 0); },
         {0x08, 0x0C, 0x78, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}},
        // Low nibble of the flags replaced by the type; external needs two bytes.
        {[](cRecord& r) { r.AppendPar("p", 0x125); }, {0xA0, 0x02, 0x02, 0x70, 0x00}},
        // Typed empty element keeps the caller's nibble.
        {[](cRecord& r) { r.AppendEmtpyPar("e", 0x23); }, {0x33, 0x02, 0x65, 0x00}},
        {[](cRecord& r) { cRecord c; c.AppendUIntPar("n", 1, 0); r.AppendRecordPar("r", c, 0); },
         {0x06, 0x08, 0x72, 0x00, 0x05, 0x03, 0x03, 0x6E, 0x00, 0x01}},
        {[](cRecord& r) { r.AppendRecordPar("r", cRecord(), 0); }, {0x16, 0x03, 0x72, 0x00, 0x00}},
    };
    for (const auto& c : cases) {
        cRecord r;
        c.append(r);
        EXPECT_EQ(Of(r), c.bytes);
    }

    // Value types carried as their byte or text forms; a long name needs a
    // two-byte length.
    cTime t;
    ASSERT_TRUE(t.Create(2024, 3, 5, 10, 15, 42, 123));
    cUuid u;
    const uint8_t raw[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    ASSERT_TRUE(u.Create(raw, 16));
    const std::string longName(200, 'k');
    cRecord r;
    r.AppendTimePar("t", t, 0);
    r.AppendUuidPar("u", u, 0);
    r.AppendObisPar("o", cObis("1-0:1.8.0*255"), 0);
    r.AppendDataPar(longName.c_str(), "\x01\x02", 2, 0);
    cTime invalid;
    EXPECT_FALSE(invalid.Create(2024, 2, 30, 0, 0, 0, 0));
    r.AppendTimePar("z", invalid, 0);
    r.AppendUuidPar("y", cUuid(), 0);
    const uint8_t* tb = static_cast<const uint8_t*>(t.GetBuffer());
    const std::string obis = "1-0:1.8.0*255";
    Bytes want;
    Add(want, {Element(4, "t", Bytes(tb, tb + 8)), Element(7, "u", Bytes(raw, raw + 16)),
               Element(11, "o", Bytes(obis.c_str(), obis.c_str() + obis.size() + 1)),
               Element(5, longName, {1, 2}), Element(0x14, "z", {}), Element(0x17, "y", {})});
    EXPECT_EQ(Of(r), want);
}

TEST(Record, CopyOnWriteAndCapacity)
{
    // 1 type + 2 length + "d\0" + 995 = 1000 bytes.
    std::vector<char> fill(995, 'x');
    cRecord r;
    r.AppendDataPar("d", fill.data(), 995, 0);
    ASSERT_EQ(r.GetSize(), 1000);
    EXPECT_EQ(r.GetMemBuffer().GetBufferSize(), 1024);

    // Element of 30 bytes (name + NUL + value): 1000 + 30 + 20 + 1024 -> 2048.
    const char* before = r.GetBuffer();
    r.AppendDataPar("e", fill.data(), 28, 0);
    EXPECT_EQ(r.GetMemBuffer().GetBufferSize(), 2048);
    EXPECT_NE(r.GetBuffer(), before);

    // Unshared and inside the capacity: appended in place.
    const char* inPlace = r.GetBuffer();
    r.AppendBoolPar("f", false, 0);
    EXPECT_EQ(r.GetBuffer(), inPlace);

    // A copy shares; changing the original leaves the copy's bytes alone.
    cRecord copy(r);
    EXPECT_EQ(copy.GetBuffer(), r.GetBuffer());
    const Bytes old = Of(copy);
    r.AppendUIntPar("g", 1, 0);
    EXPECT_NE(copy.GetBuffer(), r.GetBuffer());
    EXPECT_EQ(Of(copy), old);

    // An element view survives deletion and re-setting in the record.
    cRecord s;
    s.AppendTextPar("name", "old", 0);
    cRecordPar view = s.GetFirstPar("name");
    s.SetTextPar("name", "new", 0);
    EXPECT_STREQ(view.GetText(), "old");
    EXPECT_STREQ(s.GetFirstPar("name").GetText(), "new");

    // A record built from bytes has exactly that capacity; a child view
    // copies itself out on its first append without touching the parent.
    cRecord parent;
    cRecord child;
    child.AppendUIntPar("x", 1, 0);
    parent.AppendRecordPar("c", child, 0);
    cRecord view2;
    ASSERT_TRUE(parent.GetFirstPar("c").GetRecord(view2));
    const Bytes parentBytes = Of(parent);
    view2.AppendUIntPar("y", 2, 0);
    EXPECT_EQ(Of(parent), parentBytes);
    EXPECT_EQ(view2.GetParCount(), 2);
    EXPECT_EQ(cRecord("\x03\x03n\0\x01", 5).GetMemBuffer().GetBufferSize(), 5);
}

TEST(Record, SetDeleteAndSearch)
{
    cRecord r;
    r.AppendTextPar("a", "1", 0);
    r.AppendUIntPar("b", 2, 0x20);
    r.AppendTextPar("a", "3", 0);
    r.AppendEmtpyPar("c", RECORD_UINT);

    EXPECT_EQ(r.GetParCount("a"), 2);
    EXPECT_EQ(r.GetParCount(nullptr, RECORD_UINT, RECORD_SEL_TYPE), 2);
    EXPECT_EQ(r.GetParCount(nullptr, RECORD_UINT | 0x10, RECORD_SEL_TYPE | RECORD_SEL_EMPTY), 1);
    EXPECT_EQ(r.GetParCount(nullptr, 0x23, RECORD_SEL_ALL), 1);
    cRecordPar p = r.GetFirstPar("a");
    EXPECT_TRUE(r.SeekNextPar(p, "a"));
    EXPECT_STREQ(p.GetText(), "3");
    EXPECT_FALSE(r.SeekNextPar(p, "a"));
    EXPECT_FALSE(p.IsValid());

    // Set: first element of the name (any type) removed, new one at the end.
    r.SetUIntPar("a", 7, 0);
    EXPECT_EQ(r.GetParCount("a"), 2);
    EXPECT_STREQ(r.GetFirstPar("a").GetText(), "3");
    EXPECT_STREQ(r.GetFirstPar().GetName(), "b");
    cRecordPar last = r.GetFirstPar(nullptr, RECORD_UINT, RECORD_SEL_ALL);
    EXPECT_STREQ(last.GetName(), "a");
    EXPECT_EQ(r.SeekNextPar(last), false);   // it is the last element

    // DeletePar removes only the first match; null name: the first element.
    EXPECT_TRUE(r.DeletePar(nullptr, 0, 0));
    EXPECT_STREQ(r.GetFirstPar().GetName(), "a");
    EXPECT_FALSE(r.DeletePar("missing"));
    cRecord empty;
    EXPECT_FALSE(empty.DeletePar("x"));
    empty.SetBoolPar("x", true);
    empty.SetUIntPar("y", 1);
    EXPECT_EQ(empty.GetParCount(), 2);
    // A null name: the first element goes, whatever its name; nothing is
    // appended.
    empty.SetBoolPar(nullptr, false);
    EXPECT_EQ(empty.GetParCount(), 1);
    EXPECT_STREQ(empty.GetFirstPar().GetName(), "y");
    empty.SetTextPar(nullptr, std::string("v"));
    EXPECT_TRUE(empty.IsEmpty());
    empty.SetRecordPar(nullptr, cRecord());
    EXPECT_TRUE(empty.IsEmpty());

    // DeletePar(Par): Par then views the element that moved into its place.
    cRecordPar first = r.GetFirstPar();
    EXPECT_TRUE(r.DeletePar(first));
    EXPECT_STREQ(first.GetName(), "c");
    cRecord other(r);
    other.AppendBoolPar("z", true);
    cRecordPar foreign = other.GetFirstPar("z");
    EXPECT_FALSE(r.DeletePar(foreign));
    cRecordPar tail = r.GetFirstPar("a");
    EXPECT_TRUE(r.DeletePar(tail));
    EXPECT_FALSE(tail.IsValid());
    EXPECT_EQ(r.GetParCount(), 1);

    // AppendPar copies name, value and all nine type bits.
    cRecord src;
    src.AppendTextPar("l", "x=1", 0x120);
    cRecord dst;
    dst.AppendPar(src.GetFirstPar(), 0x40, 0);
    EXPECT_EQ(Of(dst), Element(0x161, "l", {'x', '=', '1', 0}));
    EXPECT_TRUE(dst.GetFirstPar() == src.GetFirstPar());
}

TEST(RecordPar, Getters)
{
    cRecord r;
    r.AppendUIntPar("u", 4294967295u, 0);
    r.AppendSIntPar("s", -1, 0);
    r.AppendTextPar("big", "5000000000", 0);
    r.AppendTextPar("neg", "-5", 0);
    r.AppendTextPar("one", "1", 0);
    r.AppendSInt64Par("s64", -5000000000LL, 0);
    r.AppendBoolPar("b", true, 0);
    r.AppendDataPar("d", "\x0A\x1B\x2C", 3, 0);
    std::vector<char> data(20, 0x11);
    r.AppendDataPar("long", data.data(), 20, 0);
    r.AppendTextPar("ext", "cfg[a=b]=42", RECORD_FLAG_EXTERNAL);

    EXPECT_EQ(r.GetFirstPar("u").GetSInt(), -1);
    EXPECT_EQ(r.GetFirstPar("s").GetUInt(), 4294967295u);
    EXPECT_STREQ(r.GetFirstPar("s").GetText(), "-1");
    // Text is parsed like a 32-bit atol on every host.
    EXPECT_NE(r.GetFirstPar("big").GetUInt64(), 5000000000ULL);
    EXPECT_EQ(r.GetFirstPar("big").GetUInt64(), 2147483647ULL);
    EXPECT_EQ(r.GetFirstPar("neg").GetSInt64(), -5);
    EXPECT_EQ(r.GetFirstPar("neg").GetUInt64(), 0xFFFFFFFFFFFFFFFBULL);
    EXPECT_TRUE(r.GetFirstPar("one").GetBool());
    EXPECT_FALSE(r.GetFirstPar("neg").GetBool());
    EXPECT_EQ(r.GetFirstPar("s64").GetSInt64(), -5000000000LL);
    EXPECT_STREQ(r.GetFirstPar("s64").GetText(), "-5000000000");
    EXPECT_STREQ(r.GetFirstPar("b").GetText(), "true");
    EXPECT_STREQ(r.GetFirstPar("d").GetText(), "0A.1B.2C");
    EXPECT_STREQ(r.GetFirstPar("long").GetText(),
                 "11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11...,len=20]");
    EXPECT_STREQ(r.GetFirstPar("ext").GetText(), "42");
    EXPECT_STREQ(r.GetFirstPar("ext").GetLink(), "cfg[a=b]=42");
    EXPECT_EQ(r.GetFirstPar("s").GetLink(), nullptr);
    EXPECT_TRUE(r.GetFirstPar("one") == "1");
    EXPECT_TRUE(r.GetFirstPar("one") != "2");
    EXPECT_FALSE(cRecordPar() == "");

    // Time, uuid and obis round trips; mismatched types give invalid values.
    cTime t;
    t.Create(2024, 3, 5, 10, 15, 42, 123);
    cUuid u;
    u.Create();
    r.AppendTimePar("t", t, 0);
    r.AppendUuidPar("id", u, 0);
    r.AppendObisPar("o", cObis("1-0:1.8.0*255"), 0);
    EXPECT_TRUE(r.GetFirstPar("t").GetTime() == t);
    EXPECT_STREQ(r.GetFirstPar("t").GetText(), "05.03.2024 10:15:42.123");
    EXPECT_FALSE(r.GetFirstPar("u").GetTime().IsValid());
    cUuid back;
    EXPECT_TRUE(r.GetFirstPar("id").GetUuid(back));
    EXPECT_TRUE(back == u);
    EXPECT_FALSE(r.GetFirstPar("u").GetUuid(back));
    cObis o;
    EXPECT_TRUE(r.GetFirstPar("o").GetObis(o));
    EXPECT_EQ(o.ToString(), "1-0:1.8.0*255");

    // Type names, codes and the invalid view.
    EXPECT_STREQ(r.GetFirstPar("s64").GetTypeName(), "sint64");
    EXPECT_EQ(cRecordPar::GetTypeByName("obis"), 11);
    EXPECT_EQ(cRecordPar::GetTypeByName("nope"), 0);
    EXPECT_EQ(cRecordPar::GetTypeByName(nullptr), 0);
    cRecord odd("\x0C\x02q\0", 4);
    EXPECT_STREQ(odd.GetFirstPar().GetTypeName(), "");
    cRecordPar none = r.GetFirstPar("missing");
    EXPECT_FALSE(none.IsValid());
    EXPECT_EQ(none.GetText(), nullptr);
    EXPECT_EQ(none.GetUInt(), 0u);
    EXPECT_FALSE(none.HasName("missing"));

    // Record values are printed through the 128-byte text area.
    cRecord child;
    for (int i = 0; i < 40; ++i)
        child.AppendUIntPar("value", i, 0);
    r.AppendRecordPar("rec", child, 0);
    EXPECT_EQ(std::strlen(r.GetFirstPar("rec").GetText()), 127u);
}

TEST(RecordPar, DamagedBytesStayInside)
{
    // Each record is copied into a block of exactly its size, so a read past
    // the end would be caught by the address sanitizer.
    const std::string cases[] = {
        std::string("\x03\x09n\0\x01", 5),          // length runs past the end
        std::string("\x03\x03nn\x01", 5),           // no NUL inside the length
        std::string("\x83", 1),                     // type varint cut
        std::string("\x03\x00", 2),                 // length 0: no name
    };
    for (const std::string& c : cases) {
        cRecord r(c.data(), static_cast<int>(c.size()));
        EXPECT_FALSE(r.GetFirstPar().IsValid());
        EXPECT_EQ(r.GetParCount(), 0);
        EXPECT_EQ(r.ToString(), "{ }");
    }
    // A good element followed by damage: the walk stops after it.
    cRecord two(std::string("\x0A\x03g\0\x01\x03\x09n\0", 9).data(), 9);
    EXPECT_EQ(two.GetParCount(), 1);

    // Values cut inside their element: neutral results, bounded text.
    const std::string text("\x01\x04t\0ab", 6);         // text without NUL
    const std::string sint("\x02\x04s\0\xFF\xFF", 6);   // varint runs out
    const std::string rec("\x06\x04r\0\x09\x01", 6);    // child claims 9 bytes
    cRecord r1(text.data(), 6), r2(sint.data(), 6), r3(rec.data(), 6);
    EXPECT_STREQ(r1.GetFirstPar().GetText(), "ab");
    EXPECT_EQ(r2.GetFirstPar().GetSInt(), 0);
    cRecord child;
    EXPECT_FALSE(r3.GetFirstPar().GetRecord(child));
    EXPECT_EQ(r3.ToString(), "{r={ } }");
}

TEST(Record, SearchAcrossNameAndVarintSizes)
{
    // Names shorter, equal to and longer than eight bytes, two-byte type
    // words and lengths, values of 1 to 17 bytes: every search path.
    const std::string names[] = {"a", "ab", "seven77", "eight888", "a-longer-name-x", "ext", "big"};
    const uint32_t types[] = {5, 5, 5, 5, 5, 0x105, 5};
    Bytes expect;
    cRecord r;
    std::vector<Bytes> values;
    for (size_t i = 0; i < 7; ++i) {
        Bytes v(i == 6 ? 130 : 1 + i * 8 / 3);
        for (size_t k = 0; k < v.size(); ++k)
            v[k] = static_cast<uint8_t>(i * 31 + k + 1);
        values.push_back(v);
        r.AppendDataPar(names[i].c_str(), v.data(), static_cast<int>(v.size()), types[i] & ~0x0F);
        Add(expect, {Element(types[i], names[i], v)});
    }
    for (int n = 1; n <= 17; ++n) {
        const Bytes v(n, static_cast<uint8_t>(n));
        r.AppendDataPar("v", v.data(), n);
        Add(expect, {Element(5, "v", v)});
    }
    ASSERT_EQ(Of(r), expect);
    const cRecord copy(r.GetBuffer(), r.GetSize());   // block of exactly its size
    for (size_t i = 0; i < 7; ++i) {
        const cRecordPar p = copy.GetFirstPar(names[i].c_str());
        ASSERT_TRUE(p.IsValid()) << names[i];
        EXPECT_EQ(Bytes(p.GetData(), p.GetData() + p.GetSize()), values[i]) << names[i];
        EXPECT_EQ(copy.GetParCount(names[i].c_str()), 1) << names[i];
    }
    for (const char* missing : {"", "seven7", "eight88", "eight8888", "a-longer-name", "b"})
        EXPECT_FALSE(copy.GetFirstPar(missing).IsValid()) << missing;
    EXPECT_EQ(copy.GetParCount("v"), 17);
    EXPECT_EQ(copy.GetParCount(nullptr, RECORD_FLAG_EXTERNAL, RECORD_SEL_MARKS), 1);
    cRecordPar last = copy.GetFirstPar("v");
    int n = 1;
    while (copy.SeekNextPar(last, "v"))
        ++n;
    EXPECT_EQ(n, 17);

    // Damage with plenty of bytes behind it ends the walk there as well: a
    // name without NUL, a NUL right behind the length, a long name without
    // NUL inside its length.
    const Bytes good = Element(3, "x", {1});
    const Bytes tail = Element(1, "t", {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0});
    const Bytes bad[] = {{3, 2, 'n', 'n', 1}, {3, 2, 'n', 'n', 0, 1}, {3, 9, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 0}};
    for (const Bytes& b : bad) {
        Bytes all;
        Add(all, {good, b, tail});
        cRecord d(all.data(), static_cast<int>(all.size()));
        EXPECT_TRUE(d.GetFirstPar("x").IsValid());
        EXPECT_FALSE(d.GetFirstPar("t").IsValid());
        EXPECT_EQ(d.GetParCount(), 1);
    }
}

TEST(Record, VarintValuesAndNameHits)
{
    // Every varint length for 32- and 64-bit values, against the reference
    // encoder; read back from a block of exactly the record's size.
    for (int k = 0; k <= 64; ++k) {
        const uint64_t top = k == 64 ? ~0ULL : (1ULL << k);
        for (const uint64_t v : {top - 1, top}) {
            cRecord w;
            w.AppendUInt64Par("w", v, 0);
            if (v <= 0xFFFFFFFFULL)
                w.AppendUIntPar("u", static_cast<unsigned int>(v), 0);
            Bytes want = Element(9, "w", Leb(v));
            if (v <= 0xFFFFFFFFULL)
                Add(want, {Element(3, "u", Leb(v))});
            ASSERT_EQ(Of(w), want) << v;
            const cRecord r(w.GetBuffer(), w.GetSize());
            EXPECT_EQ(r.GetFirstPar("w").GetUInt64(), v);
            EXPECT_EQ(r.GetFirstPar("w").GetSInt64(), static_cast<long long>(v));
            if (v <= 0xFFFFFFFFULL) {
                EXPECT_EQ(r.GetFirstPar("u").GetUInt(), v);
                EXPECT_EQ(r.GetFirstPar("u").GetSInt(), static_cast<int>(static_cast<uint32_t>(v)));
            }
        }
    }
    // Over-long forms drop the groups beyond the width; a cut form reads 0.
    const std::string odd("\x03\x08u\0\x81\x80\x80\x80\x90\x01"          // 1 + 2^32 + 2^35
                          "\x09\x0Dw\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x00"
                          "\x03\x05" "c\0\x80\x80\x80", 32);
    const cRecord o(odd.data(), static_cast<int>(odd.size()));
    EXPECT_EQ(o.GetFirstPar("u").GetUInt(), 1u);
    EXPECT_EQ(o.GetFirstPar("w").GetUInt64(), ~0ULL);
    EXPECT_EQ(o.GetFirstPar("c").GetUInt(), 0u);

    // Names sharing their first byte, an empty name, type filters on a name
    // hit, and a record appended to itself.
    cRecord n;
    for (const char* name : {"s", "", "st", "status", "sx"})
        n.AppendUIntPar(name, static_cast<unsigned int>(std::strlen(name)), 0);
    n.AppendTextPar("s", "text", 0);
    for (const char* name : {"s", "", "st", "status", "sx"})
        EXPECT_EQ(n.GetFirstPar(name).GetUInt(), std::strlen(name)) << name;
    for (const char* name : {"stat", "status1", "t", "sxx"})
        EXPECT_FALSE(n.GetFirstPar(name).IsValid()) << name;
    EXPECT_STREQ(n.GetFirstPar("s", RECORD_TEXT, RECORD_SEL_TYPE).GetText(), "text");
    const Bytes before = Of(n);
    n.AppendRecordPar("self", n, 0);
    Bytes inner = Leb(before.size()), want = before;
    Add(inner, {before});
    Add(want, {Element(6, "self", inner)});
    EXPECT_EQ(Of(n), want);
}

TEST(RecordDeath, Assertions)
{
    cRecord r;
    const std::string re = orvo_test::AssertRe("OldSize+Size>0", "orvo_record");
    EXPECT_DEATH(r.CheckSize(0), re);
    r.AppendBoolPar("b", true);
    EXPECT_DEATH(r.CheckSize(-r.GetSize()), re);
}
