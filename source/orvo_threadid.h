// orvo_threadid.h - the calling thread's kernel id, cached per thread, for
// the library's own hot paths (every lock of a message's path asks for it).
// cThread::GetCurrentThreadId() is the exported form of the same.
// Not installed.
#pragma once

#include <sys/types.h>

namespace orvo {
namespace threadid {

// 0 until the thread first asks (and again in a forked child). Initial-exec:
// read with one thread-pointer-relative load, no call. Four bytes: a
// program that loads the library with dlopen still finds them in the static
// TLS reserve the loader keeps for such libraries.
extern __thread pid_t tCached __attribute__((tls_model("initial-exec")));

// Asks the kernel and fills the cache.
pid_t Fetch();

inline pid_t Current()
{
    const pid_t tid = tCached;
    return tid != 0 ? tid : Fetch();
}

}  // namespace threadid
}  // namespace orvo
