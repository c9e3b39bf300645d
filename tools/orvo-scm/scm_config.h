// scm_config.h - the orvo-scm configuration file: one entry per service name
// with its configuration record, failure action, and whether and how the SCM
// starts it. docs/orvo-scm.md describes the JSON form.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include <orvo_record.h>

namespace orvo_scm {

struct tServiceEntry {
    std::string name;
    orvo::cRecord config;         // merged over the configuration the service registers
    std::string failureAction;    // empty: the service's own ".system.failure-action"
    bool start = false;           // the SCM starts it as a child process
    std::string command;          // program and arguments, "{scm-sap}" replaced
};

struct tScmFile {
    std::vector<tServiceEntry> services;   // in file order
    const tServiceEntry* Find(const std::string& name) const;
};

// Reads and checks the file; false with a message naming the place of the
// first fault, its line (the parser's "line L, column C" for a syntax error,
// "line L: " before the entry for a wrong entry) and the reason; file is
// left as it was then.
bool LoadScmFile(const std::string& path, tScmFile& file, std::string& error);
bool ParseScmFile(const std::string& text, tScmFile& file, std::string& error);

// Notices a changed file by its modification time, size and inode; a file
// that is being rewritten is seen on one of the next polls.
class cFileWatch {
public:
    explicit cFileWatch(const std::string& path);
    // True once for every change since the last call (or construction).
    bool Changed();

private:
    bool Stamp(struct timespec& mtime, off_t& size, ino_t& ino) const;
    std::string m_Path;
    struct timespec m_Mtime;
    off_t m_Size;
    ino_t m_Ino;
};

// The text of command with every "{scm-sap}" replaced by sap.
std::string ExpandCommand(const std::string& command, const std::string& sap);

// config with the top-level elements of change put into the record that
// levels name (each the first record element of that name, from the top):
// an element of the same name is replaced in place, a new one appended.
// False, config unchanged, when a level names no record element.
bool SetAtPath(orvo::cRecord& config, const std::vector<std::string>& levels, const orvo::cRecord& change);

}  // namespace orvo_scm
