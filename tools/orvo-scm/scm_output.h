// scm_output.h - the standard output of the children orvo-scm starts.
//
// A child's standard output is a pipe that orvo-scm reads and copies to its
// own standard output line by line. A service that sends its traces to the
// SCM ("trace.log-scm" true) and also prints them (OUTPUT_STDOUT) would
// otherwise show every trace twice on orvo-scm's console: once as printed by
// the child, once as the 0x10190 copy orvo-scm prints. Such a service's
// printed trace lines are dropped here; every other line passes unchanged.
#pragma once

#include <functional>
#include <string>

#include <orvo_channel.h>

namespace orvo_scm {

class cChildOutput : public orvo::cChannel {
public:
    // Whether the child's printed trace lines are to be dropped now (asked
    // for every trace line, so a configuration change takes effect at once).
    using tDropTraces = std::function<bool()>;

    // Takes fd, the read end of the child's output pipe.
    cChildOutput(orvo::cService* service, int fd, tDropTraces dropTraces);
    ~cChildOutput() override;

    // Whether the pipe has ended (the child and everything it started with
    // the same output have closed it).
    bool IsDone() const { return m_bDone; }
    // Copies what the pipe holds now, without waiting (at orvo-scm's end:
    // the last lines of the children are not lost).
    void Drain();

    // Whether line has the form of a trace printed on standard output:
    // "DD.MM.YYYY hh:mm:ss.mmm(osc) exe|unit[level]: text".
    static bool IsTraceLine(const std::string& line);

    // Starts a child through start with the write end of a new pipe as its
    // standard output; fd gets the read end (-1 when no pipe could be made,
    // and the child then shares orvo-scm's output). start's result is
    // returned.
    static int StartPiped(const std::function<int()>& start, int& fd);

    void OnClose() override;
    int OnRead(const void* data, int size) override;
    void OnWrite() override {}
    void Close() override;
    int rawWrite(const void*, int) override { return -1; }
    int rawRead(void* buffer, int size) override;
    int Send(orvo::cMsg&) override { return -1; }

private:
    void Print(const std::string& line);

    tDropTraces m_DropTraces;
    bool m_bDone = false;
};

}  // namespace orvo_scm
