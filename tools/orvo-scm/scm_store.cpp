// scm_store.cpp - stored records in a record file: each store request
// appends one block { name, record }; opening reads them all, the newest per
// name wins. The record file's CRC keeps a damaged block out.
#include "scm_store.h"

#include <orvo_time.h>

namespace orvo_scm {

using orvo::cRecord;

bool cRecordStore::Open(const std::string& path)
{
    if (!m_File.Open(path, true))
        return false;
    for (unsigned long i = 0; i < m_File.Count(); ++i) {
        cRecord entry, record;
        orvo::cTime created;
        unsigned long long stamp = 0;
        if (m_File.GetAt(i, entry, created, stamp) != orvo::BLOCKFILE_OK)
            continue;
        const orvo::cRecordPar name = entry.GetFirstPar("name", orvo::RECORD_TEXT, orvo::RECORD_SEL_TYPE);
        entry.GetFirstPar("record", orvo::RECORD_RECORD, orvo::RECORD_SEL_TYPE).GetRecord(record);
        if (name.IsValid())
            m_Latest[name.GetString()] = record;
    }
    return true;
}

bool cRecordStore::Store(const std::string& name, const cRecord& record)
{
    cRecord entry;
    entry.AppendTextPar("name", name);
    entry.AppendRecordPar("record", record);
    orvo::cTime now;
    now.Now(true);
    if (m_File.Append(entry, now, 0) != orvo::BLOCKFILE_OK)
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
