#define ORVO_SOURCE "orvo_msgsocket"
#include "orvo_msgsocket.h"
#include "orvo_threadid.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "orvo_handle.h"
#include "orvo_selectloop.h"
#include "orvo_service.h"
#include "orvo_time.h"
#include "orvo_trace.h"

namespace orvo {

cCriticalSection g_FrameLock;

template class cTcpServer<cMsgTcpSocket>;

namespace {

uint32_t GetLe32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

bool LengthOk(uint32_t length)
{
    return length >= static_cast<uint32_t>(kFrameHeaderSize) && length < kFrameBufferSize;
}

// Holds g_FrameLock unless the calling thread already does (a send made
// from a handler that runs inside a flush, or Close from inside a write):
// the lock does not count nesting, so an inner Leave would release the
// outer section. Release gives it up early (before tracing or acting).
// In a process that has only one thread the lock has nobody to keep out,
// and taking it (a mutex and two cancel-state switches) is most of a small
// frame's cost; it is skipped then.
class cFrameLockGuard {
public:
    cFrameLockGuard()
        : m_bEntered(!threadid::SingleThreaded() && g_FrameLock.GetOwner() != threadid::Current())
    {
        if (m_bEntered)
            g_FrameLock.Enter();
    }
    ~cFrameLockGuard() { Release(); }
    void Release()
    {
        if (m_bEntered)
            g_FrameLock.Leave();
        m_bEntered = false;
    }
    cFrameLockGuard(const cFrameLockGuard&) = delete;
    cFrameLockGuard& operator=(const cFrameLockGuard&) = delete;

private:
    bool m_bEntered;
};

struct tPiece {
    const void* p;
    int n;
};

// Total frame length of the pieces, or -1 when a length is negative.
long long FrameTotal(const tPiece* pieces, int count)
{
    long long total = kFrameHeaderSize;
    for (int i = 0; i < count; ++i) {
        if (pieces[i].n < 0)
            return -1;
        total += pieces[i].n;
    }
    return total;
}

// Appends header and pieces under cByteBuffer's strict rule; the caller has
// checked that the free space is at least total.
ORVO_HOT void QueueFrame(cByteBuffer& buffer, unsigned char type, uint32_t total, const tPiece* pieces,
                int count)
{
    unsigned char header[kFrameHeaderSize] = {kFrameVersion, type, 0, 0, 0, 0};
    PutLe32(header + 2, total);
    buffer.pushback(header, sizeof header);
    for (int i = 0; i < count; ++i) {
        if (pieces[i].p != nullptr)
            buffer.pushback(pieces[i].p, static_cast<unsigned long>(pieces[i].n));
    }
}

// Frames up to this size are put together on the stack and written from
// there: on an idle connection the frame then goes out without passing
// through the send buffer.
constexpr int kDirectFrameMax = 512;

// Writes the frame (header and pieces) to out, which holds total bytes.
ORVO_HOT void AssembleFrame(unsigned char* out, unsigned char type, uint32_t total, const tPiece* pieces,
                   int count)
{
    out[0] = kFrameVersion;
    out[1] = type;
    PutLe32(out + 2, total);
    unsigned char* at = out + kFrameHeaderSize;
    for (int i = 0; i < count; ++i) {
        const int n = pieces[i].n;
        if (pieces[i].p == nullptr || n <= 0)
            continue;
        // A message's header (4 bytes) and tid (16) are copied inline, not
        // by a library call each.
        if (n == 4)
            std::memcpy(at, pieces[i].p, 4);
        else if (n == 16)
            std::memcpy(at, pieces[i].p, 16);
        else
            std::memcpy(at, pieces[i].p, static_cast<size_t>(n));
        at += n;
    }
}

int TraceLength(long long total)
{
    return total > INT_MAX ? INT_MAX : static_cast<int>(total);
}

// The frame length for the pieces, or -1 with errno set when a piece length
// is negative (EINVAL) or the frame does not fit a frame buffer (E2BIG,
// traced in the name of the sending class).
ORVO_HOT long long CheckedFrameTotal(const char* sender, const tPiece* pieces, int count)
{
    const long long total = FrameTotal(pieces, count);
    if (total < 0) {
        errno = EINVAL;
        return -1;
    }
    if (total >= static_cast<long long>(kFrameBufferSize)) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("%s::WritePacket error: packet size %i to large, support only %ikB",
                                sender, TraceLength(total), 191));
        errno = E2BIG;
        return -1;
    }
    return total;
}

}  // namespace

// ------------------------------------------------------------- cFrameReader

cFrameReader::cFrameReader()
    : m_Buffer(kFrameBufferSize), m_Generation(0), m_BrokenLength(0), m_bBusy(false),
      m_bReleaseLater(false)
{
}

void cFrameReader::Clear()
{
    m_Buffer.clear();
    ++m_Generation;
}

void cFrameReader::Release()
{
    Clear();
    if (m_bBusy)
        m_bReleaseLater = true;
    else
        m_Buffer.Release();
}

ORVO_HOT int cFrameReader::Feed(const void* data, int size, tHandler handler, void* ctx)
{
    if (m_bBusy) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cFrameReader::Feed: nested call, %i bytes dropped", size));
        return FEED_NESTED;
    }
    if (data == nullptr || size <= 0)
        return FEED_OK;

    struct cBusy {
        cFrameReader& reader;
        explicit cBusy(cFrameReader& r) : reader(r) { reader.m_bBusy = true; }
        ~cBusy()
        {
            reader.m_bBusy = false;
            if (reader.m_bReleaseLater) {
                reader.m_bReleaseLater = false;
                reader.m_Buffer.Release();
            }
        }
    } busy(*this);

    const unsigned char* p = static_cast<const unsigned char*>(data);
    unsigned long left = static_cast<unsigned long>(size);
    const unsigned generation = m_Generation;

    for (;;) {
        if (m_Buffer.size() == 0) {
            // Nothing pending: whole frames are handed out straight from the
            // caller's bytes.
            while (left >= static_cast<unsigned long>(kFrameHeaderSize)) {
                const uint32_t length = GetLe32(p + 2);
                if (!LengthOk(length)) {
                    m_BrokenLength = length;
                    Clear();
                    return FEED_BROKEN;
                }
                if (left < length)
                    break;
                handler(ctx, p[1], p + kFrameHeaderSize, static_cast<int>(length) - kFrameHeaderSize);
                if (m_Generation != generation)
                    return FEED_OK;
                p += length;
                left -= length;
            }
            if (left == 0)
                return FEED_OK;
        }

        // Top the pending bytes up with as much as the strict append takes.
        // The buffer holds less than one frame here, and a frame is at most
        // capacity - 1 bytes, so there is always room for at least one byte.
        const unsigned long room = m_Buffer.asize() - 1;
        const unsigned long take = left < room ? left : room;
        ORVO_ASSERT(take > 0);
        m_Buffer.pushback(p, take);
        p += take;
        left -= take;

        while (m_Buffer.size() >= static_cast<unsigned long>(kFrameHeaderSize)) {
            const unsigned char* b = m_Buffer.data();
            const uint32_t length = GetLe32(b + 2);
            if (!LengthOk(length)) {
                m_BrokenLength = length;
                Clear();
                return FEED_BROKEN;
            }
            if (m_Buffer.size() < length)
                break;
            handler(ctx, b[1], b + kFrameHeaderSize, static_cast<int>(length) - kFrameHeaderSize);
            if (m_Generation != generation)
                return FEED_OK;
            m_Buffer.popfront(length);
        }
        if (left == 0)
            return FEED_OK;
    }
}

// ----------------------------------------------------------- cTpktTcpSocket

cTpktTcpSocket::cTpktTcpSocket(cService* service, cStateMachine* statem)
    : cTcpSocket(service, statem, nullptr),
      m_SendBuffer(kFrameBufferSize),
      m_Created(static_cast<uint32_t>(GetMsecClockCoarse())),
      m_RecvSince(m_Created)
{
    SetWriteReadyMsg(0);
}

cTpktTcpSocket::~cTpktTcpSocket()
{
    cTpktTcpSocket::Close();
}

ORVO_HOT void cTpktTcpSocket::FrameHandler(void* ctx, unsigned char type, const unsigned char* payload,
                                  int size)
{
    cTpktTcpSocket* self = static_cast<cTpktTcpSocket*>(ctx);
    self->m_bHeard = true;
    self->OnPacketRead(type, payload, size);
}

ORVO_HOT int cTpktTcpSocket::OnRead(const void* data, int size)
{
    const bool wasEmpty = m_RecvBuffer.size() == 0;
    const int fed = m_RecvBuffer.Feed(data, size, &cTpktTcpSocket::FrameHandler, this);
    if (wasEmpty && m_RecvBuffer.size() > 0)
        m_RecvSince = static_cast<uint32_t>(GetMsecClockCoarse());
    if (fed == cFrameReader::FEED_BROKEN) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cTpktTcpSocket::OnRead error: frame length %u outside %i..%i, "
                                "stream broken, closing %s",
                                static_cast<unsigned>(m_RecvBuffer.GetBrokenLength()),
                                kFrameHeaderSize, kFrameMaxSize, m_RemoteAddr.ToString().c_str()));
        OnClose();
        Close();
    }
    return size;
}

void cTpktTcpSocket::OnWrite()
{
    {
        cFrameLockGuard lock;
        if (m_SendBuffer.size() > 0) {
            int written = rawWrite(m_SendBuffer.data(), static_cast<int>(m_SendBuffer.size()));
            if (written > 0)
                m_SendBuffer.popfront(static_cast<unsigned long>(written));
            NoteSendProgress(false, written);
            // OnSelectWrite re-registers: write readiness only while bytes wait.
            SetWritePending(m_SendBuffer.size() > 0);
            lock.Release();
            HandleWriteFailure();
            return;
        }
    }
    cSocket::OnWrite();
}

void cTpktTcpSocket::Close()
{
    {
        cFrameLockGuard lock;
        m_SendBuffer.Release();
    }
    m_RecvBuffer.Release();
    cTcpSocket::Close();
}

int cTpktTcpSocket::Write(const void* data, int size)
{
    return WritePacket(0, data, size, nullptr, 0, nullptr, 0);
}

void cTpktTcpSocket::OnConnect(int err)
{
    if (err == 0) {
        int on = 1;
        SetSockOpt(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    cTcpSocket::OnConnect(err);
}

ORVO_HOT int cTpktTcpSocket::WritePacket(unsigned char type, const void* p1, int n1, const void* p2, int n2,
                                const void* p3, int n3)
{
    const tPiece pieces[3] = {{p1, n1}, {p2, n2}, {p3, n3}};
    const long long total = CheckedFrameTotal("cTpktTcpSocket", pieces, 3);
    if (total < 0)
        return -1;

    unsigned char frame[kDirectFrameMax];
    const bool direct = total <= kDirectFrameMax;
    if (direct)
        AssembleFrame(frame, type, static_cast<uint32_t>(total), pieces, 3);

    cFrameLockGuard lock;
    const bool wasEmpty = m_SendBuffer.size() == 0;
    int written;
    if (direct && wasEmpty && !IsWritePending()) {
        // Nothing waits: write the frame as it is, keep what did not go out.
        written = rawWrite(frame, static_cast<int>(total));
        const long long sent = written > 0 ? written : 0;
        if (sent < total)
            m_SendBuffer.pushback(frame + sent, static_cast<unsigned long>(total - sent));
    } else {
        const int room = static_cast<int>(m_SendBuffer.asize());
        if (room < total) {
            lock.Release();
            // Traced only now: a trace sends on the trace channels, which takes
            // g_FrameLock in whatever thread sends them.
            ORVO_TRACE(UnitORVO, INFO,
                       FormatString("cTpktTcpSocket::WritePacket packetlen=%i buffer overflow "
                                    "(sendb=%d, tpkt=%d)",
                                    n1, room, static_cast<int>(total)));
            errno = EAGAIN;
            return -2;
        }
        QueueFrame(m_SendBuffer, type, static_cast<uint32_t>(total), pieces, 3);
        // Frames already waiting for writability go out with the flush; writing
        // now would only meet a full socket again.
        if (IsWritePending()) {
            NoteSendProgress(wasEmpty, 0);
            return static_cast<int>(total);
        }
        written = rawWrite(m_SendBuffer.data(), static_cast<int>(m_SendBuffer.size()));
        if (written > 0)
            m_SendBuffer.popfront(static_cast<unsigned long>(written));
    }
    const bool waiting = m_SendBuffer.size() > 0;
    if (waiting) {
        SetWritePending(true);
        NoteSendProgress(wasEmpty, written);
    }
    lock.Release();
    const int saved = errno;
    // Bytes that wait need write readiness whatever made the connection
    // (connect, accept or Attach); only while connecting the registration
    // belongs to the connect, and the flag alone makes it ask for writing.
    if (waiting && !IsConnecting())
        loop::WantWriteReady(*this);
    HandleWriteFailure();
    errno = saved;
    return written > 0 ? written : static_cast<int>(total);
}

void cTpktTcpSocket::OnPacketRead(unsigned char /*type*/, const void* /*payload*/, int /*size*/)
{
}

unsigned long cTpktTcpSocket::GetSendQueued()
{
    cFrameLockGuard lock;
    return m_SendBuffer.size();
}

void cTpktTcpSocket::NoteSendProgress(bool wasEmpty, int written)
{
    if (wasEmpty || written > 0)
        m_SendSince.store(static_cast<uint32_t>(GetMsecClockCoarse()), std::memory_order_relaxed);
}

unsigned long cTpktTcpSocket::GetOwedMs(long long now, const char** what)
{
    const uint32_t at = static_cast<uint32_t>(now);
    unsigned long owed = 0;
    const char* why = "";
    if (m_RecvBuffer.size() > 0) {
        owed = at - m_RecvSince;
        why = "an unfinished frame";
    } else if (!m_bHeard) {
        owed = at - m_Created;
        why = "no complete frame";
    }
    if (GetSendQueued() > 0) {
        const unsigned long send = at - m_SendSince.load(std::memory_order_relaxed);
        if (send > owed) {
            owed = send;
            why = "answers it does not read";
        }
    }
    if (what != nullptr)
        *what = why;
    // A clock read before the marks were set gives a wrapped difference.
    return owed > 0x7FFFFFFFul ? 0 : owed;
}

unsigned long cTpktTcpSocket::GetBufferMemory()
{
    cFrameLockGuard lock;
    return m_SendBuffer.allocated() + m_RecvBuffer.allocated();
}

// ----------------------------------------------------------- cTpktUdpSocket

cTpktUdpSocket::cTpktUdpSocket(cService* service, cStateMachine* statem)
    : cUdpSocket(service, statem), m_SendBuffer(kFrameBufferSize)
{
}

cTpktUdpSocket::~cTpktUdpSocket()
{
    cTpktUdpSocket::Close();
}

void cTpktUdpSocket::FrameHandler(void* ctx, unsigned char type, const unsigned char* payload,
                                  int size)
{
    static_cast<cTpktUdpSocket*>(ctx)->OnPacketRead(type, payload, size);
}

int cTpktUdpSocket::FlushTo(const cSocketAddr& to, unsigned long& dropped)
{
    dropped = 0;
    int sent = cUdpSocket::SendTo(to, m_SendBuffer.data(), static_cast<int>(m_SendBuffer.size()));
    if (sent > 0) {
        m_SendBuffer.popfront(static_cast<unsigned long>(sent));
    } else if (sent < 0 && errno == EMSGSIZE) {
        // The kernel will never take this datagram; kept, it would go out
        // in front of every later frame and fail them all.
        dropped = m_SendBuffer.size();
        m_SendBuffer.clear();
        errno = EMSGSIZE;
    }
    return sent;
}

void cTpktUdpSocket::TraceDropped(unsigned long dropped, const cSocketAddr& to)
{
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("cTpktUdpSocket: datagram of %lu bytes to %s too large for UDP, "
                            "dropped",
                            dropped, to.ToString().c_str()));
    errno = EMSGSIZE;
}

int cTpktUdpSocket::SendTo(const cSocketAddr& to, unsigned char type, const void* p1, int n1,
                           const void* p2, int n2, const void* p3, int n3, const void* p4, int n4)
{
    const tPiece pieces[4] = {{p1, n1}, {p2, n2}, {p3, n3}, {p4, n4}};
    const long long total = CheckedFrameTotal("cTpktUdpSocket", pieces, 4);
    if (total < 0)
        return -1;

    cFrameLockGuard lock;
    if (m_SendBuffer.asize() < static_cast<unsigned long>(total)) {
        lock.Release();
        ORVO_TRACE(UnitORVO, INFO,
                   FormatString("cTpktUdpSocket::WritePacket packetlen=%i buffer overflow", n1));
        errno = EAGAIN;
        return -2;
    }
    QueueFrame(m_SendBuffer, type, static_cast<uint32_t>(total), pieces, 4);
    unsigned long dropped = 0;
    int sent = FlushTo(to, dropped);
    lock.Release();
    if (dropped != 0) {
        TraceDropped(dropped, to);
        return -1;
    }
    if (sent > 0)
        return sent;
    return static_cast<int>(total);
}

void cTpktUdpSocket::OnWrite()
{
    cFrameLockGuard lock;
    if (m_SendBuffer.size() == 0)
        return;
    const cSocketAddr to = m_RemoteAddr;
    unsigned long dropped = 0;
    FlushTo(to, dropped);
    lock.Release();
    if (dropped != 0)
        TraceDropped(dropped, to);
}

void cTpktUdpSocket::Close()
{
    {
        cFrameLockGuard lock;
        m_SendBuffer.Release();
    }
    m_RecvBuffer.Release();
    cSocket::Close();
}

void cTpktUdpSocket::OnReceiveFrom(const cSocketAddr& from, const void* data, int size)
{
    m_RemoteAddr = from;
    if (m_RecvBuffer.Feed(data, size, &cTpktUdpSocket::FrameHandler, this) ==
        cFrameReader::FEED_BROKEN) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("cTpktUdpSocket::OnReceiveFrom error: frame length %u outside "
                                "%i..%i from %s, buffered bytes dropped",
                                static_cast<unsigned>(m_RecvBuffer.GetBrokenLength()),
                                kFrameHeaderSize, kFrameMaxSize, from.ToString().c_str()));
    }
}

void cTpktUdpSocket::OnPacketRead(unsigned char /*type*/, const void* /*payload*/, int /*size*/)
{
}

unsigned long cTpktUdpSocket::GetSendQueued()
{
    cFrameLockGuard lock;
    return m_SendBuffer.size();
}

// ------------------------------------------------------------ cMsgTcpSocket

namespace {

// The record's bytes, or null/0 for an empty record (whose buffer pointer
// must not be read).
const void* RecordBytes(const cMsg& msg, int& size)
{
    const cRecord& record = msg.GetRecord();
    size = record.GetSize();
    return size > 0 ? record.GetBuffer() : nullptr;
}

// Turns a message that could not be parsed into 0x1002 for the socket.
void MakeUndecodable(cMsg& msg, cChannel* channel, const std::string& indic)
{
    msg.SetType(MSG_UNDECODABLE);
    msg.SetChannel(channel);
    msg.SetStatem(channel->GetStatem());
    msg.GetRecord().AppendTextPar("indic", indic);
}

}  // namespace

cMsgTcpSocket::cMsgTcpSocket(cService* service, cStateMachine* statem)
    : cTpktTcpSocket(service, statem)
{
    SetWriteReadyMsg(0);
}

cMsgTcpSocket::~cMsgTcpSocket() = default;

ORVO_HOT int cMsgTcpSocket::Send(cMsg& msg)
{
    msg.SetChannel(this);
    if (GetService() != nullptr)
        SendSnoop(GetService(), msg, SNOOP_SEND);
    int recordSize = 0;
    const void* record = RecordBytes(msg, recordSize);
    if (msg.GetTid().IsValid())
        return WritePacket(1, msg.GetHeader(), 4, msg.GetTid().GetBuffer(), 16, record, recordSize);
    return WritePacket(0, msg.GetHeader(), 4, record, recordSize, nullptr, 0);
}

void cMsgTcpSocket::SendSocketOnConnectMsg(cMsg& msg)
{
    if (cService* service = GetService()) {
        msg.GetRecord().AppendTextPar("peer-name", service->GetObjName());
        msg.GetRecord().AppendUuidPar("peer-id", service->GetServiceId());
    }
    Send(msg);
}

ORVO_HOT void cMsgTcpSocket::OnPacketRead(unsigned char type, const void* payload, int size)
{
    cMsg msg;
    int result = msg.Create(type, payload, size, this, GetStatem());
    if (result < 0)
        MakeUndecodable(msg, this,
                        FormatString("can't create message from buff, ret=%i, count=%i", result, size));
    OnMsg(msg);
}

// ------------------------------------------------------------ cMsgUdpSocket

cMsgUdpSocket::cMsgUdpSocket(cService* service, cStateMachine* statem)
    : cTpktUdpSocket(service, statem), m_NoSnoop(0)
{
}

cMsgUdpSocket::~cMsgUdpSocket() = default;

int cMsgUdpSocket::Send(cMsg& msg)
{
    return SendTo(GetRemoteAddress(), msg);
}

int cMsgUdpSocket::SendTo(const cSocketAddr& to, cMsg& msg)
{
    msg.SetChannel(this);
    if (m_NoSnoop == 0 && GetService() != nullptr)
        SendSnoop(GetService(), msg, SNOOP_SEND);

    const unsigned char kind = msg.GetKind();
    unsigned char token[4];
    PutLe32(token, HandleOf(msg.GetStatem()));
    int recordSize = 0;
    const void* record = RecordBytes(msg, recordSize);
    const void* tid = msg.GetTid().GetBuffer();
    switch (kind) {
    case 0:
        return cTpktUdpSocket::SendTo(to, 0, msg.GetHeader(), 4, record, recordSize, nullptr, 0,
                                      nullptr, 0);
    case 1:
        return cTpktUdpSocket::SendTo(to, 1, msg.GetHeader(), 4, tid, 16, record, recordSize,
                                      nullptr, 0);
    case 2:
        return cTpktUdpSocket::SendTo(to, 2, msg.GetHeader(), 4, token, 4, record, recordSize,
                                      nullptr, 0);
    default:
        return cTpktUdpSocket::SendTo(to, 3, msg.GetHeader(), 4, tid, 16, token, 4, record,
                                      recordSize);
    }
}

void cMsgUdpSocket::OnPacketRead(unsigned char type, const void* payload, int size)
{
    cMsg msg;
    int result = msg.Create(type, payload, size, this, GetStatem());
    if (result < 0)
        MakeUndecodable(msg, this, FormatString("can't create message from buff, ret=%i", result));
    OnMsg(msg);
}

}  // namespace orvo
