// scm_supervisor.h - the services orvo-scm starts as child processes: start,
// restart after an unexpected end or a watchdog failure, stop on shutdown.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <orvo_process.h>

#include "scm_config.h"
#include "scm_output.h"

namespace orvo {
class cService;
}

namespace orvo_scm {

class cSupervisor {
public:
    // Whether the named service's printed trace lines are left out of the
    // console (they reach it as the SCM's copy).
    using tDropTraces = std::function<bool(const std::string& name)>;

    // service reaps the children and receives their reports (0x8000-0x8002);
    // sap replaces "{scm-sap}" in command lines. The children's standard
    // output is copied to orvo-scm's (see cChildOutput).
    cSupervisor(orvo::cService* service, const std::string& sap, tDropTraces dropTraces);

    // Starts the entry's command; its pid or -1.
    int Start(const tServiceEntry& entry);
    bool IsStarted(const std::string& name) const { return m_Children.count(name) != 0; }
    bool IsRunning(const std::string& name) const;
    // Ends a running child with SIGKILL so that its end restarts it.
    bool Restart(const std::string& name);
    // A child ended (report with "pid"): its name (empty when no child of
    // ours had that pid) and whether it is to be started again.
    std::string OnEnded(int pid, bool& startAgain);
    // Starts the named child again from its last entry (after OnEnded).
    int StartAgain(const std::string& name);

    // SIGTERM to every running child; no restarts from now on.
    void StopAll();
    // SIGKILL to every child still running.
    void KillAll();
    bool AnyRunning() const;
    // The pids of the children running now.
    std::vector<int> RunningPids() const;
    // Copies what the children's output pipes still hold.
    void DrainOutputs();

private:
    struct tChild {
        std::unique_ptr<orvo::cProcess> process;
        tServiceEntry entry;
        int pid = -1;
    };
    orvo::cService* m_pService;
    std::string m_Sap;
    tDropTraces m_DropTraces;
    std::map<std::string, tChild> m_Children;   // by service name
    // Output pipes, also of ended children until they are read to the end.
    std::list<std::unique_ptr<cChildOutput>> m_Outputs;
    bool m_bStopping;
};

}  // namespace orvo_scm
