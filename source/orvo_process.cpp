#define ORVO_SOURCE "orvo_process"
#include "orvo_process.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <vector>

#include "orvo_msg.h"
#include "orvo_service.h"
#include "orvo_statem.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

// Guards the process list and every object's pid: the reaper runs on the
// loop thread that sees SIGCHLD first, which need not be the owner's. Never
// destroyed, so a reaper during process exit stays safe.
std::mutex& ListLock()
{
    static std::mutex* lock = new std::mutex();
    return *lock;
}
std::list<cProcess*>* gProcesses = nullptr;

enum eSplitState { BETWEEN, SINGLE_QUOTED, DOUBLE_QUOTED, PLAIN };

// Runs in the forked child, before execvp: nothing of the parent beyond
// standard input, output and error reaches the new program.
void CloseInheritedDescriptors()
{
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, 3u, ~0u, 0u) == 0)
        return;
#endif
    // Without close_range: up to the soft limit of open files.
    struct rlimit rl;
    long limit = 1024;
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0)
        limit = rl.rlim_cur == RLIM_INFINITY || rl.rlim_cur > (1ul << 20)
                    ? (1L << 20)
                    : static_cast<long>(rl.rlim_cur);
    for (long fd = 3; fd < limit; ++fd)
        ::close(static_cast<int>(fd));
}

// Runs in the forked child: caught signals go back to their default
// action (exec would do that too, but a signal may arrive before exec).
// Ignored signals stay ignored, as exec keeps them.
void ResetSignalActions()
{
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction sa;
        if (::sigaction(sig, nullptr, &sa) != 0)
            continue;
        if (!(sa.sa_flags & SA_SIGINFO) && (sa.sa_handler == SIG_DFL || sa.sa_handler == SIG_IGN))
            continue;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = SIG_DFL;
        ::sigaction(sig, &sa, nullptr);
    }
}

}  // namespace

cProcess::cProcess(cService* service, cStateMachine* statem)
    : m_pService(service), m_pStatem(statem), m_ExecMode(0), m_Pid(-1)
{
    if (service != nullptr)
        SetObjName(service->ToString());
    {
        std::lock_guard<std::mutex> lock(ListLock());
        if (gProcesses == nullptr)
            gProcesses = new std::list<cProcess*>();
        gProcesses->push_back(this);
    }
    // Only the first registration takes effect; that is enough because the
    // reaper walks the whole list.
    cService::SignalAsyncSelect(SIGCHLD, &cProcess::Reaper, this);
}

cProcess::~cProcess()
{
    Kill();
    std::lock_guard<std::mutex> lock(ListLock());
    gProcesses->remove(this);
}

std::string cProcess::ToString() const
{
    return "{ name=" + GetObjName() + FormatString(", pid=%d", GetPid()) + " }";
}

int cProcess::SplitArgs(char* buffer, char** argv, int first, int maxArgs)
{
    int n = first;
    eSplitState state = BETWEEN;
    for (char* p = buffer; *p != '\0'; ++p) {
        const char c = *p;
        switch (state) {
        case BETWEEN:
            if (c == ' ')
                break;
            if (n >= maxArgs - 1) {
                argv[n] = nullptr;
                return n - first;
            }
            if (c == '\'' || c == '"') {
                state = c == '\'' ? SINGLE_QUOTED : DOUBLE_QUOTED;
                argv[n++] = p + 1;
            } else {
                state = PLAIN;
                argv[n++] = p;
            }
            break;
        case SINGLE_QUOTED:
        case DOUBLE_QUOTED:
            if (c == (state == SINGLE_QUOTED ? '\'' : '"')) {
                *p = '\0';
                state = BETWEEN;
            }
            break;
        case PLAIN:
            if (c == ' ') {
                *p = '\0';
                state = BETWEEN;
            }
            break;
        }
    }
    argv[n] = nullptr;
    return n - first;
}

int cProcess::Exec(const char* file, const char* args)
{
    if (IsRunning())
        return -1;
    if (file == nullptr || *file == '\0') {
        ORVO_TRACE(UnitORVO, ERROR, "cProcess::Exec: no program given");
        return -1;
    }
    if (args == nullptr)
        args = "";
    const size_t len = std::strlen(args);
    if (len >= static_cast<size_t>(kCmdLineSize)) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cProcess::Exec '%s': command line of %lu characters refused "
                                "(at most %d)",
                                file, static_cast<unsigned long>(len), kCmdLineSize - 1));
        return -1;
    }

    {
        std::lock_guard<std::mutex> lock(ListLock());
        m_Pid = 0;
    }
    SetObjName(file);
    const std::string name(file);

    // Everything the child needs is prepared here: between fork and exec the
    // child only closes descriptors and execs.
    std::vector<char> line(kCmdLineSize, '\0');
    std::memcpy(line.data(), args, len);
    std::vector<char*> argv(kMaxArgs, nullptr);
    argv[0] = const_cast<char*>(name.c_str());
    SplitArgs(line.data(), argv.data(), 1, kMaxArgs);

    // Output still buffered here would otherwise be written twice if the
    // child traces on standard output.
    std::fflush(stdout);

    // Signals stay blocked from fork until the child has put back the
    // default actions: a signal sent to a fresh pid (Signal right after
    // Exec) would otherwise run the parent's catcher in the child and be
    // lost at exec.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);

    int pid;
    int forkErrno;
    {
        // Held across fork until the pid is stored: a reaper on another
        // thread could otherwise reap a quick child before it is known.
        std::lock_guard<std::mutex> lock(ListLock());
        errno = 0;
        pid = ::fork();
        forkErrno = errno;
        if (pid == 0) {
            ResetSignalActions();
            pthread_sigmask(SIG_SETMASK, &saved, nullptr);
            CloseInheritedDescriptors();
            const int rc = ::execvp(argv[0], argv.data());
            ORVO_TRACE(UnitORVO, ERROR,
                       FormatString("child execvp '%s' error=%i", argv[0], rc));
            std::fflush(stdout);
            // _exit: the parent's atexit handlers and static destructors
            // must not run in the child.
            ::_exit(kExecFailedStatus);
        }
        m_Pid = pid;
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);

    if (pid < 0) {
        cMsg msg(kMsgStartFailed);
        msg.SetStatem(m_pStatem);
        msg.GetRecord().AppendTextPar("file", name);
        msg.GetRecord().AppendTextPar("reason", std::strerror(forkErrno));
        if (m_pService != nullptr)
            m_pService->OnMsg(msg);
        return -1;
    }

    cMsg msg(kMsgStarted);
    msg.SetStatem(m_pStatem);
    msg.GetRecord().AppendTextPar("file", name);
    msg.GetRecord().AppendUIntPar("pid", static_cast<unsigned>(pid));
    if (m_pService != nullptr)
        m_pService->OnMsg(msg);
    WaitForChild();
    return pid;
}

void cProcess::Kill()
{
    std::lock_guard<std::mutex> lock(ListLock());
    if (m_Pid >= 1) {
        ::kill(m_Pid, SIGKILL);
        m_Pid = 0;
    }
}

void cProcess::Signal(int sig)
{
    std::lock_guard<std::mutex> lock(ListLock());
    if (m_Pid >= 1)
        ::kill(m_Pid, sig);
}

bool cProcess::IsRunning() const
{
    return GetPid() > 0;
}

int cProcess::GetPid() const
{
    std::lock_guard<std::mutex> lock(ListLock());
    return m_Pid;
}

void cProcess::WaitForChild()
{
}

int cProcess::System(const char* command)
{
    if (command == nullptr || *command == '\0')
        return -1;
    return std::system(command);
}

int cProcess::System(const std::string& command)
{
    return System(command.c_str());
}

void cProcess::OnKill(int code)
{
    cMsg msg(code == kExecFailedStatus ? kMsgStartFailed : kMsgEnded);
    msg.SetStatem(m_pStatem);
    msg.GetRecord().AppendTextPar("file", GetObjName());
    msg.GetRecord().AppendUIntPar("pid", static_cast<unsigned>(m_Pid));
    if (code != kExecFailedStatus)
        msg.GetRecord().AppendUIntPar("code", static_cast<unsigned>(code));
    // Through the internal socket, so the report is an event of its own and
    // never runs inside whatever the loop was doing when SIGCHLD came.
    if (m_pService != nullptr)
        m_pService->SendToInternal(m_pService, msg);
    m_Pid = 0;
}

void cProcess::Reaper(cService*, int, void*)
{
    std::lock_guard<std::mutex> lock(ListLock());
    for (;;) {
        int status = 0;
        const pid_t pid = ::wait4(-1, &status, WNOHANG, nullptr);
        if (pid <= 0)
            break;
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
        if (gProcesses == nullptr)
            continue;
        for (cProcess* p : *gProcesses) {
            if (p->m_Pid == pid)
                p->OnKill(code);
        }
    }
}

}  // namespace orvo
