// orvo_wan.h - HTTP(S) file transfers on a worker thread: cWanClient and
// its cCurlPerformThread. Lives in its own library (liborvo-wan, CMake
// orvo::wan, pkg-config orvo-wan), the only part that links libcurl, so a
// service that never transfers does not load or start libcurl.
//
// A service owns a cWanClient and asks it for transfers:
//
//     cWanClient wan(&service);
//     tWanRequest req;
//     req.method = tWanRequest::GET;
//     req.url = "https://head-end.example/fw.bin";
//     req.file = "/var/lib/fw.bin";
//     unsigned id = wan.Start(req);          // 0: refused (trace says why)
//     ... service loop: MSG_WAN_PROGRESS, then one MSG_WAN_DONE for id ...
//
// One worker thread per client drives every transfer of that client through
// one libcurl multi handle. On a 32-bit device each thread reserves its own
// stack range of the small address space and its own TLS and DNS caches;
// one thread with the multi interface keeps that cost fixed however many
// transfers run, and shares connections and TLS sessions between them.
//
// Messages to the owning service (records: docs/message_types.md):
//  MSG_WAN_PROGRESS (0x9000) at most every progressMs per transfer;
//  MSG_WAN_DONE (0x9001) exactly once per started transfer: also when
//  cancelled, and when the process-wide stop flag ends the worker (each
//  running and queued transfer: WAN_ERR_CANCELLED; the message waits in the
//  owner's socket for a loop that runs again). Only a destroyed client
//  reports nothing for what it still had. Both carry the request's tag as
//  the message's tid.
//
// Downloads are written to "<file>.part" and renamed to file only when the
// whole body arrived with a 2xx status (and the SHA-256 matched when one was
// given), so a half file never looks whole. A "<file>.part" left by an
// earlier attempt is continued from its end (range request); an attempt
// interrupted mid-body is continued the same way up to retries times.
// A continuation carries the validator of the transfer's first answer
// (strong ETag, else a strong Last-Modified) in If-Range: a file that
// changed meanwhile comes whole (200) and the download starts again from
// zero instead of splicing old and new bytes. A ".part" left by an earlier
// transfer (another Start, another process) has no validator: its range
// request is unconditional, so give sha256 to be sure of the result. A
// ".part" that already holds the whole file gets 416 (nothing left to
// send): it is taken as whole when its size equals the file's size the
// server names, else the download starts again from zero. Starting again
// is free once per transfer and costs a retry after that.
//
// libcurl's process-wide start-up runs once, thread-safely, before the
// first transfer (or in orvoInit when this library is loaded); orvoDeinit
// ends it.
//
// Thread safety: a client belongs to its service's loop thread (Start,
// Cancel, destructor). The worker posts with SendToInternal and holds no lock
// while it does. Destroying the client, or the process-wide stop flag, ends
// the worker within about 100 ms plus the time libcurl needs to close its
// sockets; unfinished transfers keep their ".part" file. A Start after the
// stop flag ended the worker starts it again.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "orvo_msgthread.h"
#include "orvo_record.h"
#include "orvo_uuid.h"

namespace orvo {

struct ORVO_API tWanRequest {
    enum eMethod { GET, PUT, POST };
    enum eAuth { AUTH_NONE, AUTH_BASIC, AUTH_DIGEST, AUTH_ANY };

    eMethod method = GET;
    std::string url;
    // GET: where the body goes. PUT: the file sent. POST: the file sent when
    // body is empty.
    std::string file;
    // POST: bytes sent instead of a file (SetRecordBody for a record).
    std::string body;
    std::string contentType;              // POST/PUT Content-Type, "" = none
    cUuid tag;                            // tid of the messages about it

    // Time-outs; 0 = none. The low-speed check fails a transfer that moves
    // fewer than lowSpeedBytes per second for lowSpeedSeconds.
    long connectTimeoutMs = 30000;
    long totalTimeoutMs = 0;
    long lowSpeedBytes = 1;
    long lowSpeedSeconds = 60;
    long progressMs = 1000;               // 0: no progress messages
    // Average rate the transfer keeps below, in bytes per second each way;
    // 0 = as fast as the link goes. A device sharing a slow WAN link with
    // its other traffic caps its bulk transfers with it.
    long long maxBytesPerSecond = 0;
    int retries = 3;                      // GET: continuations after a broken body

    std::string sha256;                   // expected hex digest of the result, "" = none

    // TLS. Peer and host-name verification are on unless switched off.
    std::string caFile, caDir;
    std::string certFile, keyFile, keyPassword;
    bool verifyPeer = true;
    bool verifyHost = true;
    std::string tlsMin = "1.2";           // "1.0" ... "1.3"

    // "http://host:port"; HTTPS goes through it with CONNECT.
    std::string proxy;
    std::string proxyUser, proxyPassword;

    eAuth auth = AUTH_NONE;
    std::string user, password;

    // POST of a record: body = the record's bytes.
    void SetRecordBody(const cRecord& rec, const char* type = "application/x-orvo-record");
};

// Result codes of MSG_WAN_DONE's "result" (1 = ok).
enum eWanResult {
    WAN_OK = 1,
    WAN_ERR_TRANSFER = -1,   // libcurl failed (see "error")
    WAN_ERR_HTTP = -2,       // status outside 2xx
    WAN_ERR_FILE = -3,       // local file could not be read, written or renamed
    WAN_ERR_HASH = -4,       // SHA-256 differs; the download was removed
    WAN_ERR_CANCELLED = -5,  // Cancel or process stopping (not posted when the client is destroyed)
};

class cCurlPerformThread;
using CURLcode_t = int;   // libcurl's CURLcode, kept out of this header

class ORVO_API cWanClient {
public:
    // owner receives the messages; it must outlive the client.
    explicit cWanClient(cService* owner);
    // Ends the worker (bounded); transfers still running or queued are
    // cancelled without a message (their ids mean nothing any more; a new
    // client counts ids from 1 again).
    ~cWanClient();
    cWanClient(const cWanClient&) = delete;
    cWanClient& operator=(const cWanClient&) = delete;

    // Queues a transfer; starts the worker on first use. Returns the
    // transfer's id (> 0) or 0 when the request is unusable (no url, no file
    // for GET/PUT, unknown tlsMin) or the worker could not start.
    unsigned Start(const tWanRequest& req);
    // Stops transfer id; its MSG_WAN_DONE says WAN_ERR_CANCELLED. False when
    // id is not running.
    bool Cancel(unsigned id);
    // Transfers started and not yet reported done.
    size_t GetActiveCount() const;

private:
    cService* m_pOwner;
    std::unique_ptr<cCurlPerformThread> m_pThread;
};

// The worker: a thread service that runs libcurl's multi loop and posts the
// messages to the parent. Used through cWanClient.
class ORVO_API cCurlPerformThread : public cMsgThread {
public:
    explicit cCurlPerformThread(cService* parent);
    ~cCurlPerformThread() override;

    // Queues a transfer and starts the worker when none runs, or a new one
    // when the process-wide stop flag is ending the one that runs. The id,
    // or 0 without a libcurl multi handle or when the thread does not start.
    unsigned Add(const tWanRequest& req);
    bool Cancel(unsigned id);
    size_t GetActiveCount() const;
    // Asks the loop to end and waits for it.
    void Stop();

    // Internal to the worker's source file.
    struct sTransfer;
    struct sMulti;

protected:
    void ThreadMain() override;

private:
    void Wake();
    void Begin(unsigned id, const tWanRequest& req);
    void Finish(sTransfer& t, int result, long status, const std::string& error);
    // True when a broken GET was put back into the multi handle to continue.
    bool Completed(sTransfer& t, CURLcode_t code);
    bool Resume(sTransfer& t, bool fromZero, const std::string& why);
    unsigned NewTransfer(const tWanRequest& req);   // under m_Lock
    void PostDone(const sTransfer& t, int result, long status, const std::string& error);

    mutable std::mutex m_Lock;                  // guards the three below, m_NextId and m_Ending
    std::map<unsigned, tWanRequest> m_Pending;  // added, not yet taken by the loop
    std::set<unsigned> m_Cancels;
    std::set<unsigned> m_Live;                  // added, not yet reported done
    unsigned m_NextId = 1;
    bool m_Ending = false;                      // the loop ended: Add waits for it and starts anew
    std::atomic<bool> m_Stop{false};
    std::unique_ptr<sMulti> m_pMulti;
};

// libcurl's process-wide start-up, once, thread-safe; true when ready.
ORVO_API bool wanGlobalInit();

}  // namespace orvo
