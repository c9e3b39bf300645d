// Threads, the lock, the event and the cross-process semaphore. Waits are
// handshakes with generous bounds (qemu and the sanitizers are slow); the one
// "did not happen" check uses a short pause, which can miss a fault but never
// fails a correct build.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "orvo_crc.h"
#include "orvo_thread.h"

using namespace orvo;

namespace {

bool WaitFor(const std::function<bool()>& done)
{
    for (int ms = 0; ms < 60000 && !done(); ++ms)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

// Scheduler state of a thread of this process ('S' asleep), '?' once gone.
char TaskState(pid_t tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string s;
    return std::getline(in, s) && s.rfind(") ") != std::string::npos ? s[s.rfind(") ") + 2] : '?';
}

// Seen asleep over 20 polls in a row: blocked, not just passing through.
bool Asleep(pid_t tid)
{
    int seen = 0;
    return WaitFor([&] { seen = TaskState(tid) == 'S' ? seen + 1 : 0; return seen >= 20; });
}

key_t KeyOf(const std::string& name)
{
    return createCRC16(name.c_str(), static_cast<int>(name.size()), 0xFFFF);
}

// "orvo-thr-<pid>-<tag>" plus the first "#n" that makes the wanted key, or
// (key -1) a valid key that no set uses yet.
std::string Name(const char* tag, key_t key = -1)
{
    const std::string base = "orvo-thr-" + std::to_string(getpid()) + "-" + tag + "#";
    for (int n = 0;; ++n) {
        const key_t k = KeyOf(base + std::to_string(n));
        if (key == -1 ? k != 0 && semget(k, 1, 0) == -1 && errno == ENOENT : k == key)
            return base + std::to_string(n);
    }
}

struct cWorker : cThread {
    std::function<void()> m_Body;
    explicit cWorker(std::function<void()> body) : m_Body(std::move(body)) {}
    ~cWorker() override { Terminate(); }
    void ThreadMain() override { m_Body(); }
};

}  // namespace

TEST(CriticalSection, FirstLeaveReleasesAndOnlyTheHolderReleases)
{
    cCriticalSection cs;
    cs.Enter();
    cs.Enter();
    EXPECT_EQ(cs.GetOwner(), cThread::GetCurrentThreadId());
    cs.Leave();
    EXPECT_EQ(cs.GetOwner(), 0);

    std::atomic<pid_t> other{0};
    std::atomic<bool> release{false};
    std::thread t([&] {
        cs.Enter();
        other = cThread::GetCurrentThreadId();
        WaitFor([&] { return release.load(); });
        cs.Leave();
    });
    EXPECT_TRUE(WaitFor([&] { return other != 0; })) << "nested Enter left it locked";
    cs.Leave();   // unpaired: must not release the other thread's hold
    EXPECT_EQ(cs.GetOwner(), other.load());
    release = true;
    t.join();
    EXPECT_EQ(cs.GetOwner(), 0);
}

TEST(Event, SetWakesOneWaiterAndStaysRaised)
{
    cEvent raised(true), ev;
    std::atomic<int> woken{0};
    std::atomic<pid_t> tids[2] = {{0}, {0}};
    auto waiter = [&](int i) {
        raised.Wait();   // already raised: returns at once, stays raised
        raised.Wait(0);
        tids[i] = cThread::GetCurrentThreadId();
        ev.Wait();
        ++woken;
    };
    std::thread a(waiter, 0), b(waiter, 1);
    ASSERT_TRUE(WaitFor([&] { return tids[0] != 0 && tids[1] != 0; }));
    EXPECT_TRUE(Asleep(tids[0]) && Asleep(tids[1]));

    ev.Set();
    EXPECT_TRUE(WaitFor([&] { return woken >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(woken, 1);
    EXPECT_TRUE(ev.IsSet());
    ev.Set();
    EXPECT_TRUE(WaitFor([&] { return woken == 2; }));
    while (woken < 2)
        ev.Set();
    a.join();
    b.join();
}

TEST(Thread, RunsDetachedAndTerminates)
{
    EXPECT_EQ(cThread::GetCurrentThreadId(), getpid());
    std::atomic<pid_t> tid{0};
    std::atomic<bool> unwound{false};
    int detach = -1;
    cEvent never;
    auto* w = new cWorker([&] {
        struct sUnwind { std::atomic<bool>& f; ~sUnwind() { f = true; } } u{unwound};
        detach = pthread_detach(pthread_self());   // EINVAL: already detached
        // The closure is read before tid is published: the test deletes it
        // (with the worker) while this thread still waits.
        cEvent& wait = never;
        tid = cThread::GetCurrentThreadId();
        wait.Wait();
    });
    ASSERT_EQ(w->Start(), 0);
    ASSERT_TRUE(WaitFor([&] { return tid != 0; }));
    EXPECT_EQ(w->Start(), EBUSY);
    EXPECT_NE(tid, getpid());
    EXPECT_EQ(detach, EINVAL);
    EXPECT_TRUE(Asleep(tid));
    delete w;   // cancels the wait
    EXPECT_TRUE(WaitFor([&] { return unwound.load(); }));
    // The cancelled waiter gave the event's mutex back.
    std::atomic<bool> set{false};
    std::thread([&] { never.Set(); set = true; }).detach();
    EXPECT_TRUE(WaitFor([&] { return set.load(); }));

    // Destroying the object of an ended thread must not cancel a new thread
    // that may have got the old handle.
    std::atomic<bool> go{false}, finished{false};
    tid = 0;
    auto* quick = new cWorker([&] { tid = cThread::GetCurrentThreadId(); });
    ASSERT_EQ(quick->Start(), 0);
    ASSERT_TRUE(WaitFor([&] { return tid != 0 && TaskState(tid) == '?'; }));
    cWorker slow([&] {
        while (!go)
            usleep(1000);   // a cancellation point
        finished = true;
    });
    ASSERT_EQ(slow.Start(), 0);
    delete quick;
    go = true;
    EXPECT_TRUE(WaitFor([&] { return finished.load(); }));

    // A worker may delete itself (ASan sees any later use of the object).
    std::atomic<bool> gone{false};
    cWorker* self = nullptr;
    self = new cWorker([&] { auto* flag = &gone; delete self; *flag = true; });   // body dies too
    ASSERT_EQ(self->Start(), 0);
    EXPECT_TRUE(WaitFor([&] { return gone.load(); }));
}

TEST(Semaphore, SameCrcSharesOneSetAndCloseRemovesIt)
{
    const std::string a = Name("a");
    cSemaphore s1;
    ASSERT_EQ(s1.Open(a.c_str()), 1);
    struct semid_ds ds = {};
    semctl(s1.GetId(), 0, IPC_STAT, &ds);
    EXPECT_EQ(ds.sem_perm.mode & 0777, 0666u);
    EXPECT_EQ(semctl(s1.GetId(), 0, GETVAL), 1);
    {
        cSemaphore s2, s3;
        ASSERT_EQ(s2.Open(Name("b", KeyOf(a)).c_str()), 1);
        EXPECT_EQ(s2.GetId(), s1.GetId());
        EXPECT_EQ(s2.Lock(1000), 1);
        EXPECT_EQ(semctl(s1.GetId(), 0, GETVAL), 0);
        EXPECT_EQ(s2.Unlock(), 1);
        // Key 0 would make a new private set on every Open.
        EXPECT_EQ(s3.Open(Name("z", 0).c_str()), -1);
        EXPECT_EQ(s3.Lock(), -1);
    }
    EXPECT_EQ(s1.Lock(), -1);   // s2's destructor removed the set
    EXPECT_EQ(semget(KeyOf(a), 1, 0), -1);
}

TEST(Semaphore, ExcludesProcessesUndoesOnExitAndCloseReachesOthers)
{
    const std::string name = Name("p");
    cSemaphore sem;
    ASSERT_EQ(sem.Open(name.c_str()), 1);
    auto* counter = static_cast<volatile long*>(
        mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(counter, MAP_FAILED);
    auto count = [&](cSemaphore& s) {
        for (int i = 0; i < 2000; ++i) {
            if (s.Lock() != 1)
                return 1;
            const long v = *counter;
            sched_yield();
            *counter = v + 1;
            s.Unlock();
        }
        return 0;
    };
    // A child opens its own object and never destroys it (that would remove
    // the set); the alarm ends a child that hangs. Returns its exit code.
    int up[2], down[2];
    ASSERT_EQ(pipe(up), 0);
    ASSERT_EQ(pipe(down), 0);
    auto child = [&](const std::function<int(cSemaphore&)>& body, const std::function<void()>& meanwhile) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(120);
            auto* own = new cSemaphore;
            _exit(own->Open(name.c_str()) == 1 && own->GetId() == sem.GetId() ? body(*own) : 99);
        }
        meanwhile();
        int st = -1;
        return waitpid(pid, &st, 0) == pid && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    };

    EXPECT_EQ(child(count, [&] { EXPECT_EQ(count(sem), 0); }), 0);
    EXPECT_EQ(*counter, 4000);
    // A process that ends holding the semaphore gives it back.
    EXPECT_EQ(child([](cSemaphore& s) { return s.Lock() == 1 ? 0 : 1; }, [] {}), 0);
    EXPECT_EQ(semctl(sem.GetId(), 0, GETVAL), 1);
    // Close here removes the set under the other process's feet.
    char c = 0;
    auto removed = [&](cSemaphore& s) {
        return write(up[1], "u", 1) == 1 && read(down[0], &c, 1) == 1 && s.Lock() == -1 ? 0 : 1;
    };
    EXPECT_EQ(child(removed, [&] {
                  EXPECT_EQ(read(up[0], &c, 1), 1);
                  sem.Close();
                  EXPECT_EQ(write(down[1], "d", 1), 1);
              }),
              0);
    EXPECT_EQ(semget(KeyOf(name), 1, 0), -1);
    for (int fd : {up[0], up[1], down[0], down[1]})
        close(fd);
    munmap(const_cast<long*>(counter), sizeof(long));
}
