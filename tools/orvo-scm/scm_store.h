// scm_store.h - the records services store with orvo-scm (0x10028) and fetch
// again (0x1002b), kept in a file so they outlive an orvo-scm restart. The
// newest record stored under a name wins.
#pragma once

#include <map>
#include <string>

#include <orvo_blockfile.h>
#include <orvo_record.h>

namespace orvo_scm {

class cRecordStore {
public:
    // Opens (or creates) the file and reads what it holds; false when it
    // cannot be opened or is not a record store.
    bool Open(const std::string& path);
    bool Store(const std::string& name, const orvo::cRecord& record);
    bool Fetch(const std::string& name, orvo::cRecord& record) const;
    size_t Count() const { return m_Latest.size(); }

private:
    orvo::cRecordFile m_File;   // one block per store request: { name, record }
    std::map<std::string, orvo::cRecord> m_Latest;
};

}  // namespace orvo_scm
