// A private view of the machine-wide shared-memory cells for a test: see
// IsolateSharedMemory. Its own header, as <sys/mount.h> defines macros
// (BLOCK_SIZE, MS_*) that other tests' headers use as names.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace orvo_test {

// Private IPC and mount namespaces (inside a user namespace when not root)
// with a fresh tmpfs on /dev/shm, read-only when asked: the shared-memory
// cells ("statusw", "bsz") and their semaphores that this process and its
// children open are their own, not the machine's, which several test runs
// share. For a forked child (a user namespace needs a single thread); false
// when the system refuses.
inline bool IsolateSharedMemory(bool readOnlyShm = false)
{
    const auto writeText = [](const char* path, const std::string& text) {
        const int fd = ::open(path, O_WRONLY);
        const bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        if (fd >= 0)
            ::close(fd);
        return ok;
    };
    if (::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) {
        const uid_t uid = ::getuid();
        const gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) != 0 || !writeText("/proc/self/setgroups", "deny") ||
            !writeText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !writeText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
            return false;
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/dev/shm", "tmpfs", readOnlyShm ? MS_RDONLY : 0, "mode=1777") == 0;
}

}  // namespace orvo_test
