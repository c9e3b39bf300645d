// scm_origin.h - which local process holds the other end of a connection
// orvo-scm accepted: the kernel's socket table (/proc/net/tcp) gives the
// inode of the peer's socket, and a process holds that socket when one of
// its descriptors in /proc/<pid>/fd names the same inode.
#pragma once

#include <string>
#include <vector>

namespace orvo_scm {

// The inode of the socket at the other end of the IPv4 TCP connection fd,
// when that end is on this host (in this network namespace); 0 otherwise.
unsigned long PeerSocketInode(int fd);

// Whether process pid has the socket with inode among its descriptors.
bool HoldsSocket(int pid, unsigned long inode);

// The first of pids that holds the socket with inode; -1 when none does.
int HolderAmong(const std::vector<int>& pids, unsigned long inode);

}  // namespace orvo_scm
