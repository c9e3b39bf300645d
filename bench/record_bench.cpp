// record_bench.cpp - what a typical record costs: build it, send its bytes,
// receive them and read every field back by name, with liborvo's cRecord,
// with protobuf and msgpack on the same content, and with a minimal
// hand-written codec of the record element format as the floor. Also: the
// cost of copying a record (must not depend on its size) and of appending
// 1000 elements (capacity grows in 1024-byte steps).
//
// The ratios of the summary printed at the end come from the medians of this
// one run. `record_bench --loop=<codec>[-encode|-decode]:<count>` runs only
// the round trip (or one half of it) of one codec (orvo, protobuf, msgpack,
// handwritten) <count> times, without the benchmark framework, as a small
// driver for callgrind or perf.

#include <benchmark/benchmark.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include <msgpack.hpp>

#include "orvo_record.h"
#include "record_bench.pb.h"

using orvo::cRecord;
using orvo::cRecordPar;

// ---------------------------------------------------------------------------
// Allocation counter: every operator new of the process (liborvo's and the
// peers' included) bumps it, so the summary can say how many heap
// allocations one round trip makes. The count costs one add per allocation,
// the same for every codec. The replacements are kept out of line so that
// every new and delete goes through them (and memory checkers see matching
// pairs).

namespace {
unsigned long long gAllocations = 0;

void* CountedAlloc(std::size_t n)
{
    ++gAllocations;
    return std::malloc(n != 0 ? n : 1);
}
}  // namespace

#define ORVO_BENCH_NOINLINE __attribute__((noinline))

ORVO_BENCH_NOINLINE void* operator new(std::size_t n)
{
    if (void* p = CountedAlloc(n))
        return p;
    throw std::bad_alloc();
}
ORVO_BENCH_NOINLINE void* operator new[](std::size_t n)
{
    if (void* p = CountedAlloc(n))
        return p;
    throw std::bad_alloc();
}
ORVO_BENCH_NOINLINE void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return CountedAlloc(n); }
ORVO_BENCH_NOINLINE void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return CountedAlloc(n); }
ORVO_BENCH_NOINLINE void operator delete(void* p) noexcept { std::free(p); }
ORVO_BENCH_NOINLINE void operator delete[](void* p) noexcept { std::free(p); }
ORVO_BENCH_NOINLINE void operator delete(void* p, std::size_t) noexcept { std::free(p); }
ORVO_BENCH_NOINLINE void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
ORVO_BENCH_NOINLINE void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
ORVO_BENCH_NOINLINE void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

// ---------------------------------------------------------------------------
// The content: a meter reading with two small unsigned numbers, a negative
// number, a 64-bit counter, a flag, two short texts, a 16-byte key and a
// nested time stamp of two fields.

const unsigned kId = 17;
const unsigned kStatus = 3;
const int kOffset = -120;
const unsigned long long kEnergy = 123456789012ULL;
const bool kValid = true;
const char kName[] = "meter-01";
const char kUnit[] = "kWh";
const unsigned char kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
const unsigned kSec = 1700000000;
const unsigned kMs = 250;

// What a reader takes out of a received message. Texts and the key point
// into the receiver's own copy of the bytes (no codec copies them again).
struct tValues {
    unsigned id;
    unsigned status;
    int offset;
    unsigned long long energy;
    bool valid;
    const char* name;
    const char* unit;
    const void* key;
    size_t keySize;
    unsigned sec;
    unsigned ms;
};

bool ValuesOk(const tValues& v)
{
    return v.id == kId && v.status == kStatus && v.offset == kOffset && v.energy == kEnergy &&
           v.valid == kValid && v.name != nullptr && std::strcmp(v.name, kName) == 0 &&
           v.unit != nullptr && std::strcmp(v.unit, kUnit) == 0 && v.keySize == sizeof kKey &&
           v.key != nullptr && std::memcmp(v.key, kKey, sizeof kKey) == 0 && v.sec == kSec &&
           v.ms == kMs;
}

// ---------------------------------------------------------------------------
// liborvo. The record's bytes are its serialised form: the sender copies
// them into the outgoing buffer, the receiver builds its own record from the
// incoming bytes (one private copy, as a message decoder does).

cRecord BuildOrvo()
{
    cRecord stamp;
    stamp.AppendUIntPar("sec", kSec);
    stamp.AppendUIntPar("ms", kMs);
    cRecord rec;
    rec.AppendUIntPar("id", kId);
    rec.AppendUIntPar("status", kStatus);
    rec.AppendSIntPar("offset", kOffset);
    rec.AppendUInt64Par("energy", kEnergy);
    rec.AppendBoolPar("valid", kValid);
    rec.AppendTextPar("name", kName);
    rec.AppendTextPar("unit", kUnit);
    rec.AppendDataPar("key", kKey, sizeof kKey);
    rec.AppendRecordPar("stamp", stamp);
    return rec;
}

void ReadOrvo(const cRecord& rec, tValues& v)
{
    v.id = rec.GetFirstPar("id").GetUInt();
    v.status = rec.GetFirstPar("status").GetUInt();
    v.offset = rec.GetFirstPar("offset").GetSInt();
    v.energy = rec.GetFirstPar("energy").GetUInt64();
    v.valid = rec.GetFirstPar("valid").GetBool();
    // Text values are NUL-terminated inside the record's bytes, so the
    // pointer outlives the element view.
    v.name = rec.GetFirstPar("name").GetText();
    v.unit = rec.GetFirstPar("unit").GetText();
    const cRecordPar key = rec.GetFirstPar("key");
    v.key = key.GetData();
    v.keySize = static_cast<size_t>(key.GetSize());
    cRecord stamp;
    rec.GetFirstPar("stamp").GetRecord(stamp);
    v.sec = stamp.GetFirstPar("sec").GetUInt();
    v.ms = stamp.GetFirstPar("ms").GetUInt();
}

void SendOrvo(std::string& wire)
{
    const cRecord rec = BuildOrvo();
    wire.assign(rec.GetBuffer(), static_cast<size_t>(rec.GetSize()));
}

void ReceiveOrvo(const std::string& wire, tValues& v)
{
    const cRecord received(wire.data(), static_cast<int>(wire.size()));
    ReadOrvo(received, v);
}

// ---------------------------------------------------------------------------
// protobuf: fresh messages on both sides (as a service builds one per
// request), the outgoing buffer reused.

void SendProto(std::string& wire)
{
    orvobench::Reading msg;
    msg.set_id(kId);
    msg.set_status(kStatus);
    msg.set_offset(kOffset);
    msg.set_energy(kEnergy);
    msg.set_valid(kValid);
    msg.set_name(kName);
    msg.set_unit(kUnit);
    msg.set_key(kKey, sizeof kKey);
    orvobench::Stamp* stamp = msg.mutable_stamp();
    stamp->set_sec(kSec);
    stamp->set_ms(kMs);
    msg.SerializeToString(&wire);
}

void ReadProto(const orvobench::Reading& msg, tValues& v)
{
    v.id = msg.id();
    v.status = msg.status();
    v.offset = msg.offset();
    v.energy = msg.energy();
    v.valid = msg.valid();
    v.name = msg.name().c_str();
    v.unit = msg.unit().c_str();
    v.key = msg.key().data();
    v.keySize = msg.key().size();
    v.sec = msg.stamp().sec();
    v.ms = msg.stamp().ms();
}

// The message must live as long as the values point into it.
void ReceiveProto(const std::string& wire, orvobench::Reading& msg, tValues& v)
{
    msg.ParseFromString(wire);
    ReadProto(msg, v);
}

// ---------------------------------------------------------------------------
// msgpack: a map of the same names; packed into a reused buffer, unpacked
// into its object tree (strings copied into the unpacker's zone) and read by
// a linear search of the map's keys, as cRecord reads by name.

using tPacker = msgpack::packer<msgpack::sbuffer>;

template <size_t N>
void PackStr(tPacker& pk, const char (&s)[N])
{
    pk.pack_str(N - 1);
    pk.pack_str_body(s, N - 1);
}

void SendMsgpack(msgpack::sbuffer& wire)
{
    wire.clear();
    tPacker pk(wire);
    pk.pack_map(9);
    PackStr(pk, "id");
    pk.pack_uint32(kId);
    PackStr(pk, "status");
    pk.pack_uint32(kStatus);
    PackStr(pk, "offset");
    pk.pack_int32(kOffset);
    PackStr(pk, "energy");
    pk.pack_uint64(kEnergy);
    PackStr(pk, "valid");
    pk.pack(kValid);
    PackStr(pk, "name");
    PackStr(pk, kName);
    PackStr(pk, "unit");
    PackStr(pk, kUnit);
    PackStr(pk, "key");
    pk.pack_bin(sizeof kKey);
    pk.pack_bin_body(reinterpret_cast<const char*>(kKey), sizeof kKey);
    PackStr(pk, "stamp");
    pk.pack_map(2);
    PackStr(pk, "sec");
    pk.pack_uint32(kSec);
    PackStr(pk, "ms");
    pk.pack_uint32(kMs);
}

template <size_t N>
const msgpack::object* Lookup(const msgpack::object& map, const char (&key)[N])
{
    if (map.type != msgpack::type::MAP)
        return nullptr;
    for (uint32_t i = 0; i < map.via.map.size; ++i) {
        const msgpack::object_kv& kv = map.via.map.ptr[i];
        if (kv.key.type == msgpack::type::STR && kv.key.via.str.size == N - 1 &&
            std::memcmp(kv.key.via.str.ptr, key, N - 1) == 0)
            return &kv.val;
    }
    return nullptr;
}

// Neutral values for a missing or mistyped entry, as cRecordPar gives.
unsigned long long MsgUInt(const msgpack::object* o)
{
    return o != nullptr && o->type == msgpack::type::POSITIVE_INTEGER ? o->via.u64 : 0;
}

long long MsgSInt(const msgpack::object* o)
{
    if (o == nullptr)
        return 0;
    if (o->type == msgpack::type::NEGATIVE_INTEGER)
        return o->via.i64;
    return o->type == msgpack::type::POSITIVE_INTEGER ? static_cast<long long>(o->via.u64) : 0;
}

// Strings in the zone carry no NUL: the reader gets pointer and size.
struct tMsgText {
    const char* ptr;
    uint32_t size;
};

tMsgText MsgStr(const msgpack::object* o)
{
    if (o != nullptr && o->type == msgpack::type::STR)
        return {o->via.str.ptr, o->via.str.size};
    return {nullptr, 0};
}

void ReceiveMsgpack(const msgpack::sbuffer& wire, msgpack::object_handle& oh, tValues& v,
                    uint32_t& nameSize, uint32_t& unitSize)
{
    oh = msgpack::unpack(wire.data(), wire.size());
    const msgpack::object& root = oh.get();
    v.id = static_cast<unsigned>(MsgUInt(Lookup(root, "id")));
    v.status = static_cast<unsigned>(MsgUInt(Lookup(root, "status")));
    v.offset = static_cast<int>(MsgSInt(Lookup(root, "offset")));
    v.energy = MsgUInt(Lookup(root, "energy"));
    const msgpack::object* valid = Lookup(root, "valid");
    v.valid = valid != nullptr && valid->type == msgpack::type::BOOLEAN && valid->via.boolean;
    const tMsgText name = MsgStr(Lookup(root, "name"));
    v.name = name.ptr;
    nameSize = name.size;
    const tMsgText unit = MsgStr(Lookup(root, "unit"));
    v.unit = unit.ptr;
    unitSize = unit.size;
    const msgpack::object* key = Lookup(root, "key");
    if (key != nullptr && key->type == msgpack::type::BIN) {
        v.key = key->via.bin.ptr;
        v.keySize = key->via.bin.size;
    } else {
        v.key = nullptr;
        v.keySize = 0;
    }
    const msgpack::object* stamp = Lookup(root, "stamp");
    if (stamp != nullptr) {
        v.sec = static_cast<unsigned>(MsgUInt(Lookup(*stamp, "sec")));
        v.ms = static_cast<unsigned>(MsgUInt(Lookup(*stamp, "ms")));
    } else {
        v.sec = v.ms = 0;
    }
}

// ---------------------------------------------------------------------------
// Hand-written codec of the record element format: the same bytes as
// cRecord writes, produced by a tiny inline varint writer into a fixed
// buffer and read back in place by a bounded linear scan by name. No
// allocation, no sharing, no views: the floor for this format.

namespace hand {

inline char* PutVarint(char* p, uint64_t v)
{
    while (v >= 0x80) {
        *p++ = static_cast<char>(v | 0x80);
        v >>= 7;
    }
    *p++ = static_cast<char>(v);
    return p;
}

inline int VarintSize(uint64_t v)
{
    int n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

template <size_t N>
inline char* PutElement(char* p, unsigned type, const char (&name)[N], const void* value, size_t size)
{
    p = PutVarint(p, type);
    p = PutVarint(p, N + size);
    std::memcpy(p, name, N);
    p += N;
    std::memcpy(p, value, size);
    return p + size;
}

template <size_t N>
inline char* PutNumber(char* p, unsigned type, const char (&name)[N], uint64_t v)
{
    char tmp[10];
    return PutElement(p, type, name, tmp, static_cast<size_t>(PutVarint(tmp, v) - tmp));
}

// Writes the whole record at p (room for 256 bytes); returns its end.
inline char* Encode(char* p)
{
    char child[32];
    char* c = PutNumber(child, 3, "sec", kSec);
    c = PutNumber(c, 3, "ms", kMs);
    const size_t childSize = static_cast<size_t>(c - child);

    p = PutNumber(p, 3, "id", kId);
    p = PutNumber(p, 3, "status", kStatus);
    p = PutNumber(p, 2, "offset", static_cast<uint32_t>(kOffset));
    p = PutNumber(p, 9, "energy", kEnergy);
    const char valid = kValid ? 1 : 0;
    p = PutElement(p, 10, "valid", &valid, 1);
    p = PutElement(p, 1, "name", kName, sizeof kName);
    p = PutElement(p, 1, "unit", kUnit, sizeof kUnit);
    p = PutElement(p, 5, "key", kKey, sizeof kKey);
    // A record element's value is a list of one entry: varint(size) bytes.
    p = PutVarint(p, 6);
    p = PutVarint(p, sizeof "stamp" + VarintSize(childSize) + childSize);
    std::memcpy(p, "stamp", sizeof "stamp");
    p += sizeof "stamp";
    p = PutVarint(p, childSize);
    std::memcpy(p, child, childSize);
    return p + childSize;
}

inline const char* GetVarint(const char* p, const char* end, uint64_t& v)
{
    uint64_t result = 0;
    for (unsigned shift = 0; p < end && shift < 64; shift += 7) {
        const unsigned char b = static_cast<unsigned char>(*p++);
        result |= static_cast<uint64_t>(b & 0x7F) << shift;
        if ((b & 0x80) == 0) {
            v = result;
            return p;
        }
    }
    return nullptr;
}

struct tField {
    const char* value = nullptr;
    size_t size = 0;
};

// The value of the first element named name in [p, end); empty when none.
template <size_t N>
inline tField Find(const char* p, const char* end, const char (&name)[N])
{
    while (p != nullptr && p < end) {
        uint64_t type = 0;
        uint64_t length = 0;
        p = GetVarint(p, end, type);
        if (p == nullptr || (p = GetVarint(p, end, length)) == nullptr ||
            length > static_cast<uint64_t>(end - p))
            break;
        // N counts the NUL, so a longer name with this prefix never matches.
        if (length >= N && std::memcmp(p, name, N) == 0)
            return {p + N, static_cast<size_t>(length - N)};
        p += length;
    }
    return {};
}

inline uint64_t Number(const tField& f)
{
    uint64_t v = 0;
    return f.value != nullptr && GetVarint(f.value, f.value + f.size, v) != nullptr ? v : 0;
}

inline void Read(const char* p, const char* end, tValues& v)
{
    v.id = static_cast<unsigned>(Number(Find(p, end, "id")));
    v.status = static_cast<unsigned>(Number(Find(p, end, "status")));
    v.offset = static_cast<int>(static_cast<uint32_t>(Number(Find(p, end, "offset"))));
    v.energy = Number(Find(p, end, "energy"));
    const tField valid = Find(p, end, "valid");
    v.valid = valid.size > 0 && valid.value[0] != 0;
    v.name = Find(p, end, "name").value;
    v.unit = Find(p, end, "unit").value;
    const tField key = Find(p, end, "key");
    v.key = key.value;
    v.keySize = key.size;
    const tField stamp = Find(p, end, "stamp");
    uint64_t childSize = 0;
    const char* child = stamp.value != nullptr
                            ? GetVarint(stamp.value, stamp.value + stamp.size, childSize)
                            : nullptr;
    if (child != nullptr && childSize <= static_cast<uint64_t>(stamp.value + stamp.size - child)) {
        v.sec = static_cast<unsigned>(Number(Find(child, child + childSize, "sec")));
        v.ms = static_cast<unsigned>(Number(Find(child, child + childSize, "ms")));
    } else {
        v.sec = v.ms = 0;
    }
}

}  // namespace hand

// ---------------------------------------------------------------------------
// Facts gathered before the timed runs: sizes and allocations per round
// trip, printed in the summary.

struct tCodecFacts {
    size_t bytes = 0;
    unsigned long long allocations = 0;
};
std::map<std::string, tCodecFacts> gFacts;

template <typename F>
unsigned long long CountAllocations(F&& f)
{
    f();   // warm up: first calls may allocate once (protobuf defaults, ...)
    const unsigned long long before = gAllocations;
    f();
    return gAllocations - before;
}

// One round trip of each codec, checked field by field; the hand-written
// bytes must equal cRecord's. Returns false (after saying why) on a mismatch.
bool CheckCodecs()
{
    bool ok = true;
    auto fail = [&ok](const char* what) {
        std::fprintf(stderr, "record_bench: %s\n", what);
        ok = false;
    };

    std::string orvoWire;
    tValues v{};
    auto orvo = [&] {
        SendOrvo(orvoWire);
        ReceiveOrvo(orvoWire, v);
    };
    gFacts["orvo"].allocations = CountAllocations(orvo);
    gFacts["orvo"].bytes = orvoWire.size();
    if (!ValuesOk(v))
        fail("orvo: values read back differ");

    std::string protoWire;
    bool protoOk = false;
    auto proto = [&] {
        SendProto(protoWire);
        orvobench::Reading msg;
        tValues pv{};
        ReceiveProto(protoWire, msg, pv);
        protoOk = ValuesOk(pv);   // while msg still holds the texts
    };
    gFacts["protobuf"].allocations = CountAllocations(proto);
    gFacts["protobuf"].bytes = protoWire.size();
    if (!protoOk)
        fail("protobuf: values read back differ");

    msgpack::sbuffer packWire;
    msgpack::object_handle oh;
    uint32_t nameSize = 0;
    uint32_t unitSize = 0;
    v = tValues{};
    auto pack = [&] {
        SendMsgpack(packWire);
        ReceiveMsgpack(packWire, oh, v, nameSize, unitSize);
    };
    gFacts["msgpack"].allocations = CountAllocations(pack);
    gFacts["msgpack"].bytes = packWire.size();
    // msgpack strings have no NUL: compare them by size, then check the rest.
    const bool textsOk = nameSize == sizeof kName - 1 && v.name != nullptr &&
                         std::memcmp(v.name, kName, nameSize) == 0 &&
                         unitSize == sizeof kUnit - 1 && v.unit != nullptr &&
                         std::memcmp(v.unit, kUnit, unitSize) == 0;
    v.name = kName;
    v.unit = kUnit;
    if (!textsOk || !ValuesOk(v))
        fail("msgpack: values read back differ");

    char handWire[256];
    const char* handEnd = nullptr;
    v = tValues{};
    auto handRun = [&] {
        handEnd = hand::Encode(handWire);
        hand::Read(handWire, handEnd, v);
    };
    gFacts["handwritten"].allocations = CountAllocations(handRun);
    gFacts["handwritten"].bytes = static_cast<size_t>(handEnd - handWire);
    if (!ValuesOk(v))
        fail("handwritten: values read back differ");
    if (orvoWire.size() != gFacts["handwritten"].bytes ||
        std::memcmp(orvoWire.data(), handWire, orvoWire.size()) != 0)
        fail("handwritten bytes differ from cRecord's bytes");
    return ok;
}

// ---------------------------------------------------------------------------
// Round trip = build + encode into the outgoing buffer + decode on the
// receiving side + read every field. Encode and DecodeRead time the halves.

void BM_OrvoRoundtrip(benchmark::State& state)
{
    std::string wire;
    for (auto _ : state) {
        SendOrvo(wire);
        tValues v;
        ReceiveOrvo(wire, v);
        benchmark::DoNotOptimize(v);
    }
}

void BM_OrvoEncode(benchmark::State& state)
{
    std::string wire;
    for (auto _ : state) {
        SendOrvo(wire);
        benchmark::DoNotOptimize(wire.data());
    }
}

void BM_OrvoDecodeRead(benchmark::State& state)
{
    std::string wire;
    SendOrvo(wire);
    for (auto _ : state) {
        tValues v;
        ReceiveOrvo(wire, v);
        benchmark::DoNotOptimize(v);
    }
}

void BM_ProtoRoundtrip(benchmark::State& state)
{
    std::string wire;
    for (auto _ : state) {
        SendProto(wire);
        orvobench::Reading msg;
        tValues v;
        ReceiveProto(wire, msg, v);
        benchmark::DoNotOptimize(v);
    }
}

void BM_ProtoEncode(benchmark::State& state)
{
    std::string wire;
    for (auto _ : state) {
        SendProto(wire);
        benchmark::DoNotOptimize(wire.data());
    }
}

void BM_ProtoDecodeRead(benchmark::State& state)
{
    std::string wire;
    SendProto(wire);
    for (auto _ : state) {
        orvobench::Reading msg;
        tValues v;
        ReceiveProto(wire, msg, v);
        benchmark::DoNotOptimize(v);
    }
}

// protobuf at its best: both messages and the buffer live across
// iterations, so their storage is reused (Clear keeps it).
void BM_ProtoRoundtripReuse(benchmark::State& state)
{
    std::string wire;
    orvobench::Reading out;
    orvobench::Reading in;
    for (auto _ : state) {
        out.Clear();
        out.set_id(kId);
        out.set_status(kStatus);
        out.set_offset(kOffset);
        out.set_energy(kEnergy);
        out.set_valid(kValid);
        out.set_name(kName);
        out.set_unit(kUnit);
        out.set_key(kKey, sizeof kKey);
        out.mutable_stamp()->set_sec(kSec);
        out.mutable_stamp()->set_ms(kMs);
        out.SerializeToString(&wire);
        tValues v;
        ReceiveProto(wire, in, v);
        benchmark::DoNotOptimize(v);
    }
}

void BM_MsgpackRoundtrip(benchmark::State& state)
{
    msgpack::sbuffer wire;
    for (auto _ : state) {
        SendMsgpack(wire);
        msgpack::object_handle oh;
        tValues v;
        uint32_t nameSize;
        uint32_t unitSize;
        ReceiveMsgpack(wire, oh, v, nameSize, unitSize);
        benchmark::DoNotOptimize(v);
        benchmark::DoNotOptimize(nameSize);
        benchmark::DoNotOptimize(unitSize);
    }
}

void BM_MsgpackEncode(benchmark::State& state)
{
    msgpack::sbuffer wire;
    for (auto _ : state) {
        SendMsgpack(wire);
        benchmark::DoNotOptimize(wire.data());
    }
}

void BM_MsgpackDecodeRead(benchmark::State& state)
{
    msgpack::sbuffer wire;
    SendMsgpack(wire);
    for (auto _ : state) {
        msgpack::object_handle oh;
        tValues v;
        uint32_t nameSize;
        uint32_t unitSize;
        ReceiveMsgpack(wire, oh, v, nameSize, unitSize);
        benchmark::DoNotOptimize(v);
        benchmark::DoNotOptimize(nameSize);
        benchmark::DoNotOptimize(unitSize);
    }
}

void BM_HandRoundtrip(benchmark::State& state)
{
    char wire[256];
    for (auto _ : state) {
        const char* end = hand::Encode(wire);
        benchmark::ClobberMemory();
        tValues v;
        hand::Read(wire, end, v);
        benchmark::DoNotOptimize(v);
    }
}

void BM_HandEncode(benchmark::State& state)
{
    char wire[256];
    for (auto _ : state) {
        const char* end = hand::Encode(wire);
        benchmark::DoNotOptimize(end);
        benchmark::ClobberMemory();
    }
}

void BM_HandDecodeRead(benchmark::State& state)
{
    char wire[256];
    const char* end = hand::Encode(wire);
    for (auto _ : state) {
        benchmark::DoNotOptimize(wire);
        tValues v;
        hand::Read(wire, end, v);
        benchmark::DoNotOptimize(v);
    }
}

// ---------------------------------------------------------------------------
// Copying: a record of Size bytes built from 128-byte data elements. A copy
// shares the block, so its cost must not grow with the size; the deep copy
// (a private record of the same bytes) shows what a byte copy would cost.

cRecord MakeRecordOfSize(int Size)
{
    cRecord rec;
    char value[120];
    std::memset(value, 0x5A, sizeof value);
    for (int i = 0; rec.GetSize() < Size; ++i) {
        char name[8];
        std::snprintf(name, sizeof name, "e%04d", i % 10000);
        // 1 type byte + 1 length byte + 6 name bytes + 120 value bytes.
        rec.AppendDataPar(name, value, sizeof value);
    }
    return rec;
}

void BM_OrvoCopy(benchmark::State& state)
{
    const cRecord rec = MakeRecordOfSize(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        cRecord copy(rec);
        benchmark::DoNotOptimize(copy.GetBuffer());
    }
    state.counters["bytes"] = rec.GetSize();
}

void BM_OrvoDeepCopy(benchmark::State& state)
{
    const cRecord rec = MakeRecordOfSize(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        cRecord copy(rec.GetBuffer(), rec.GetSize());
        benchmark::DoNotOptimize(copy.GetBuffer());
    }
    state.counters["bytes"] = rec.GetSize();
}

// ---------------------------------------------------------------------------
// Appending 1000 uint elements named "value" (9 or 10 bytes each) to an
// empty record, against appending the same element bytes to a
// std::vector<char>. The number of storage changes (the first allocation
// included) is counted in an untimed pass.

const int kAppends = 1000;

void BM_OrvoAppend(benchmark::State& state)
{
    int changes = 0;
    {
        cRecord rec;
        const char* last = rec.GetBuffer();
        for (int i = 0; i < kAppends; ++i) {
            rec.AppendUIntPar("value", static_cast<unsigned>(i));
            if (rec.GetBuffer() != last) {
                ++changes;
                last = rec.GetBuffer();
            }
        }
        state.counters["bytes"] = rec.GetSize();
        state.counters["capacity"] = rec.GetMemBuffer().GetCapacity();
    }
    for (auto _ : state) {
        cRecord rec;
        for (int i = 0; i < kAppends; ++i)
            rec.AppendUIntPar("value", static_cast<unsigned>(i));
        benchmark::DoNotOptimize(rec.GetBuffer());
    }
    state.counters["reallocs"] = changes;
    state.SetItemsProcessed(state.iterations() * kAppends);
}

inline void AppendToVector(std::vector<char>& out, unsigned i)
{
    char element[24];
    char* end = hand::PutNumber(element, 3, "value", i);
    out.insert(out.end(), element, end);
}

void BM_VectorAppend(benchmark::State& state)
{
    int changes = 0;
    {
        std::vector<char> out;
        const char* last = out.data();
        for (int i = 0; i < kAppends; ++i) {
            AppendToVector(out, static_cast<unsigned>(i));
            if (out.data() != last) {
                ++changes;
                last = out.data();
            }
        }
        state.counters["bytes"] = static_cast<double>(out.size());
        state.counters["capacity"] = static_cast<double>(out.capacity());
    }
    for (auto _ : state) {
        std::vector<char> out;
        for (int i = 0; i < kAppends; ++i)
            AppendToVector(out, static_cast<unsigned>(i));
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["reallocs"] = changes;
    state.SetItemsProcessed(state.iterations() * kAppends);
}

// ---------------------------------------------------------------------------
// Reporter: the console output as usual, plus the median CPU time of every
// benchmark (or its only run when there are no repetitions) for the summary.

struct tResult {
    double cpuNs = 0;
    bool median = false;
    std::map<std::string, double> counters;
};

class cCaptureReporter : public benchmark::ConsoleReporter {
public:
    cCaptureReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            const bool isMedian = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.error_occurred || (r.run_type == Run::RT_Aggregate && !isMedian))
                continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty())
                name += "/" + r.run_name.args;
            tResult& res = m_Results[name];
            if (res.median && !isMedian)
                continue;
            res.cpuNs = r.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
            res.median = isMedian;
            for (const auto& c : r.counters)
                res.counters[c.first] = c.second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    const tResult* Find(const std::string& name) const
    {
        const auto it = m_Results.find(name);
        return it != m_Results.end() ? &it->second : nullptr;
    }

private:
    std::map<std::string, tResult> m_Results;
};

void PrintSummary(const cCaptureReporter& rep)
{
    auto ns = [&rep](const std::string& name) {
        const tResult* r = rep.Find(name);
        return r != nullptr ? r->cpuNs : 0.0;
    };
    auto counter = [&rep](const std::string& name, const char* key) {
        const tResult* r = rep.Find(name);
        if (r == nullptr)
            return 0.0;
        const auto it = r->counters.find(key);
        return it != r->counters.end() ? it->second : 0.0;
    };
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };

    std::printf("\nSummary (median CPU time per operation of this run)\n");
    std::printf("%-12s %12s %10s %15s %7s %13s\n", "codec", "roundtrip ns", "encode ns",
                "decode+read ns", "bytes", "allocations");
    static const char* const kCodecs[][2] = {{"orvo", "Orvo"},
                                             {"protobuf", "Protobuf"},
                                             {"msgpack", "Msgpack"},
                                             {"handwritten", "Handwritten"}};
    for (const auto& c : kCodecs) {
        const std::string tag = c[1];
        const tCodecFacts& f = gFacts[c[0]];
        std::printf("%-12s %12.1f %10.1f %15.1f %7zu %13llu\n", c[0], ns("Roundtrip/" + tag),
                    ns("Encode/" + tag), ns("DecodeRead/" + tag), f.bytes, f.allocations);
    }
    std::printf("%-12s %12.1f  (protobuf with messages and buffer reused)\n", "protobuf-reuse",
                ns("Roundtrip/ProtobufReuse"));

    const double orvo = ns("Roundtrip/Orvo");
    const double proto = ns("Roundtrip/Protobuf");
    const double r = ratio(orvo, proto);
    std::printf("\nRound-trip ratios\n");
    std::printf("  orvo/protobuf       %.2f  (goal <= 1.00: %s)\n", r,
                r > 0 && r <= 1.0 ? "met" : "NOT met");
    std::printf("  orvo/protobuf-reuse %.2f\n", ratio(orvo, ns("Roundtrip/ProtobufReuse")));
    std::printf("  orvo/msgpack        %.2f\n", ratio(orvo, ns("Roundtrip/Msgpack")));
    std::printf("  orvo/handwritten    %.2f\n", ratio(orvo, ns("Roundtrip/Handwritten")));

    std::printf("\nCopy of a record (ns)      shared copy   deep copy\n");
    for (const char* size : {"1024", "16384", "65536"}) {
        const std::string arg = size;
        std::printf("  %6.0f bytes             %9.1f %11.1f\n", counter("Copy/Orvo/" + arg, "bytes"),
                    ns("Copy/Orvo/" + arg), ns("DeepCopy/Orvo/" + arg));
    }
    const double c1 = ns("Copy/Orvo/1024");
    std::printf("  shared copy 64 KiB / 1 KiB = %.2f (flat when close to 1)\n",
                ratio(ns("Copy/Orvo/65536"), c1));

    std::printf("\nAppending %d elements     ns/append   reallocations   final bytes   capacity\n",
                kAppends);
    for (const char* name : {"Append/Orvo", "Append/Vector"}) {
        std::printf("  %-22s %10.2f %15.0f %13.0f %10.0f\n", name, ns(name) / kAppends,
                    counter(name, "reallocs"), counter(name, "bytes"), counter(name, "capacity"));
    }
    std::printf("  orvo/vector per append = %.2f\n", ratio(ns("Append/Orvo"), ns("Append/Vector")));
}

// --loop=<codec>[-encode|-decode]:<count>: the round trip (or one half of
// it) alone, for profilers.
int RunLoop(const char* choice)
{
    const char* colon = std::strchr(choice, ':');
    std::string codec = colon != nullptr ? std::string(choice, colon) : std::string(choice);
    const long count = colon != nullptr ? std::atol(colon + 1) : 100000;
    bool encode = true;
    bool decode = true;
    const size_t dash = codec.find('-');
    if (dash != std::string::npos) {
        const std::string part = codec.substr(dash + 1);
        codec.resize(dash);
        encode = part == "encode";
        decode = part == "decode";
    }
    const bool known = codec == "orvo" || codec == "protobuf" || codec == "msgpack" || codec == "handwritten";
    if (!known || (!encode && !decode)) {
        std::fprintf(stderr, "record_bench: --loop=<orvo|protobuf|msgpack|handwritten>[-encode|-decode]:<count>\n");
        return 2;
    }
    tValues v{};
    unsigned long long sink = 0;
    std::string wire;
    msgpack::sbuffer packWire;
    char handWire[256];
    const char* handEnd = hand::Encode(handWire);
    // A decode-only loop reads the bytes of one encoding made up front.
    SendOrvo(wire);
    if (codec == "protobuf")
        SendProto(wire);
    SendMsgpack(packWire);
    for (long i = 0; i < count; ++i) {
        if (codec == "orvo") {
            if (encode)
                SendOrvo(wire);
            if (decode)
                ReceiveOrvo(wire, v);
        } else if (codec == "protobuf") {
            if (encode)
                SendProto(wire);
            if (decode) {
                orvobench::Reading msg;
                ReceiveProto(wire, msg, v);
            }
        } else if (codec == "msgpack") {
            if (encode)
                SendMsgpack(packWire);
            if (decode) {
                msgpack::object_handle oh;
                uint32_t a;
                uint32_t b;
                ReceiveMsgpack(packWire, oh, v, a, b);
            }
        } else {
            if (encode)
                handEnd = hand::Encode(handWire);
            if (decode)
                hand::Read(handWire, handEnd, v);
        }
        sink += v.id + v.sec + static_cast<unsigned char>(wire.empty() ? 0 : wire[0]);
    }
    std::printf("%s: %ld loops (check %llu)\n", choice, count, sink);
    return 0;
}

void Register()
{
    benchmark::RegisterBenchmark("Roundtrip/Orvo", BM_OrvoRoundtrip);
    benchmark::RegisterBenchmark("Roundtrip/Protobuf", BM_ProtoRoundtrip);
    benchmark::RegisterBenchmark("Roundtrip/ProtobufReuse", BM_ProtoRoundtripReuse);
    benchmark::RegisterBenchmark("Roundtrip/Msgpack", BM_MsgpackRoundtrip);
    benchmark::RegisterBenchmark("Roundtrip/Handwritten", BM_HandRoundtrip);
    benchmark::RegisterBenchmark("Encode/Orvo", BM_OrvoEncode);
    benchmark::RegisterBenchmark("Encode/Protobuf", BM_ProtoEncode);
    benchmark::RegisterBenchmark("Encode/Msgpack", BM_MsgpackEncode);
    benchmark::RegisterBenchmark("Encode/Handwritten", BM_HandEncode);
    benchmark::RegisterBenchmark("DecodeRead/Orvo", BM_OrvoDecodeRead);
    benchmark::RegisterBenchmark("DecodeRead/Protobuf", BM_ProtoDecodeRead);
    benchmark::RegisterBenchmark("DecodeRead/Msgpack", BM_MsgpackDecodeRead);
    benchmark::RegisterBenchmark("DecodeRead/Handwritten", BM_HandDecodeRead);
    benchmark::RegisterBenchmark("Copy/Orvo", BM_OrvoCopy)->Arg(1024)->Arg(16384)->Arg(65536);
    benchmark::RegisterBenchmark("DeepCopy/Orvo", BM_OrvoDeepCopy)->Arg(1024)->Arg(16384)->Arg(65536);
    benchmark::RegisterBenchmark("Append/Orvo", BM_OrvoAppend);
    benchmark::RegisterBenchmark("Append/Vector", BM_VectorAppend);
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--loop=", 7) == 0)
            return RunLoop(argv[i] + 7);

    // Defaults for a shared, noisy machine; any of them can be given again on
    // the command line (the later flag wins).
    static char kRepetitions[] = "--benchmark_repetitions=10";
    static char kMinTime[] = "--benchmark_min_time=0.1";
    static char kAggregates[] = "--benchmark_display_aggregates_only=true";
    static char kInterleave[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> args{argv[0], kRepetitions, kMinTime, kAggregates, kInterleave};
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;

    if (!CheckCodecs())
        return 1;
    Register();
    cCaptureReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintSummary(reporter);
    benchmark::Shutdown();
    return 0;
}
