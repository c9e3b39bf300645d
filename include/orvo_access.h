// orvo_access.h - cControlAccess, who may send a service the library's
// control messages (0x7000 to 0x7007: trace on/off and output, snoop on/off
// and reports, service information request and reply).
//
// Those messages change what a service logs, copy its traffic to the
// sender, and hand out its whole configuration; nothing in them says who
// sent them. A policy decides by the peer's IPv4 address:
//
//     any        every peer (the default: the protocol has always been open)
//     loopback   peers on 127.0.0.0/8 only (processes of the same device)
//     list       the addresses and networks of a list
//     none       nobody
//
// Text form (the configuration's "control-access", cService's
// SetControlAccess): "any", "loopback", "none", or a list of entries
// separated by blanks or commas, each "a.b.c.d", "a.b.c.d/bits" or the word
// "loopback" (127.0.0.0/8), e.g. "loopback, 192.0.2.7, 192.0.2.64/26".
// A plain value; not thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvo_object.h"
#include "orvo_socketaddr.h"

namespace orvo {

enum eControlAccess {
    CONTROL_ANY = 0,
    CONTROL_LOOPBACK = 1,
    CONTROL_LIST = 2,
    CONTROL_NONE = 3
};

class ORVO_API cControlAccess {
public:
    // CONTROL_ANY.
    cControlAccess();
    static cControlAccess Any() { return cControlAccess(); }
    static cControlAccess Loopback();
    static cControlAccess None();

    // Reads the text form. On a word it cannot read it returns false, says
    // which in error (when given) and leaves the policy unchanged. An empty
    // text reads as "any".
    bool Parse(const std::string& text, std::string* error = nullptr);
    // Adds one network (host order) to the list and makes the policy a list.
    void AddNetwork(uint32_t ip, int bits);

    // True when peer may send control messages. On false, why says so in
    // words fit for a trace ("control access is loopback only", ...).
    bool Allows(const cSocketAddr& peer, std::string* why = nullptr) const;
    // The same for a peer without an IPv4 address (a serial line): only
    // the open policy lets it in.
    bool AllowsUnaddressed(std::string* why = nullptr) const;

    eControlAccess GetMode() const { return m_Mode; }
    // The text form: "any", "loopback", "none" or the list
    // ("127.0.0.0/8, 192.0.2.7/32").
    std::string ToString() const;

private:
    struct sNet {
        uint32_t ip;        // host order, host bits cleared
        uint32_t mask;      // host order
    };
    eControlAccess m_Mode;
    std::vector<sNet> m_Nets;
};

}  // namespace orvo
