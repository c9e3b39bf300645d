// orvo_msg.h - cMsg, the message: a 24-bit type, a transaction id, a record
// payload and weak references to the channel it came from, the state machine
// it is addressed to and the timer that produced it.
//
// Header: 4 bytes kept exactly as they travel. Bytes 0-2 hold the type as an
// unsigned 24-bit little-endian number, byte 3 is a spare byte the library
// carries along and never interprets. The group of a type is bits 12-23.
//
// Payload form (the kind 0-3 travels in the packet framing, not in the
// payload; multi-byte numbers little-endian):
//
//     kind 0: header(4)                      record bytes
//     kind 1: header(4) tid(16)              record bytes
//     kind 2: header(4)          token(4)    record bytes
//     kind 3: header(4) tid(16)  token(4)    record bytes
//
// The token is the state machine's 32-bit handle (orvo_handle.h), never a
// pointer: it means something only to the process that sent it, which
// resolves it again when a peer quotes it back.
//
// References: channel, state machine and timer are not owned and not kept
// alive by the message. A service drops queued messages that name an object
// when that object goes away. Inside a process the three references are plain
// pointers; wherever a message leaves memory (payload, record form) they are
// carried as handles, so those objects must be registered in the handle table
// (their constructors do that). A set pointer without a handle counts as not
// set there.
//
// A cMsg is a value: copies share the payload bytes (copy on write, see
// cRecord). Not thread-safe; a message belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "orvo_object.h"
#include "orvo_record.h"
#include "orvo_uuid.h"

namespace orvo {

class cChannel;
class cStateMachine;
class cTimer;

class ORVO_API cMsg : public cObject {
public:
    // Type 0, no tid, empty record, no references (as Create()).
    cMsg() : cMsg(0, nullptr, nullptr) {}
    // Header zeroed, then SetType(type); no tid, empty record, no references.
    explicit cMsg(unsigned long type) : cMsg(type, nullptr, nullptr) {}
    // As above with channel and state machine set; timer null.
    cMsg(unsigned long type, cChannel* channel, cStateMachine* statem)
        : m_Header{static_cast<unsigned char>(type & 0xFF), static_cast<unsigned char>((type >> 8) & 0xFF),
                   static_cast<unsigned char>((type >> 16) & 0xFF), 0},
          m_pChannel(channel),
          m_pStatem(statem),
          m_pTimer(nullptr)
    {
    }
    // Copies the object name and mark, header, tid, references; the record
    // is shared (cRecord assignment). Self-assignment does nothing.
    cMsg(const cMsg& other)
        : cObject(other),
          m_Record(other.m_Record),
          m_Tid(other.m_Tid),
          m_pChannel(other.m_pChannel),
          m_pStatem(other.m_pStatem),
          m_pTimer(other.m_pTimer)
    {
        std::memcpy(m_Header, other.m_Header, sizeof m_Header);
    }
    cMsg& operator=(const cMsg& other)
    {
        if (this != &other) {
            cObject::operator=(other);
            std::memcpy(m_Header, other.m_Header, sizeof m_Header);
            m_Tid = other.m_Tid;
            m_Record = other.m_Record;
            m_pChannel = other.m_pChannel;
            m_pStatem = other.m_pStatem;
            m_pTimer = other.m_pTimer;
        }
        return *this;
    }
    ~cMsg() override = default;

    // Resets everything: header zeroed, tid cleared, record empty, channel,
    // statem and timer null. Always true.
    bool Create();

    // Builds the message from a received payload of the given kind.
    //   kind > 3:   returns -1, nothing changes.
    //   otherwise:  channel and statem are stored and the timer cleared;
    //               size < 4 (or null data) then returns -2.
    //   Then the header, for kinds 1/3 the tid, for kinds 2/3 the token, and
    //   the record from the bytes behind the fixed part (when there are any);
    //   returns 1.
    // Fields the payload does not carry (tid for kinds 0/2, the record when
    // no record bytes follow) are not reset: parse into a fresh message.
    // The token replaces the statem argument: it is resolved as a state
    // machine handle; 0, an unknown handle or one of another kind gives null
    // (unknown ones are traced on UnitORVO at WARNING).
    // A payload that ends inside the announced tid or token is accepted
    // without reading past size: the tid takes the bytes that are there,
    // the missing ones 0, and counts as valid; a cut token gives a null
    // state machine (traced at WARNING). No record follows then.
    // The record bytes are copied; data need not outlive the call.
    int Create(unsigned char kind, const void* data, int size, cChannel* channel,
               cStateMachine* statem);

    // Payload kind a datagram sender uses: 1 if the tid is valid, plus 2 if
    // a state machine is set.
    unsigned char GetKind() const;
    // Bytes the payload of this kind takes (header, tid, token, record);
    // -1 for kind > 3.
    int GetPayloadSize(unsigned char kind) const;
    // Writes the payload of this kind. Kinds 1/3 write the tid's 16 bytes
    // even when it is not valid (zeros); kinds 2/3 write HandleOf(statem),
    // 0 when no (registered) state machine is set.
    //   Serialize(kind, out): replaces out; 1, or -1 for kind > 3 (out
    //     untouched).
    //   Serialize(kind, buffer, capacity): returns the number of bytes
    //     written, -1 for kind > 3, -2 when capacity is smaller than
    //     GetPayloadSize(kind) (nothing written).
    int Serialize(unsigned char kind, std::string& out) const;
    int Serialize(unsigned char kind, void* buffer, int capacity) const;

    // Type: the low 24 bits of the header.
    unsigned long GetType() const
    {
        return static_cast<unsigned long>(m_Header[0]) |
               (static_cast<unsigned long>(m_Header[1]) << 8) |
               (static_cast<unsigned long>(m_Header[2]) << 16);
    }
    // Stores the low 24 bits; bits 24-31 (and above) are dropped.
    void SetType(unsigned long type);
    // Compare GetType() with the whole argument: a value above 0xFFFFFF is
    // never equal.
    bool operator==(unsigned long type) const { return GetType() == type; }
    bool operator!=(unsigned long type) const { return GetType() != type; }
    // (type >> 12) & 0xFFF.
    unsigned long GetGroup() const { return (GetType() >> 12) & 0xFFFu; }
    // The spare fourth header byte.
    void SetUnused(unsigned char value) { m_Header[3] = value; }
    unsigned char GetUnused() const { return m_Header[3]; }
    // The 4 header bytes in payload order; lives with the message.
    const unsigned char* GetHeader() const { return m_Header; }

    // 4 + 16 when the tid is valid + the record's size. The token of kinds
    // 2/3 is not counted.
    int GetSize() const;

    // Payload; the non-const form may be filled in place.
    cRecord& GetRecord() { return m_Record; }
    const cRecord& GetRecord() const { return m_Record; }
    void SetRecord(const cRecord& record) { m_Record = record; }

    // Transaction id; cleared (not valid) at construction.
    const cUuid& GetTid() const { return m_Tid; }
    void SetTid(const cUuid& tid) { m_Tid = tid; }

    // Weak references (null when none); see the file comment.
    cChannel* GetChannel() const { return m_pChannel; }
    void SetChannel(cChannel* channel) { m_pChannel = channel; }
    cStateMachine* GetStatem() const { return m_pStatem; }
    void SetStatem(cStateMachine* statem) { m_pStatem = statem; }
    cTimer* GetTimer() const { return m_pTimer; }
    void SetTimer(cTimer* timer) { m_pTimer = timer; }

    // Record form, for carrying a message inside the process. r is re-created
    // and gets, with flags 0 and in this order: "header" (data, 4 bytes);
    // "channel", "timer", "statem" (uint, the object's handle) for each
    // reference that is set and registered; "tid" (uuid) when the tid is
    // valid; "record" (sub-record) when the payload is not empty.
    void ToRecord(cRecord& r) const;
    // Create(), then takes the first parameter of each name present:
    // "header" only when it holds exactly 4 data bytes; "channel", "statem",
    // "timer" resolved as handles of their kind (0 or unknown: null);
    // "tid"; "record". Missing parameters are ignored (no "header": type 0).
    // Returns false when a "header" is present but does not hold exactly 4
    // bytes (the header then stays zero; the rest is still taken), else true.
    bool FromRecord(const cRecord& r);

    // "{type=<name> (0x%06X)[, tid=<tid>][, record=<record text>]
    //  [, channel={<channel text>}][, timer=<timer text>]}", without line
    // breaks. The state machine is never printed.
    std::string ToString() const override;

private:
    unsigned char m_Header[4];         // type bytes 0-2 (little-endian), spare
    cRecord m_Record;                  // payload, empty at construction
    cUuid m_Tid;                       // transaction id, not valid at first
    cChannel* m_pChannel;              // not owned; null if none
    cStateMachine* m_pStatem;          // not owned; null if none
    cTimer* m_pTimer;                  // not owned; null if none
};

}  // namespace orvo
