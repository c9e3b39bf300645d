// orvo_process.h - cProcess, an external program run as a child process,
// watched through SIGCHLD on a service loop, with its start, failure and end
// reported as messages to a state machine.
//
// Reports (all addressed to the object's state machine; with no state
// machine they enter the service's queue), record parameters in this order:
//
//     0x8000 start failed  fork failure: "file", "reason" (strerror text)
//                          exec failure (child exit status 213): "file", "pid"
//     0x8001 started       "file", "pid" (uint)
//     0x8002 ended         "file", "pid", "code" (uint exit status)
//
// 0x8001 is delivered synchronously from inside Exec. The end report is
// sent through the service's internal socket, so it arrives as an event of
// its own, always after 0x8001. A child that exits with status 213 by itself
// is reported as a failed start: 213 is the status of a failed execvp.
// A child ended by a signal reports code 0. Kill() gives no report at all.
//
// The reaper is installed with cService::SignalAsyncSelect(SIGCHLD, ...)
// by the first cProcess and reaps every ended child of the process
// (wait4(-1, ..., WNOHANG) until nothing is left), so children started
// elsewhere in the process are reaped too and never become zombies; their
// ends are not reported. It runs on whichever service loop sees SIGCHLD
// first; the report still goes to the object's own service.
//
// Ownership: service and state machine are not owned and must outlive the
// object (or the object must be destroyed first). The destructor kills a
// running child.
//
// Thread safety: a cProcess is used on its service's thread. The process
// list and the pid are guarded by one process-wide lock because the reaper
// may run on another service's loop thread.
#pragma once

#include <string>

#include "orvo_object.h"

namespace orvo {

class cService;
class cStateMachine;

class ORVO_API cProcess : public cObject {
public:
    static const unsigned long kMsgStartFailed = 0x8000;
    static const unsigned long kMsgStarted = 0x8001;
    static const unsigned long kMsgEnded = 0x8002;
    // Exit status of a child whose execvp failed.
    static const int kExecFailedStatus = 213;
    // Size of the command-line buffer: args must be shorter than this.
    static const int kCmdLineSize = 4096;
    // Entries of the argument vector: program, at most 2048 words (4095
    // characters of one-character words between blanks), terminating null.
    static const int kMaxArgs = kCmdLineSize / 2 + 2;

    // Stores service and state machine (either may be null; without a
    // service nothing is reported and nothing reaps the child), pid -1,
    // object name = the service's ToString() text. Enters the process list
    // and routes SIGCHLD to the reaper.
    cProcess(cService* service, cStateMachine* statem);
    cProcess(const cProcess&) = delete;
    cProcess& operator=(const cProcess&) = delete;

    // ---- Virtual slots, in this order ----------------------------------

    // Kill(), then leaves the process list.
    ~cProcess() override;
    // "{ name=<object name>, pid=<pid> }".
    std::string ToString() const override;

    // ---- Operations -------------------------------------------------------

    // Starts file (looked up in PATH by execvp) with args split into words
    // (see SplitArgs); argument 0 is file. The object name becomes file.
    // Returns the child's pid, or -1 when:
    //  - a child of this object is still running (nothing else happens);
    //  - file is null or empty, or args (null means no words) has 4096 or
    //    more characters: refused with an ERROR trace, no report, pid and
    //    name unchanged (the line is never cut, which could change its
    //    meaning);
    //  - fork failed: 0x8000 with "file" and "reason".
    // On success 0x8001 has been delivered before Exec returns. In the child
    // every descriptor from 3 up is closed before execvp, so the parent's
    // sockets and files do not leak; if execvp fails the child traces
    // "child execvp '<file>' error=-1" (ERROR) and exits with status 213.
    int Exec(const char* file, const char* args);
    // A running child gets SIGKILL and the pid becomes 0: no end report.
    void Kill();
    // A running child gets sig.
    void Signal(int sig);
    bool IsRunning() const;
    // -1 before the first start, the child's pid while it runs, 0 after it
    // ended or was killed.
    int GetPid() const;
    // Does nothing: the end is reported asynchronously.
    void WaitForChild();
    // Stored, not otherwise used.
    void SetExecMode(int mode) { m_ExecMode = mode; }
    int GetExecMode() const { return m_ExecMode; }

    // -1 for a null or empty command, else the result of system(command)
    // (blocking; the child's end is not reported).
    static int System(const char* command);
    static int System(const std::string& command);

    // Splits buffer in place into words and stores pointers to them in
    // argv[first..], ending the list with a null; returns the number of
    // words. At most maxArgs - first - 1 words are stored (the rest of the
    // text is ignored). Words are separated by blanks (' ' only, no tabs); a
    // word that starts with ' or " runs to the same quote character (the
    // quotes are not part of it; the other quote is an ordinary character;
    // an unclosed quote runs to the end); quotes inside a plain word are
    // ordinary characters; there is no escape character. The character that
    // ends a word is overwritten with a terminator.
    static int SplitArgs(char* buffer, char** argv, int first, int maxArgs);

protected:
    // The child ended with exit status code: 0x8000 for 213, else 0x8002,
    // sent through the service's internal socket to the service itself;
    // then pid 0. Called by the reaper with the list lock held.
    void OnKill(int code);

private:
    static void Reaper(cService* service, int sig, void* ctx);

    cService* m_pService;        // not owned; reaps and receives the reports
    cStateMachine* m_pStatem;    // not owned; receiver of the reports, may be null
    int m_ExecMode;              // stored only
    int m_Pid;                   // -1 never started, >0 running, 0 ended/killed
};

}  // namespace orvo
