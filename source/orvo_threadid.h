// orvo_threadid.h - the calling thread's kernel id, cached per thread, for
// the library's own hot paths (every lock of a message's path asks for it).
// cThread::GetCurrentThreadId() is the exported form of the same.
// Not installed.
#pragma once

#include <sys/types.h>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define ORVO_HAVE_SINGLE_THREADED 1
#endif

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

// True while the process has only ever had one thread (the C library keeps
// the flag; it turns false for good at the first thread start). A lock that
// serves only to keep threads apart can be skipped then: no other thread
// exists, and none can start while the caller is inside a library section,
// which starts no threads.
inline bool SingleThreaded()
{
#ifdef ORVO_HAVE_SINGLE_THREADED
    return __libc_single_threaded != 0;
#else
    return false;
#endif
}

}  // namespace threadid
}  // namespace orvo
