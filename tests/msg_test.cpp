#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "orvo_handle.h"
#include "orvo_msg.h"
#include "tesk.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::BytesOf;

namespace {

// Registered stand-ins for objects of the channel, state-machine and timer
// families: only their addresses and handles matter to a message.
int gCh, gSm, gTm;
cChannel* const kCh = reinterpret_cast<cChannel*>(&gCh);
cStateMachine* const kSm = reinterpret_cast<cStateMachine*>(&gSm);
cTimer* const kTm = reinterpret_cast<cTimer*>(&gTm);

cUuid MakeTid()  // bytes 0xA0..0xAF
{
    unsigned char b[16];
    for (int i = 0; i < 16; ++i)
        b[i] = static_cast<unsigned char>(0xA0 + i);
    cUuid tid;
    tid.Create(b, 16);
    return tid;
}

std::string Le32(uint32_t v)
{
    return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

}  // namespace

TEST(Msg, TypeHeaderAndSize)
{
    cMsg m(0x12345678ul);
    EXPECT_EQ(m.GetType(), 0x345678ul);
    EXPECT_EQ(m.GetGroup(), 0x345ul);
    EXPECT_TRUE(m != 0x12345678ul && m == 0x345678ul);
    m.SetUnused(0xAB);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(m.GetHeader()), 4), "\x78\x56\x34\xAB");

    ASSERT_EQ(m.Create(0, "\x01\x30\x00\xCD", 4, nullptr, nullptr), 1);
    EXPECT_EQ(m.GetType(), 0x3001ul);
    EXPECT_EQ(m.GetUnused(), 0xCD);
    EXPECT_EQ(m.GetSize(), 4);
    m.GetRecord().AppendDataPar("d", "abcdef", 6);  // 10 record bytes
    m.SetTid(MakeTid());
    m.SetStatem(kSm);
    EXPECT_EQ(m.GetSize(), 30);  // the token is not counted
}

TEST(Msg, PayloadKindsRoundTrip)
{
    uint32_t h = HandleCreate(&gSm, HANDLE_STATEM);
    cMsg m(0x10190ul, nullptr, kSm);
    m.SetUnused(0x5A);
    m.SetTid(MakeTid());
    m.GetRecord().AppendDataPar("d", "abcdef", 6);
    const std::string tid(static_cast<const char*>(m.GetTid().GetBuffer()), 16);
    for (unsigned char kind = 0; kind <= 3; ++kind) {
        SCOPED_TRACE(kind);
        std::string expect = std::string("\x90\x01\x01\x5A") + ((kind & 1) ? tid : "") +
                             ((kind & 2) ? Le32(h) : "") + BytesOf(m.GetRecord());
        std::string out;
        ASSERT_EQ(m.Serialize(kind, out), 1);
        EXPECT_EQ(out, expect);
        char buf[64];
        EXPECT_EQ(m.Serialize(kind, buf, static_cast<int>(out.size()) - 1), -2);

        cMsg back;
        ASSERT_EQ(back.Create(kind, out.data(), static_cast<int>(out.size()), kCh, nullptr), 1);
        EXPECT_EQ(std::memcmp(back.GetHeader(), m.GetHeader(), 4), 0);
        EXPECT_EQ(back.GetTid().IsValid(), (kind & 1) != 0);
        EXPECT_EQ(back.GetStatem(), (kind & 2) ? kSm : nullptr);
        EXPECT_EQ(back.GetChannel(), kCh);
        EXPECT_EQ(BytesOf(back.GetRecord()), BytesOf(m.GetRecord()));
    }
    std::string untouched = "x";
    EXPECT_EQ(m.Serialize(4, untouched), -1);
    EXPECT_EQ(untouched, "x");
    HandleRelease(h);
}

TEST(Msg, ShortAndCutPayloads)
{
    cMsg m(0x4003ul, kCh, nullptr);
    m.SetTid(MakeTid());
    m.GetRecord().AppendUIntPar("n", 1);
    m.SetTimer(kTm);
    const std::string rec = BytesOf(m.GetRecord());
    EXPECT_EQ(m.Create(4, "\1\2\3\4\5", 5, nullptr, kSm), -1);
    EXPECT_EQ(m.GetChannel(), kCh);  // unknown kind: nothing changes
    EXPECT_EQ(m.GetTimer(), kTm);
    for (int size = 0; size < 4; ++size) {
        m.SetTimer(kTm);
        EXPECT_EQ(m.Create(3, "\1\2\3", size, nullptr, kSm), -2);
        // References are taken and the timer dropped; the rest stays.
        EXPECT_TRUE(m.GetChannel() == nullptr && m.GetStatem() == kSm && m.GetTimer() == nullptr);
        EXPECT_EQ(m.GetType(), 0x4003ul);
    }
    // Fields a successful parse does not carry survive it.
    ASSERT_EQ(m.Create(0, "\x01\x30\x00\x00", 4, nullptr, nullptr), 1);
    EXPECT_TRUE(m.GetTid().IsValid());
    EXPECT_EQ(BytesOf(m.GetRecord()), rec);

    // Heap copies of exactly `size` bytes, so ASan sees any overread. Cut
    // inside the tid: the bytes present, then zeros, valid, no record.
    uint32_t h = HandleCreate(&gSm, HANDLE_STATEM);
    std::string full = "\1\2\3\4\5\6\7\x08\x09\x0A" + std::string(10, 'x') + Le32(h);
    cMsg m1;
    ASSERT_EQ(m1.Create(1, std::string(full, 0, 10).data(), 10, nullptr, nullptr), 1);
    EXPECT_TRUE(m1.GetTid().IsValid());
    EXPECT_EQ(std::string(static_cast<const char*>(m1.GetTid().GetBuffer()), 16),
              "\5\6\7\x08\x09\x0A" + std::string(10, '\0'));
    EXPECT_TRUE(m1.GetRecord().IsEmpty());
    // A cut token never resolves, even when its present bytes match a handle.
    for (int size : {20, 21, 23, 24}) {
        cMsg m3;
        ASSERT_EQ(m3.Create(3, std::string(full, 0, size).data(), size, nullptr, kSm), 1);
        EXPECT_EQ(m3.GetStatem(), size == 24 ? kSm : nullptr) << size;
        EXPECT_TRUE(m3.GetRecord().IsEmpty());
    }
    HandleRelease(h);
}

TEST(Msg, RecordFormCarriesHandles)
{
    cRecord r;
    cMsg(0x101ul).ToRecord(r);  // a bare message carries only its header
    EXPECT_EQ(r.GetParCount(), 1);
    EXPECT_EQ(r.GetFirstPar("header", RECORD_DATA, RECORD_SEL_TYPE).GetSize(), 4);

    uint32_t hc = HandleCreate(&gCh, HANDLE_CHANNEL), hs = HandleCreate(&gSm, HANDLE_STATEM);
    uint32_t ht = HandleCreate(&gTm, HANDLE_TIMER);
    cMsg m(0x4002ul, kCh, kSm);
    m.SetTimer(kTm);
    m.SetUnused(7);
    m.SetTid(MakeTid());
    m.GetRecord().AppendUIntPar("n", 1);
    m.ToRecord(r);
    cRecordPar par = r.GetFirstPar();
    for (const char* name : {"header", "channel", "timer", "statem", "tid", "record"}) {
        EXPECT_TRUE(par.HasName(name)) << name;
        r.SeekNextPar(par);
    }
    EXPECT_EQ(r.GetFirstPar("statem").GetUInt(), hs);  // handles, not addresses
    cMsg back(0x999ul);
    EXPECT_TRUE(back.FromRecord(r));
    EXPECT_EQ(std::memcmp(back.GetHeader(), m.GetHeader(), 4), 0);
    EXPECT_TRUE(back.GetChannel() == kCh && back.GetStatem() == kSm && back.GetTimer() == kTm);
    EXPECT_EQ(back.GetTid(), m.GetTid());
    EXPECT_EQ(BytesOf(back.GetRecord()), BytesOf(m.GetRecord()));

    // Released handles and handles of another kind resolve to nothing; a
    // pointer without a handle is left out.
    HandleRelease(hs);
    r.SetUIntPar("timer", hc);
    EXPECT_TRUE(back.FromRecord(r));
    EXPECT_TRUE(back.GetStatem() == nullptr && back.GetTimer() == nullptr);
    m.ToRecord(r);
    EXPECT_FALSE(r.GetFirstPar("statem").IsValid());
    HandleRelease(hc);
    HandleRelease(ht);

    // A header of the wrong size is refused; the rest is still taken.
    cRecord bad;
    bad.AppendDataPar("header", "\x01\x30\x00", 3);
    bad.AppendUuidPar("tid", MakeTid());
    EXPECT_FALSE(back.FromRecord(bad));
    EXPECT_EQ(back.GetType(), 0ul);
    EXPECT_TRUE(back.GetTid().IsValid());
}

TEST(Msg, TextFormAndCopies)
{
    EXPECT_EQ(cMsg(0x101ul).ToString(), "{type=0x000101 (0x000101)}");
    cMsg m(0x3001ul, kCh, kSm);
    m.SetTid(MakeTid());
    m.GetRecord().AppendUIntPar("n", 5);
    m.GetRecord().AppendTextPar("s", "AB");
    // The channel prints only once its family installed a printer; the state
    // machine never.
    EXPECT_EQ(m.ToString(), std::string("{type=") + GetMsgTypeTxt(0x3001) +
                                " (0x003001), tid=A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF, record={n=5, s=AB }}");

    cMsg c(m), d;
    d = m;
    const cMsg& same = d;
    d = same;  // self-assignment keeps everything
    EXPECT_EQ(c.GetRecord().GetBuffer(), m.GetRecord().GetBuffer());  // shared payload
    EXPECT_EQ(d.GetRecord().GetBuffer(), m.GetRecord().GetBuffer());
    EXPECT_TRUE(d.GetStatem() == kSm && d.GetTid() == m.GetTid());
    d.GetRecord().AppendUIntPar("x", 1);
    EXPECT_EQ(BytesOf(c.GetRecord()), BytesOf(m.GetRecord()));  // copy on write
    EXPECT_NE(BytesOf(d.GetRecord()), BytesOf(m.GetRecord()));
    EXPECT_TRUE(d.Create());
    EXPECT_TRUE(d.GetSize() == 4 && d.GetStatem() == nullptr && !d.GetTid().IsValid());
}
