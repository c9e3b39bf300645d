// scm_supervisor.cpp - child processes of orvo-scm.
#include "scm_supervisor.h"

#include <signal.h>

namespace orvo_scm {

cSupervisor::cSupervisor(orvo::cService* service, const std::string& sap, tDropTraces dropTraces)
    : m_pService(service), m_Sap(sap), m_DropTraces(std::move(dropTraces)), m_bStopping(false)
{
}

int cSupervisor::Start(const tServiceEntry& entry)
{
    if (m_bStopping)
        return -1;
    tChild& child = m_Children[entry.name];
    if (child.process && child.process->IsRunning())
        return -1;
    if (!child.process)
        child.process.reset(new orvo::cProcess(m_pService, nullptr));
    child.entry = entry;
    const std::string command = ExpandCommand(entry.command, m_Sap);
    const size_t blank = command.find(' ');
    const std::string file = command.substr(0, blank);
    const std::string args = blank == std::string::npos ? std::string() : command.substr(blank + 1);
    m_Outputs.remove_if([](const std::unique_ptr<cChildOutput>& o) { return o->IsDone(); });
    int fd = -1;
    orvo::cProcess& process = *child.process;
    child.pid = cChildOutput::StartPiped([&] { return process.Exec(file.c_str(), args.c_str()); }, fd);
    if (fd >= 0) {
        const std::string name = entry.name;
        tDropTraces drop = m_DropTraces;
        m_Outputs.emplace_back(new cChildOutput(m_pService, fd, [drop, name] { return drop && drop(name); }));
    }
    return child.pid;
}

bool cSupervisor::IsRunning(const std::string& name) const
{
    auto it = m_Children.find(name);
    return it != m_Children.end() && it->second.process && it->second.process->IsRunning();
}

bool cSupervisor::Restart(const std::string& name)
{
    auto it = m_Children.find(name);
    if (it == m_Children.end() || !IsRunning(name))
        return false;
    it->second.process->Signal(SIGKILL);   // Signal, not Kill: the end report must come
    return true;
}

std::string cSupervisor::OnEnded(int pid, bool& startAgain)
{
    startAgain = false;
    for (auto& kv : m_Children) {
        if (kv.second.pid != pid || pid <= 0)
            continue;
        kv.second.pid = 0;
        startAgain = !m_bStopping;   // every end but a requested stop is unexpected
        return kv.first;
    }
    return std::string();
}

int cSupervisor::StartAgain(const std::string& name)
{
    auto it = m_Children.find(name);
    if (it == m_Children.end())
        return -1;
    const tServiceEntry entry = it->second.entry;
    return Start(entry);
}

void cSupervisor::StopAll()
{
    m_bStopping = true;
    for (auto& kv : m_Children)
        if (kv.second.process->IsRunning())
            kv.second.process->Signal(SIGTERM);
}

void cSupervisor::KillAll()
{
    for (auto& kv : m_Children) {
        if (kv.second.process->IsRunning())
            kv.second.process->Kill();
        kv.second.pid = 0;   // Kill reports no end
    }
}

void cSupervisor::DrainOutputs()
{
    for (auto& output : m_Outputs)
        output->Drain();
}

bool cSupervisor::AnyRunning() const
{
    // By the ends reported to OnEnded, not by cProcess: one reaper pass may
    // reap several children before their reports are handled.
    for (const auto& kv : m_Children)
        if (kv.second.pid > 0)
            return true;
    return false;
}

std::vector<int> cSupervisor::RunningPids() const
{
    std::vector<int> pids;
    for (const auto& kv : m_Children)
        if (kv.second.pid > 0)
            pids.push_back(kv.second.pid);
    return pids;
}

}  // namespace orvo_scm
