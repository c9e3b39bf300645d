#define ORVO_SOURCE "orvo_channel"
#include "orvo_channel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "orvo_handle.h"
#include "orvo_msg.h"
#include "orvo_selectloop.h"
#include "orvo_service.h"
#include "orvo_snoop.h"
#include "orvo_trace.h"

namespace orvo {

cChannel::cChannel(cService* service, cStateMachine* statem)
    : m_fd(-1),
      m_Flags(CHANNEL_ENABLED),
      m_pRecvBuffer(static_cast<unsigned char*>(std::malloc(kRecvBufferSize))),
      m_RecvBufferSize(kRecvBufferSize),
      m_RecvFill(0),
      m_WriteReadyMsg(1),
      m_pService(service),
      m_pStatem(statem),
      m_bReadRetry(0),
      m_Handle(HandleCreate(this, HANDLE_CHANNEL))
{
    // Without a buffer the channel can still write; it never asks to read.
    if (m_pRecvBuffer == nullptr)
        m_RecvBufferSize = 0;
}

cChannel::~cChannel()
{
    if (m_pService != nullptr)
        m_pService->RemoveMsgsByObject(this);
    std::free(m_pRecvBuffer);
    m_pRecvBuffer = nullptr;
    m_RecvBufferSize = 0;
    m_RecvFill = 0;
    cChannel::Close();
    // A descriptor 0 is not detached by Close(), and a stale entry may
    // remain after the descriptor changed; the loop must never see this
    // object again, nor may the snoop and trace lists.
    if (m_pService != nullptr)
        cSelectLoop::Of(m_pService)->ForgetChannel(this);
    SnoopRemoveChannel(this);
    UnRegisterTraceChannel(this);
    HandleRelease(m_Handle);
}

std::string cChannel::ToString() const
{
    return cObject::ToString() + FormatString(", fd=%i", m_fd);
}

void cChannel::Attach(int fd)
{
    ORVO_ASSERT(m_fd == -1);
    m_fd = fd;
    int fl = ::fcntl(fd, F_GETFL, 0);
    if (fl != -1)
        ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    int fdfl = ::fcntl(fd, F_GETFD, 0);
    if (fdfl != -1)
        ::fcntl(fd, F_SETFD, fdfl | FD_CLOEXEC);
    m_Flags |= CHANNEL_ENABLED;
    UpdateSelect();
}

void cChannel::Dettach()
{
    Enable(false);
    m_fd = -1;
}

void cChannel::Close()
{
    if (m_fd > 0) {
        Dettach();
        m_fd = -1;
    }
}

void cChannel::Enable(bool on)
{
    if (on)
        m_Flags |= CHANNEL_ENABLED;
    else
        m_Flags &= static_cast<uint16_t>(~CHANNEL_ENABLED);
    UpdateSelect();
}

void cChannel::EnableRead(bool on)
{
    if (on)
        m_Flags &= static_cast<uint16_t>(~CHANNEL_READDISABLED);
    else
        m_Flags |= CHANNEL_READDISABLED;
    UpdateSelect();
}

void cChannel::SetWritePending(bool on)
{
    if (on)
        m_Flags |= CHANNEL_WRITEPENDING;
    else
        m_Flags &= static_cast<uint16_t>(~CHANNEL_WRITEPENDING);
}

void cChannel::SetLineMode(bool on)
{
    if (on)
        m_Flags |= CHANNEL_LINEMODE;
    else
        m_Flags &= static_cast<uint16_t>(~CHANNEL_LINEMODE);
}

ORVO_HOT void cChannel::UpdateSelect()
{
    if (m_fd < 0)
        return;
    int events = 0;
    if (!IsEnabled()) {
        m_RecvFill = 0;
    } else {
        if (m_Flags & CHANNEL_WRITEPENDING)
            events |= SELECT_WRITE;
        // A full buffer stops reading until the subclass consumes bytes.
        if (m_RecvFill < m_RecvBufferSize && !(m_Flags & CHANNEL_READDISABLED))
            events |= SELECT_READ;
    }
    // After most reads nothing changed: the loop then leaves the
    // registration alone.
    if (m_pService != nullptr)
        cSelectLoop::Of(m_pService)->UpdateChannel(this, m_fd, events);
}

ORVO_HOT int cChannel::Read(void* buffer, int size)
{
    return rawRead(buffer, size);
}

int cChannel::Write(const void* data, int size)
{
    m_Flags |= CHANNEL_WRITEPENDING;
    int n = rawWrite(data, size);
    if (n > 0)
        loop::WantWriteReady(*this);
    const int saved = errno;
    HandleWriteFailure();
    errno = saved;
    return n;
}

bool cChannel::HandleWriteFailure()
{
    if (!m_bWriteFailed.load(std::memory_order_relaxed))
        return false;
    if (m_pService != nullptr && !m_pService->IsLoopThread()) {
        cSelectLoop::Of(m_pService)->AskWrite(this, true);
        return false;
    }
    m_bWriteFailed.store(false);
    Close();
    OnClose();
    return true;
}

int cChannel::Ioctl(unsigned int request, unsigned long arg)
{
    return ::ioctl(m_fd, request, arg);
}

ORVO_HOT void cChannel::OnMsg(cMsg& msg)
{
    if (m_pService != nullptr)
        m_pService->OnMsg(msg);
}

ORVO_HOT void cChannel::OnSelect(int events)
{
    if (HandleWriteFailure())
        return;
    if (events & SELECT_READ)
        OnSelectRead();
    else if (events & SELECT_WRITE)
        OnSelectWrite();
}

ORVO_HOT void cChannel::OnSelectWrite()
{
    m_Flags &= static_cast<uint16_t>(~CHANNEL_WRITEPENDING);
    OnWrite();
    UpdateSelect();
}

ORVO_HOT void cChannel::OnSelectRead()
{
    m_bReadRetry = 0;
    int count = Read(m_pRecvBuffer + m_RecvFill, m_RecvBufferSize - m_RecvFill);
    if (m_bReadRetry) {
        UpdateSelect();
        return;
    }
    if (count <= 0) {
        OnClose();
        Close();
        return;
    }
    // A subclass could have closed or disabled the channel (dropping the
    // buffer) from inside rawRead; never let the fill leave the buffer.
    m_RecvFill += count;
    if (m_RecvFill > m_RecvBufferSize)
        m_RecvFill = m_RecvBufferSize;

    while (m_RecvFill > 0 && count > 0) {
        int piece = m_RecvFill;
        if (IsLineMode()) {
            const void* nl = std::memchr(m_pRecvBuffer, '\n', static_cast<size_t>(m_RecvFill));
            if (nl == nullptr)
                break;
            piece = static_cast<int>(static_cast<const unsigned char*>(nl) - m_pRecvBuffer) + 1;
        }
        count = OnRead(m_pRecvBuffer, piece);
        ORVO_ASSERT(count>=0);
        // OnRead may have closed or disabled the channel, which drops the
        // buffered bytes; the fill is re-read for that reason.
        if (count > m_RecvFill)
            count = m_RecvFill;
        if (count == 0)
            break;
        m_RecvFill -= count;
        if (m_RecvFill > 0)
            std::memmove(m_pRecvBuffer, m_pRecvBuffer + count, static_cast<size_t>(m_RecvFill));
    }
    UpdateSelect();
}

}  // namespace orvo
