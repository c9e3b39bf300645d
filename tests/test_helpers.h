// Helpers shared by the unit tests: a service the test drives itself, record
// bytes, the assertion text as a pattern, and a child process runner.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "orvo_service.h"

namespace orvo_test {

// A service without a thread of its own: the test calls its loop functions.
struct cTestService : orvo::cService {
    void ThreadMain() override {}
};

// The bytes of a record or list, empty when it has none.
template <class T>
std::string BytesOf(const T& r)
{
    return r.IsEmpty() ? std::string() : std::string(r.GetBuffer(), static_cast<size_t>(r.GetSize()));
}

// The start of the line a failed ORVO_ASSERT(expr) prints in family, as a
// regular expression.
inline std::string AssertRe(const char* expr, const char* family)
{
    std::string re = "orvo assertion failed: ";
    for (const char* p = expr; *p != 0; ++p) {
        if (std::strchr("()[]{}*+?.|^$\\", *p) != nullptr)
            re += '\\';
        re += *p;
    }
    return re + " \\(" + family + ": ";
}

// Runs body in a forked child and returns its exit code (-1 when it did not
// exit, e.g. killed by the alarm after seconds when that is not 0). With out,
// the child's standard output (and error, with withStderr) is collected there.
inline int RunInChild(const std::function<int()>& body, std::string* out = nullptr,
                      bool withStderr = false, unsigned seconds = 0)
{
    int fds[2] = {-1, -1};
    if (out != nullptr && pipe(fds) != 0)
        return -1;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (seconds != 0)
            alarm(seconds);
        if (out != nullptr) {
            close(fds[0]);
            dup2(fds[1], 1);
            if (withStderr)
                dup2(fds[1], 2);
        }
        const int rc = body();
        std::fflush(nullptr);
        _exit(rc);
    }
    if (out != nullptr) {
        close(fds[1]);
        char buf[512];
        for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
            out->append(buf, static_cast<size_t>(n));
        close(fds[0]);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace orvo_test
