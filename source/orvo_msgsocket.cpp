#define ORVO_SOURCE "orvo_msgsocket"
#include "orvo_msgsocket.h"
#include "orvo_threadid.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

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

// ------------------------------------------------------------------ cFramer

// The framer's steps are written once for both sockets but compiled into
// each socket's own member function, so a send makes no more calls than a
// socket with its own copy of the code would.
#define ORVO_FRAMER_INLINE __attribute__((always_inline)) inline

namespace {

// Where a flush sends to: nowhere in particular for a stream; for a
// datagram socket a copy of the remote address taken under g_FrameLock
// (the dropped-datagram trace names it after the lock is released).
struct tStreamTarget {
    const cSocketAddr* get() const { return nullptr; }
};
struct tDatagramTarget {
    cSocketAddr addr;
    const cSocketAddr* get() const { return &addr; }
};

// What one write under the send policy left behind.
struct tWriteOutcome {
    int written = 0;            // the write's result; 0 when nothing was written
    bool held = false;          // queued behind bytes that wait for writability
    bool waiting = false;       // bytes wait in the send buffer afterwards
    unsigned long dropped = 0;  // a datagram the kernel refused for its size
};

// A datagram the kernel refused for its size, traced once g_FrameLock is
// released.
void TraceDropped(unsigned long dropped, const cSocketAddr& to)
{
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("cTpktUdpSocket: datagram of %lu bytes to %s too large for UDP, "
                            "dropped",
                            dropped, to.ToString().c_str()));
    errno = EMSGSIZE;
}

}  // namespace

// The framing the stream and the datagram socket share: a frame is checked,
// put together and handed to the one send policy (WriteOrWait), the send
// buffer is flushed on writability through the same policy, received bytes
// are cut into frames (a broken stream traced and acted on), and Close
// gives both buffers back. It works on the sockets' own buffers; the small
// overloads at the end are where a stream and a datagram socket differ.
class cFramer {
public:
    // WritePacket / SendTo: frames the pieces and sends them to `to` (null
    // for a stream). Result as documented for WritePacket.
    template <class tSocket>
    static int Send(tSocket& s, const cSocketAddr* to, unsigned char type, const tPiece* pieces,
                    int count);
    // OnWrite: writes out the send buffer. false when it was empty.
    template <class tSocket>
    static bool Flush(tSocket& s);
    // OnRead / OnReceiveFrom: hands every complete frame to OnPacketRead; a
    // broken stream is traced and acted on (peer names the sender).
    template <class tSocket>
    static void Receive(tSocket& s, const void* data, int size, const cSocketAddr& peer);
    // Close: both buffers emptied and their memory given back.
    template <class tSocket>
    static void ReleaseBuffers(tSocket& s);

private:
    template <class tSocket>
    static tWriteOutcome WriteOrWait(tSocket& s, const cSocketAddr* to, const unsigned char* frame,
                                     unsigned long size, bool wasEmpty, bool writable);
    template <class tSocket>
    static void OnFrame(void* ctx, unsigned char type, const unsigned char* payload, int size);

    // A stream: bytes that wait for writability hold later frames back (the
    // socket is full; writing before the flush would only meet it again),
    // a frame may go out in pieces, a broken stream closes the connection.
    static const char* Name(const cTpktTcpSocket&) { return "cTpktTcpSocket"; }
    static bool HoldsBack(const cTpktTcpSocket& s) { return s.IsWritePending(); }
    static tStreamTarget FlushTarget(const cTpktTcpSocket&) { return {}; }
    static int Put(cTpktTcpSocket& s, const cSocketAddr*, const void* data, int size)
    {
        return s.rawWrite(data, size);
    }
    static bool RefusedForSize(const cTpktTcpSocket&, int) { return false; }
    static void NoteSent(cTpktTcpSocket& s, bool wasEmpty, int written)
    {
        s.NoteSendProgress(wasEmpty, written);
    }
    // Bytes that wait ask for writability; while connecting the
    // registration belongs to the connect, and the write-pending flag alone
    // makes it ask for writing.
    static bool WaitsForWritability(const cTpktTcpSocket&) { return true; }
    static bool AsksWritability(const cTpktTcpSocket& s) { return !s.IsConnecting(); }
    static std::string OverflowDetail(const cTpktTcpSocket&, unsigned long room, long long total)
    {
        return FormatString(" (sendb=%d, tpkt=%d)", static_cast<int>(room), static_cast<int>(total));
    }
    static void NoteReceived(cTpktTcpSocket& s, bool wasEmpty)
    {
        if (wasEmpty && s.m_RecvBuffer.size() > 0)
            s.m_RecvSince = static_cast<uint32_t>(GetMsecClockCoarse());
    }
    static void NoteFrame(cTpktTcpSocket& s) { s.m_bHeard = true; }
    static const char* ReceiveName(const cTpktTcpSocket&) { return "cTpktTcpSocket::OnRead"; }
    static std::string BrokenOutcome(const cTpktTcpSocket&, const cSocketAddr& peer)
    {
        return ", stream broken, closing " + peer.ToString();
    }
    static void OnBroken(cTpktTcpSocket& s)
    {
        s.OnClose();
        s.Close();
    }

    // A datagram socket: sendto takes a datagram whole or not at all, so
    // nothing is ever held back: what waits (a datagram the kernel did not
    // take) goes out in front of the new frame, in the same datagram, or
    // with the flush on writability. A broken header only drops the
    // buffered bytes (the socket is shared by every sender).
    static const char* Name(const cTpktUdpSocket&) { return "cTpktUdpSocket"; }
    static bool HoldsBack(const cTpktUdpSocket&) { return false; }
    static tDatagramTarget FlushTarget(const cTpktUdpSocket& s) { return {s.m_RemoteAddr}; }
    static int Put(cTpktUdpSocket& s, const cSocketAddr* to, const void* data, int size)
    {
        return s.cUdpSocket::SendTo(*to, data, size);
    }
    // Kept, such a datagram would go out in front of every later frame and
    // fail them all.
    static bool RefusedForSize(const cTpktUdpSocket&, int written)
    {
        return written < 0 && errno == EMSGSIZE;
    }
    static void NoteSent(cTpktUdpSocket&, bool, int) {}
    // A datagram the kernel did not take stays queued and goes out in front
    // of the next frame, or with a flush when the loop finds the socket
    // writable; it does not ask for writability itself (a socket whose sends
    // keep failing, with no route, would wake the loop on every pass).
    // cUdpSocket::SendTo keeps the write-pending flag as it always did.
    static bool WaitsForWritability(const cTpktUdpSocket&) { return false; }
    static bool AsksWritability(const cTpktUdpSocket&) { return false; }
    static std::string OverflowDetail(const cTpktUdpSocket&, unsigned long, long long)
    {
        return std::string();
    }
    static void NoteReceived(cTpktUdpSocket&, bool) {}
    static void NoteFrame(cTpktUdpSocket&) {}
    static const char* ReceiveName(const cTpktUdpSocket&) { return "cTpktUdpSocket::OnReceiveFrom"; }
    static std::string BrokenOutcome(const cTpktUdpSocket&, const cSocketAddr& peer)
    {
        return " from " + peer.ToString() + ", buffered bytes dropped";
    }
    static void OnBroken(cTpktUdpSocket&) {}
};

// The send policy: the one place where a framed socket decides to write.
// Caller holds g_FrameLock. The bytes to send are the send buffer, which a
// new frame has joined, or (frame not null) a frame that found the buffer
// empty and is still on the caller's stack; only what the descriptor does
// not take of it is queued, so an idle connection's frame never passes
// through the buffer. Bytes that wait for writability hold the frame back,
// unless the descriptor just reported writability (writable: the flush);
// otherwise everything is written now, as far as the descriptor takes it.
// Write pending is set while bytes wait and cleared by a flush that left
// nothing; a send then asks for writability once it released the lock, a
// flush leaves that to the loop's re-registration (OnSelectWrite).
template <class tSocket>
ORVO_HOT ORVO_FRAMER_INLINE tWriteOutcome cFramer::WriteOrWait(tSocket& s, const cSocketAddr* to,
                                                               const unsigned char* frame,
                                                               unsigned long size, bool wasEmpty,
                                                               bool writable)
{
    cByteBuffer& buffer = s.m_SendBuffer;
    tWriteOutcome out;
    if (!writable && HoldsBack(s)) {
        // The write readiness that the waiting bytes asked for flushes this
        // frame with them.
        if (frame != nullptr)
            buffer.pushback(frame, size);
        NoteSent(s, wasEmpty, 0);
        out.held = true;
        return out;
    }
    if (frame != nullptr) {
        out.written = Put(s, to, frame, static_cast<int>(size));
        const unsigned long sent = out.written > 0 ? static_cast<unsigned long>(out.written) : 0;
        if (RefusedForSize(s, out.written))
            out.dropped = size;
        else if (sent < size)
            buffer.pushback(frame + sent, size - sent);
    } else {
        out.written = Put(s, to, buffer.data(), static_cast<int>(buffer.size()));
        if (out.written > 0) {
            buffer.popfront(static_cast<unsigned long>(out.written));
        } else if (RefusedForSize(s, out.written)) {
            out.dropped = buffer.size();
            buffer.clear();
            errno = EMSGSIZE;
        }
    }
    out.waiting = buffer.size() > 0;
    if (out.waiting) {
        if (WaitsForWritability(s))
            s.SetWritePending(true);
        NoteSent(s, wasEmpty, out.written);
    } else if (writable && WaitsForWritability(s)) {
        s.SetWritePending(false);
    }
    return out;
}

template <class tSocket>
ORVO_HOT ORVO_FRAMER_INLINE int cFramer::Send(tSocket& s, const cSocketAddr* to,
                                              unsigned char type, const tPiece* pieces,
                                              int count)
{
    const long long total = CheckedFrameTotal(Name(s), pieces, count);
    if (total < 0)
        return -1;

    unsigned char stack[kDirectFrameMax];
    const bool small = total <= kDirectFrameMax;
    if (small)
        AssembleFrame(stack, type, static_cast<uint32_t>(total), pieces, count);

    cFrameLockGuard lock;
    cByteBuffer& buffer = s.m_SendBuffer;
    const unsigned long room = buffer.asize();
    if (room < static_cast<unsigned long>(total)) {
        lock.Release();
        // Traced only now: a trace sends on the trace channels, which takes
        // g_FrameLock in whatever thread sends them.
        ORVO_TRACE(UnitORVO, INFO,
                   FormatString("%s::WritePacket packetlen=%i buffer overflow", Name(s),
                                pieces[0].n) +
                       OverflowDetail(s, room, total));
        errno = EAGAIN;
        return -2;
    }
    const bool wasEmpty = buffer.size() == 0;
    const unsigned char* frame = nullptr;
    if (small && wasEmpty)
        frame = stack;
    else
        QueueFrame(buffer, type, static_cast<uint32_t>(total), pieces, count);
    const tWriteOutcome out =
        WriteOrWait(s, to, frame, static_cast<unsigned long>(total), wasEmpty, false);
    lock.Release();
    if (out.held)
        return static_cast<int>(total);
    if (out.dropped != 0) {
        TraceDropped(out.dropped, *to);
        return -1;
    }
    const int saved = errno;
    // Bytes that wait need write readiness whatever made the connection
    // (connect, accept, Attach or a datagram socket's Socket).
    if (out.waiting && AsksWritability(s))
        loop::WantWriteReady(s);
    s.HandleWriteFailure();
    errno = saved;
    return out.written > 0 ? out.written : static_cast<int>(total);
}

template <class tSocket>
ORVO_FRAMER_INLINE bool cFramer::Flush(tSocket& s)
{
    cFrameLockGuard lock;
    if (s.m_SendBuffer.size() == 0)
        return false;
    const auto target = FlushTarget(s);
    const cSocketAddr* to = target.get();
    // The loop re-registers after the flush (OnSelectWrite): write
    // readiness stays asked for while bytes wait.
    const tWriteOutcome out = WriteOrWait(s, to, nullptr, 0, false, true);
    lock.Release();
    if (out.dropped != 0)
        TraceDropped(out.dropped, *to);
    s.HandleWriteFailure();
    return true;
}

template <class tSocket>
ORVO_HOT void cFramer::OnFrame(void* ctx, unsigned char type, const unsigned char* payload,
                               int size)
{
    tSocket& s = *static_cast<tSocket*>(ctx);
    NoteFrame(s);
    s.OnPacketRead(type, payload, size);
}

template <class tSocket>
ORVO_HOT ORVO_FRAMER_INLINE void cFramer::Receive(tSocket& s, const void* data, int size,
                                                 const cSocketAddr& peer)
{
    const bool wasEmpty = s.m_RecvBuffer.size() == 0;
    const int fed = s.m_RecvBuffer.Feed(data, size, &cFramer::OnFrame<tSocket>, &s);
    NoteReceived(s, wasEmpty);
    if (fed != cFrameReader::FEED_BROKEN)
        return;
    ORVO_TRACE(UnitORVO, ERROR,
               FormatString("%s error: frame length %u outside %i..%i", ReceiveName(s),
                            static_cast<unsigned>(s.m_RecvBuffer.GetBrokenLength()),
                            kFrameHeaderSize, kFrameMaxSize) +
                   BrokenOutcome(s, peer));
    OnBroken(s);
}

template <class tSocket>
void cFramer::ReleaseBuffers(tSocket& s)
{
    {
        cFrameLockGuard lock;
        s.m_SendBuffer.Release();
    }
    s.m_RecvBuffer.Release();
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

ORVO_HOT int cTpktTcpSocket::OnRead(const void* data, int size)
{
    cFramer::Receive(*this, data, size, m_RemoteAddr);
    return size;
}

void cTpktTcpSocket::OnWrite()
{
    if (!cFramer::Flush(*this))
        cSocket::OnWrite();
}

void cTpktTcpSocket::Close()
{
    cFramer::ReleaseBuffers(*this);
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

ORVO_HOT int cTpktTcpSocket::WritePacket(unsigned char type, const void* p1, int n1, const void* p2,
                                         int n2, const void* p3, int n3)
{
    const tPiece pieces[3] = {{p1, n1}, {p2, n2}, {p3, n3}};
    return cFramer::Send(*this, nullptr, type, pieces, 3);
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

int cTpktUdpSocket::SendTo(const cSocketAddr& to, unsigned char type, const void* p1, int n1,
                           const void* p2, int n2, const void* p3, int n3, const void* p4, int n4)
{
    const tPiece pieces[4] = {{p1, n1}, {p2, n2}, {p3, n3}, {p4, n4}};
    return cFramer::Send(*this, &to, type, pieces, 4);
}

void cTpktUdpSocket::OnWrite()
{
    cFramer::Flush(*this);
}

void cTpktUdpSocket::Close()
{
    cFramer::ReleaseBuffers(*this);
    cSocket::Close();
}

void cTpktUdpSocket::OnReceiveFrom(const cSocketAddr& from, const void* data, int size)
{
    m_RemoteAddr = from;
    cFramer::Receive(*this, data, size, from);
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
