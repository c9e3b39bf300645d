// Network manager: the address rule, the resolver file and host names, and
// interfaces and routes of a real kernel in a private network namespace (a
// veth pair, addresses from 192.0.2.0/24), read back from the kernel and
// from /proc/net/route.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_netmgr.h"
#include "orvo_trace.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// "iface gateway flags" of every default route in the kernel's table.
std::vector<std::string> DefaultRoutes()
{
    std::vector<std::string> routes;
    std::istringstream table(ReadFile("/proc/net/route"));
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string iface, destination, gateway, flags;
        fields >> iface >> destination >> gateway >> flags;
        if (destination == "00000000")
            routes.push_back(iface + " " + gateway + " " + flags);
    }
    return routes;
}

// The interface's address or netmask as dotted text ("" when none).
std::string InterfaceAddress(const char* ifname, unsigned long request)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq r;
    std::memset(&r, 0, sizeof r);
    std::strcpy(r.ifr_name, ifname);
    const bool ok = ioctl(fd, request, &r) == 0;
    close(fd);
    if (!ok)
        return "";
    return inet_ntoa(reinterpret_cast<sockaddr_in*>(&r.ifr_addr)->sin_addr);
}

// A file name in a fresh temporary directory.
std::string TempFile(const char* name)
{
    char dir[] = "/tmp/orvo-netmgr-XXXXXX";
    return std::string(mkdtemp(dir)) + "/" + name;
}

}  // namespace

TEST(NetworkManager, AddressRuleAndResolverFile)
{
    EXPECT_FALSE(cNetworkManager::IsValidIPFormat("1.0.0.0"));   // inet_addr gives 1
    EXPECT_TRUE(cNetworkManager::IsValidIPFormat("300.1.1.1"));  // rejected by inet_addr, yet valid
    EXPECT_TRUE(cNetworkManager::IsValidIPFormat("192.0.2.1"));
    EXPECT_FALSE(cNetworkManager::IsValidIPFormat("192"));

    const std::string conf = TempFile("resolv.conf");
    setenv("ORVO_RESOLV_CONF", conf.c_str(), 1);
    cNetworkManager net;
    std::string err = "stale";
    EXPECT_EQ(net.SetDNS("10.0.0.1 10.0.0.2", "lan", err), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(ReadFile(conf), "nameserver 10.0.0.1\nnameserver 10.0.0.2\nsearch lan\n");
    EXPECT_EQ(net.SetDNS("10.0.0.1  10.0.0.2", nullptr, err), 0);   // every token is a line
    EXPECT_EQ(ReadFile(conf), "nameserver 10.0.0.1\nnameserver \nnameserver 10.0.0.2\n");
    EXPECT_EQ(net.SetDNS("192.0.2.53", "", err), 0);
    EXPECT_EQ(ReadFile(conf), "nameserver 192.0.2.53\n");
    EXPECT_EQ(net.SetDNS("", "lan", err), -1);
    EXPECT_EQ(err, "SetDNS failed : emtpy DNS servers");
    EXPECT_EQ(net.SetDNS(nullptr, nullptr, err), -1);
    EXPECT_EQ(ReadFile(conf), "nameserver 192.0.2.53\n") << "a refused call leaves the file alone";
    setenv("ORVO_RESOLV_CONF", "/nonexistent-dir/resolv.conf", 1);
    EXPECT_EQ(net.SetDNS("192.0.2.53", nullptr, err), -1);
    EXPECT_EQ(err, "SetDNS: open '/etc/resolv.conf' failed : No such file or directory");
    unsetenv("ORVO_RESOLV_CONF");
    std::remove(conf.c_str());

    cSocketAddr addr;
    EXPECT_TRUE(net.GetHostByName("192.0.2.7:99", addr, 0));
    EXPECT_EQ(addr.ToString(), "192.0.2.7:99");
    EXPECT_TRUE(net.GetHostByName("192.0.2.7:99", addr, 80));
    EXPECT_EQ(addr.ToString(), "192.0.2.7:80") << "a port argument wins over the text";
}

TEST(NetworkManager, FlagFailuresAreTraced)
{
    // A child in a namespace of its own that gives up root: the flags of its
    // loopback can be read but not written.
    std::string out;
    const int rc = orvo_test::RunInChild(
        [] {
            std::string why;
            if (!orvo_test::EnterPrivateNetwork(why) || setuid(65534) != 0)
                return 77;
            orvoInit(ERROR, OUTPUT_STDOUT, false);
            cNetworkManager net;
            if (net.SetFlag("lo", IFF_UP) >= 0 || net.ClrFlag("lo", IFF_UP) >= 0)
                return 1;
            if (net.ClrFlag("nosuch0", IFF_UP) >= 0 || net.SetFlag("nosuch0", IFF_UP) >= 0)
                return 2;
            return 0;
        },
        &out);
    if (rc == 77)
        GTEST_SKIP() << "no private network namespace or no user to switch to";
    ASSERT_EQ(rc, 0) << out;
    const std::string refused = "SetFlag: SIOCSIFFLAGS failed : Operation not permitted\n";
    const size_t first = out.find(refused);
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_NE(out.find(refused, first + 1), std::string::npos) << "ClrFlag reports the same words\n" << out;
    EXPECT_NE(out.find("ClrFlag: nosuch0 - unknown interface : No such device\n"), std::string::npos) << out;
    EXPECT_NE(out.find("SetFlag: nosuch0 - unknown interface : No such device\n"), std::string::npos) << out;
}

TEST(NetworkManager, InterfacesRoutesAndNamesInPrivateNamespace)
{
    std::string why;
    if (!orvo_test::EnterPrivateNetwork(why))
        GTEST_SKIP() << why;
    cNetworkManager net;
    std::string err;
    ASSERT_EQ(net.InterfaceUp("lo", err), 0) << err;
    EXPECT_TRUE(net.IsUp("lo"));

    // Host names: "localhost" comes from the hosts file; nothing can leave
    // the namespace, so an unknown name fails at once.
    cSocketAddr addr("192.0.2.1", 1);
    EXPECT_TRUE(net.GetHostByName("localhost:8080", addr, 80));
    EXPECT_EQ(addr.ToString(), "127.0.0.1:8080");
    EXPECT_TRUE(net.GetHostByName("localhost", addr, 80));
    EXPECT_EQ(addr.ToString(), "127.0.0.1:80");
    EXPECT_FALSE(net.GetHostByName("no-such-host.invalid", addr, 80));
    EXPECT_EQ(addr.ToString(), "127.0.0.1:80") << "a failed look-up leaves the address alone";

    // Unknown interfaces.
    EXPECT_LT(net.InterfaceUp("nosuch0", err), 0);
    EXPECT_EQ(err, "InterfaceUp: nosuch0 - failed : No such device");
    EXPECT_LT(net.InterfaceDown("nosuch0", err), 0);
    EXPECT_EQ(err, "InterfaceDown: nosuch0 - failed : No such device");
    EXPECT_FALSE(net.IsUp("nosuch0"));
    EXPECT_EQ(net.CreateInterface("nosuch0", "192.0.2.1", "255.255.255.0", err), -1);
    EXPECT_EQ(err, "CreateInterface: nosuch0 - Initialization failed(19) 'No such device'");
    EXPECT_EQ(net.CreateInterface("lo", "1.0.0.0", "255.255.255.0", err), -1);
    EXPECT_EQ(err, "invalid ip format");

    if (std::system("ip link add veth0 type veth peer name veth1 >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "could not make a veth pair (ip link add) in the namespace";
    EXPECT_FALSE(net.IsUp("veth0"));
    ASSERT_EQ(net.CreateInterface("veth0", "192.0.2.1", "255.255.255.0", err), 0) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(InterfaceAddress("veth0", SIOCGIFADDR), "192.0.2.1");
    EXPECT_EQ(InterfaceAddress("veth0", SIOCGIFNETMASK), "255.255.255.0");
    EXPECT_TRUE(net.IsUp("veth0"));
    // Again with the address it has: goes on to the flags and the netmask.
    ASSERT_EQ(net.CreateInterface("veth0", "192.0.2.1", "255.255.255.128", err), 0) << err;
    EXPECT_EQ(InterfaceAddress("veth0", SIOCGIFNETMASK), "255.255.255.128");
    ASSERT_EQ(net.CreateInterface("veth0", "192.0.2.1", "255.255.255.0", err), 0) << err;

    EXPECT_EQ(net.InterfaceDown("veth0", err), 0);
    EXPECT_FALSE(net.IsUp("veth0"));
    EXPECT_EQ(net.InterfaceUp("veth0", err), 0);
    EXPECT_TRUE(net.IsUp("veth0"));
    EXPECT_TRUE(net.ChkFlag("veth0", IFF_UP | IFF_BROADCAST));
    EXPECT_FALSE(net.ChkFlag("veth0", IFF_UP | IFF_LOOPBACK));

    // Default routes: marked up and gateway (flags 0003), the previous
    // one replaced by a new add.
    ASSERT_EQ(net.DoDefaultGateway("veth0", "192.0.2.254", true, err), 0) << err;
    EXPECT_EQ(DefaultRoutes(), std::vector<std::string>{"veth0 FE0200C0 0003"});
    ASSERT_EQ(net.DoDefaultGateway("veth0", "192.0.2.253", true, err), 0) << err;
    EXPECT_EQ(DefaultRoutes(), std::vector<std::string>{"veth0 FD0200C0 0003"});

    // RemoveDefaultGateway reads the table named by ORVO_PROC_NET_ROUTE: a
    // table without default routes removes nothing.
    const std::string table = TempFile("route");
    std::ofstream(table) << ReadFile("/proc/net/route").substr(0, ReadFile("/proc/net/route").find('\n') + 1);
    setenv("ORVO_PROC_NET_ROUTE", table.c_str(), 1);
    EXPECT_EQ(net.RemoveDefaultGateway(), 0);
    EXPECT_EQ(DefaultRoutes().size(), 1u);
    unsetenv("ORVO_PROC_NET_ROUTE");
    std::remove(table.c_str());
    EXPECT_EQ(net.RemoveDefaultGateway(), 0);
    EXPECT_TRUE(DefaultRoutes().empty());

    // Deleting: the route goes; deleting it again fails with the add text.
    ASSERT_EQ(net.DoDefaultGateway("veth0", "192.0.2.254", true, err), 0) << err;
    EXPECT_EQ(net.DoDefaultGateway("veth0", "192.0.2.254", false, err), 0) << err;
    EXPECT_TRUE(DefaultRoutes().empty());
    EXPECT_EQ(net.DoDefaultGateway("veth0", "192.0.2.254", false, err), -1);
    EXPECT_EQ(err, "DoDefaultGateway: Adding Default Gateway Route failed : No such process");
    // A gateway outside the interface's network is refused by the kernel.
    EXPECT_EQ(net.DoDefaultGateway("lo", "192.0.2.254", true, err), -1);
    EXPECT_EQ(err.rfind("DoDefaultGateway: Adding Default Gateway Route failed : ", 0), 0u) << err;
    net.Close();
    EXPECT_EQ(net.GetFd(), -1);
}
