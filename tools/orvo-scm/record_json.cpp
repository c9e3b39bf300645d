// record_json.cpp - the JSON form of records (see record_json.h and
// docs/record_json.md). Works on the record bytes directly, so that any byte
// sequence, well-formed or not, survives the trip.
#include "record_json.h"

#include <orvo_uuid.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace orvo_tools {

namespace {

using tBytes = std::string;

const char* const kTypeNames[16] = {"none",   "text",   "sint",   "uint",  "time",   "data",
                                    "record", "uuid",   "sint64", "uint64", "bool",  "obis",
                                    "type12", "type13", "type14", "type15"};
const uint32_t kTypeMask = 0x0F;
const uint32_t kKnownBits = 0x1FF;

struct tFlagName {
    uint32_t bit;
    const char* name;
};
const tFlagName kFlags[] = {{0x10, "empty"},
                            {0x20, "marked"},
                            {0x40, "mark40"},
                            {0x80, "template"},
                            {0x100, "external"}};

// Records nested deeper than this are written as "hex" at that level (and
// deeper JSON is refused), so neither direction recurses without bound on
// bytes or text from outside.
const int kMaxDepth = 64;
thread_local int tDepth = 0;

// Counts nested records; a guard made for a record value (bytes side) or a
// record array (JSON side, where the outermost array is one more) stands
// for one level.
struct tDepthGuard {
    explicit tDepthGuard(int outer = 0) : m_Outer(outer) { ++tDepth; }
    ~tDepthGuard() { --tDepth; }
    bool TooDeep() const { return tDepth - m_Outer > kMaxDepth; }
    int m_Outer;
};

// Error while reading JSON; the text names what is wrong.
struct tJsonError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- bytes -----------------------------------------------------------------

void PutVarint(tBytes& out, uint64_t v)
{
    while (v >= 0x80) {
        out += static_cast<char>((v & 0x7F) | 0x80);
        v >>= 7;
    }
    out += static_cast<char>(v);
}

// Reads a varint of at most maxBytes bytes; false when it runs past end or
// is longer. The caller checks canonical form by re-encoding.
bool GetVarint(const unsigned char*& p, const unsigned char* end, uint64_t& v, int maxBytes)
{
    v = 0;
    for (int i = 0; i < maxBytes && p < end; ++i) {
        const unsigned char b = *p++;
        v |= static_cast<uint64_t>(b & 0x7F) << (7 * i);
        if ((b & 0x80) == 0)
            return true;
    }
    return false;
}

// v as the only content of [p, end), in its shortest encoding.
bool IsExactVarint(const unsigned char* p, const unsigned char* end, int maxBytes, uint64_t& v)
{
    const unsigned char* q = p;
    if (!GetVarint(q, end, v, maxBytes) || q != end)
        return false;
    tBytes again;
    PutVarint(again, v);
    return again.size() == static_cast<size_t>(end - p);
}

std::string Hex(const unsigned char* p, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 0x0F];
    }
    return s;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

tBytes FromHex(const std::string& s, const char* what)
{
    if (s.size() % 2 != 0)
        throw tJsonError(std::string(what) + " must have an even number of hex digits");
    tBytes out;
    for (size_t i = 0; i < s.size(); i += 2) {
        const int hi = HexDigit(s[i]), lo = HexDigit(s[i + 1]);
        if (hi < 0 || lo < 0)
            throw tJsonError(std::string(what) + " holds a character that is no hex digit");
        out += static_cast<char>(hi * 16 + lo);
    }
    return out;
}

bool IsUtf8(const unsigned char* p, size_t n)
{
    size_t i = 0;
    while (i < n) {
        const unsigned char c = p[i];
        size_t more = 0;
        uint32_t cp = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            more = 1, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            more = 2, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            more = 3, cp = c & 0x07;
        } else {
            return false;
        }
        if (i + more >= n)
            return false;
        for (size_t k = 1; k <= more; ++k) {
            if ((p[i + k] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        const uint32_t least[4] = {0, 0x80, 0x800, 0x10000};
        if (cp < least[more] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += more + 1;
    }
    return true;
}

// ---- time text: 2026-01-31T12:00:00.000Z ------------------------------------

const uint64_t kLastTimeMs = 253402300799999ULL;   // 9999-12-31T23:59:59.999Z

std::string TimeText(uint64_t ms)
{
    const time_t secs = static_cast<time_t>(ms / 1000);
    struct tm t {};
    gmtime_r(&secs, &t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                  static_cast<unsigned>(ms % 1000));
    return buf;
}

uint64_t TimeFromText(const std::string& s)
{
    int y, mo, d, h, mi, sec;
    unsigned ms;
    char z = 0;
    if (s.size() != 24 ||
        std::sscanf(s.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3u%c", &y, &mo, &d, &h, &mi, &sec, &ms,
                    &z) != 8 ||
        z != 'Z' || y < 1970 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 ||
        sec > 59)
        throw tJsonError("time must be written like 2026-01-31T12:00:00.000Z (UTC, from 1970)");
    struct tm t {};
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_sec = sec;
    const int64_t secs = static_cast<int64_t>(timegm(&t));
    const uint64_t value = static_cast<uint64_t>(secs) * 1000 + ms;
    if (secs < 0 || TimeText(value) != s)
        throw tJsonError("time " + s + " is no valid calendar time");
    return value;
}

// ---- uuid text, in the library's own text form ----------------------------------

std::string UuidText(const unsigned char* p)
{
    orvo::cUuid id;
    id.Create(p, 16);
    return id.ToString();
}

tBytes UuidFromText(const std::string& s)
{
    orvo::cUuid id;
    if (!id.Create(s.c_str()))
        throw tJsonError("uuid must be written like 00112233-4455-6677-8899-AABBCCDDEEFF");
    return tBytes(static_cast<const char*>(id.GetBuffer()), 16);
}

// ---- bytes to JSON -------------------------------------------------------------

tJson FlagsJson(uint32_t typeWord)
{
    tJson flags = tJson::array();
    for (const tFlagName& f : kFlags)
        if ((typeWord & f.bit) != 0)
            flags.push_back(f.name);
    return flags;
}

// Sets "value" (or "entries") when the value bytes are the canonical form of
// their type; false otherwise (the caller writes them as "hex").
bool ValueJson(uint32_t type, const unsigned char* v, size_t n, tJson& element)
{
    const unsigned char* end = v + n;
    uint64_t u = 0;
    if (n == 0) {
        element["value"] = nullptr;
        return true;
    }
    switch (type) {
    case 1:    // text
    case 11:   // obis
        for (size_t i = 0; i + 1 < n; ++i)
            if (v[i] == 0)
                return false;
        if (v[n - 1] != 0 || !IsUtf8(v, n - 1))
            return false;
        element["value"] = std::string(reinterpret_cast<const char*>(v), n - 1);
        return true;
    case 2:
        if (!IsExactVarint(v, end, 5, u) || u > 0xFFFFFFFFULL)
            return false;
        element["value"] = static_cast<int32_t>(static_cast<uint32_t>(u));
        return true;
    case 3:
        if (!IsExactVarint(v, end, 5, u) || u > 0xFFFFFFFFULL)
            return false;
        element["value"] = static_cast<uint32_t>(u);
        return true;
    case 4:
        if (n != 8)
            return false;
        for (int i = 7; i >= 0; --i)
            u = (u << 8) | v[i];
        if (u > kLastTimeMs)
            return false;
        element["value"] = TimeText(u);
        return true;
    case 5:
        element["value"] = Hex(v, n);
        return true;
    case 6: {
        const tDepthGuard depth;
        if (depth.TooDeep())
            return false;
        tJson entries = tJson::array();
        const unsigned char* p = v;
        while (p < end) {
            const unsigned char* start = p;
            if (!GetVarint(p, end, u, 5) || u > static_cast<uint64_t>(end - p))
                return false;
            tBytes again;
            PutVarint(again, u);
            if (again.size() != static_cast<size_t>(p - start))
                return false;
            entries.push_back(RecordBytesToJson(p, static_cast<size_t>(u)));
            p += u;
        }
        if (entries.size() == 1)
            element["value"] = entries[0];
        else
            element["entries"] = entries;
        return true;
    }
    case 7:
        if (n != 16)
            return false;
        element["value"] = UuidText(v);
        return true;
    case 8:
    case 9:
        if (!IsExactVarint(v, end, 10, u) || (n == 10 && v[9] > 1))
            return false;
        if (type == 8)
            element["value"] = static_cast<int64_t>(u);
        else
            element["value"] = u;
        return true;
    case 10:
        if (n != 1 || v[0] > 1)
            return false;
        element["value"] = v[0] == 1;
        return true;
    default:   // none with bytes, 12..15
        return false;
    }
}

// One element at p, or false when the bytes there are no well-formed element
// in canonical header form (the caller then writes them as raw).
bool ElementJson(const unsigned char*& p, const unsigned char* end, tJson& element)
{
    const unsigned char* q = p;
    uint64_t typeWord = 0, length = 0;
    if (!GetVarint(q, end, typeWord, 5) || typeWord > kKnownBits)
        return false;
    if (!GetVarint(q, end, length, 5) || length > static_cast<uint64_t>(end - q))
        return false;
    tBytes header;
    PutVarint(header, typeWord);
    PutVarint(header, length);
    if (header.size() != static_cast<size_t>(q - p))
        return false;
    const unsigned char* name = q;
    const unsigned char* elementEnd = q + length;
    const unsigned char* nul = name;
    while (nul < elementEnd && *nul != 0)
        ++nul;
    if (nul == elementEnd || !IsUtf8(name, static_cast<size_t>(nul - name)))
        return false;
    const uint32_t type = static_cast<uint32_t>(typeWord) & kTypeMask;
    element = tJson::object();
    element["name"] = std::string(reinterpret_cast<const char*>(name), nul - name);
    element["type"] = kTypeNames[type];
    tJson flags = FlagsJson(static_cast<uint32_t>(typeWord));
    if (!flags.empty())
        element["flags"] = flags;
    const unsigned char* value = nul + 1;
    const size_t valueSize = static_cast<size_t>(elementEnd - value);
    if (!ValueJson(type, value, valueSize, element))
        element["hex"] = Hex(value, valueSize);
    p = elementEnd;
    return true;
}

// ---- JSON to bytes -------------------------------------------------------------

tBytes RecordBytes(const tJson& json, const std::string& where);

int64_t IntegerIn(const tJson& v, int64_t low, int64_t high, const char* type)
{
    if (v.is_number_integer() && !v.is_number_unsigned()) {
        const int64_t i = v.get<int64_t>();
        if (i >= low && i <= high)
            return i;
    } else if (v.is_number_unsigned()) {
        const uint64_t u = v.get<uint64_t>();
        if (high >= 0 && u <= static_cast<uint64_t>(high))
            return static_cast<int64_t>(u);
    }
    throw tJsonError(std::string(type) + " value must be an integer from " + std::to_string(low) +
                     " to " + std::to_string(high));
}

tBytes ValueBytes(uint32_t type, const tJson& v, const std::string& where)
{
    tBytes out;
    if (v.is_null())
        return out;
    switch (type) {
    case 1:
    case 11: {
        if (!v.is_string())
            throw tJsonError(std::string(kTypeNames[type]) + " value must be a string");
        const std::string s = v.get<std::string>();
        if (s.find('\0') != std::string::npos)
            throw tJsonError(std::string(kTypeNames[type]) + " value must not contain NUL");
        return s + '\0';
    }
    case 2:
        PutVarint(out, static_cast<uint32_t>(IntegerIn(v, INT32_MIN, INT32_MAX, "sint")));
        return out;
    case 3:
        PutVarint(out, static_cast<uint64_t>(IntegerIn(v, 0, UINT32_MAX, "uint")));
        return out;
    case 4: {
        if (!v.is_string())
            throw tJsonError("time value must be a string like 2026-01-31T12:00:00.000Z");
        uint64_t ms = TimeFromText(v.get<std::string>());
        for (int i = 0; i < 8; ++i, ms >>= 8)
            out += static_cast<char>(ms & 0xFF);
        return out;
    }
    case 5:
        if (!v.is_string())
            throw tJsonError("data value must be a string of hex digits");
        return FromHex(v.get<std::string>(), "data value");
    case 6: {
        if (!v.is_array())
            throw tJsonError("record value must be an array of elements");
        const tBytes child = RecordBytes(v, where + ".");
        PutVarint(out, child.size());
        return out + child;
    }
    case 7:
        if (!v.is_string())
            throw tJsonError("uuid value must be a string");
        return UuidFromText(v.get<std::string>());
    case 8:
        PutVarint(out, static_cast<uint64_t>(IntegerIn(v, INT64_MIN, INT64_MAX, "sint64")));
        return out;
    case 9:
        if (v.is_number_unsigned()) {
            PutVarint(out, v.get<uint64_t>());
            return out;
        }
        PutVarint(out, static_cast<uint64_t>(IntegerIn(v, 0, INT64_MAX, "uint64")));
        return out;
    case 10:
        if (!v.is_boolean())
            throw tJsonError("bool value must be true or false");
        out += static_cast<char>(v.get<bool>() ? 1 : 0);
        return out;
    default:
        throw tJsonError(std::string(kTypeNames[type]) + " has no value form: use \"hex\" or null");
    }
}

uint32_t TypeCode(const tJson& t)
{
    if (t.is_string())
        for (uint32_t i = 0; i < 16; ++i)
            if (t.get<std::string>() == kTypeNames[i])
                return i;
    throw tJsonError("\"type\" must be one of none, text, sint, uint, time, data, record, uuid, "
                     "sint64, uint64, bool, obis, type12..type15");
}

uint32_t FlagBits(const tJson& flags)
{
    if (!flags.is_array())
        throw tJsonError("\"flags\" must be an array of flag names");
    uint32_t bits = 0;
    for (const tJson& f : flags) {
        bool known = false;
        for (const tFlagName& n : kFlags)
            if (f.is_string() && f.get<std::string>() == n.name)
                bits |= n.bit, known = true;
        if (!known)
            throw tJsonError("unknown flag " + f.dump() +
                             " (known: empty, marked, mark40, template, external)");
    }
    return bits;
}

tBytes ElementBytes(const tJson& e, const std::string& where)
{
    if (!e.is_object())
        throw tJsonError("an element must be a JSON object");
    if (e.contains("raw")) {
        if (e.size() != 1 || !e["raw"].is_string())
            throw tJsonError("a raw element holds only \"raw\" with a hex string");
        return FromHex(e["raw"].get<std::string>(), "raw");
    }
    for (auto it = e.begin(); it != e.end(); ++it) {
        const std::string& k = it.key();
        if (k != "name" && k != "type" && k != "flags" && k != "value" && k != "hex" &&
            k != "entries")
            throw tJsonError("unknown key \"" + k + "\"");
    }
    if (!e.contains("name") || !e["name"].is_string())
        throw tJsonError("\"name\" must be a string");
    const std::string name = e["name"].get<std::string>();
    if (name.find('\0') != std::string::npos)
        throw tJsonError("\"name\" must not contain NUL");
    const uint32_t type = e.contains("type") ? TypeCode(e["type"]) : TypeCode(tJson());
    const uint32_t flags = e.contains("flags") ? FlagBits(e["flags"]) : 0;
    const int forms = (e.contains("value") ? 1 : 0) + (e.contains("hex") ? 1 : 0) +
                      (e.contains("entries") ? 1 : 0);
    if (forms != 1)
        throw tJsonError("an element holds exactly one of \"value\", \"hex\", \"entries\"");
    const std::string here = where + name;
    tBytes value;
    if (e.contains("hex")) {
        if (!e["hex"].is_string())
            throw tJsonError("\"hex\" must be a string of hex digits");
        value = FromHex(e["hex"].get<std::string>(), "hex");
    } else if (e.contains("entries")) {
        if (type != 6 || !e["entries"].is_array())
            throw tJsonError("\"entries\" is an array of records, for type record only");
        for (const tJson& entry : e["entries"]) {
            if (!entry.is_array())
                throw tJsonError("each of \"entries\" must be an array of elements");
            const tBytes child = RecordBytes(entry, here + ".");
            PutVarint(value, child.size());
            value += child;
        }
    } else {
        value = ValueBytes(type, e["value"], here);
    }
    tBytes out;
    PutVarint(out, type | flags);
    PutVarint(out, name.size() + 1 + value.size());
    return out + name + '\0' + value;
}

tBytes RecordBytes(const tJson& json, const std::string& where)
{
    const tDepthGuard depth(1);
    if (depth.TooDeep())
        throw tJsonError("records nest deeper than " + std::to_string(kMaxDepth) + " levels");
    if (!json.is_array())
        throw tJsonError("a record must be a JSON array of elements");
    tBytes out;
    size_t index = 0;
    for (const tJson& e : json) {
        try {
            out += ElementBytes(e, where);
        } catch (const tJsonError& err) {
            std::string name;
            if (e.is_object() && e.contains("name") && e["name"].is_string())
                name = " \"" + where + e["name"].get<std::string>() + "\"";
            // An error from a nested record already names its element.
            const std::string text = err.what();
            if (text.rfind("element ", 0) == 0)
                throw;
            throw tJsonError("element " + std::to_string(index) + name + ": " + text);
        }
        ++index;
    }
    return out;
}

// A uuid reads the same in either case, and people paste them in lower case;
// it prints in upper case. Upper-casing the input's uuid values before the
// canonical-form comparison accepts both spellings without accepting any
// other spelling that would not print back the same.
void UpperCaseUuids(tJson& elements)
{
    if (!elements.is_array())
        return;
    for (tJson& e : elements) {
        if (!e.is_object() || !e.contains("type") || !e["type"].is_string())
            continue;
        const std::string type = e["type"].get<std::string>();
        if (type == "uuid" && e.contains("value") && e["value"].is_string()) {
            std::string text = e["value"].get<std::string>();
            for (char& c : text)
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            e["value"] = text;
        } else if (type == "record") {
            if (e.contains("value"))
                UpperCaseUuids(e["value"]);
            if (e.contains("entries") && e["entries"].is_array())
                for (tJson& entry : e["entries"])
                    UpperCaseUuids(entry);
        }
    }
}

}  // namespace

tJson RecordBytesToJson(const unsigned char* bytes, size_t size)
{
    tJson out = tJson::array();
    const unsigned char* p = bytes;
    const unsigned char* end = bytes + size;
    while (p < end) {
        tJson element;
        if (ElementJson(p, end, element)) {
            out.push_back(element);
            continue;
        }
        // Not an element: the rest goes out as one raw run. The reader
        // appends it verbatim, so the bytes come back unchanged.
        tJson raw = tJson::object();
        raw["raw"] = Hex(p, static_cast<size_t>(end - p));
        out.push_back(raw);
        break;
    }
    return out;
}

tJson RecordToJson(const orvo::cRecord& record)
{
    return RecordBytesToJson(reinterpret_cast<const unsigned char*>(record.GetBuffer()),
                             record.IsEmpty() ? 0 : static_cast<size_t>(record.GetSize()));
}

bool JsonToRecord(const tJson& input, orvo::cRecord& record, std::string& error)
{
    record.Create();
    tJson json = input;
    UpperCaseUuids(json);
    try {
        const tBytes bytes = RecordBytes(json, "");
        const tJson again =
            RecordBytesToJson(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        if (again != json) {
            // Find the first element that reads back differently.
            size_t i = 0;
            while (i < json.size() && i < again.size() && json[i] == again[i])
                ++i;
            const std::string back = i < again.size() ? again[i].dump() : std::string("nothing");
            error = "element " + std::to_string(i) +
                    ": not in canonical form; these bytes read back as " + back;
            return false;
        }
        if (!bytes.empty())
            record.Create(bytes.data(), static_cast<int>(bytes.size()));
        return true;
    } catch (const tJsonError& err) {
        error = err.what();
    } catch (const nlohmann::json::exception& err) {
        error = err.what();
    }
    return false;
}

bool ParseJson(const std::string& text, tJson& json, std::string& error)
{
    try {
        json = tJson::parse(text);
        return true;
    } catch (const nlohmann::json::exception& err) {
        error = err.what();
        return false;
    }
}

}  // namespace orvo_tools
