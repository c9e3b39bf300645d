// orvo_netmgr.h - cNetworkManager: the device's IPv4 network set-up through
// the kernel's interface and route requests and two system files.
//
// Interfaces go up and down and get an address and netmask; the default
// route is added or removed; the resolver configuration is written; host
// names are resolved for cSocketAddr. Failures come back as a negative
// result and, where the call takes one, an error text that is cleared
// first; the flag requests and Initialize also trace at ERROR on UnitORVO.
//
// The control descriptor (an AF_INET stream socket used only as the handle
// of the requests) is opened by Initialize(); the interface and route
// requests open it themselves when it is not open yet, and it stays open
// until Close() or destruction.
//
// Files (DESIGN: redirected for tests and desktop runs by environment
// variables read at each use):
//   resolver configuration  "/etc/resolv.conf"  ($ORVO_RESOLV_CONF)
//   kernel route table      "/proc/net/route"   ($ORVO_PROC_NET_ROUTE)
//
// The default route this class adds: destination and mask 0.0.0.0, the
// given gateway, the given device, flags up and gateway (RTF_UP |
// RTF_GATEWAY), metric 0. Removing one matches destination, gateway and
// device.
//
// Interface names are copied into the request without a length check and
// must fit IFNAMSIZ. Most requests need CAP_NET_ADMIN.
//
// Thread safety: none; one manager per thread (RemoveDefaultGateway uses a
// manager of its own).
#pragma once

#include <string>

#include "orvo_init.h"
#include "orvo_socketaddr.h"

namespace orvo {

class ORVO_API cNetworkManager {
public:
    cNetworkManager();
    // Closes the control descriptor.
    virtual ~cNetworkManager();

    // Opens the control descriptor when it is not open; on failure traces
    // "Initialize: failed : <strerror>" and it stays -1. Returns it.
    int Initialize();
    // Closes the control descriptor when it is open (0 or more); -1 after.
    void Close();
    int GetFd() const { return m_fd; }

    // True when text contains a "." and inet_addr(text) is not 1. Only
    // texts whose inet_addr value is 1 ("1.0.0.0" on little-endian
    // machines) are refused; a text inet_addr rejects ("300.1.1.1") passes.
    static bool IsValidIPFormat(std::string const& text);

    // Whether every bit of mask is set in the interface's flags. Unknown
    // interface: false, traced "ChkFlag: <name> - unknown interface : ...".
    bool ChkFlag(std::string const& ifname, short mask);
    bool IsUp(std::string const& ifname);        // IFF_UP
    bool IsRunning(std::string const& ifname);   // IFF_RUNNING
    // Sets (clears) bits in the interface's flags. Returns the failing or
    // last request's result (0, or negative with errno); traces "SetFlag:
    // <name> - unknown interface : ..." ("ClrFlag: ...") when the flags
    // cannot be read and, for both, "SetFlag: SIOCSIFFLAGS failed : ..."
    // when they cannot be written.
    int SetFlag(std::string const& ifname, short bits);
    int ClrFlag(std::string const& ifname, short bits);

    // IFF_UP on (off). On failure err = "InterfaceUp: <name> - failed :
    // <strerror>" ("InterfaceDown: ..."). Returns SetFlag's (ClrFlag's)
    // result.
    int InterfaceUp(std::string const& ifname, std::string& err);
    int InterfaceDown(std::string const& ifname, std::string& err);

    // Gives the interface address ip (an existing address counts as set),
    // turns it up and running and sets netmask. 0, or -1 with err:
    //   "invalid ip format" (either text refused by IsValidIPFormat),
    //   "CreateInterface: <name> - Initialization failed(<errno>) '<text>'",
    //   "CreateInterface: <name> - Setup failed(<errno>) '<text>'",
    //   "CreateInterface: <name> - Setting Netmask failed : <text>".
    int CreateInterface(std::string const& ifname, std::string const& ip, std::string const& netmask,
                        std::string& err);
    // Adds (add true; every default route listed in the route table is
    // removed first) or deletes the default route through gateway (dotted
    // text or a host name) on ifname. 0, or -1 with err = "DoDefaultGateway:
    // Adding Default Gateway Route failed : <strerror>" (the same words for
    // a failed delete).
    int DoDefaultGateway(std::string const& ifname, std::string const& gateway, bool add,
                         std::string& err);
    // Deletes every default route (destination 0) the route table lists, on
    // the interface and through the gateway it names. Returns 0.
    int RemoveDefaultGateway();

    // Writes the resolver configuration: "nameserver <s>\n" for each server
    // of the blank-separated list, in order (doubled blanks give an empty
    // entry, written as "nameserver \n"), then "search <search>\n" when
    // search is not empty. 0, or -1 with err = "SetDNS failed : emtpy DNS
    // servers" (null or empty list, file untouched) or "SetDNS: open '/etc/resolv.conf' failed : <strerror>"
    // (the system file's name also when the path is redirected).
    int SetDNS(char const* servers, char const* search, std::string& err);

    // addr = cSocketAddr(host, port) when that is not empty (dotted text,
    // ":port"); otherwise host is "name[:port]" (the port after the colon,
    // read with atoi, replaces port) and the name is looked up
    // through the system resolver (IPv4 only): addr = its first IPv4 address with the port. True
    // when addr was set; false when the look-up failed (addr unchanged).
    bool GetHostByName(char const* host, cSocketAddr& addr, int port);

protected:
    // The interface flags, or -1 (errno set) when they cannot be read;
    // opens the control descriptor when needed.
    int ReadFlags(std::string const& ifname, short& flags);
    int WriteFlags(std::string const& ifname, short flags);
    // Sets (set) or clears bits; traces failures under caller's name.
    int ChangeFlags(std::string const& ifname, short bits, bool set, const char* caller);

    int m_fd;   // control descriptor; -1 when closed
};

}  // namespace orvo
