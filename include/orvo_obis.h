// orvo_obis.h - cObis, an OBIS code A-B:C.D.E*F kept as six text components,
// with its text form and its packed 48-bit number form.
//
// Components are kept as the text that was given (decimal digits in
// practice); no range check is made; an empty string means "absent".
// Number form: A in bits 40-47, B 32-39, C 24-31, D 16-23, E 8-15, F 0-7
// (1-0:1.8.0*255 is 0x0100010800FF); the short form's number is
// C << 16 | D << 8 | E. Plain values; not thread-safe.
#pragma once

#include <string>

#include "orvo_object.h"

namespace orvo {

class ORVO_API cObis {
public:
    // The short form C.D.E alone.
    class ORVO_API cShort {
    public:
        cShort() = default;
        explicit cShort(const std::string& text) { FromString(text); }

        void Clean();                               // C, D, E empty
        bool IsValid() const;                       // any of C, D, E present
        // Clean(), then "C.D" (E stays empty) or "C.D.E": true. Any other
        // number of "."-separated pieces: false, components empty. Empty
        // pieces are kept ("1..0" sets D to "").
        bool FromString(const std::string& text);
        // C, then ".D" if D is present, then ".E" if E is present.
        std::string ToString() const;
        // C, D, E = the bytes 2, 1, 0 of n printed with "%i"; always true.
        bool FromNumber(const unsigned long long& n);
        // Sum of atoi(component) << position; absent components count 0;
        // values above 255 are not masked and spill into the next group.
        unsigned long long ToNumber() const;
        bool operator==(const cShort& other) const;   // all components as text

        std::string C, D, E;
    };

    cObis() = default;
    explicit cObis(const std::string& text) { FromString(text); }

    void Clean();                    // all six components empty
    bool IsValid() const;            // A and B present and short part valid
    // Clean(), then "A-B:short[*F]" or "short[*F]" where short is parsed
    // by cShort::FromString. Returns false when there are more than two
    // ":"-pieces, the part before ":" is not exactly "A-B", or the rest has
    // no piece or more than two "*"-pieces (components already read are
    // kept). The short part's own result is not passed on: "1-0:1*255"
    // returns true with an empty short part, so test IsValid() when a
    // complete code is needed.
    bool FromString(const std::string& text);
    // "A-B" when both are present, then ":" + short form when the short part
    // is valid, then "*F" when F is present. Without A-B a code prints with
    // a leading colon (":1.8.0").
    std::string ToString() const;
    // Each component = its byte of n printed with "%i"; always true.
    bool FromNumber(const unsigned long long& n);
    // As cShort::ToNumber over all six groups.
    unsigned long long ToNumber() const;
    bool operator==(const cObis& other) const;   // all components as text

    std::string A;      // medium
    std::string B;      // channel
    cShort Short;       // C.D.E
    std::string F;      // storage
};

}  // namespace orvo
