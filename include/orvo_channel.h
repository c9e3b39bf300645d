// orvo_channel.h - cChannel, the abstract base of everything a service
// watches by file descriptor (sockets, serial ports).
//
// A channel owns:
//  - the registration of its descriptor with its service's select loop
//    (UpdateSelect -> cService::ChannelAsyncSelect);
//  - a fixed 8192-byte receive buffer and the read path that cuts received
//    bytes into pieces for OnRead (whole buffer, or one line at a time in
//    line mode);
//  - the write-readiness handshake: Write() marks a write as pending and
//    asks the loop for write readiness; when the descriptor is writable the
//    loop calls OnSelectWrite(), which clears the mark and calls OnWrite();
//  - a weak link to the state machine its messages are addressed to.
// It does NOT own the descriptor's lifetime in this base class: Close() and
// Dettach() only take it out of select; subclasses close() it in their own
// Close() and then call cChannel::Close().
//
// Every channel takes a handle in the process-wide handle table at
// construction (HandleCreate(this, HANDLE_CHANNEL)) and gives it back at
// destruction, so messages can name it across records and sockets.
//
// Lifetime: the service must outlive its channels (a channel's destructor
// purges the service's queue and select table of itself).
//
// Thread safety: a channel belongs to the thread that runs its service's
// loop; every member is called on that thread, except what a framed
// socket's cross-thread Send needs: the flags are atomic, Write() from
// another thread asks the loop for write readiness (added at the loop's
// next pass; the library's sockets ask the same way), and a write failure
// found on another thread is handed to the loop (SetWriteFailed), which
// closes the channel there.
//
// Re-entrancy: a channel may be closed from inside its own OnRead/OnClose or
// from any handler that runs in the loop; the loop notices the descriptor
// change and never calls the channel again for a stale registration.
// Deleting a channel while one of its own callbacks is on the stack is not
// allowed; mark it with SetDeleteAfterClose(true) instead and the service
// deletes it after it handed out the channel's close message (0x4003).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "orvo_init.h"
#include "orvo_object.h"

namespace orvo {

class cMsg;
class cService;
class cStateMachine;

// Bits of cChannel's flags.
enum eChannelFlag {
    CHANNEL_ENABLED = 1,        // takes part in select; set at construction
    CHANNEL_LINEMODE = 2,       // OnRead receives one line ("\n" included) at a time
    CHANNEL_WRITEPENDING = 4,   // a write was made; waiting for write readiness
    CHANNEL_READDISABLED = 8    // no read readiness is requested
};

// Event bits of OnSelect and cService::ChannelAsyncSelect.
enum eSelectEvent {
    SELECT_READ = 1,
    SELECT_WRITE = 2,
    SELECT_EXCEPT = 4
};

class ORVO_API cChannel : public cObject {
public:
    // Size of the receive buffer, allocated once at construction.
    static const int kRecvBufferSize = 8192;

    // No descriptor, enabled, empty buffer, write-ready flag 1. service (the
    // loop that watches the channel) and statem (the receiver of the
    // channel's messages) are not owned and may be null.
    cChannel(cService* service, cStateMachine* statem);
    cChannel(const cChannel&) = delete;
    cChannel& operator=(const cChannel&) = delete;

    // ---- Virtual slots, in this order ----------------------------------

    // Removes every queued message of the service that names this channel
    // (cService::RemoveMsgsByObject), frees the receive buffer, runs the
    // base Close() and gives the handle back. A subclass that owns the
    // descriptor closes it in its own destructor.
    ~cChannel() override;
    // The cObject text followed by ", fd=%i".
    std::string ToString() const override;
    // Reads into the free end of the receive buffer and hands pieces to
    // OnRead (see OnRead). A read of 0 or less (not a retry, see
    // SetReadRetry) ends the stream: OnClose(), then Close().
    virtual void OnSelectRead();
    // Clears write pending, calls OnWrite(), updates the registration.
    virtual void OnSelectWrite();
    // Called by the loop: SELECT_READ set -> OnSelectRead(); otherwise
    // SELECT_WRITE set -> OnSelectWrite(). One direction per call; reading
    // wins when both are ready.
    virtual void OnSelect(int events);
    // The stream ended or failed. Called before Close(), so the descriptor
    // is still there.
    virtual void OnClose() = 0;
    // Consume bytes from the front of data (size > 0). Returns the number
    // consumed, 0 to keep them until more input arrives (they are offered
    // again, with more appended). A negative result aborts the process
    // ("count>=0"). In line mode data is one line including its "\n".
    virtual int OnRead(const void* data, int size) = 0;
    // The descriptor became writable after a write.
    virtual void OnWrite() = 0;
    // Base version: when the descriptor is above 0, Dettach() and forget it.
    // A descriptor of 0 counts as "not attached" and is left alone.
    // Subclasses close the descriptor first and then call this.
    virtual void Close();
    // Sets write pending and calls rawWrite. When at least one byte went,
    // updates the registration (which then asks for write readiness). A
    // result below 1 leaves write pending set without a new registration.
    // Returns what rawWrite returned.
    virtual int Write(const void* data, int size);
    // The subclass's output primitive (send, write, TLS write): bytes taken,
    // or a negative value on error.
    virtual int rawWrite(const void* data, int size) = 0;
    // The input primitive (recv, read, TLS read): bytes read, 0 at end of
    // stream, negative on error. An implementation that returns 0 only
    // because it must be called again later calls SetReadRetry() first.
    virtual int rawRead(void* buffer, int size) = 0;
    // Hands msg to the service's OnMsg (queue or state machine); nothing
    // without a service.
    virtual void OnMsg(cMsg& msg);
    // Sends a message in the subclass's framing; result as the subclass
    // defines it (negative on failure).
    virtual int Send(cMsg& msg) = 0;

    // ---- Descriptor and registration -----------------------------------

    // Takes fd (must be >= 0). The channel must have no descriptor yet,
    // otherwise the process aborts ("m_fd == -1"). Adds O_NONBLOCK (when the
    // status flags can be read), sets close-on-exec, enables the channel
    // and registers it. Ownership of fd passes to the channel's subclass.
    void Attach(int fd);
    // Disables the channel, updates the registration (unregisters it) and
    // forgets the descriptor without closing it.
    void Dettach();
    // Sets or clears CHANNEL_ENABLED and updates the registration. A
    // disabled channel is not watched and its buffered input is dropped.
    void Enable(bool on);
    // true: clear CHANNEL_READDISABLED; false: set it. Then UpdateSelect().
    void EnableRead(bool on);
    // Recomputes the wanted events and tells the service: nothing for a
    // negative descriptor; no events (and the buffered input dropped) when
    // disabled; otherwise SELECT_WRITE when write pending, plus SELECT_READ
    // when the buffer has room and read is not disabled. Without a service
    // only the local state changes.
    void UpdateSelect();


    // Calls rawRead.
    int Read(void* buffer, int size);
    // ioctl on the descriptor; result passed through.
    int Ioctl(unsigned int request, unsigned long arg);

    // ---- Accessors ------------------------------------------------------

    int GetFd() const { return m_fd; }
    uint16_t GetFlags() const { return m_Flags; }
    bool IsEnabled() const { return (m_Flags & CHANNEL_ENABLED) != 0; }
    bool IsWritePending() const { return (m_Flags & CHANNEL_WRITEPENDING) != 0; }
    // Marks a write as pending without writing (datagram sockets that send
    // with sendto); call UpdateSelect() afterwards to ask for readiness.
    void SetWritePending(bool on);
    bool IsLineMode() const { return (m_Flags & CHANNEL_LINEMODE) != 0; }
    // Line mode: OnRead gets one line at a time. For subclasses that read
    // text.
    void SetLineMode(bool on);

    // The write-ready flag (1 at construction). Socket subclasses report a
    // writable descriptor as a message while it is non-zero; the trace
    // channel sender clears it before every trace it sends.
    unsigned char GetWriteReadyMsg() const { return m_WriteReadyMsg; }
    void SetWriteReadyMsg(unsigned char value) { m_WriteReadyMsg = value; }

    // Bytes waiting in the receive buffer (valid until the next read).
    int GetRecvFill() const { return m_RecvFill; }
    const unsigned char* GetRecvBuffer() const { return m_pRecvBuffer; }

    cService* GetService() const { return m_pService; }
    cStateMachine* GetStatem() const { return m_pStatem; }
    void SetStatem(cStateMachine* statem) { m_pStatem = statem; }

    // Name and identity of the remote end; empty at construction, filled
    // by the service from the peer's 0x4002 announcement.
    const sPeerInfo& GetPeer() const { return m_Peer; }
    void SetPeerName(const std::string& name) { m_Peer.name = name; }
    void SetPeerId(const cUuid& id) { m_Peer.id = id; }

    // This channel's handle in the process-wide handle table (0 only when
    // the table was full).
    uint32_t GetHandle() const { return m_Handle; }

protected:
    // For rawRead implementations: the 0 about to be returned means "call
    // again later", not end of stream (a TLS read that needs more input).
    void SetReadRetry() { m_bReadRetry = 1; }
    // For rawWrite implementations: the stream broke while writing (EPIPE,
    // a peer that takes nothing). The channel is closed (Close(), then
    // OnClose()) on its loop thread by HandleWriteFailure, never inside the
    // write: the writer may hold g_FrameLock or be another thread.
    void SetWriteFailed() { m_bWriteFailed.store(true); }
    // On the loop thread and after a write failure: Close(), OnClose(),
    // true. On another thread: asks the loop to act (write readiness at its
    // next pass and a wake-up) and returns false. Writers call it after
    // releasing their locks; OnSelect calls it first.
    bool HandleWriteFailure();

    int m_fd;                         // -1 when none is attached
    std::atomic<uint16_t> m_Flags;    // eChannelFlag bits; senders of other threads set write pending
    unsigned char* m_pRecvBuffer;     // owned; kRecvBufferSize bytes
    int m_RecvBufferSize;             // 8192
    int m_RecvFill;                   // valid bytes at the buffer's start
    std::atomic<unsigned char> m_WriteReadyMsg;   // 1 at construction; see GetWriteReadyMsg (trace senders of any thread clear it)
    cService* m_pService;             // not owned; may be null
    cStateMachine* m_pStatem;         // not owned; may be null
    sPeerInfo m_Peer;                 // remote end's name and id
    unsigned char m_bReadRetry;       // set by rawRead: 0 means "again later"

private:
    uint32_t m_Handle;                // handle table entry
    std::atomic<bool> m_bWriteFailed{false};   // see SetWriteFailed
};

}  // namespace orvo
