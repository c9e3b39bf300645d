#define ORVO_SOURCE "orvo_blockfile"
#include "orvo_blockfile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "orvo_blockfile_io.h"
#include "orvo_crc.h"
#include "orvo_record.h"

namespace orvo {

namespace blockfile_io {
tWrite Write = nullptr;
// Larger files (and a 32-bit address space that cannot take them) use the
// window.
unsigned long long MapLimit = 256ULL * 1024 * 1024;
}  // namespace blockfile_io

namespace {

constexpr uint32_t kFileHeaderSize = 17;
constexpr uint32_t kBlockHeaderSize = 26;
// Open reads the chain through a window this large, so that a file whose
// blocks lie in chain order costs one read per window, not one per header.
constexpr size_t kChainWindow = 256 * 1024;

void PutU16(unsigned char* p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void PutU32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void PutU64(unsigned char* p, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// The format is little-endian; so is every platform this library builds for
// (checked below), so a field is one unaligned load.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "block files are read with little-endian loads");

uint16_t GetU16(const unsigned char* p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint32_t GetU32(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint64_t GetU64(const unsigned char* p)
{
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The whole buffer at pos, or false.
bool WriteAll(int fd, const void* data, size_t len, off_t pos)
{
    ssize_t n = blockfile_io::Write != nullptr ? blockfile_io::Write(fd, data, len, pos)
                                               : ::pwrite(fd, data, len, pos);
    return n == static_cast<ssize_t>(len);
}

// Bytes read at pos (fewer at the end of the file), or -1.
ssize_t ReadAll(int fd, void* data, size_t len, off_t pos)
{
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::pread(fd, static_cast<char*>(data) + done, len - done,
                            pos + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// Blocks at least this large are walked one header read at a time: reading
// (or populating a mapping of) the payloads between their headers would cost
// more than the reads it saves.
constexpr uint32_t kLargeBlock = 16 * 1024;

// Reads block headers for the chain walk: through a read-only mapping of the
// whole file (populated at once, no copy of the payloads), or, when the file
// cannot be mapped, through a large window of it, so that a file whose blocks
// lie in chain order costs one read per window, not one per header. A file of
// large blocks (judged by its first) is read one 26-byte header at a time,
// so that opening it costs time in proportion to its blocks, not its bytes.
class cChainReader {
public:
    cChainReader(int fd, uint64_t fileSize, uint32_t firstPos) : m_fd(fd)
    {
        if (fileSize == 0)
            return;
        unsigned char first[kBlockHeaderSize];
        if (firstPos != 0 && ReadAll(fd, first, sizeof first, firstPos) == static_cast<ssize_t>(sizeof first) &&
            GetU32(first) >= kLargeBlock) {
            m_HeaderAtATime = true;
            return;
        }
        if (fileSize > blockfile_io::MapLimit)
            return;
        void* p = ::mmap(nullptr, static_cast<size_t>(fileSize), PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
        if (p == MAP_FAILED)
            return;
        m_Map = static_cast<const unsigned char*>(p);
        m_Start = 0;
        m_Len = fileSize;
    }
    ~cChainReader()
    {
        if (m_Map != nullptr)
            ::munmap(const_cast<unsigned char*>(m_Map), static_cast<size_t>(m_Len));
    }
    cChainReader(const cChainReader&) = delete;
    cChainReader& operator=(const cChainReader&) = delete;

    // Copies up to 26 bytes at pos into out; returns how many the file holds.
    size_t Header(uint32_t pos, unsigned char* out)
    {
        if (m_HeaderAtATime) {
            const ssize_t n = ReadAll(m_fd, out, kBlockHeaderSize, pos);
            return n > 0 ? static_cast<size_t>(n) : 0;
        }
        const unsigned char* base = m_Map;
        if (base == nullptr) {
            if (pos < m_Start || pos + kBlockHeaderSize > m_Start + m_Len) {
                m_Window.resize(kChainWindow);
                ssize_t n = ReadAll(m_fd, m_Window.data(), m_Window.size(), pos);
                m_Start = pos;
                m_Len = n > 0 ? static_cast<uint64_t>(n) : 0;
            }
            base = m_Window.data();
        }
        if (pos < m_Start || pos >= m_Start + m_Len)
            return 0;
        const uint64_t avail = m_Start + m_Len - pos;
        const size_t got = static_cast<size_t>(std::min<uint64_t>(avail, kBlockHeaderSize));
        std::memcpy(out, base + (pos - m_Start), got);
        return got;
    }

private:
    int m_fd;
    bool m_HeaderAtATime = false;
    const unsigned char* m_Map = nullptr;
    std::vector<unsigned char> m_Window;
    uint64_t m_Start = 0;
    uint64_t m_Len = 0;
};

// The file being sorted by GetIndizesByTime (not reentrant across threads).
const cBlockFile* gSortFile = nullptr;

}  // namespace

const char* GetBlockFileErrorText(int result)
{
    switch (result) {
    case BLOCKFILE_ERR: return "error BLOCKFILE_ERR \n";
    case BLOCKFILE_CRC_ERR: return "error BLOCKFILE_CRC_ERR \n";
    case BLOCKFILE_WRONG_POS: return "error BLOCKFILE_WRONG_POS \n";
    case BLOCKFILE_READ_PAYLOAD_ERR: return "error BLOCKFILE_READ_PAYLOAD_ERR \n";
    case BLOCKFILE_INVALID: return "error BLOCKFILE_INVALID \n";
    default: return "";
    }
}

// ---- cBlock ----------------------------------------------------------------

void cBlock::Encode(unsigned char out[26]) const
{
    PutU32(out, m_Size);
    PutU32(out + 4, m_Next);
    PutU16(out + 8, m_Crc);
    PutU64(out + 10, m_CTime);
    PutU64(out + 18, m_BsTime);
}

void cBlock::Decode(const unsigned char in[26])
{
    m_Size = GetU32(in);
    m_Next = GetU32(in + 4);
    m_Crc = GetU16(in + 8);
    m_CTime = GetU64(in + 10);
    m_BsTime = GetU64(in + 18);
}

bool cBlock::compareLess_filepos(const cBlock& a, const cBlock& b)
{
    return a.m_FilePos < b.m_FilePos;
}

// ---- cBlockFile: open, close, header ---------------------------------------

cBlockFile::cBlockFile()
    : m_ReadBuffer(static_cast<char*>(std::malloc(1024))), m_ReadBufferSize(m_ReadBuffer ? 1024 : 0)
{
}

cBlockFile::~cBlockFile()
{
    Close();
    std::free(m_ReadBuffer);
}

bool cBlockFile::Open(const std::string& Name, bool Create)
{
    SetObjName(Name);
    Close();
    m_fd = ::open(Name.c_str(), O_RDWR | O_CLOEXEC);
    if (m_fd < 0) {
        if (!Create)
            return false;
        return CreateFile();
    }
    // A file shorter than its header holds no block: it is what a process
    // killed while creating the file (in Open or Clear) leaves behind, and
    // when creating is allowed it is created anew instead of being refused
    // for ever. A header of the full size but without version 1 is refused
    // even then: blocks behind it may still be recoverable by hand.
    struct stat st;
    if (Create && ::fstat(m_fd, &st) == 0 && st.st_size < static_cast<off_t>(kFileHeaderSize)) {
        Close();
        return CreateFile();
    }
    return ReadHeaderAndChain();
}

bool cBlockFile::OpenReadOnly(const std::string& Name)
{
    SetObjName(Name);
    Close();
    m_fd = ::open(Name.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0)
        return false;
    m_ReadOnly = true;
    return ReadHeaderAndChain();
}

bool cBlockFile::ReadHeaderAndChain()
{
    unsigned char header[kFileHeaderSize];
    if (ReadAll(m_fd, header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
        header[0] != 1) {
        Close();
        return false;
    }
    m_Version = header[0];
    m_MaxCount = GetU32(header + 1);
    m_FirstPos = GetU32(header + 5);
    // The reserved words are not read: they are written as 0, whatever the
    // file held.
    if (!ReadChain()) {
        Close();
        return false;
    }
    return true;
}

bool cBlockFile::CreateFile()
{
    m_FirstPos = 0;
    m_fd = ::open(GetObjName().c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (m_fd < 1) {
        Close();
        return false;
    }
    if (!WriteFileHeader()) {
        Close();
        return false;
    }
    m_FileEnd = kFileHeaderSize;
    m_NewName = true;
    return true;
}

void cBlockFile::Close()
{
    if (m_fd > 0)
        ::close(m_fd);
    m_fd = -1;
    m_ReadOnly = false;
    m_Damage.clear();
    m_Ordered = false;
    m_NewName = false;
    m_Blocks.clear();
    DropPositionIndex();
}

bool cBlockFile::WriteFileHeader()
{
    unsigned char header[kFileHeaderSize];
    header[0] = m_Version;
    PutU32(header + 1, m_MaxCount);
    PutU32(header + 5, m_FirstPos);
    PutU32(header + 9, 0);     // reserved
    PutU32(header + 13, 0);    // reserved
    return WriteAll(m_fd, header, sizeof header, 0);
}

bool cBlockFile::WriteNextField(const cBlock& block)
{
    unsigned char next[4];
    PutU32(next, block.m_Next);
    return WriteAll(m_fd, next, sizeof next, static_cast<off_t>(block.m_FilePos + 4));
}

// Notes where and why the chain walk stopped. A read-only open keeps every
// block before the damage; a read-write open refuses the file when Refuses
// is set. Returns whether the open goes on.
bool cBlockFile::StopChain(uint32_t pos, const char* why, bool refuses)
{
    char text[160];
    std::snprintf(text, sizeof text, "block %lu at position %lu: %s",
                  static_cast<unsigned long>(m_Blocks.size()), static_cast<unsigned long>(pos), why);
    m_Damage = text;
    return m_ReadOnly || !refuses;
}

// Walks the chain from the oldest block. A chain can hold no more blocks than
// fit in the file, which ends a walk round a loop of any length.
bool cBlockFile::ReadChain()
{
    struct stat st;
    if (::fstat(m_fd, &st) != 0)
        return false;
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    m_FileEnd = fileSize;
    const uint64_t maxBlocks = fileSize > kFileHeaderSize ? (fileSize - kFileHeaderSize) / kBlockHeaderSize : 0;
    cChainReader reader(m_fd, fileSize, m_FirstPos < fileSize ? m_FirstPos : 0);
    uint32_t pos = m_FirstPos;
    while (pos != 0) {
        if (pos >= fileSize || pos < kFileHeaderSize)
            return StopChain(pos, "position outside the file's blocks", true);
        unsigned char raw[kBlockHeaderSize];
        if (reader.Header(pos, raw) < kBlockHeaderSize) {
            // A header cut short by the end of the file wipes it; a reader
            // only reports it.
            if (StopChain(pos, "block header cut short by the end of the file", true))
                return true;
            Clear();
            return false;
        }
        if (m_Blocks.size() >= maxBlocks) {
            // Round a loop: the blocks from the first one the walk met again
            // on are repeats, not blocks before the damage. (Without a repeat
            // the blocks overlap: all are kept.)
            std::unordered_set<long long> seen;
            size_t kept = 0;
            while (kept < m_Blocks.size() && seen.insert(m_Blocks[kept].m_FilePos).second)
                ++kept;
            if (kept < m_Blocks.size()) {
                pos = static_cast<uint32_t>(m_Blocks[kept].m_FilePos);
                m_Blocks.shrink(kept);
            }
            return StopChain(pos, "the chain loops back to an earlier block", true);
        }
        cBlock block;
        block.Decode(raw);
        if (block.m_Next == pos)
            return StopChain(pos, "the block points at itself", true);
        // A header whose size cannot be a block (a zeroed sector) ends the
        // chain: the blocks before it stay readable.
        if (block.m_Size < kBlockHeaderSize)
            return StopChain(pos, "block size below the 26-byte header (zeroed or damaged header)", false);
        block.m_fd = m_fd;
        block.m_FilePos = pos;
        AddToChain(block);
        pos = block.m_Next;
    }
    return true;
}

// ---- position index --------------------------------------------------------
//
// m_ByPos lists the chain's blocks by file position; m_Gaps holds, for each
// block that has free space in front of it (behind the previous block in
// position order, or behind the file header), that space. The ring's first
// fit is the first such gap, in position order, that is large enough.

void cBlockFile::RefreshGapBefore(std::map<uint32_t, uint32_t>::iterator it)
{
    auto old = m_Gaps.find(it->first);
    if (old != m_Gaps.end()) {
        m_GapLens.erase(m_GapLens.find(old->second.second));
        m_Gaps.erase(old);
    }
    uint32_t start = kFileHeaderSize;
    if (it != m_ByPos.begin())
        start = std::prev(it)->first + std::prev(it)->second;
    if (it->first > start) {
        m_Gaps[it->first] = std::make_pair(start, it->first - start);
        m_GapLens.insert(it->first - start);
    }
}

void cBlockFile::DropPositionIndex()
{
    m_Indexed = false;
    m_ByPos.clear();
    m_Gaps.clear();
    m_GapLens.clear();
}

// Built on the first placement in a ring, so that opening a file (and
// appending to an unbounded one) never pays for it.
void cBlockFile::BuildPositionIndex()
{
    DropPositionIndex();
    for (size_t i = 0; i < m_Blocks.size(); ++i)
        m_ByPos.emplace(static_cast<uint32_t>(m_Blocks[i].m_FilePos), m_Blocks[i].m_Size);
    for (auto it = m_ByPos.begin(); it != m_ByPos.end(); ++it)
        RefreshGapBefore(it);
    m_Indexed = true;
}

void cBlockFile::AddToChain(const cBlock& block)
{
    m_Blocks.push_back(block);
    if (!m_Indexed)
        return;
    auto it = m_ByPos.emplace(static_cast<uint32_t>(block.m_FilePos), block.m_Size).first;
    RefreshGapBefore(it);
    if (std::next(it) != m_ByPos.end())
        RefreshGapBefore(std::next(it));
}

void cBlockFile::DropOldest()
{
    const uint32_t pos = static_cast<uint32_t>(m_Blocks.front().m_FilePos);
    m_Blocks.pop_front();
    m_FirstPos = m_Blocks.empty() ? 0 : static_cast<uint32_t>(m_Blocks.front().m_FilePos);
    if (!m_Indexed)
        return;
    auto it = m_ByPos.find(pos);
    if (it == m_ByPos.end())
        return;
    auto gap = m_Gaps.find(pos);
    if (gap != m_Gaps.end()) {
        m_GapLens.erase(m_GapLens.find(gap->second.second));
        m_Gaps.erase(gap);
    }
    auto next = m_ByPos.erase(it);
    if (next != m_ByPos.end())
        RefreshGapBefore(next);
}

uint32_t cBlockFile::ChooseRingPosition(uint32_t blockSize)
{
    if (!m_Indexed)
        BuildPositionIndex();
    if (!m_GapLens.empty() && *m_GapLens.rbegin() >= blockSize) {
        for (const auto& gap : m_Gaps) {
            if (gap.second.second >= blockSize)
                return gap.second.first;
        }
    }
    if (m_ByPos.empty())
        return kFileHeaderSize;
    return m_ByPos.rbegin()->first + m_ByPos.rbegin()->second;
}

// ---- append and read ---------------------------------------------------------

bool cBlockFile::SyncIfOrdered()
{
    return !m_Ordered || ::fdatasync(m_fd) == 0;
}

int cBlockFile::Append(const void* Data, unsigned long Size, const cTime& CTime,
                       const unsigned long long& BsTime)
{
    if (!IsValid())
        return BLOCKFILE_INVALID;
    if (m_ReadOnly || Size > 0xFFFFFFFFUL - kBlockHeaderSize || (Data == nullptr && Size > 0))
        return BLOCKFILE_ERR;
    const uint32_t blockSize = static_cast<uint32_t>(Size) + kBlockHeaderSize;

    if (m_MaxCount != 0 && m_Blocks.size() >= m_MaxCount) {
        DropOldest();
        if (!WriteFileHeader() || !SyncIfOrdered())
            return BLOCKFILE_ERR;
    }
    off_t pos;
    if (m_MaxCount != 0)
        // Never behind the end of the file: only a damaged block size could
        // put the end of the last block there.
        pos = std::min<uint64_t>(ChooseRingPosition(blockSize), m_FileEnd);
    else
        pos = static_cast<off_t>(m_FileEnd);
    if (static_cast<uint64_t>(pos) + blockSize > 0xFFFFFFFFULL)
        return BLOCKFILE_ERR;

    cBlock block;
    block.m_Size = blockSize;
    block.m_Crc = createCRC16(static_cast<const char*>(Data), static_cast<int>(Size), 0xFFFF);
    block.m_CTime = static_cast<uint64_t>(CTime.ToMilliSeconds());
    block.m_BsTime = BsTime;
    block.m_fd = m_fd;
    block.m_FilePos = pos;

    m_WriteBuffer.resize(blockSize);
    unsigned char* out = reinterpret_cast<unsigned char*>(&m_WriteBuffer[0]);
    block.Encode(out);
    if (Size > 0)
        std::memcpy(out + kBlockHeaderSize, Data, Size);
    // The block is whole (and, in ordered mode, on the medium) before anything
    // points at it.
    if (!WriteAll(m_fd, out, blockSize, pos) || !SyncIfOrdered())
        return BLOCKFILE_ERR;

    if (!m_Blocks.empty()) {
        cBlock& previous = m_Blocks.back();
        previous.m_Next = static_cast<uint32_t>(pos);
        if (!WriteNextField(previous)) {
            previous.m_Next = 0;
            return BLOCKFILE_ERR;
        }
    } else {
        m_FirstPos = static_cast<uint32_t>(pos);
        if (!WriteFileHeader()) {
            m_FirstPos = 0;
            return BLOCKFILE_ERR;
        }
    }
    AddToChain(block);
    m_FileEnd = std::max<uint64_t>(m_FileEnd, static_cast<uint64_t>(pos) + blockSize);
    return BLOCKFILE_OK;
}

int cBlockFile::GetAt(unsigned long Index, void*& Data, unsigned long& Size, cTime& CTime,
                      unsigned long long& BsTime)
{
    if (!IsValid())
        return BLOCKFILE_INVALID;
    if (Index >= m_Blocks.size())
        return BLOCKFILE_WRONG_POS;
    const cBlock& block = m_Blocks[Index];
    const unsigned long payload = block.m_Size - kBlockHeaderSize;
    if (block.m_Size > m_ReadBufferSize) {
        // A damaged size must not allocate more than the file could hold.
        struct stat st;
        if (::fstat(m_fd, &st) != 0 ||
            block.m_FilePos + static_cast<long long>(block.m_Size) > static_cast<long long>(st.st_size))
            return BLOCKFILE_READ_PAYLOAD_ERR;
        char* grown = static_cast<char*>(std::realloc(m_ReadBuffer, block.m_Size));
        if (grown == nullptr)
            return BLOCKFILE_READ_PAYLOAD_ERR;
        m_ReadBuffer = grown;
        m_ReadBufferSize = block.m_Size;
    }
    if (ReadAll(m_fd, m_ReadBuffer, payload, static_cast<off_t>(block.m_FilePos + kBlockHeaderSize)) !=
        static_cast<ssize_t>(payload))
        return BLOCKFILE_READ_PAYLOAD_ERR;
    Data = m_ReadBuffer;
    Size = payload;
    CTime.FromMilliSeconds(block.m_CTime, true);
    BsTime = block.m_BsTime;
    return createCRC16(m_ReadBuffer, static_cast<int>(payload), 0xFFFF) == block.m_Crc
               ? BLOCKFILE_OK
               : BLOCKFILE_CRC_ERR;
}

// ---- maximum count, clear, commit ----------------------------------------------

bool cBlockFile::SetMaxCount(unsigned long N)
{
    // A closed object keeps the bound for the file its next Open creates.
    if (!IsValid()) {
        m_MaxCount = static_cast<uint32_t>(N);
        return true;
    }
    if (m_ReadOnly)
        return false;
    if (N < m_MaxCount) {
        while (m_Blocks.size() > N)
            DropOldest();
        if (!WriteFileHeader())
            return false;
    }
    m_MaxCount = static_cast<uint32_t>(N);
    return WriteFileHeader();
}

void cBlockFile::Clear()
{
    if (m_ReadOnly) {
        std::printf("clear %s failed (%s)", GetObjName().c_str(), std::strerror(EROFS));
        std::fflush(stdout);
        return;
    }
    const uint32_t maxCount = m_MaxCount;
    const std::string name = GetObjName();
    Close();
    ::unlink(name.c_str());
    // Created directly, not through Open: a file that could not be deleted
    // must not have its damaged chain read (and wiped) again.
    SetObjName(name);
    if (!CreateFile()) {
        std::printf("clear %s failed (%s)", name.c_str(), std::strerror(errno));
        std::fflush(stdout);
    }
    m_MaxCount = maxCount;
    if (IsValid())
        WriteFileHeader();
}

bool cBlockFile::Commit()
{
    if (!IsValid() || m_ReadOnly || ::fdatasync(m_fd) != 0)
        return false;
    if (m_NewName) {
        // A file this object created is only found after a power cut once
        // its directory entry is on the medium too.
        const std::string name = GetObjName();
        const size_t slash = name.rfind('/');
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : name.substr(0, slash);
        const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool synced = dirFd >= 0 && ::fsync(dirFd) == 0;
        if (dirFd >= 0)
            ::close(dirFd);
        if (!synced)
            return false;
        m_NewName = false;
    }
    m_Ordered = true;
    return true;
}

std::string cBlockFile::ToString() const
{
    char tail[96];
    std::snprintf(tail, sizeof tail, ", count=%i, maxcount=%i, fd=%i", static_cast<int>(Count()),
                  static_cast<int>(m_MaxCount), m_fd);
    return cObject::ToString() + tail;
}

// ---- selection by time -------------------------------------------------------

unsigned long cBlockFile::SelectSingle(bool newest, bool byCTime) const
{
    unsigned long best = 0;
    for (unsigned long i = 1; i < m_Blocks.size(); ++i) {
        const uint64_t v = byCTime ? m_Blocks[i].m_CTime : m_Blocks[i].m_BsTime;
        const uint64_t b = byCTime ? m_Blocks[best].m_CTime : m_Blocks[best].m_BsTime;
        if (newest ? v > b : v < b)
            best = i;
    }
    return best;
}

unsigned long cBlockFile::SelectRange(std::deque<unsigned long>& Indices, uint64_t From, uint64_t To,
                                      bool byCTime) const
{
    for (unsigned long i = 0; i < m_Blocks.size(); ++i) {
        const uint64_t v = byCTime ? m_Blocks[i].m_CTime : m_Blocks[i].m_BsTime;
        if (v >= From && v <= To)
            Indices.push_back(i);
    }
    gSortFile = this;
    // Equal stamps keep their chain order.
    std::stable_sort(Indices.begin(), Indices.end(), byCTime ? compareLess_ctime : compareLess_bstime);
    gSortFile = nullptr;
    return static_cast<unsigned long>(Indices.size());
}

unsigned long cBlockFile::GetIndizesByTime(std::deque<unsigned long>& Indices,
                                           const unsigned long long& From,
                                           const unsigned long long& To) const
{
    Indices.clear();
    if (!IsValid() || m_Blocks.empty())
        return 0;
    if (From == 0 && To == 0) {
        Indices.push_back(SelectSingle(false, false));
        return 1;
    }
    if (From >= 0xFFFFFFFFULL && To >= 0xFFFFFFFFULL) {
        Indices.push_back(SelectSingle(true, false));
        return 1;
    }
    return SelectRange(Indices, From, To, false);
}

unsigned long cBlockFile::GetIndizesByTime(std::deque<unsigned long>& Indices, const cTime& From,
                                           const cTime& To) const
{
    Indices.clear();
    if (!IsValid() || m_Blocks.empty())
        return 0;
    const uint64_t from = static_cast<uint64_t>(From.ToMilliSeconds());
    const uint64_t to = static_cast<uint64_t>(To.ToMilliSeconds());
    if (from == 0 && to == 0) {
        Indices.push_back(SelectSingle(false, true));
        return 1;
    }
    if (from >= kNewestCTimeMs && to >= kNewestCTimeMs) {
        Indices.push_back(SelectSingle(true, true));
        return 1;
    }
    return SelectRange(Indices, from, to, true);
}

bool cBlockFile::compareLess_ctime(unsigned long a, unsigned long b)
{
    return gSortFile->m_Blocks[a].m_CTime < gSortFile->m_Blocks[b].m_CTime;
}

bool cBlockFile::compareLess_bstime(unsigned long a, unsigned long b)
{
    return gSortFile->m_Blocks[a].m_BsTime < gSortFile->m_Blocks[b].m_BsTime;
}

// ---- cRecordFile ---------------------------------------------------------------

int cRecordFile::Append(const cRecord& Record, const cTime& CTime, const unsigned long long& BsTime)
{
    return cBlockFile::Append(Record.GetBuffer(), static_cast<unsigned long>(Record.GetSize()), CTime,
                              BsTime);
}

int cRecordFile::GetAt(unsigned long Index, cRecord& Record, cTime& CTime, unsigned long long& BsTime)
{
    void* data = nullptr;
    unsigned long size = 0;
    const int result = cBlockFile::GetAt(Index, data, size, CTime, BsTime);
    // A damaged payload is not taken for a record.
    if (result == BLOCKFILE_OK)
        Record.Create(data, static_cast<int>(size));
    return result;
}

std::string cRecordFile::ToString() const
{
    std::string text = cBlockFile::ToString();
    // GetAt only refills the read buffer, a cache of the file.
    cRecordFile* self = const_cast<cRecordFile*>(this);
    for (unsigned long i = 0; i < Count(); ++i) {
        cRecord record;
        cTime ctime;
        unsigned long long bstime = 0;
        const int result = self->GetAt(i, record, ctime, bstime);
        if (result == BLOCKFILE_OK) {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "%llu", bstime);
            text += "\nrecord=" + record.ToString() + ", ctime=" + ctime.ToString() + ", bstime=" + stamp;
        } else {
            text += std::string("\n") + GetBlockFileErrorText(result);
        }
    }
    return text;
}

}  // namespace orvo
