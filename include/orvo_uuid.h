// orvo_uuid.h - cUuid, the 16-byte identifier of services, message
// transactions and record values.
//
// Binary form: the 16 bytes as stored (GetBuffer/GetSize). Text form:
// 8-4-4-4-12 upper-case hexadecimal over the bytes in the order
// 3,2,1,0, 5,4, 7,6, 8,9, 10..15 (the first three groups print reversed).
// A plain value; not thread-safe (SetMacAddr is meant for start-up).
#pragma once

#include <cstring>
#include <string>

#include "orvo_object.h"

namespace orvo {

class ORVO_API cUuid : public cObject {
public:
    cUuid() { Clear(); }             // all bytes 0, not valid
    cUuid(const cUuid& other) : cObject(other), m_Valid(other.m_Valid)
    {
        std::memcpy(m_Bytes, other.m_Bytes, sizeof m_Bytes);
    }
    // Bytes and valid flag.
    cUuid& operator=(const cUuid& other)
    {
        if (this != &other) {
            cObject::operator=(other);
            std::memcpy(m_Bytes, other.m_Bytes, sizeof m_Bytes);
            m_Valid = other.m_Valid;
        }
        return *this;
    }
    ~cUuid() override = default;

    // All bytes 0, not valid.
    void Clear()
    {
        std::memset(m_Bytes, 0, sizeof m_Bytes);
        m_Valid = false;
    }
    // New value: bytes 0-5 the node address, 6-9 the seconds and 10-13 the
    // microseconds of gettimeofday (32 bits each, little-endian), 14 and 15
    // the low bytes of two random() calls; then every byte XOR 0x67.
    // Valid; always true.
    bool Create();
    // Exactly 16 bytes copied, valid. A null pointer or any other size
    // clears the value and returns false.
    bool Create(const void* data, int size);
    // Parses the ToString form (lower-case digits accepted) with sscanf,
    // storing the bytes back in the order ToString prints them, so
    // Create(x.ToString()) gives x's bytes. Valid (and true) exactly when all
    // 16 values were converted; the values converted before a failure are
    // kept, the rest stay 0. Null text: cleared, false.
    bool Create(const char* text);

    // Copies 6 bytes into the process-wide node address used by Create().
    // Call it at start-up, before other threads create values. Null is ignored.
    static void SetMacAddr(unsigned char* mac);

    bool IsValid() const { return m_Valid; }
    const void* GetBuffer() const { return m_Bytes; }   // 16 bytes, lives with the object
    int GetSize() const { return 16; }

    // Bytes only (memcmp); the valid flag is not compared.
    bool operator==(const cUuid& other) const
    {
        return std::memcmp(m_Bytes, other.m_Bytes, sizeof m_Bytes) == 0;
    }
    bool operator!=(const cUuid& other) const { return !(*this == other); }
    // memcmp of the bytes below 0: a total order usable as a map key.
    bool operator<(const cUuid& other) const;

    // "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX"; the valid flag is not consulted
    // (a cleared value prints as zeros).
    std::string ToString() const override;

private:
    unsigned char m_Bytes[16];       // the value
    bool m_Valid = false;
};

}  // namespace orvo
