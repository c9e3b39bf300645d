#define ORVO_SOURCE "orvo_sharedmem"
#include "orvo_sharedmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "orvo_trace.h"

namespace orvo {

cSharedMemory<unsigned long long>* gSmStatusW = nullptr;
cSharedMemory<unsigned long>* gSmOsc = nullptr;

// ---- cBaseSharedMemory -------------------------------------------------------

cBaseSharedMemory::~cBaseSharedMemory()
{
    Close();
}

int cBaseSharedMemory::Open(const char* name, int size)
{
    Close();
    if (name == nullptr || size <= 0)
        return -1;
    SetObjName(name);
    m_Size = static_cast<uint32_t>(size);
    const std::string semName = std::string("_") + name + "_";
    if (m_Lock.Open(semName.c_str()) == -1)
        return -1;
    m_fd = ::shm_open(name, O_RDWR | O_CLOEXEC, 0666);
    if (m_fd < 0)
        m_fd = ::shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (m_fd < 0)
        return -1;
    if (::ftruncate(m_fd, size) != 0)
        return -1;
    void* p = ::mmap(nullptr, m_Size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (p == MAP_FAILED)
        return -1;
    m_Buffer = p;
    return m_fd;
}

bool cBaseSharedMemory::Lock()
{
    return m_Lock.Lock() == 1;
}

bool cBaseSharedMemory::Unlock()
{
    return m_Lock.Unlock() == 1;
}

void cBaseSharedMemory::Close()
{
    if (m_Buffer != nullptr)
        ::munmap(m_Buffer, m_Size);
    m_Buffer = nullptr;
    m_Lock.Close();
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

void cBaseSharedMemory::Delete()
{
    Close();
    const std::string name = GetObjName();
    if (!name.empty())
        ::shm_unlink(name.c_str());
}

// ---- the process-wide cells ----------------------------------------------------

namespace {

// Guards the two cell pointers; held only to read or set them.
std::mutex& CellLock()
{
    static std::mutex* lock = new std::mutex;
    return *lock;
}

// Lets one thread at a time open a cell, so that no second object is opened
// and closed again (closing removes the semaphore for everyone). Never held
// while tracing.
std::mutex& OpenLock()
{
    static std::mutex* lock = new std::mutex;
    return *lock;
}

template <class T>
cSharedMemory<T>* CurrentCell(cSharedMemory<T>*& cell)
{
    std::lock_guard<std::mutex> lock(CellLock());
    return cell;
}

// The cell, opened on first use; null when that fails. A failed open traces,
// and the trace line reads the operating seconds: tracingHere makes that
// nested call return at once instead of opening (and tracing) again.
template <class T>
cSharedMemory<T>* UseCell(cSharedMemory<T>*& cell, const char* name, bool& tracingHere)
{
    if (cSharedMemory<T>* current = CurrentCell(cell))
        return current;
    if (tracingHere)
        return nullptr;
    {
        std::lock_guard<std::mutex> opening(OpenLock());
        if (cSharedMemory<T>* current = CurrentCell(cell))
            return current;
        auto* opened = new cSharedMemory<T>;
        if (opened->Open(name) != -1) {
            std::lock_guard<std::mutex> lock(CellLock());
            cell = opened;
            return opened;
        }
        delete opened;
    }
    tracingHere = true;
    ORVO_TRACE(UnitORVO, ERROR, std::string("can't open shared memory '") + name + "'");
    tracingHere = false;
    return nullptr;
}

thread_local bool tTracingStatusW = false;
thread_local bool tTracingOsc = false;

cSharedMemory<unsigned long long>* StatusCell()
{
    return UseCell(gSmStatusW, "statusw", tTracingStatusW);
}

}  // namespace

unsigned long long GetStatusW()
{
    unsigned long long value = 0;
    cSharedMemory<unsigned long long>* cell = StatusCell();
    return cell != nullptr && cell->Get(value) ? value : 0;
}

bool SetStatusW(unsigned long long value)
{
    cSharedMemory<unsigned long long>* cell = StatusCell();
    return cell != nullptr && cell->Set(value);
}

bool ModifyStatusW(unsigned long long setBits, unsigned long long keepMask)
{
    cSharedMemory<unsigned long long>* cell = StatusCell();
    return cell != nullptr && cell->ModifyBits(setBits, keepMask);
}

unsigned long GetOSC()
{
    unsigned long value = 0;
    cSharedMemory<unsigned long>* cell = UseCell(gSmOsc, "bsz", tTracingOsc);
    return cell != nullptr && cell->Get(value) ? value : 0;
}

void CloseSharedCells()
{
    cSharedMemory<unsigned long>* osc;
    cSharedMemory<unsigned long long>* status;
    {
        std::lock_guard<std::mutex> lock(CellLock());
        osc = gSmOsc;
        status = gSmStatusW;
        gSmOsc = nullptr;
        gSmStatusW = nullptr;
    }
    delete osc;       // the destructor closes
    delete status;
}

void ToggleWD()
{
    const char* path = std::getenv("ORVO_WATCHDOG_DEVICE");
    int fd = ::open(path != nullptr && *path != '\0' ? path : "/dev/watchdog", O_RDWR | O_CLOEXEC);
    // Descriptor 0 is deliberately not used: the device code only feeds the
    // watchdog through a descriptor above 0.
    if (fd > 0) {
        const unsigned char feed = 0x01;
        ssize_t written = ::write(fd, &feed, 1);
        (void)written;
        ::close(fd);
    } else if (fd == 0) {
        ::close(fd);
    }
}

}  // namespace orvo
