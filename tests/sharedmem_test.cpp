// Shared-memory cells, the status word, the operating seconds and the
// watchdog. The cell names are fixed ("statusw", "bsz") and machine-wide, and
// several test runs share this machine: every test that touches a cell runs in
// a child with private IPC and mount namespaces and an empty tmpfs on
// /dev/shm, so it neither sees nor removes another run's cells or semaphores.
#include <fcntl.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_crc.h"
#include "orvo_init.h"
#include "orvo_sharedmem.h"
#include "orvo_trace.h"
#include "shm_isolation.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

// Runs body isolated in a child; its exit code (77: no namespaces here).
int RunIsolated(const std::function<int()>& body, std::string* out = nullptr, bool readOnlyShm = false)
{
    return orvo_test::RunInChild([&] { return orvo_test::IsolateSharedMemory(readOnlyShm) ? body() : 77; }, out,
                                 false, 60);
}

#define EXPECT_ISOLATED(rc)                                                              \
    do {                                                                                 \
        const int rc_ = (rc);                                                            \
        if (rc_ == 77)                                                                   \
            GTEST_SKIP() << "no private IPC/mount namespace here (unshare refused)";     \
        EXPECT_EQ(rc_, 0);                                                               \
    } while (0)

std::string ShmBytes(const char* name)
{
    std::string bytes;
    FILE* f = std::fopen((std::string("/dev/shm/") + name).c_str(), "rb");
    if (f == nullptr)
        return "missing";
    char buf[64];
    bytes.assign(buf, std::fread(buf, 1, sizeof buf, f));
    std::fclose(f);
    return bytes;
}

bool SemaphoreExists(const char* semName)
{
    const key_t key = createCRC16(semName, static_cast<int>(std::strlen(semName)), 0xFFFF);
    return semget(key, 1, 0) != -1;
}

}  // namespace

TEST(SharedMem, CellsHaveFixedWidthsAndHostOrder)
{
    EXPECT_ISOLATED(RunIsolated([] {
        if (GetOSC() != 0 || GetStatusW() != 0)
            return 1;
        if (ShmBytes("bsz") != std::string(4, '\0') || ShmBytes("statusw") != std::string(8, '\0'))
            return 2;
        if (!SetStatusW(0x0102030405060708ULL) || GetStatusW() != 0x0102030405060708ULL)
            return 3;
        if (ShmBytes("statusw") != "\x08\x07\x06\x05\x04\x03\x02\x01")
            return 4;
        cSharedMemory<unsigned long> counter;   // the device process counting seconds
        if (counter.Open("bsz") < 0 || !counter.Set(0x00BC614EUL))
            return 5;
        if (GetOSC() != 12345678UL || ShmBytes("bsz") != std::string("\x4E\x61\xBC\x00", 4))
            return 6;
        if (gSmOsc == nullptr || gSmOsc->GetSize() != 4 || gSmStatusW->GetSize() != 8)
            return 7;
        return SemaphoreExists("_bsz_") && SemaphoreExists("_statusw_") ? 0 : 8;
    }));
}

TEST(SharedMem, ModifyStatusWSetsThenKeeps)
{
    EXPECT_ISOLATED(RunIsolated([] {
        if (!SetStatusW(0xF0) || !ModifyStatusW(0x1, ~0ULL) || GetStatusW() != 0xF1)
            return 1;
        if (!ModifyStatusW(0, ~0x10ULL) || GetStatusW() != 0xE1)
            return 2;
        if (!ModifyStatusW(0x4, ~0x4ULL) || GetStatusW() != 0xE1)    // set, then cleared again
            return 3;
        return ModifyStatusW(0x8000000000000000ULL, ~0ULL) && GetStatusW() == 0x80000000000000E1ULL ? 0 : 4;
    }));
}

TEST(SharedMem, FourByteCellReadThroughEightByteView)
{
    EXPECT_ISOLATED(RunIsolated([] {
        cSharedMemory<unsigned long> narrow;
        if (narrow.Open("cell") < 0 || !narrow.Set(0xDEADBEEFUL) || ShmBytes("cell").size() != 4)
            return 1;
        cSharedMemory<unsigned long long> wide;
        unsigned long long v = 1;
        if (wide.Open("cell") < 0 || !wide.Get(v) || v != 0xDEADBEEFULL)
            return 2;
        if (ShmBytes("cell") != std::string("\xEF\xBE\xAD\xDE\0\0\0\0", 8))
            return 3;
        // The narrow view keeps the low bytes of a wider value.
        if (!wide.Set(0x1122334455667788ULL))
            return 4;
        unsigned long low = 0;
        if (!narrow.Get(low) || low != 0x55667788UL)
            return 5;
        wide.Delete();
        return ShmBytes("cell") == "missing" && !SemaphoreExists("_cell_") ? 0 : 6;
    }));
}

// Each process flips its own bit many times and checks it after every step: a
// read-modify-write of the other process that is not serialised would put an
// old value of this bit back.
TEST(SharedMem, TwoProcessesModifyDifferentBitsAndLoseNone)
{
    EXPECT_ISOLATED(RunIsolated([] {
        if (!SetStatusW(0))
            return 1;
        const int rounds = 3000;
        pid_t pids[2];
        for (int who = 0; who < 2; ++who) {
            pids[who] = fork();
            if (pids[who] == 0) {
                const unsigned long long bit = 1ULL << (who * 33);
                for (int i = 0; i < rounds; ++i) {
                    if (!ModifyStatusW(bit, ~0ULL) || (GetStatusW() & bit) == 0)
                        _exit(10);
                    if (!ModifyStatusW(0, ~bit) || (GetStatusW() & bit) != 0)
                        _exit(11);
                }
                _exit(ModifyStatusW(bit, ~0ULL) ? 0 : 12);
            }
        }
        int failures = 0;
        for (pid_t pid : pids) {
            int status = 0;
            waitpid(pid, &status, 0);
            failures += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        if (failures != 0)
            return 2;
        return GetStatusW() == ((1ULL << 33) | 1ULL) ? 0 : 3;
    }));
}

TEST(SharedMem, CellThatCannotBeCreatedTracesAndReadsZero)
{
    std::string out;
    EXPECT_ISOLATED(RunIsolated(
        [] {
            orvoInit(ERROR, OUTPUT_STDOUT, false);
            if (GetOSC() != 0 || gSmOsc != nullptr)
                return 1;
            if (GetStatusW() != 0 || SetStatusW(1) || ModifyStatusW(1, ~0ULL) || gSmStatusW != nullptr)
                return 2;
            return 0;
        },
        &out, true));
    // One trace per failed attempt. Each 'statusw' trace reads the counter,
    // which fails and traces once more; that trace's own reading of the
    // counter does not open (and trace) again.
    auto count = [&](const std::string& needle) {
        size_t n = 0;
        for (size_t at = out.find(needle); at != std::string::npos; at = out.find(needle, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("[ERROR     ]: can't open shared memory 'bsz'\n"), 4u) << out;
    EXPECT_EQ(count("[ERROR     ]: can't open shared memory 'statusw'\n"), 3u) << out;
    EXPECT_NE(out.find("(0) "), std::string::npos) << out;
}

TEST(SharedMem, TraceLineShowsTheOperatingSeconds)
{
    std::string out;
    EXPECT_ISOLATED(RunIsolated(
        [] {
            cSharedMemory<unsigned long> counter;
            if (counter.Open("bsz") < 0 || !counter.Set(86401UL))
                return 1;
            orvoInit(ERROR, OUTPUT_STDOUT, false);
            ORVO_TRACE(UnitORVO, ERROR, "meter online");
            return 0;
        },
        &out));
    char want[128];
    std::snprintf(want, sizeof want, "(86401) %-8s|%-13s[%-10s]: meter online\n", GetExeName().c_str(),
                  "orvo", "ERROR");
    EXPECT_NE(out.find(want), std::string::npos) << out;
}

TEST(SharedMem, DeinitClosesTheCellsAndRemovesTheirSemaphores)
{
    EXPECT_ISOLATED(RunIsolated([] {
        orvoInit(ERROR, OUTPUT_NONE, false);
        if (!SetStatusW(5))
            return 1;
        GetOSC();
        if (gSmOsc == nullptr || gSmStatusW == nullptr || !SemaphoreExists("_bsz_"))
            return 2;
        orvoDeinit();
        if (gSmOsc != nullptr || gSmStatusW != nullptr)
            return 3;
        if (SemaphoreExists("_bsz_") || SemaphoreExists("_statusw_"))
            return 4;
        // The objects stay, and the next use opens them again.
        return ShmBytes("statusw").size() == 8 && GetStatusW() == 5 ? 0 : 5;
    }));
}

// Traces read the counter from every thread: the first use may come from
// several at once, and must open one cell that all of them then read.
TEST(SharedMem, ConcurrentFirstUseOpensOneCell)
{
    EXPECT_ISOLATED(RunIsolated([] {
        cSharedMemory<unsigned long> counter;
        if (counter.Open("bsz") < 0 || !counter.Set(777UL))
            return 1;
        std::vector<std::thread> threads;
        std::vector<unsigned long> seen(8, 0);
        std::vector<const void*> cells(8, nullptr);
        for (size_t i = 0; i < seen.size(); ++i)
            threads.emplace_back([&, i] {
                seen[i] = GetOSC();
                cells[i] = gSmOsc;
            });
        for (std::thread& t : threads)
            t.join();
        for (size_t i = 0; i < seen.size(); ++i)
            if (seen[i] != 777UL || cells[i] != gSmOsc)
                return 2;
        // A second cell object closed by a losing thread would have removed
        // the semaphore the winner uses.
        return SemaphoreExists("_bsz_") ? 0 : 3;
    }));
}

TEST(SharedMem, UnmappedCellRefusesEveryAccess)
{
    cSharedMemory<unsigned long long> cell;
    unsigned long long v = 7;
    EXPECT_FALSE(cell.Get(v));
    EXPECT_FALSE(cell.Set(1));
    EXPECT_FALSE(cell.ModifyBits(1, ~0ULL));
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(cell.GetBuffer(), nullptr);
    EXPECT_EQ(cell.Open(nullptr, 8), -1);
}

TEST(SharedMem, ToggleWatchdogWritesOneByte)
{
    char path[] = "/tmp/orvo_watchdog_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "xyz", 3), 3);
    close(fd);
    setenv("ORVO_WATCHDOG_DEVICE", path, 1);
    ToggleWD();
    ToggleWD();
    FILE* f = std::fopen(path, "rb");
    char buf[8] = {};
    const size_t n = std::fread(buf, 1, sizeof buf, f);
    std::fclose(f);
    EXPECT_EQ(std::string(buf, n), "\x01yz");    // one byte at the start, each time
    const std::string missing = std::string(path) + ".none";
    setenv("ORVO_WATCHDOG_DEVICE", missing.c_str(), 1);
    ToggleWD();                                  // silent, creates nothing
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    unsetenv("ORVO_WATCHDOG_DEVICE");
    unlink(path);
}
