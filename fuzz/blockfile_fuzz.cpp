// A block file made of arbitrary bytes: open (chain recovery), read every
// block, then append one, reopen and read again. The open must end (no chain
// may loop it forever), and nothing may read outside the file or the buffer.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "orvo_blockfile.h"

using namespace orvo;

namespace {

volatile size_t gSink;

// On tmpfs when there is one: every append syncs the file, which on a disk
// costs a flush and made the fuzzer crawl.
std::string FilePath()
{
    const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return std::string(dir) + "/orvo_blockfile_fuzz_" + std::to_string(getpid());
}

void ReadAll(cBlockFile& file)
{
    for (unsigned long i = 0; i < file.Count(); ++i) {
        void* p = nullptr;
        unsigned long n = 0;
        cTime ctime;
        unsigned long long bstime = 0;
        const int rc = file.GetAt(i, p, n, ctime, bstime);
        if (rc == BLOCKFILE_OK || rc == BLOCKFILE_CRC_ERR)
            gSink = gSink + n + static_cast<const unsigned char*>(p)[n ? n - 1 : 0];
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Clear() prints when it cannot recreate the file; keep the fuzzer quiet.
    (void)!std::freopen("/dev/null", "w", stdout);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = FilePath();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    cBlockFile file;
    if (file.Open(path, false)) {
        ReadAll(file);
        std::deque<unsigned long> idx;
        gSink = gSink + file.GetIndizesByTime(idx, 0ULL, 0xFFFFFFFFFFULL);
        // Appending to a damaged chain (blocks that overlap) may damage it
        // further; it must still never crash, hang or overread.
        const char block[] = "appended by the fuzzer";
        if (file.Append(block, sizeof block, cTime(), 1) == BLOCKFILE_OK) {
            file.Close();
            if (file.Open(path, false))
                ReadAll(file);
        }
    }
    file.Close();
    unlink(path.c_str());
    return 0;
}
