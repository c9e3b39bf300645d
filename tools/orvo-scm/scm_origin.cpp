// scm_origin.cpp - the local process at the other end of a connection.
#include "scm_origin.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace orvo_scm {

namespace {

bool Address(int fd, bool peer, sockaddr_in& a)
{
    socklen_t len = sizeof a;
    sockaddr* p = reinterpret_cast<sockaddr*>(&a);
    const int rc = peer ? ::getpeername(fd, p, &len) : ::getsockname(fd, p, &len);
    return rc == 0 && a.sin_family == AF_INET;
}

// An address as the socket table writes it: the address word as stored
// (network order read as a host integer) and the port, both in hex.
std::string TableForm(const sockaddr_in& a)
{
    char text[16];
    std::snprintf(text, sizeof text, "%08X:%04X", static_cast<unsigned>(a.sin_addr.s_addr),
                  static_cast<unsigned>(ntohs(a.sin_port)));
    return text;
}

}  // namespace

unsigned long PeerSocketInode(int fd)
{
    sockaddr_in mine{}, theirs{};
    if (!Address(fd, false, mine) || !Address(fd, true, theirs))
        return 0;
    // The peer's row: its local address is our remote one and the other way round.
    const std::string local = TableForm(theirs), remote = TableForm(mine);
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);   // the column titles
    while (std::getline(table, line)) {
        std::istringstream row(line);
        std::string slot, loc, rem, state, queues, timer, retransmits, uid, timeout;
        unsigned long inode = 0;
        if (row >> slot >> loc >> rem >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode &&
            loc == local && rem == remote)
            return inode;
    }
    return 0;
}

bool HoldsSocket(int pid, unsigned long inode)
{
    if (pid <= 0 || inode == 0)
        return false;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr)
        return false;
    const std::string wanted = "socket:[" + std::to_string(inode) + "]";
    bool found = false;
    while (!found) {
        const dirent* e = ::readdir(d);
        if (e == nullptr)
            break;
        char target[64];
        const ssize_t n = ::readlink((dir + "/" + e->d_name).c_str(), target, sizeof target - 1);
        found = n > 0 && std::string(target, static_cast<size_t>(n)) == wanted;
    }
    ::closedir(d);
    return found;
}

int HolderAmong(const std::vector<int>& pids, unsigned long inode)
{
    for (int pid : pids)
        if (HoldsSocket(pid, inode))
            return pid;
    return -1;
}

}  // namespace orvo_scm
