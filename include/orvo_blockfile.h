// orvo_blockfile.h - cBlockFile, an append-only journal of variable-sized
// blocks in one file (optionally a ring bounded to a maximum block count),
// and cRecordFile, which stores records as block payloads.
//
// File format (little-endian, no padding; docs/block_file.md):
//   file header, 17 bytes at offset 0:
//     0  u8   version (always 1; any other value is refused)
//     1  u32  maximum block count (0 = unbounded)
//     5  u32  file position of the oldest block (0 = no blocks)
//     9  u32  reserved, 0
//     13 u32  reserved, 0
//   block, anywhere behind the file header:
//     0  u32  block size (26 + payload length)
//     4  u32  file position of the next-younger block (0 for the youngest)
//     8  u16  CRC-16/X-25 of the payload (createCRC16(payload, n, 0xFFFF))
//     10 u64  creation time in milliseconds since the epoch
//     18 u64  bstime, a stamp chosen by the caller
//     26 ...  payload
//
// The chain of blocks (oldest to youngest) is read once by Open and kept in
// memory; GetAt reads a payload with one positioned read.
//
// Crash consistency. Append writes in an order that never lets the file point
// at a block before the block is whole:
//   1. (bounded file at its maximum) the file header is rewritten to drop the
//      oldest block, before its space can be reused;
//   2. the new block (header and payload) is written in one write;
//   3. the previous youngest block's "next" field (4 bytes), or for an empty
//      chain the header's first-block field, is written last.
// So a process killed at any moment (kill -9) leaves a file that opens with
// every block whose Append returned; at most the block in flight is missing,
// and in a full ring also the oldest block that step 1 dropped: a kill
// between steps 1 and 2 leaves the ring one block short. With a maximum
// count of 1 that is the only block: do not keep data that matters in a
// ring of 1.
//
// A power cut can also lose what the kernel had not yet written, in any order.
// For the same guarantee across a power cut, call Commit() after every call
// that changes the file: Append, SetMaxCount and Clear (and after an Open that
// created the file). Commit syncs the file's data (fdatasync), after a creation
// also its directory, and puts the file into ordered mode: from then until
// Close, each Append also syncs between steps 1, 2 and 3, so the medium sees
// them in this order. A file that is never committed pays no sync at all and
// keeps the kill -9 guarantee only.
//
// The guarantee assumes, like most file systems, that a write within one
// 512-byte sector reaches the medium whole. The 4-byte field of step 3 crosses
// a sector boundary when the previous block starts 505 to 507 bytes past one
// (3 block positions in 512); a cut between those two sectors, in that one
// write, can leave a truncated pointer, which makes the open fail.
//
// Damage that is not a torn append: a block header whose size is below 26
// (a zeroed sector) ends the chain, and the file opens with the blocks before
// it; a chain that points at itself, at or beyond the end of the file, or
// round a loop of several blocks refuses the open; a block header cut short by
// the end of the file wipes the file (Clear) and refuses the open; a payload
// whose CRC does not match is reported by GetAt (BLOCKFILE_CRC_ERR) with the
// data delivered. So a zeroed 512-byte sector leaves the blocks before it
// readable: the chain ends at the first block header whose size it zeroed, or
// at a block whose "next" it zeroed, and a block whose payload or CRC it
// zeroed reads with BLOCKFILE_CRC_ERR.
// OpenReadOnly reads up to any of these without refusing or writing, and
// GetDamage says where the chain stopped. A file shorter than its header is
// no file's: see Open.
//
// Threads: none. One object per file, used from one thread; no file locking
// between processes. GetIndizesByTime sorts through one process-wide pointer to
// the file being sorted: two sorts must never run at the same time.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "orvo_object.h"
#include "orvo_time.h"

namespace orvo {

class cRecord;

// Result codes of Append and GetAt.
enum {
    BLOCKFILE_OK = 1,
    BLOCKFILE_ERR = 2,                 // a write failed
    BLOCKFILE_CRC_ERR = 3,             // payload CRC mismatch (data delivered)
    BLOCKFILE_WRONG_POS = 4,           // index not below Count()
    BLOCKFILE_READ_PAYLOAD_ERR = 5,    // payload read failed or came short
    BLOCKFILE_INVALID = 6              // file not open
};

// "error BLOCKFILE_ERR \n" ... for the codes 2 to 6; "" for any other value.
ORVO_API const char* GetBlockFileErrorText(int result);

// cBlock: one block's header as kept in memory, with its file position.
class ORVO_API cBlock {
public:
    static unsigned long GetHeaderSize() { return 26; }

    // Header bytes in the file format; Decode fills the five header fields.
    void Encode(unsigned char out[26]) const;
    void Decode(const unsigned char in[26]);

    // Orders blocks by file position.
    static bool compareLess_filepos(const cBlock& a, const cBlock& b);

    // 40 bytes in memory; a file of 100,000 blocks keeps 100,000 of these.
    uint64_t m_CTime = 0;         // creation time, ms since the epoch
    uint64_t m_BsTime = 0;        // the caller's stamp
    long long m_FilePos = -1;     // own position, -1 until written
    uint32_t m_Size = 0;          // header + payload bytes
    uint32_t m_Next = 0;          // position of the next-younger block, 0 = youngest
    int m_fd = -1;                // descriptor of the file the block lives in
    uint16_t m_Crc = 0;           // CRC-16/X-25 of the payload
};

static_assert(std::is_trivially_copyable<cBlock>::value && std::is_trivially_destructible<cBlock>::value,
              "cBlockFile keeps blocks in raw memory");

// cBlockFile: the journal. Its object name is the file name.
class ORVO_API cBlockFile : public cObject {
public:
    cBlockFile();
    cBlockFile(const cBlockFile&) = delete;
    cBlockFile& operator=(const cBlockFile&) = delete;
    // Close().
    ~cBlockFile() override;

    // Opens Name read-write and reads its chain. A missing file is created
    // (mode 0600, a 17-byte header, the current maximum count) when Create is
    // true. False when the file cannot be opened or created, its header is
    // short or not version 1, or its chain is damaged (see above).
    // With Create, an existing file shorter than the 17-byte header (what a
    // process killed while creating the file leaves) is created anew. A
    // header without version 1 is refused even with Create (a header of
    // zeros after a power cut before the first Commit included): the blocks
    // behind it are left for recovery by hand.
    // A block header whose size is below 26 (a zeroed sector) ends the chain:
    // the file opens with the blocks before it, and GetDamage says where.
    bool Open(const std::string& Name, bool Create);
    // Opens Name without ever writing to it (O_RDONLY): reads every intact
    // block of the chain up to the first damage, which GetDamage() then
    // describes, where Open would refuse the file or wipe it. Append, Clear,
    // SetMaxCount and Commit on such a file fail without touching it. For
    // readers and tools that must not change a journal they look at.
    bool OpenReadOnly(const std::string& Name);
    bool IsReadOnly() const { return m_ReadOnly; }
    // After Open or OpenReadOnly: "" when the chain was read to its end,
    // otherwise one line saying where and why the walk stopped ("block 3 at
    // position 1234: ..."). Empty after Close.
    const std::string& GetDamage() const { return m_Damage; }
    // Closes the descriptor (when above 0) and empties the in-memory chain.
    void Close();
    // Descriptor above 0 (descriptor 0 counts as not open).
    bool IsValid() const { return m_fd > 0; }

    unsigned long Count() const { return static_cast<unsigned long>(m_Blocks.size()); }
    unsigned long GetMaxCount() const { return m_MaxCount; }
    // Below the current maximum: drops oldest blocks until at most N remain.
    // Then stores N and rewrites the file header. Going from 0 (unbounded) to
    // a bound drops nothing now; each later Append drops one oldest block.
    // Returns false when the header could not be written. On a closed object
    // it only stores N, which a file created by the next Open takes.
    bool SetMaxCount(unsigned long N);
    static unsigned long GetHeaderSize() { return 17; }

    // Appends one block; returns BLOCKFILE_OK, BLOCKFILE_ERR (a write failed;
    // the block is not in the chain) or BLOCKFILE_INVALID.
    int Append(const void* Data, unsigned long Size, const cTime& CTime,
               const unsigned long long& BsTime);
    // Reads block Index (0 = oldest). Data points into this object's read
    // buffer, valid until the next GetAt or Close. Returns BLOCKFILE_OK,
    // BLOCKFILE_CRC_ERR (data, size and times delivered all the same),
    // BLOCKFILE_WRONG_POS, BLOCKFILE_READ_PAYLOAD_ERR or BLOCKFILE_INVALID.
    int GetAt(unsigned long Index, void*& Data, unsigned long& Size, cTime& CTime,
              unsigned long long& BsTime);

    // Selects block indices by bstime into Indices and returns their number:
    // both bounds 0: the block with the smallest bstime; both at or above
    // 0xFFFFFFFF: the block with the largest (the earliest in chain order
    // among equals); otherwise every block with From <= bstime <= To, sorted
    // by bstime (equal stamps keep their chain order). 0 when not open or
    // empty.
    unsigned long GetIndizesByTime(std::deque<unsigned long>& Indices,
                                   const unsigned long long& From,
                                   const unsigned long long& To) const;
    // The same over creation times (milliseconds of both bounds): both 0: the
    // block created first; both at or above kNewestCTimeMs (the end of 32-bit
    // seconds, 2106, no real creation time): the block created last;
    // otherwise the range [From, To] sorted by creation time.
    unsigned long GetIndizesByTime(std::deque<unsigned long>& Indices, const cTime& From,
                                   const cTime& To) const;
    static constexpr unsigned long long kNewestCTimeMs = 0xFFFFFFFFULL * 1000ULL;

    // Deletes the file and creates it empty, keeping the maximum count. Prints
    // "clear <name> failed (<error>)" on standard output when that fails.
    void Clear();
    // Syncs the file's data to the medium (fdatasync; after a creation also
    // the directory) and switches Append to ordered mode until Close (see
    // above). True on success; false when not open or a sync failed.
    bool Commit();

    // "name=<file>, count=<n>, maxcount=<n>, fd=<n>".
    std::string ToString() const override;

    // Order block indices of the file being sorted by creation time or bstime.
    static bool compareLess_ctime(unsigned long a, unsigned long b);
    static bool compareLess_bstime(unsigned long a, unsigned long b);

private:
    // The chain in chunks of 2048 blocks with a moving front: few large
    // allocations and no copying as it grows, which is most of the cost of
    // opening a file of many blocks; dropping the oldest frees a chunk once
    // the front has passed it.
    class cChain {
    public:
        size_t size() const { return m_End - m_Head; }
        bool empty() const { return m_End == m_Head; }
        cBlock& operator[](size_t i) { return At(m_Head + i); }
        const cBlock& operator[](size_t i) const { return const_cast<cChain*>(this)->At(m_Head + i); }
        cBlock& front() { return At(m_Head); }
        cBlock& back() { return At(m_End - 1); }
        void push_back(const cBlock& b)
        {
            // Chunks are raw memory (cBlock is trivially copyable and
            // destructible): each slot is written once, when it is filled.
            if (m_End == m_Chunks.size() * kPerChunk)
                m_Chunks.emplace_back(static_cast<cBlock*>(std::malloc(sizeof(cBlock) * kPerChunk)));
            new (&At(m_End++)) cBlock(b);
        }
        void pop_front()
        {
            if (++m_Head == kPerChunk) {
                m_Chunks.erase(m_Chunks.begin());
                m_Head = 0;
                m_End -= kPerChunk;
            }
        }
        // Keeps the n oldest (n <= size()).
        void shrink(size_t n) { m_End = m_Head + n; }
        void clear()
        {
            m_Chunks.clear();
            m_Head = m_End = 0;
        }

    private:
        struct sFree {
            void operator()(cBlock* p) const { std::free(p); }
        };
        static constexpr size_t kPerChunk = 2048;
        cBlock& At(size_t j) { return m_Chunks[j / kPerChunk].get()[j % kPerChunk]; }

        std::vector<std::unique_ptr<cBlock, sFree>> m_Chunks;
        size_t m_Head = 0;    // index of the oldest block in the first chunk
        size_t m_End = 0;     // one past the youngest, counted from the first chunk
    };

    bool CreateFile();
    bool ReadHeaderAndChain();
    bool ReadChain();
    bool StopChain(uint32_t pos, const char* why, bool refuses);
    bool WriteFileHeader();
    bool WriteNextField(const cBlock& block);
    void AddToChain(const cBlock& block);
    void BuildPositionIndex();
    void DropPositionIndex();
    void DropOldest();
    void RefreshGapBefore(std::map<uint32_t, uint32_t>::iterator it);
    uint32_t ChooseRingPosition(uint32_t blockSize);
    bool SyncIfOrdered();
    unsigned long SelectSingle(bool newest, bool byCTime) const;
    unsigned long SelectRange(std::deque<unsigned long>& Indices, uint64_t From, uint64_t To,
                              bool byCTime) const;

    uint8_t m_Version = 1;
    uint32_t m_MaxCount = 0;        // 0 = unbounded
    uint32_t m_FirstPos = 0;        // position of the oldest block, 0 = none
    int m_fd = -1;                  // -1 when closed
    bool m_ReadOnly = false;        // opened by OpenReadOnly
    std::string m_Damage;           // where the chain walk stopped short, "" if it did not
    uint64_t m_FileEnd = 0;         // file size as far as this object wrote or read it
    bool m_Ordered = false;         // Commit called since Open: Append syncs between steps
    bool m_NewName = false;         // created here, directory not yet synced
    cChain m_Blocks;                // chain order: oldest first
    // The ring's free-space index, built on first use: the chain's blocks by
    // position (size), the free space in front of each block (keyed by the block's position:
    // start, length) and the multiset of those lengths.
    bool m_Indexed = false;
    std::map<uint32_t, uint32_t> m_ByPos;
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> m_Gaps;
    std::multiset<uint32_t> m_GapLens;
    char* m_ReadBuffer = nullptr;   // grown with realloc to the largest block read
    unsigned long m_ReadBufferSize = 0;
    std::string m_WriteBuffer;      // header + payload of the block being written
};

// cRecordFile: records as block payloads.
class ORVO_API cRecordFile : public cBlockFile {
public:
    using cBlockFile::Append;
    using cBlockFile::GetAt;

    // Append of the record's bytes.
    int Append(const cRecord& Record, const cTime& CTime, const unsigned long long& BsTime);
    // GetAt; on BLOCKFILE_OK Record holds a private copy of the payload,
    // on any other result it is left as it was.
    int GetAt(unsigned long Index, cRecord& Record, cTime& CTime, unsigned long long& BsTime);

    // cBlockFile's text, then per block "\nrecord=<record>, ctime=<time>,
    // bstime=<n>" or the block's error text.
    std::string ToString() const override;
};

}  // namespace orvo
