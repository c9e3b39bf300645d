// orvo-scm as a child process of a test: started on a free port, its output
// collected on a thread so that tests can wait for a line.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvo_test {

inline std::string EnvOr(const char* name, const char* fallback)
{
    const char* v = std::getenv(name);
    return v != nullptr ? v : fallback;
}

inline void WriteFile(const std::string& path, const std::string& text)
{
    // Write beside and rename, as editors do, so the SCM never reads half a file.
    const std::string tmp = path + ".tmp";
    std::ofstream(tmp) << text;
    rename(tmp.c_str(), path.c_str());
}

class cScmProcess {
public:
    // Starts orvo-scm with the options (after -listen 127.0.0.1:0) and waits
    // for its "listening on" line.
    bool Start(const std::vector<std::string>& options)
    {
        std::vector<std::string> words = {EnvOr("ORVO_SCM_BIN", "orvo-scm"), "-listen", "127.0.0.1:0"};
        words.insert(words.end(), options.begin(), options.end());
        if (!Spawn(words))
            return false;
        const std::string marker = "orvo-scm listening on 127.0.0.1:";
        if (!WaitFor(marker, 20000))
            return false;
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Port = static_cast<unsigned short>(std::atoi(m_Out.c_str() + m_Out.find(marker) + marker.size()));
        return m_Port != 0;
    }

    // Runs words (program path first) with standard output and error
    // collected; any other program the tests drive while it runs.
    bool Spawn(std::vector<std::string> words)
    {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0)
            return false;
        m_Pid = fork();
        if (m_Pid == 0) {
            dup2(out[1], 1);
            dup2(out[1], 2);
            std::vector<char*> argv;
            for (std::string& w : words)
                argv.push_back(&w[0]);
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        m_Reader = std::thread([this, fd = out[0]] { Read(fd); });
        return m_Pid > 0;
    }

    // SIGINT (Ctrl-C) and the exit status, as Terminate.
    int Interrupt(int timeoutMs)
    {
        kill(m_Pid, SIGINT);
        return Exit(timeoutMs);
    }

    ~cScmProcess()
    {
        if (m_Pid > 0) {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, nullptr, 0);
        }
        if (m_Reader.joinable())
            m_Reader.join();
    }

    // Waits for text to appear in the output after position from; returns
    // whether it did. at receives where it starts.
    bool WaitFor(const std::string& text, int timeoutMs, size_t from = 0, size_t* at = nullptr)
    {
        std::unique_lock<std::mutex> lock(m_Lock);
        size_t pos = std::string::npos;
        const bool found = m_Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            pos = m_Out.find(text, from);
            return pos != std::string::npos || m_bEof;
        }) && pos != std::string::npos;
        if (found && at != nullptr)
            *at = pos;
        return found;
    }

    std::string Output()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Out;
    }
    size_t OutputSize()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Out.size();
    }

    // SIGTERM and the exit status (-1 when it did not exit within timeoutMs).
    int Terminate(int timeoutMs)
    {
        kill(m_Pid, SIGTERM);
        return Exit(timeoutMs);
    }

    // Waits for the process to end by itself: its exit status, -1 when it
    // did not end within timeoutMs or died by a signal.
    int Exit(int timeoutMs)
    {
        for (int waited = 0; waited < timeoutMs; waited += 20) {
            int status = 0;
            if (waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
                m_Pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            usleep(20000);
        }
        return -1;
    }

    unsigned short Port() const { return m_Port; }
    pid_t Pid() const { return m_Pid; }
    std::string Sap() const { return "127.0.0.1:" + std::to_string(m_Port); }

private:
    void Read(int fd)
    {
        char buf[4096];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) {
            std::lock_guard<std::mutex> lock(m_Lock);
            m_Out.append(buf, static_cast<size_t>(n));
            m_Changed.notify_all();
        }
        close(fd);
        std::lock_guard<std::mutex> lock(m_Lock);
        m_bEof = true;
        m_Changed.notify_all();
    }

    pid_t m_Pid = -1;
    unsigned short m_Port = 0;
    std::thread m_Reader;
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    std::string m_Out;
    bool m_bEof = false;
};

// A private directory for one test's JSON file and record file, removed
// afterwards, and orvo-scm started on them (file checked every 100 ms,
// restarts after 200 ms; more options follow and win).
class cScmTestDir {
public:
    cScmTestDir()
    {
        char dir[] = "/tmp/orvo-scm-test-XXXXXX";
        if (mkdtemp(dir) != nullptr)
            m_Dir = dir;
        m_File = m_Dir + "/scm.json";
    }
    ~cScmTestDir()
    {
        const std::string cmd = "rm -rf '" + m_Dir + "'";
        if (!m_Dir.empty() && system(cmd.c_str()) != 0)
            return;
    }
    bool StartScm(cScmProcess& scm, const std::string& json, const std::vector<std::string>& more = {})
    {
        WriteFile(m_File, json);
        std::vector<std::string> options = {"-config", m_File, "-store", m_Dir + "/records",
                                            "-poll-ms", "100", "-restart-ms", "200"};
        options.insert(options.end(), more.begin(), more.end());
        return !m_Dir.empty() && scm.Start(options);
    }
    const std::string& File() const { return m_File; }

private:
    std::string m_Dir, m_File;
};

// The pid in orvo-scm's line "registered '<name>' pid <pid>" found after from.
inline int RegisteredPid(cScmProcess& scm, const std::string& name, size_t from)
{
    const std::string marker = "registered '" + name + "' pid ";
    size_t at = 0;
    if (!scm.WaitFor(marker, 20000, from, &at))
        return -1;
    return std::atoi(scm.Output().c_str() + at + marker.size());
}

}  // namespace orvo_test
