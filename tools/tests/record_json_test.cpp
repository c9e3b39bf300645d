// The JSON form of records: every value type and flag, element order and
// repeated names, bytes that are not canonical, and JSON that is refused.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include <orvo_obis.h>
#include <orvo_record.h>
#include <orvo_time.h>
#include <orvo_uuid.h>

#include "record_json.h"

using namespace orvo;
using orvo_tools::JsonToRecord;
using orvo_tools::RecordBytesToJson;
using orvo_tools::RecordToJson;
using orvo_tools::tJson;

namespace {

std::string BytesOf(const cRecord& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

tJson FromBytes(const std::string& b)
{
    return RecordBytesToJson(reinterpret_cast<const unsigned char*>(b.data()), b.size());
}

// bytes -> JSON -> bytes, and the JSON printed again from the result.
void ExpectBothWays(const std::string& bytes)
{
    const tJson j = FromBytes(bytes);
    cRecord back;
    std::string error;
    ASSERT_TRUE(JsonToRecord(j, back, error)) << error << "\n" << j.dump();
    EXPECT_EQ(BytesOf(back), bytes) << j.dump();
    EXPECT_EQ(RecordToJson(back), j);
}

std::string Refusal(const std::string& text)
{
    tJson j;
    std::string error;
    EXPECT_TRUE(orvo_tools::ParseJson(text, j, error)) << error;
    cRecord r;
    r.AppendUIntPar("left", 1);
    EXPECT_FALSE(JsonToRecord(j, r, error)) << text;
    EXPECT_TRUE(r.IsEmpty()) << "a refused form leaves the record empty";
    return error;
}

}  // namespace

TEST(RecordJson, EveryTypeAndFlagInElementOrder)
{
    cUuid id;
    id.Create("00112233-4455-6677-8899-AABBCCDDEEFF");
    cRecord port, empty, r;
    port.AppendTextPar("device", "/dev/ttyS1");
    port.AppendUIntPar("baud", 9600);
    r.AppendPar("nothing");
    r.AppendTextPar("text", "grüße", RECORD_FLAG_MARKED);
    r.AppendSIntPar("sint", -1);
    r.AppendUIntPar("uint", 4294967295u);
    cTime when;
    when.FromMilliSeconds(1767225600250ULL, true);
    r.AppendTimePar("time", when);
    const unsigned char data[] = {0x00, 0xFF, 0x10};
    r.AppendDataPar("data", data, 3);
    r.AppendRecordPar("port", port, RECORD_FLAG_TEMPLATE);
    r.AppendRecordPar("port", empty);   // repeated name, empty child
    r.AppendUuidPar("uuid", id);
    r.AppendSInt64Par("sint64", INT64_MIN);
    r.AppendUInt64Par("uint64", UINT64_MAX, RECORD_FLAG_MARK40);
    r.AppendBoolPar("bool", true);
    r.AppendObisPar("obis", cObis("1-0:1.8.0*255"));
    r.AppendTextPar("link", "x=5", RECORD_FLAG_EXTERNAL);
    r.AppendTextPar("blank", nullptr);

    const tJson expected = tJson::parse(R"([
      {"name":"nothing","type":"none","value":null},
      {"name":"text","type":"text","flags":["marked"],"value":"grüße"},
      {"name":"sint","type":"sint","value":-1},
      {"name":"uint","type":"uint","value":4294967295},
      {"name":"time","type":"time","value":"2026-01-01T00:00:00.250Z"},
      {"name":"data","type":"data","value":"00ff10"},
      {"name":"port","type":"record","flags":["template"],"value":[
          {"name":"device","type":"text","value":"/dev/ttyS1"},
          {"name":"baud","type":"uint","value":9600}]},
      {"name":"port","type":"record","flags":["empty"],"value":[]},
      {"name":"uuid","type":"uuid","value":"00112233-4455-6677-8899-AABBCCDDEEFF"},
      {"name":"sint64","type":"sint64","value":-9223372036854775808},
      {"name":"uint64","type":"uint64","flags":["mark40"],"value":18446744073709551615},
      {"name":"bool","type":"bool","value":true},
      {"name":"obis","type":"obis","value":"1-0:1.8.0*255"},
      {"name":"link","type":"text","flags":["external"],"value":"x=5"},
      {"name":"blank","type":"text","flags":["empty"],"value":null}])");
    EXPECT_EQ(RecordToJson(r), expected) << RecordToJson(r).dump(1);
    cRecord back;
    std::string error;
    ASSERT_TRUE(JsonToRecord(expected, back, error)) << error;
    EXPECT_EQ(BytesOf(back), BytesOf(r));
    EXPECT_EQ(RecordToJson(cRecord()), tJson::array());
}

TEST(RecordJson, NonCanonicalBytesSurviveAsHexEntriesOrRaw)
{
    const std::string cases[] = {
        std::string("\x03\x05n\x00\x81\x00\x01", 7),         // uint varint with a byte behind it
        std::string("\x03\x04n\x00\x81\x00", 6),             // uint 1, non-minimal varint
        std::string("\x0A\x03" "b\x00\x02", 5),              // bool 2
        std::string("\x0D\x04t\x00\xAB\xCD", 6),             // type 13
        std::string("\x01\x04t\x00\xC3\x00", 6),             // text, not UTF-8
        std::string("\x01\x05t\x00" "a\x00" "b", 7),         // text with a NUL inside
        std::string("\x04\x04t\x00\x01", 5),                 // time of one byte
        std::string("\x06\x06r\x00\x00\x02\x00\x00", 8),     // record list with two entries
        std::string("\x06\x05r\x00\x05\x00\x00", 7),         // list entry longer than the list
        std::string("\x80\x02\x02p\x00", 5),                 // external flag on a none element
        std::string("\x90\x00\x02p\x00", 5),                 // type word with a redundant byte
        std::string("\x01\x09t\x00" "abc", 7),               // length past the end
        std::string("\x03\x03n\x00\x05\xFF", 6),             // valid element, then a stray byte
        std::string("\x80\x80\x04\x02p\x00", 6),             // type word beyond the known flags
        std::string("\x03\x02\x00\x00", 4),                  // empty name
    };
    for (const std::string& c : cases)
        ExpectBothWays(c);
    EXPECT_EQ(FromBytes(cases[1])[0]["hex"], "8100");
    EXPECT_EQ(FromBytes(cases[7])[0]["entries"].size(), 2u);
    EXPECT_TRUE(FromBytes(cases[11])[0].contains("raw"));
}

TEST(RecordJson, RandomBytesComeBackUnchanged)
{
    std::mt19937 rng(4711);
    // Bytes biased towards small values, so that many runs are elements.
    const unsigned char alphabet[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                      0x09, 0x0A, 0x0B, 0x10, 0x16, 0x20, 0x61, 0x80, 0xFF};
    for (int round = 0; round < 3000; ++round) {
        std::string bytes;
        const int n = static_cast<int>(rng() % 40);
        for (int i = 0; i < n; ++i)
            bytes += static_cast<char>(alphabet[rng() % sizeof alphabet]);
        ExpectBothWays(bytes);
        if (HasFatalFailure() || HasFailure())
            return;
    }
}

TEST(RecordJson, RefusesMalformedFormsNamingTheElement)
{
    struct {
        const char* json;
        const char* message;
    } const cases[] = {
        {R"({"a":1})", "a record must be a JSON array"},
        {R"([5])", "element 0: an element must be a JSON object"},
        {R"([{"name":"a","type":"uint","value":1,"unit":"s"}])", "element 0 \"a\": unknown key \"unit\""},
        {R"([{"type":"uint","value":1}])", "\"name\" must be a string"},
        {R"([{"name":"a","type":"word","value":1}])", "\"type\" must be one of"},
        {R"([{"name":"a","type":"uint"}])", "exactly one of \"value\", \"hex\", \"entries\""},
        {R"([{"name":"a","type":"uint","value":-1}])", "uint value must be an integer from 0 to 4294967295"},
        {R"([{"name":"a","type":"sint","value":2147483648}])", "sint value must be an integer"},
        {R"([{"name":"a","type":"sint","value":1.5}])", "sint value must be an integer"},
        {R"([{"name":"a","type":"uint64","value":-3}])", "uint64 value must be an integer"},
        {R"([{"name":"a","type":"bool","value":1}])", "bool value must be true or false"},
        {R"([{"name":"a","type":"uuid","value":"0011"}])", "uuid must be written like"},
        {R"([{"name":"a","type":"time","value":"2026-02-30T00:00:00.000Z"}])", "no valid calendar time"},
        {R"([{"name":"a","type":"time","value":"yesterday"}])", "time must be written like"},
        {R"([{"name":"a","type":"data","value":"abc"}])", "even number of hex digits"},
        {R"([{"name":"a","type":"data","value":"zz"}])", "no hex digit"},
        {R"([{"name":"a","type":"text","value":"x","flags":["bold"]}])", "unknown flag \"bold\""},
        {R"([{"name":"a","type":"text","value":"x\u0000y"}])", "must not contain NUL"},
        {R"([{"name":"a","type":"none","value":1}])", "none has no value form"},
        {R"([{"name":"a","type":"uint","entries":[]}])", "for type record only"},
        {R"([{"name":"r","type":"record","value":[{"name":"b","type":"uint","value":"x"}]}])",
         "element 0 \"r.b\": uint value must be an integer"},
        // Accepted spellings that would not print back the same:
        {R"([{"name":"a","type":"data","value":"AB"}])", "element 0: not in canonical form"},
        {R"([{"name":"a","type":"uint","hex":"05"}])", "read back as {\"name\":\"a\",\"type\":\"uint\",\"value\":5}"},
        {R"([{"name":"a","type":"text","flags":["marked","empty"],"value":"x"}])", "not in canonical form"},
        {R"([{"name":"a","type":"text","flags":[],"value":"x"}])", "not in canonical form"},
        {R"([{"name":"a","type":"uint","value":1},{"raw":"03026e00"}])", "element 1: not in canonical form"},
    };
    for (const auto& c : cases) {
        const std::string error = Refusal(c.json);
        EXPECT_NE(error.find(c.message), std::string::npos) << c.json << "\n  gave: " << error;
    }
}

TEST(RecordJson, UuidIsReadInEitherCaseAndPrintedInUpperCase)
{
    const std::string lower = "00112233-4455-6677-8899-aabbccddeeff";
    tJson j;
    std::string error;
    ASSERT_TRUE(orvo_tools::ParseJson(R"([{"name":"id","type":"uuid","value":")" + lower +
                                          R"("},{"name":"r","type":"record","value":[{"name":"id","type":"uuid","value":"aBcDeF00-1122-3344-5566-778899aabbcc"}]}])",
                                      j, error))
        << error;
    cRecord r;
    ASSERT_TRUE(JsonToRecord(j, r, error)) << error;
    cUuid top, nested;
    ASSERT_TRUE(r.GetFirstPar("id").GetUuid(top));
    ASSERT_TRUE(r.GetFirstParByPath("r.id", ".").GetUuid(nested));
    EXPECT_EQ(top.ToString(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(nested.ToString(), "ABCDEF00-1122-3344-5566-778899AABBCC");
    EXPECT_EQ(RecordToJson(r)[0]["value"], "00112233-4455-6677-8899-AABBCCDDEEFF");
    // Case is the only freedom: a malformed uuid is still refused.
    EXPECT_NE(Refusal(R"([{"name":"a","type":"uuid","value":"zz112233-4455-6677-8899-aabbccddeeff"}])")
                  .find("uuid must be written like"),
              std::string::npos);
}

TEST(RecordJson, DeepNestingIsBoundedBothWays)
{
    // 70 records inside each other: the levels beyond 64 travel as hex.
    cRecord r;
    r.AppendUIntPar("leaf", 1);
    for (int i = 0; i < 70; ++i) {
        cRecord outer;
        outer.AppendRecordPar("r", r);
        r = outer;
    }
    ExpectBothWays(BytesOf(r));
    tJson j = RecordToJson(r);
    int levels = 0;
    for (const tJson* e = &j[0]; e->contains("value"); e = &(*e)["value"][0])
        ++levels;
    EXPECT_EQ(levels, 64);

    // JSON nested deeper than that is refused, not followed.
    std::string text = R"([{"name":"leaf","type":"uint","value":1}])";
    for (int i = 0; i < 70; ++i)
        text = R"([{"name":"r","type":"record","value":)" + text + "}]";
    EXPECT_NE(Refusal(text).find("records nest deeper than 64 levels"), std::string::npos);
}

TEST(RecordJson, ParseErrorsNameThePosition)
{
    tJson j;
    std::string error;
    EXPECT_FALSE(orvo_tools::ParseJson("[{\"name\": }]", j, error));
    EXPECT_NE(error.find("line 1, column 11"), std::string::npos) << error;
}
