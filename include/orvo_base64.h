// orvo_base64.h - cBase64: Base64 text of bytes and back, with the standard
// alphabet ("+/") or the URL- and file-name-safe one ("-_"), with or without
// '=' padding.
//
// Decoding accepts padded and unpadded text, and line breaks (CR, LF) anywhere,
// as in 76-column MIME or 64-column PEM bodies. Everything else is refused with
// false: characters outside the alphabet (spaces included), misplaced or
// surplus padding, a lone trailing character, and unused low bits that are not
// zero (so every byte string has exactly one accepted text per alphabet apart
// from padding and line breaks). Decoding reads exactly the len characters it
// is given and never more. All functions are pure and thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "orvo_object.h"

namespace orvo {

enum class eBase64Alphabet { Standard, UrlSafe };

class ORVO_API cBase64 {
public:
    // Characters Encode writes for len bytes.
    static size_t EncodedSize(size_t len, bool pad = true);
    // An upper bound of the bytes Decode writes for len characters.
    static size_t DecodedMaxSize(size_t len) { return (len + 3) / 4 * 3; }

    // Writes EncodedSize(len, pad) characters to out (no terminating zero)
    // and returns that count.
    static size_t Encode(const void* data, size_t len, char* out,
                         eBase64Alphabet alphabet = eBase64Alphabet::Standard, bool pad = true);
    static std::string Encode(const void* data, size_t len,
                              eBase64Alphabet alphabet = eBase64Alphabet::Standard, bool pad = true);
    static std::string Encode(const std::string& bytes,
                              eBase64Alphabet alphabet = eBase64Alphabet::Standard, bool pad = true);
    // Standard, padded text broken into lines of lineLength characters (76
    // for MIME, 64 for PEM), each ended by eol, the last one included.
    static std::string EncodeLines(const void* data, size_t len, size_t lineLength = 76,
                                   const char* eol = "\r\n");

    // Decodes len characters into out (room for DecodedMaxSize(len) bytes)
    // and sets outLen. False on text that is not Base64 of the alphabet;
    // out's content is then unspecified.
    static bool Decode(const char* text, size_t len, unsigned char* out, size_t& outLen,
                       eBase64Alphabet alphabet = eBase64Alphabet::Standard);
    // The same into a vector (empty on false).
    static bool Decode(const char* text, size_t len, std::vector<unsigned char>& out,
                       eBase64Alphabet alphabet = eBase64Alphabet::Standard);
    static bool Decode(const std::string& text, std::vector<unsigned char>& out,
                       eBase64Alphabet alphabet = eBase64Alphabet::Standard);
    static bool Decode(const std::string& text, std::string& out,
                       eBase64Alphabet alphabet = eBase64Alphabet::Standard);
};

}  // namespace orvo
