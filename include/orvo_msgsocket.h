// orvo_msgsocket.h - framed sockets: the packet layer that cuts a byte
// stream into frames (cTpktTcpSocket, cTpktUdpSocket) and the message
// sockets that carry one serialised cMsg per frame (cMsgTcpSocket,
// cMsgUdpSocket).
//
// Frame (TCP and UDP alike; docs/frame_format.md has the byte tables):
//
//     offset 0  1 byte   version, always 4 (not checked on reading)
//     offset 1  1 byte   packet type: 0-3 = message payload kind, 0 for Write
//     offset 2  4 bytes  total frame length, header included, little-endian
//     offset 6  ...      payload (length - 6 bytes)
//
// A frame is at most 196606 bytes (total length below 196607 = 0x2FFFF).
// Each framed socket has a send buffer and a receive buffer that hold at
// most 196607 bytes each. Their memory follows use (cByteBuffer): nothing
// until bytes wait, then it doubles as needed up to that limit and stays
// while the socket is open, so a busy socket does not allocate per frame;
// Close() gives both blocks back. An idle connection costs no frame buffer
// memory at all.
//
// Broken streams: a declared length below 6 (the reader would never
// advance) or at or above 196607 (no sender can make such a frame, and it
// would never fit the buffer) means the peer is not speaking this protocol.
// A stream socket closes the connection then (ERROR trace, 0x4003, Close);
// a datagram socket, shared by every sender, only drops the bytes it has
// buffered (ERROR trace) and keeps receiving.
//
// Sending from other threads: g_FrameLock, one lock for the whole process,
// is held while a frame is queued into a send buffer and while a send buffer
// is written out, so a cMsgThread may Send on a socket while its service's
// loop flushes it. Receiving happens only on the loop thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "orvo_bytebuffer.h"
#include "orvo_socket.h"
#include "orvo_thread.h"

namespace orvo {

// The framing both framed sockets share (internal).
class cFramer;

// The lock around every framed socket's send buffer.
ORVO_API extern cCriticalSection g_FrameLock;

// Frame constants.
const int kFrameHeaderSize = 6;
const unsigned char kFrameVersion = 4;
// Capacity of the send and receive buffers; every frame is shorter.
const unsigned long kFrameBufferSize = 196607;
// The largest frame a socket sends (kFrameBufferSize - 1).
const int kFrameMaxSize = 196606;

// cFrameReader: frame reassembly, bytes in, frames out, independent of any
// descriptor. Feed() takes received bytes in any chunking; every complete
// frame is handed to the handler once, in order, with its type and payload.
// Bytes of an incomplete frame wait in the buffer (at most kFrameMaxSize
// bytes; the block grows with them); a frame that arrives whole in one
// chunk while nothing is buffered is handed out without being copied.
// Not thread-safe (loop thread only).
class ORVO_API cFrameReader {
public:
    // Called once per complete frame. payload points to size bytes (size =
    // length - 6, maybe 0) valid only during the call.
    using tHandler = void (*)(void* ctx, unsigned char type, const unsigned char* payload,
                              int size);

    // Results of Feed.
    enum eFeed {
        FEED_OK = 1,        // every byte taken (frames out, rest buffered)
        FEED_BROKEN = -1,   // a header declared a length outside 6..196606
        FEED_NESTED = -2    // called from inside its own handler; bytes dropped
    };

    cFrameReader();
    cFrameReader(const cFrameReader&) = delete;
    cFrameReader& operator=(const cFrameReader&) = delete;

    // Takes size bytes of data (size >= 0; null data only with size 0).
    // FEED_OK: all bytes taken. Also FEED_OK when the handler empties the
    //   reader (Clear(), e.g. the socket was closed from a message
    //   handler): the rest of this chunk is then dropped as well.
    // FEED_BROKEN: a header with a length below 6 or at or above 196607 was
    //   found; the buffer is emptied, the rest of the chunk dropped, and
    //   GetBrokenLength() tells the length. Frames before it were handed
    //   out.
    // FEED_NESTED: the handler called Feed again on this reader (a nested
    //   loop run from a message handler); that inner call drops its bytes.
    int Feed(const void* data, int size, tHandler handler, void* ctx);
    // Drops the buffered bytes. Called from inside a handler it also ends
    // the Feed that runs the handler (see FEED_OK).
    void Clear();
    // Clear() and gives the buffer's block back; from inside a handler the
    // block goes when the running Feed returns (the handler's payload may
    // point into it).
    void Release();
    // Bytes of the buffer's block now allocated.
    unsigned long allocated() const { return m_Buffer.allocated(); }
    // Bytes of an incomplete frame held.
    unsigned long size() const { return m_Buffer.size(); }
    // The length declared by the header that made Feed return FEED_BROKEN.
    uint32_t GetBrokenLength() const { return m_BrokenLength; }

private:
    cByteBuffer m_Buffer;       // kFrameBufferSize bytes
    unsigned m_Generation;      // counts Clear() calls
    uint32_t m_BrokenLength;    // see GetBrokenLength
    bool m_bBusy;               // inside Feed
    bool m_bReleaseLater;       // Release() ran inside Feed
};

// cTpktTcpSocket: a stream socket that sends and receives frames. Writes are
// queued in the send buffer and written as far as the descriptor takes them;
// the rest is flushed when the descriptor becomes writable. Writability is
// not reported as 0x3002 (write-ready flag 0). TCP_NODELAY is set when the
// connection is up: framed peers exchange small requests and replies, and
// Nagle's algorithm would hold each reply back until the previous segment
// is acknowledged (up to the peer's delayed-ack time, 40 ms or more).
class ORVO_API cTpktTcpSocket : public cTcpSocket {
public:
    cTpktTcpSocket(cService* service, cStateMachine* statem);
    ~cTpktTcpSocket() override;

    // Appends the bytes and hands every complete frame to OnPacketRead.
    // Always consumes size. A broken stream closes the socket (see the file
    // comment).
    int OnRead(const void* data, int size) override;
    // Flushes the send buffer (under g_FrameLock); when it is empty,
    // cSocket::OnWrite() (which reports nothing with write-ready 0).
    void OnWrite() override;
    // Empties both buffers and gives their memory back, then
    // cTcpSocket::Close().
    void Close() override;
    // WritePacket(0, data, size, null, 0, null, 0): every plain write on a
    // framed socket is a frame of type 0.
    int Write(const void* data, int size) override;
    // Sets TCP_NODELAY when err is 0, then cTcpSocket::OnConnect.
    void OnConnect(int err) override;

    // Frames the pieces (p2/p3 may be null: skipped) as one frame of type
    // and queues it, then writes out the send buffer. Returns:
    //   > 0  bytes the descriptor took at once (earlier queued frames
    //        included), or the frame's total length when it only got
    //        queued (the flush on writability sends it);
    //   -1   total length 196607 or more: errno E2BIG, ERROR trace
    //        "cTpktTcpSocket::WritePacket error: packet size %i to large,
    //        support only %ikB"; nothing queued;
    //   -2   the send buffer has less free space than the frame: errno
    //        EAGAIN, INFO trace "cTpktTcpSocket::WritePacket packetlen=%i
    //        buffer overflow (sendb=%d, tpkt=%d)"; nothing queued.
    // Quirk kept on purpose: each piece is appended with cByteBuffer's
    // strict rule while the overflow test only asks for free space >= total,
    // so when the free space equals the total exactly, the last non-empty
    // piece is not queued (the frame goes out short by that piece).
    // Any thread (under g_FrameLock).
    virtual int WritePacket(unsigned char type, const void* p1, int n1, const void* p2, int n2,
                            const void* p3, int n3);
    // Called once per complete frame with the payload behind the header.
    // Base: nothing.
    virtual void OnPacketRead(unsigned char type, const void* payload, int size);

    // Bytes queued for sending (under g_FrameLock).
    unsigned long GetSendQueued();
    // Bytes of an incomplete frame received so far.
    unsigned long GetRecvQueued() const { return m_RecvBuffer.size(); }
    // Bytes of memory the two buffers hold now (under g_FrameLock).
    unsigned long GetBufferMemory();
    // How long, in milliseconds at now (a GetMsecClockCoarse() value), the
    // connection has owed progress, the longest of: holding part of a frame
    // (since that part began), having sent no complete frame at all (since
    // the socket was made), having bytes wait that the peer does not take
    // (since it last took some, or since they began to wait). 0 when it
    // owes nothing. what (when given) names the longest: "an unfinished
    // frame", "no complete frame", "answers it does not read".
    unsigned long GetOwedMs(long long now, const char** what = nullptr);

protected:
    cByteBuffer m_SendBuffer;       // frames not yet written
    cFrameReader m_RecvBuffer;      // bytes not yet a whole frame

private:
    friend class cFramer;

    // Notes that the peer took bytes, or that bytes began to wait; caller
    // holds g_FrameLock.
    void NoteSendProgress(bool wasEmpty, int written);

    uint32_t m_Created;             // GetMsecClockCoarse() at construction
    uint32_t m_RecvSince;           // the unfinished frame's first bytes came
    std::atomic<uint32_t> m_SendSince{0};   // waiting bytes last moved
    bool m_bHeard = false;          // a complete frame came
};

// cTpktUdpSocket: a datagram socket that sends and receives frames.
// Datagrams are appended to one receive buffer, so a frame may span
// datagrams and a datagram may carry several frames (a stray datagram that
// starts a long frame therefore swallows the datagrams that follow until
// that length is reached).
class ORVO_API cTpktUdpSocket : public cUdpSocket {
public:
    cTpktUdpSocket(cService* service, cStateMachine* statem);
    ~cTpktUdpSocket() override;

    // Flushes the send buffer to the remote address in one datagram (under
    // g_FrameLock).
    void OnWrite() override;
    // Empties both buffers and gives their memory back, then
    // cSocket::Close().
    void Close() override;
    // Stores from as the remote address, appends the bytes and hands every
    // complete frame to OnPacketRead. A broken header drops what is
    // buffered (see the file comment).
    void OnReceiveFrom(const cSocketAddr& from, const void* data, int size) override;

    // Called once per complete frame. Base: nothing.
    virtual void OnPacketRead(unsigned char type, const void* payload, int size);

    // Frames four pieces (null pieces skipped) and sends the whole send
    // buffer to `to` in one datagram; a frame the kernel does not take waits
    // there (write readiness asked for) and goes out in front of the next
    // frame or with the flush. Returns as WritePacket, with the trace
    // texts "cTpktUdpSocket::WritePacket error: packet size %i to large,
    // support only %ikB" and "cTpktUdpSocket::WritePacket packetlen=%i
    // buffer overflow". The same strict-append quirk applies. A datagram the
    // kernel refuses outright (EMSGSIZE: larger than a UDP datagram can be)
    // would block every later send, so it is dropped from the buffer with
    // an ERROR trace and -1 returned. Any thread (under g_FrameLock).
    int SendTo(const cSocketAddr& to, unsigned char type, const void* p1, int n1,
               const void* p2, int n2, const void* p3, int n3, const void* p4, int n4);
    using cUdpSocket::SendTo;

    unsigned long GetSendQueued();
    unsigned long GetRecvQueued() const { return m_RecvBuffer.size(); }

protected:
    cByteBuffer m_SendBuffer;       // frames not yet sent
    cFrameReader m_RecvBuffer;      // bytes not yet a whole frame

private:
    friend class cFramer;
};

// cMsgTcpSocket: one cMsg per frame over a stream. Sends packet type 1 when
// the message's tid is valid, else 0 (never the state-machine token).
class ORVO_API cMsgTcpSocket : public cTpktTcpSocket {
public:
    cMsgTcpSocket(cService* service, cStateMachine* statem);
    ~cMsgTcpSocket() override;

    // Records this socket as msg's channel, offers msg to the snoop output
    // (SNOOP_SEND) and frames it: type 1 (header, tid, record) or type 0
    // (header, record). Returns WritePacket's result. Any thread.
    int Send(cMsg& msg) override;
    // Adds "peer-name" (the service's object name) and "peer-id" (the
    // service id) to msg (0x4002) and sends it to the peer; the local side
    // gets no 0x4002 of its own.
    void SendSocketOnConnectMsg(cMsg& msg) override;
    // Parses the payload into a message for this socket and its state
    // machine (kinds 2/3 name their own) and hands it to OnMsg. A payload
    // that cannot be parsed (type above 3, fewer than 4 bytes) becomes
    // 0x1002 with "indic" = "can't create message from buff, ret=%i,
    // count=%i" (result, payload length), still naming this socket; the
    // stream goes on with the next frame.
    void OnPacketRead(unsigned char type, const void* payload, int size) override;
};

// cMsgUdpSocket: one cMsg per frame over datagrams. Sends packet type 0-3:
// +1 when the tid is valid, +2 when a state machine is set (its handle
// travels as the token).
class ORVO_API cMsgUdpSocket : public cTpktUdpSocket {
public:
    cMsgUdpSocket(cService* service, cStateMachine* statem);
    ~cMsgUdpSocket() override;

    // SendTo(GetRemoteAddress(), msg).
    int Send(cMsg& msg) override;
    // Records this socket as msg's channel, snoops it unless suppressed
    // (SetNoSnoop) and sends it to `to`. Returns cTpktUdpSocket::SendTo's
    // result. Any thread.
    virtual int SendTo(const cSocketAddr& to, cMsg& msg);
    using cTpktUdpSocket::SendTo;
    // As cMsgTcpSocket's, with "indic" = "can't create message from buff,
    // ret=%i".
    void OnPacketRead(unsigned char type, const void* payload, int size) override;

    // Non-zero: sent messages are not offered to the snoop output (the
    // service's internal socket). 0 after construction.
    void SetNoSnoop(bool on) { m_NoSnoop = on ? 1 : 0; }
    bool GetNoSnoop() const { return m_NoSnoop != 0; }

private:
    uint32_t m_NoSnoop;             // 0: snoop sent messages
};

// The one server class the library instantiates itself (a service's sap).
extern template class cTcpServer<cMsgTcpSocket>;

}  // namespace orvo
