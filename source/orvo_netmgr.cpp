#define ORVO_SOURCE "orvo_netmgr"
#include "orvo_netmgr.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orvo_data.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

const char* PathOf(const char* variable, const char* fallback)
{
    const char* path = std::getenv(variable);
    return path != nullptr && *path != 0 ? path : fallback;
}

// An ifreq naming the interface (copied without a length check, as the
// kernel's own tools do; names must fit IFNAMSIZ).
ifreq Request(std::string const& ifname)
{
    ifreq request;
    std::memset(&request, 0, sizeof request);
    std::strcpy(request.ifr_name, ifname.c_str());
    return request;
}

void SetAddress(sockaddr* target, const std::string& text)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(text.c_str());
    std::memcpy(target, &address, sizeof address);
}

void SetAddress(sockaddr* target, const cSocketAddr& address)
{
    std::memcpy(target, address.GetSockAddr(), sizeof(sockaddr_in));
}

}  // namespace

cNetworkManager::cNetworkManager() : m_fd(-1)
{
}

cNetworkManager::~cNetworkManager()
{
    Close();
}

int cNetworkManager::Initialize()
{
    if (m_fd >= 0)
        return m_fd;
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        ORVO_TRACE(UnitORVO, ERROR, FormatString("Initialize: failed : %s", strerror(errno)));
    return m_fd;
}

void cNetworkManager::Close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool cNetworkManager::IsValidIPFormat(std::string const& text)
{
    return text.find('.') != std::string::npos && inet_addr(text.c_str()) != 1;
}

int cNetworkManager::ReadFlags(std::string const& ifname, short& flags)
{
    if (Initialize() < 0)
        return -1;
    ifreq request = Request(ifname);
    const int result = ::ioctl(m_fd, SIOCGIFFLAGS, &request);
    flags = request.ifr_flags;
    return result;
}

int cNetworkManager::WriteFlags(std::string const& ifname, short flags)
{
    ifreq request = Request(ifname);
    request.ifr_flags = flags;
    return ::ioctl(m_fd, SIOCSIFFLAGS, &request);
}

bool cNetworkManager::ChkFlag(std::string const& ifname, short mask)
{
    short flags = 0;
    if (ReadFlags(ifname, flags) < 0) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("ChkFlag: %s - unknown interface : %s", ifname.c_str(), strerror(errno)));
        return false;
    }
    return (flags & mask) == mask;
}

bool cNetworkManager::IsUp(std::string const& ifname)
{
    return ChkFlag(ifname, IFF_UP);
}

bool cNetworkManager::IsRunning(std::string const& ifname)
{
    return ChkFlag(ifname, IFF_RUNNING);
}

int cNetworkManager::ChangeFlags(std::string const& ifname, short bits, bool set, const char* caller)
{
    short flags = 0;
    int result = ReadFlags(ifname, flags);
    if (result < 0) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("%s: %s - unknown interface : %s", caller, ifname.c_str(), strerror(errno)));
        return result;
    }
    result = WriteFlags(ifname, static_cast<short>(set ? flags | bits : flags & ~bits));
    // Both directions report a refused write under SetFlag's name; only the
    // read failure names the caller.
    if (result < 0)
        ORVO_TRACE(UnitORVO, ERROR, FormatString("SetFlag: SIOCSIFFLAGS failed : %s", strerror(errno)));
    return result;
}

int cNetworkManager::SetFlag(std::string const& ifname, short bits)
{
    return ChangeFlags(ifname, bits, true, "SetFlag");
}

int cNetworkManager::ClrFlag(std::string const& ifname, short bits)
{
    return ChangeFlags(ifname, bits, false, "ClrFlag");
}

int cNetworkManager::InterfaceUp(std::string const& ifname, std::string& err)
{
    err.clear();
    errno = 0;
    const int result = SetFlag(ifname, IFF_UP);
    if (result < 0)
        err = FormatString("InterfaceUp: %s - failed : %s", ifname.c_str(), strerror(errno));
    return result;
}

int cNetworkManager::InterfaceDown(std::string const& ifname, std::string& err)
{
    err.clear();
    errno = 0;
    const int result = ClrFlag(ifname, IFF_UP);
    if (result < 0)
        err = FormatString("InterfaceDown: %s - failed : %s", ifname.c_str(), strerror(errno));
    return result;
}

int cNetworkManager::CreateInterface(std::string const& ifname, std::string const& ip,
                                     std::string const& netmask, std::string& err)
{
    err.clear();
    if (!IsValidIPFormat(ip) || !IsValidIPFormat(netmask)) {
        err = "invalid ip format";
        return -1;
    }
    if (Initialize() < 0) {
        err = FormatString("CreateInterface: %s - Initialization failed(%i) '%s'", ifname.c_str(), errno,
                           strerror(errno));
        return -1;
    }
    ifreq request = Request(ifname);
    SetAddress(&request.ifr_addr, ip);
    if (::ioctl(m_fd, SIOCSIFADDR, &request) < 0 && errno != EEXIST) {
        err = FormatString("CreateInterface: %s - Initialization failed(%i) '%s'", ifname.c_str(), errno,
                           strerror(errno));
        return -1;
    }
    if (SetFlag(ifname, IFF_UP | IFF_RUNNING) < 0) {
        err = FormatString("CreateInterface: %s - Setup failed(%i) '%s'", ifname.c_str(), errno,
                           strerror(errno));
        return -1;
    }
    request = Request(ifname);
    SetAddress(&request.ifr_netmask, netmask);
    if (::ioctl(m_fd, SIOCSIFNETMASK, &request) < 0) {
        err = FormatString("CreateInterface: %s - Setting Netmask failed : %s", ifname.c_str(),
                           strerror(errno));
        return -1;
    }
    return 0;
}

int cNetworkManager::DoDefaultGateway(std::string const& ifname, std::string const& gateway, bool add,
                                      std::string& err)
{
    if (add)
        RemoveDefaultGateway();
    err.clear();
    rtentry route;
    std::memset(&route, 0, sizeof route);
    SetAddress(&route.rt_dst, cSocketAddr());
    SetAddress(&route.rt_genmask, cSocketAddr());
    cSocketAddr via;
    GetHostByName(gateway.c_str(), via, 0);
    SetAddress(&route.rt_gateway, via);
    // The kernel takes only routes marked up, and a gateway route must say
    // so; rt_metric is the metric plus one (0 and 1 both give metric 0).
    route.rt_flags = RTF_UP | RTF_GATEWAY;
    route.rt_metric = 1;
    std::string device = ifname;
    route.rt_dev = &device[0];
    if (Initialize() < 0 || ::ioctl(m_fd, add ? SIOCADDRT : SIOCDELRT, &route) < 0) {
        err = FormatString("DoDefaultGateway: Adding Default Gateway Route failed : %s", strerror(errno));
        return -1;
    }
    return 0;
}

int cNetworkManager::RemoveDefaultGateway()
{
    FILE* table = std::fopen(PathOf("ORVO_PROC_NET_ROUTE", "/proc/net/route"), "r");
    if (table == nullptr)
        return 0;
    cNetworkManager manager;
    manager.Initialize();
    char line[512];
    bool header = true;
    while (std::fgets(line, sizeof line, table) != nullptr) {
        if (header) {
            header = false;
            continue;
        }
        char ifname[IFNAMSIZ * 4];
        unsigned long destination = 0, gateway = 0;
        if (std::sscanf(line, "%63s %lX %lX", ifname, &destination, &gateway) != 3 || destination != 0)
            continue;
        // The table prints addresses as the kernel stores them (network
        // order read as a host number), so the value goes back unchanged.
        in_addr via;
        via.s_addr = static_cast<in_addr_t>(gateway);
        std::string err;
        manager.DoDefaultGateway(ifname, inet_ntoa(via), false, err);
    }
    std::fclose(table);
    manager.Close();
    return 0;
}

int cNetworkManager::SetDNS(char const* servers, char const* search, std::string& err)
{
    err.clear();
    if (servers == nullptr || *servers == 0) {
        err = "SetDNS failed : emtpy DNS servers";
        return -1;
    }
    const char* path = PathOf("ORVO_RESOLV_CONF", "/etc/resolv.conf");
    FILE* file = std::fopen(path, "w");
    if (file == nullptr) {
        // The text names the system file whatever path stands in for it.
        err = FormatString("SetDNS: open '/etc/resolv.conf' failed : %s", strerror(errno));
        return -1;
    }
    // One line per token, an empty one (from doubled blanks) included: the
    // resolver skips a "nameserver" line without an address.
    for (const std::string& server : cHelper::GetStringTokens(servers, " "))
        std::fprintf(file, "nameserver %s\n", server.c_str());
    if (search != nullptr && *search != 0)
        std::fprintf(file, "search %s\n", search);
    std::fclose(file);
    return 0;
}

bool cNetworkManager::GetHostByName(char const* host, cSocketAddr& addr, int port)
{
    if (host == nullptr)
        return false;
    const cSocketAddr parsed(host, static_cast<unsigned short>(port));
    if (!parsed.IsEmpty()) {
        addr = parsed;
        return true;
    }
    const std::vector<std::string> parts = cHelper::GetStringTokens(host, ":");
    if (parts.size() >= 2)
        port = std::atoi(parts[1].c_str());
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (parts.empty() || ::getaddrinfo(parts[0].c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
        return false;
    sockaddr_in first;
    std::memcpy(&first, found->ai_addr, sizeof first);
    ::freeaddrinfo(found);
    first.sin_port = htons(static_cast<uint16_t>(port));
    addr = cSocketAddr(first);
    return true;
}

}  // namespace orvo
