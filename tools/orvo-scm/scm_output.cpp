// scm_output.cpp - the standard output of the children orvo-scm starts.
#include "scm_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>

namespace orvo_scm {

cChildOutput::cChildOutput(orvo::cService* service, int fd, tDropTraces dropTraces)
    : orvo::cChannel(service, nullptr), m_DropTraces(std::move(dropTraces))
{
    Attach(fd);
}

cChildOutput::~cChildOutput()
{
    Close();
}

bool cChildOutput::IsTraceLine(const std::string& line)
{
    // The time text is fixed: "DD.MM.YYYY hh:mm:ss.mmm", then "(osc) ".
    static const char kTime[] = "99.99.9999 99:99:99.999(";
    size_t i = 0;
    for (; kTime[i] != '\0'; ++i) {
        if (i >= line.size())
            return false;
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (kTime[i] == '9' ? !digit : line[i] != kTime[i])
            return false;
    }
    if (i < line.size() && line[i] == '-')
        ++i;
    const size_t digits = i;
    while (i < line.size() && std::isdigit(static_cast<unsigned char>(line[i])))
        ++i;
    if (i == digits || line.compare(i, 2, ") ") != 0)
        return false;
    const size_t bar = line.find('|', i);
    const size_t open = bar == std::string::npos ? bar : line.find('[', bar);
    return open != std::string::npos && line.find("]: ", open) != std::string::npos;
}

int cChildOutput::StartPiped(const std::function<int()>& start, int& fd)
{
    fd = -1;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return start();
    // The child inherits descriptor 1 as it is at fork, so orvo-scm's own
    // standard output is the pipe for the moment of the start. Output
    // buffered before is written out first, to the console.
    std::fflush(stdout);
    const int console = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (console < 0 || ::dup2(ends[1], STDOUT_FILENO) < 0) {
        if (console >= 0)
            ::close(console);
        ::close(ends[0]);
        ::close(ends[1]);
        return start();
    }
    const int result = start();
    std::fflush(stdout);
    ::dup2(console, STDOUT_FILENO);
    ::close(console);
    ::close(ends[1]);
    fd = ends[0];
    return result;
}

void cChildOutput::Drain()
{
    while (!m_bDone && GetFd() > 0) {
        pollfd p{GetFd(), POLLIN, 0};
        if (::poll(&p, 1, 0) != 1)
            break;
        OnSelectRead();
    }
}

int cChildOutput::rawRead(void* buffer, int size)
{
    const ssize_t n = ::read(GetFd(), buffer, static_cast<size_t>(size));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        SetReadRetry();
        return 0;
    }
    return static_cast<int>(n);
}

int cChildOutput::OnRead(const void* data, int size)
{
    // Whole lines only; a full buffer without a line end is passed on as it
    // is (the loop would stop reading a full buffer otherwise).
    const char* text = static_cast<const char*>(data);
    int used = 0;
    for (int i = 0; i < size; ++i)
        if (text[i] == '\n') {
            Print(std::string(text + used, static_cast<size_t>(i + 1 - used)));
            used = i + 1;
        }
    if (used == 0 && size >= kRecvBufferSize) {
        Print(std::string(text, static_cast<size_t>(size)));
        used = size;
    }
    return used;
}

void cChildOutput::Print(const std::string& line)
{
    if (m_DropTraces && IsTraceLine(line) && m_DropTraces())
        return;
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

void cChildOutput::OnClose()
{
    // A last line without its line end.
    if (GetRecvFill() > 0)
        Print(std::string(reinterpret_cast<const char*>(GetRecvBuffer()),
                          static_cast<size_t>(GetRecvFill())));
    m_bDone = true;
}

void cChildOutput::Close()
{
    const int fd = GetFd();
    if (fd > 0) {
        orvo::cChannel::Close();
        ::close(fd);
    }
    m_bDone = true;
}

}  // namespace orvo_scm
