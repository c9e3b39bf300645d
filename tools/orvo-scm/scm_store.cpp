// scm_store.cpp - stored records in an append-only file. Each entry is a
// 4-byte little-endian length and the bytes of a record { name, record };
// a torn last entry (orvo-scm killed while writing) is ignored on open.
#include "scm_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace orvo_scm {

using orvo::cRecord;

namespace {

bool ReadAll(int fd, std::string& out)
{
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace

cRecordStore::cRecordStore() : m_Fd(-1) {}

cRecordStore::~cRecordStore()
{
    if (m_Fd >= 0)
        close(m_Fd);
}

bool cRecordStore::Open(const std::string& path)
{
    m_Fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    std::string bytes;
    if (m_Fd < 0 || !ReadAll(m_Fd, bytes))
        return false;
    size_t at = 0;
    while (bytes.size() - at >= 4) {
        const auto* p = reinterpret_cast<const unsigned char*>(bytes.data() + at);
        const uint32_t size = p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
        if (size > bytes.size() - at - 4)
            break;
        const cRecord entry(bytes.data() + at + 4, static_cast<int>(size));
        cRecord record;
        entry.GetFirstPar("record", orvo::RECORD_RECORD, orvo::RECORD_SEL_TYPE).GetRecord(record);
        const orvo::cRecordPar name = entry.GetFirstPar("name", orvo::RECORD_TEXT, orvo::RECORD_SEL_TYPE);
        if (name.IsValid())
            m_Latest[name.GetString()] = record;
        at += 4 + size;
    }
    return true;
}

bool cRecordStore::Store(const std::string& name, const cRecord& record)
{
    if (m_Fd < 0)
        return false;
    cRecord entry;
    entry.AppendTextPar("name", name);
    entry.AppendRecordPar("record", record);
    const uint32_t size = static_cast<uint32_t>(entry.GetSize());
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>((size >> (8 * i)) & 0xFF);
    bytes.append(entry.GetBuffer(), size);
    if (write(m_Fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        return false;
    m_Latest[name] = record;
    return true;
}

bool cRecordStore::Fetch(const std::string& name, cRecord& record) const
{
    auto it = m_Latest.find(name);
    if (it == m_Latest.end())
        return false;
    record = it->second;
    return true;
}

}  // namespace orvo_scm
