// orvo_data.h - cData, an owned or borrowed byte string with a hexadecimal
// text form and a few further conversions, and cHelper, static string helpers.
//
// cData either owns its bytes (freed on destruction or replacement) or
// borrows them (the caller keeps them alive for as long as the cData refers
// to them). Copies are deep and always own. Not thread-safe; a plain value.
// Allocation failures never throw: the functions return 0/false and leave
// the value empty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "orvo_object.h"

namespace orvo {

class ORVO_API cData {
public:
    cData();                                        // no data, IsEmpty() true
    cData(unsigned char const* p, int len, bool copy);  // SetData(p, len, copy)
    explicit cData(char const* hexText);            // FromString(hexText)
    cData(const cData& other);                      // deep copy, owning
    cData& operator=(const cData& other);           // deep copy, owning
    ~cData();

    // copy false: borrow p (not owner) and return 1; p must stay valid and
    // must not point into bytes this object owns. copy true: free the old
    // own bytes, own a copy of len bytes and return 1; when the allocation
    // fails return 0 with no data, length 0 and IsEmpty() true. A negative
    // len or a null p counts as 0 bytes.
    int SetData(unsigned char const* p, int len, bool copy);
    // Add bytes at the end; the result is always owned. On allocation
    // failure (or a total above 2^31 - 1 bytes) the value is unchanged.
    void Append(unsigned char const* p, int len);
    void Append(cData const& other);

    // The bytes (null when there are none); valid until the value changes.
    unsigned char* GetData() const { return m_Data; }
    unsigned int GetLen() const { return m_Len; }
    // True after default construction and after a failed allocation; false
    // once data has been set.
    bool IsEmpty() const { return m_Empty; }
    // Byte i; i must be below GetLen() (asserted: "i < m_Len").
    unsigned char& operator[](unsigned i);
    unsigned char operator[](unsigned i) const;

    // Text put between bytes by ToString (default "."); only its first
    // character is printed between bytes, but its whole length is cut from
    // the end.
    void SetSeparator(std::string const& sep) { m_Separator = sep; }
    void SetHexLowerCase(bool lower) { m_HexLowerCase = lower; }

    // Hexadecimal text "0A.1B.2C". maxBytes 0 prints every byte; a limit N
    // prints N + 2 bytes followed by "...." (one dot of which is then cut as
    // the trailing separator, with the default separator).
    std::string ToString(unsigned maxBytes = 0) const;
    // Replaces the value by the bytes of hexadecimal text, owned: the dotted
    // form ("0A.1B", chosen when the text is shorter than 3 characters or its
    // third character is '.') or the compact form ("0A1B"). Each byte is read
    // from two characters with strtol base 16, so a non-hexadecimal character
    // ends that byte early ("A" gives 0x0A, "G1" gives 0). A null text counts
    // as empty. False (no data, length 0) only when allocation fails.
    bool FromString(char const* text);

    // Every byte in 0x20..0x80 (0x7F and 0x80 count); true for no bytes.
    bool IsPrintable() const;
    // Bytes 0x20..0x7E as characters, any other byte as '.'. A non-zero
    // maxBytes prints at most that many bytes, followed by "..." when cut.
    std::string Printable(unsigned maxBytes = 0) const;
    // Decimal byte values joined by the separator ("10.27.44"); maxBytes as
    // for Printable.
    std::string Digitable(unsigned maxBytes = 0) const;
    // C-style text: bytes 0x20..0x7E as themselves except '\' ("\\"), then
    // "\n", "\r", "\t", "\0" and "\xHH" (upper-case) for all others. count
    // receives the number of bytes that needed an escape.
    std::string Escape(unsigned& count) const;
    // Inverse of Escape over a NUL-terminated text: also accepts \" \' \a \b
    // \f \v and \x with one or two hexadecimal digits. Replaces the value
    // with the decoded bytes (owned). False, value unchanged, for a null text,
    // an unknown escape, a "\x" without digits or a text ending in '\'; false
    // and empty when allocation fails.
    bool SetDataFromEsacpe(unsigned char const* text);
    // Standard Base64 (RFC 4648 alphabet, '=' padding, no line breaks);
    // cBase64 (orvo_base64.h) has the other forms and decoding.
    std::string ToBase64() const;
    // MD5 (RFC 1321) of the bytes into digest (16 bytes, owned), through the
    // hash family (orvo_hash.h). False when OpenSSL refuses or the digest
    // cannot be allocated.
    bool CalcMd5(cData& digest) const;
    // MD5 of the text's bytes as 32 hexadecimal digits.
    static std::string ToMd5HexStr(std::string const& text, bool lowerCase);

    // True only when both have data, the lengths are equal and the bytes are
    // equal: two default values are not equal.
    bool operator==(cData const& other) const;
    // True when both have data, this length is at most the other's and this
    // object's bytes compare below the other's first bytes; otherwise the
    // shorter value is the smaller.
    bool operator<(cData const& other) const;

    // Allocation seam for tests: every allocation of owned bytes goes through
    // this function (memory it returns is released with free()); null
    // restores malloc. Process-wide; set it while no other thread allocates.
    using tAllocFunc = void* (*)(size_t size);
    static void SetAllocFunc(tAllocFunc func);

private:
    void Release();

    bool m_Owner = false;            // m_Data is ours to free
    unsigned char* m_Data = nullptr; // the bytes, or null
    uint32_t m_Len = 0;              // number of bytes
    bool m_Empty = true;             // never set, or allocation failed
    uint32_t m_Scratch = 0;          // cleared by constructors and FromString
    std::string m_Separator = ".";   // between bytes in ToString
    bool m_HexLowerCase = false;     // "%02x" instead of "%02X"
};

class ORVO_API cHelper {
public:
    // Split text at separator. An empty text or separator gives no pieces;
    // empty pieces are kept ("1..0" at "." gives "1", "", "0"); a text
    // without separator gives one piece; maxCount N (not 0) gives at most N
    // pieces, the last holding the unsplit rest.
    static std::vector<std::string> GetStringTokens(std::string const& text,
                                                    std::string const& separator,
                                                    unsigned maxCount = 0);
    // ASCII case conversion; other bytes unchanged.
    static std::string StringToUppercase(std::string const& text);
    static std::string StringToLowercase(std::string const& text);
    // The characters in reverse order.
    static std::string StringInverse(std::string const& text);
    // Equality, optionally ignoring ASCII case.
    static bool StringCompare(std::string const& a, std::string const& b, bool caseSensitive = true);
    // Whole file into text; false (text empty) when it cannot be read.
    static bool StringFromFile(std::string const& path, std::string& text);
    // Remove any of chars from the start / end.
    static std::string StringTrimLeft(std::string const& text, std::string const& chars = " \t\r\n");
    static std::string StringTrimRight(std::string const& text, std::string const& chars = " \t\r\n");
    static bool StringContains(std::string const& text, std::string const& part);
    // Every occurrence of from (left to right, not overlapping) replaced; an
    // empty from changes nothing.
    static std::string StringReplace(std::string const& text, std::string const& from, std::string const& to);
    // & < > " ' as &amp; &lt; &gt; &quot; &apos;.
    static std::string StringXmlEncode(std::string const& text);
    // Those five entities and numeric &#NN; / &#xHH; (as UTF-8) back; any
    // other '&' stays as it is.
    static std::string StringXmlDecode(std::string const& text);
    // Everything but A-Z a-z 0-9 - _ . ~ as %XX (upper-case).
    static std::string StringUrlEncode(std::string const& text);
    // "a=1;b=2" into ("a","1"), ("b","2"): pieces split at pairSeparator,
    // each at its first valueSeparator (a piece without one gives an empty
    // value); empty pieces are skipped.
    static std::vector<std::pair<std::string, std::string>> TokensAsNameValue(
        std::string const& text, std::string const& pairSeparator, std::string const& valueSeparator);
    // random() in min..max inclusive; min when max <= min.
    static int GetRandom(int min, int max);
};

}  // namespace orvo
