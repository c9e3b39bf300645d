// scm_config.cpp - loading and watching the orvo-scm configuration file.
#include "scm_config.h"

#include <algorithm>

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "record_json.h"

namespace orvo_scm {

using orvo_tools::tJson;

const tServiceEntry* tScmFile::Find(const std::string& name) const
{
    for (const tServiceEntry& e : services)
        if (e.name == name)
            return &e;
    return nullptr;
}

namespace {

bool ParseEntry(const std::string& name, const tJson& j, tServiceEntry& e, std::string& error)
{
    const std::string where = "services." + name;
    if (!j.is_object()) {
        error = where + ": must be an object";
        return false;
    }
    e.name = name;
    for (auto it = j.begin(); it != j.end(); ++it) {
        const std::string& key = it.key();
        const tJson& v = it.value();
        if (key == "config") {
            std::string why;
            if (!orvo_tools::JsonToRecord(v, e.config, why)) {
                error = where + ".config: " + why;
                return false;
            }
        } else if (key == "failure-action" && v.is_string()) {
            e.failureAction = v.get<std::string>();
        } else if (key == "start" && v.is_boolean()) {
            e.start = v.get<bool>();
        } else if (key == "command" && v.is_string()) {
            e.command = v.get<std::string>();
        } else {
            error = where + ": unknown key or wrong type: \"" + key +
                    "\" (config: record, failure-action: string, start: bool, command: string)";
            return false;
        }
    }
    if (e.start && e.command.empty()) {
        error = where + ": \"start\" needs a \"command\"";
        return false;
    }
    return true;
}

// The 1-based line of the key "name" inside the "services" object of text;
// 0 when it cannot be found (a name written with escapes).
int LineOfService(const std::string& text, const std::string& name)
{
    const size_t services = text.find("\"services\"");
    if (services == std::string::npos)
        return 0;
    const std::string quoted = "\"" + name + "\"";
    for (size_t at = text.find(quoted, services + 10); at != std::string::npos; at = text.find(quoted, at + 1)) {
        const size_t colon = text.find_first_not_of(" \t\r\n", at + quoted.size());
        if (colon != std::string::npos && text[colon] == ':')
            return 1 + static_cast<int>(std::count(text.begin(), text.begin() + static_cast<long>(at), '\n'));
    }
    return 0;
}

}  // namespace

bool ParseScmFile(const std::string& text, tScmFile& file, std::string& error)
{
    tJson j;
    if (!orvo_tools::ParseJson(text, j, error))
        return false;
    if (!j.is_object() || j.size() != 1 || !j.contains("services") || !j["services"].is_object()) {
        error = "the file must be an object holding only \"services\" (an object by service name)";
        return false;
    }
    tScmFile loaded;
    const tJson& services = j["services"];
    for (auto it = services.begin(); it != services.end(); ++it) {
        if (it.key().empty()) {
            error = "services: a service name must not be empty";
            return false;
        }
        tServiceEntry e;
        if (!ParseEntry(it.key(), it.value(), e, error)) {
            // The parser keeps no places: the entry's line is looked up in the text.
            const int line = LineOfService(text, it.key());
            if (line > 0)
                error = "line " + std::to_string(line) + ": " + error;
            return false;
        }
        loaded.services.push_back(e);
    }
    file = loaded;
    return true;
}

bool LoadScmFile(const std::string& path, tScmFile& file, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (!ParseScmFile(text.str(), file, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

cFileWatch::cFileWatch(const std::string& path) : m_Path(path), m_Mtime{}, m_Size(0), m_Ino(0)
{
    Stamp(m_Mtime, m_Size, m_Ino);
}

bool cFileWatch::Stamp(struct timespec& mtime, off_t& size, ino_t& ino) const
{
    struct stat st {};
    if (stat(m_Path.c_str(), &st) != 0)
        return false;
    mtime = st.st_mtim;
    size = st.st_size;
    ino = st.st_ino;
    return true;
}

bool cFileWatch::Changed()
{
    struct timespec mtime {};
    off_t size = 0;
    ino_t ino = 0;
    if (!Stamp(mtime, size, ino))
        return false;   // vanished for a moment (an editor replacing it): look again later
    const bool changed = mtime.tv_sec != m_Mtime.tv_sec || mtime.tv_nsec != m_Mtime.tv_nsec ||
                         size != m_Size || ino != m_Ino;
    m_Mtime = mtime;
    m_Size = size;
    m_Ino = ino;
    return changed;
}

std::string ExpandCommand(const std::string& command, const std::string& sap)
{
    static const std::string kSap = "{scm-sap}";
    std::string out = command;
    for (size_t at = out.find(kSap); at != std::string::npos; at = out.find(kSap, at + sap.size()))
        out.replace(at, kSap.size(), sap);
    return out;
}

namespace {

void AppendElement(std::string& bytes, const orvo::cRecordPar& p)
{
    bytes.append(p.GetElement(), static_cast<size_t>(p.GetElementEnd() - p.GetElement()));
}

orvo::cRecord FromBytes(const std::string& bytes)
{
    return bytes.empty() ? orvo::cRecord() : orvo::cRecord(bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace

bool SetAtPath(orvo::cRecord& config, const std::vector<std::string>& levels, const orvo::cRecord& change)
{
    using namespace orvo;
    std::string bytes;
    if (levels.empty()) {
        std::vector<std::string> placed;
        for (cRecordPar p = config.GetFirstPar(); p.IsValid(); config.SeekNextPar(p)) {
            const cRecordPar by = change.GetFirstPar(p.GetName());
            const bool first = by.IsValid() && std::find(placed.begin(), placed.end(), p.GetName()) == placed.end();
            if (first)
                placed.push_back(p.GetName());
            if (!by.IsValid())
                AppendElement(bytes, p);
            else if (first)
                AppendElement(bytes, by);
        }
        for (cRecordPar c = change.GetFirstPar(); c.IsValid(); change.SeekNextPar(c))
            if (std::find(placed.begin(), placed.end(), c.GetName()) == placed.end())
                AppendElement(bytes, c);
        config = FromBytes(bytes);
        return true;
    }
    bool found = false;
    for (cRecordPar p = config.GetFirstPar(); p.IsValid(); config.SeekNextPar(p)) {
        if (found || p.GetName() != levels[0] || (p.GetType() & 0x0F) != RECORD_RECORD) {
            AppendElement(bytes, p);
            continue;
        }
        cRecord child;
        p.GetRecord(child);
        if (!SetAtPath(child, std::vector<std::string>(levels.begin() + 1, levels.end()), change))
            return false;
        cRecord one;
        one.AppendRecordPar(levels[0].c_str(), child);
        bytes.append(one.GetBuffer(), static_cast<size_t>(one.GetSize()));
        found = true;
    }
    if (found)
        config = FromBytes(bytes);
    return found;
}

}  // namespace orvo_scm
