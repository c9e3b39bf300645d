// orvo_socketaddr.h - cSocketAddr, the IPv4 address and port of a socket.
//
// A cSocketAddr is a sockaddr_in and nothing more: 16 bytes (family, port in
// network order, address in network order, 8 zero bytes), no virtual
// functions, copied by value everywhere and passed to the socket calls as it
// is (GetSockAddr()). Every constructor sets the family to AF_INET, except
// the text constructor on text it cannot read (see there). A plain value; not
// thread-safe.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "orvo_object.h"

namespace orvo {

class ORVO_API cSocketAddr : public sockaddr_in {
public:
    // 0.0.0.0 port 0, family AF_INET.
    cSocketAddr();
    // Address and port in host order; stored in network order.
    cSocketAddr(unsigned long ip, unsigned short port);
    // The 16 bytes as they are.
    cSocketAddr(const sockaddr_in& addr);
    // Parses "a.b.c.d", "a.b.c.d:port" or ":port" (no name resolution):
    //  - null text: all 16 bytes zero, family included;
    //  - ":port": 127.0.0.1 with the port from the text (it wins over the
    //    argument);
    //  - otherwise four decimal numbers joined by "." combined as
    //    a<<24 | b<<16 | c<<8 | d without range checks (300 spills into the
    //    next octet, as on the device); when one of the first three is not
    //    followed by "." the value stays all zero, family included. A
    //    ":port" after the fourth number counts only when the argument is 0.
    // Numbers are read like the device's 32-bit strtol (saturated to the
    // 32-bit range, so a host reads the same value); the port keeps its low
    // 16 bits.
    cSocketAddr(const char* text, unsigned short port);

    // Address and port in host order.
    unsigned long GetIP() const;
    unsigned short GetPort() const;
    // Byte i (0..3) of the address as stored: [0] is the first dotted number.
    // Asserts "i>=0 && i<4".
    unsigned char operator[](int i) const;
    // Address and port both zero (the family is not looked at).
    bool IsEmpty() const;

    // "%li.%li.%li.%li" of the four bytes into buf (snprintf, cut to size);
    // returns buf.
    char* GetIPStr(char* buf, int size) const;
    std::string GetIPString() const;
    std::string GetPortString() const;      // "%i" of the port
    std::string ToString() const;           // "10.0.0.1:4000"

    // All 16 bytes compared.
    bool operator==(const cSocketAddr& other) const;
    bool operator!=(const cSocketAddr& other) const { return !(*this == other); }

    // This value as the generic address of the socket calls; the length to
    // pass with it is sizeof(sockaddr_in).
    const sockaddr* GetSockAddr() const { return reinterpret_cast<const sockaddr*>(this); }
    sockaddr* GetSockAddr() { return reinterpret_cast<sockaddr*>(this); }
};

}  // namespace orvo
