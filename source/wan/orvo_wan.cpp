#define ORVO_SOURCE "orvo_wan"
#include "orvo_wan.h"
#include "orvo_init.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "orvo_hash.h"
#include "orvo_msgtypes.h"
#include "orvo_time.h"
#include "orvo_trace.h"

namespace orvo {

// ---- libcurl's process-wide state ---------------------------------------

namespace {

std::mutex gCurlGlobalLock;
bool gCurlReady = false;

void WanGlobalDeinit()
{
    std::lock_guard<std::mutex> guard(gCurlGlobalLock);
    if (gCurlReady)
        curl_global_cleanup();
    gCurlReady = false;
}

void WanInitHook() { wanGlobalInit(); }

// Loading this library is what makes orvoInit/orvoDeinit start and end
// libcurl; the core itself never references it.
struct sInstallHooks {
    sInstallHooks()
    {
        orvoSetTransferHooks(&WanInitHook, &WanGlobalDeinit);
    }
    ~sInstallHooks()
    {
        orvoSetTransferHooks(nullptr, nullptr);
    }
} gInstallHooks;

}  // namespace

bool wanGlobalInit()
{
    std::lock_guard<std::mutex> guard(gCurlGlobalLock);
    if (!gCurlReady)
        gCurlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    return gCurlReady;
}

void tWanRequest::SetRecordBody(const cRecord& rec, const char* type)
{
    body.assign(rec.GetBuffer(), static_cast<size_t>(rec.GetSize()));
    contentType = type ? type : "";
}

// ---- one transfer -------------------------------------------------------

struct cCurlPerformThread::sTransfer {
    unsigned id = 0;
    tWanRequest req;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    int fd = -1;                  // GET: the ".part" file; PUT/POST: the file sent
    std::string part;             // GET: temporary name
    curl_off_t offset = 0;        // GET: bytes already in the ".part" file at this attempt's start
    curl_off_t written = 0;       // GET: bytes this attempt wrote
    curl_off_t unflushed = 0;     // GET: bytes written since writeback was last started
    curl_off_t sent = 0;          // PUT/POST: bytes read from the file
    bool statusChecked = false;   // GET: the first body bytes decided what to do with the file
    bool discard = false;         // GET: body of an error status, not written
    bool writeFailed = false;
    int writeErrno = 0;           // GET: errno of the failed write
    int attempts = 0;
    bool restarted = false;       // GET: the ".part" file was started again from zero once
    // GET: what the responses so far said about the remote file: its size
    // (-1 unknown) and a validator (strong ETag or Last-Modified) that a
    // range request carries in If-Range, so a changed file comes whole
    // instead of being spliced onto the old bytes.
    curl_off_t total = -1;
    std::string validator;
    // GET: the headers of the response being read (one response of
    // several with redirects or authentication).
    struct {
        long status = 0;
        curl_off_t length = -1, rangeTotal = -1;
        std::string etag, lastModified, date;
    } head;
    long long startMs = 0;
    long long lastProgressMs = 0;
    cCurlPerformThread* owner = nullptr;
    char error[CURL_ERROR_SIZE] = {0};

    ~sTransfer()
    {
        if (easy)
            curl_easy_cleanup(easy);
        if (headers)
            curl_slist_free_all(headers);
        if (fd >= 0)
            close(fd);
    }
};

struct cCurlPerformThread::sMulti {
    CURLM* multi = nullptr;
    std::map<unsigned, std::unique_ptr<sTransfer>> running;
    ~sMulti()
    {
        for (auto& t : running)
            curl_multi_remove_handle(multi, t.second->easy);
        running.clear();
        if (multi)
            curl_multi_cleanup(multi);
    }
};

namespace {

// 0, or the errno of the write that failed.
int WriteAll(int fd, const char* p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return errno;
        if (w == 0)
            return ENOSPC;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return 0;
}

long TlsFloor(const std::string& v)
{
    if (v == "1.0") return CURL_SSLVERSION_TLSv1_0;
    if (v == "1.1") return CURL_SSLVERSION_TLSv1_1;
    if (v == "1.2" || v.empty()) return CURL_SSLVERSION_TLSv1_2;
    if (v == "1.3") return CURL_SSLVERSION_TLSv1_3;
    return -1;
}

}  // namespace

// ---- the worker ---------------------------------------------------------

const int kWorkerNiceStep = 5;

cCurlPerformThread::cCurlPerformThread(cService* parent)
    : cMsgThread(parent, "wan"), m_pMulti(new sMulti)
{
    if (wanGlobalInit())
        m_pMulti->multi = curl_multi_init();
}

cCurlPerformThread::~cCurlPerformThread()
{
    Stop();
}

void cCurlPerformThread::Stop()
{
    m_Stop = true;
    Wake();
    Join();
}

void cCurlPerformThread::Wake()
{
    if (m_pMulti && m_pMulti->multi)
        curl_multi_wakeup(m_pMulti->multi);
}

unsigned cCurlPerformThread::NewTransfer(const tWanRequest& req)
{
    const unsigned id = m_NextId++;
    if (m_NextId == 0)
        m_NextId = 1;
    m_Pending[id] = req;
    m_Live.insert(id);
    return id;
}

unsigned cCurlPerformThread::Add(const tWanRequest& req)
{
    if (!m_pMulti->multi || m_Stop)
        return 0;
    if (IsRunning()) {
        unsigned id = 0;
        {
            std::lock_guard<std::mutex> guard(m_Lock);
            if (!m_Ending)
                id = NewTransfer(req);
        }
        if (id != 0) {
            Wake();
            return id;
        }
    }
    // No worker yet, or one that the process-wide stop flag ends: the
    // request is queued while no worker runs, then a new worker takes it
    // (and, with the flag still set, reports it cancelled at once).
    Join();
    unsigned id;
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Ending = false;
        id = NewTransfer(req);
    }
    if (Start() != 0) {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Pending.erase(id);
        m_Live.erase(id);
        return 0;
    }
    return id;
}

bool cCurlPerformThread::Cancel(unsigned id)
{
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        if (!m_Live.count(id))
            return false;
        m_Cancels.insert(id);
    }
    Wake();
    return true;
}

// ---- callbacks, on the worker thread inside curl_multi_perform -----------

namespace {

using sTransfer = cCurlPerformThread::sTransfer;

// Written bytes after which a download starts their writeback.
const curl_off_t kWriteBehindBytes = 8 << 20;

size_t OnBody(char* p, size_t size, size_t n, void* arg)
{
    sTransfer& t = *static_cast<sTransfer*>(arg);
    size_t len = size * n;
    if (!t.statusChecked) {
        t.statusChecked = true;
        long status = 0;
        curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
        if (status < 200 || status > 299)
            t.discard = true;           // an error page never lands in the file
    }
    if (t.discard)
        return len;
    if (int err = WriteAll(t.fd, p, len)) {
        t.writeFailed = true;
        t.writeErrno = err;             // reported later, after other calls changed errno
        return 0;                       // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    t.written += static_cast<curl_off_t>(len);
    t.unflushed += static_cast<curl_off_t>(len);
    if (t.unflushed >= kWriteBehindBytes) {
        // Starts writing the file's dirty pages to the disk without waiting
        // for them, so the sync before the rename has little left to do:
        // otherwise a large download waits for all of its bytes at the end.
        t.unflushed = 0;
        (void)sync_file_range(t.fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    return len;
}

bool StartsWithNoCase(const std::string& s, const char* prefix)
{
    return strncasecmp(s.c_str(), prefix, strlen(prefix)) == 0;
}

// "Content-Range: bytes 0-99/1000", "bytes */1000": the total, -1 when none.
curl_off_t RangeTotal(const std::string& value)
{
    const size_t slash = value.rfind('/');
    if (slash == std::string::npos || slash + 1 >= value.size() ||
        !isdigit(static_cast<unsigned char>(value[slash + 1])))
        return -1;
    return static_cast<curl_off_t>(strtoll(value.c_str() + slash + 1, nullptr, 10));
}

// The response's validator for If-Range: a strong ETag, else a Last-Modified
// date that is strong (at least a second older than the response's Date,
// RFC 9110 8.8.2.2); "" when there is none.
std::string Validator(const std::string& etag, const std::string& lastModified, const std::string& date)
{
    if (!etag.empty() && !StartsWithNoCase(etag, "W/"))
        return etag;
    if (lastModified.empty() || !etag.empty())
        return "";
    const time_t modified = curl_getdate(lastModified.c_str(), nullptr);
    const time_t now = date.empty() ? -1 : curl_getdate(date.c_str(), nullptr);
    return modified >= 0 && now >= 0 && now - modified >= 1 ? lastModified : "";
}

// GET: one header line of a response; at the blank line that ends the
// headers, what they say about the remote file.
size_t OnHeader(char* p, size_t size, size_t n, void* arg)
{
    sTransfer& t = *static_cast<sTransfer*>(arg);
    const size_t len = size * n;
    std::string line(p, len);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    auto& h = t.head;
    if (StartsWithNoCase(line, "HTTP/")) {
        h = {};
        const size_t sp = line.find(' ');
        h.status = sp == std::string::npos ? 0 : strtol(line.c_str() + sp + 1, nullptr, 10);
        return len;
    }
    if (!line.empty()) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos)
            return len;
        const std::string name = line.substr(0, colon);
        size_t v = colon + 1;
        while (v < line.size() && (line[v] == ' ' || line[v] == '\t'))
            ++v;
        const std::string value = line.substr(v);
        if (strcasecmp(name.c_str(), "ETag") == 0)
            h.etag = value;
        else if (strcasecmp(name.c_str(), "Last-Modified") == 0)
            h.lastModified = value;
        else if (strcasecmp(name.c_str(), "Date") == 0)
            h.date = value;
        else if (strcasecmp(name.c_str(), "Content-Length") == 0)
            h.length = static_cast<curl_off_t>(strtoll(value.c_str(), nullptr, 10));
        else if (strcasecmp(name.c_str(), "Content-Range") == 0)
            h.rangeTotal = RangeTotal(value);
        return len;
    }
    // End of one response's headers.
    if (h.status == 200) {
        // The whole file from its first byte: this version's size and validator.
        t.total = h.length;
        t.validator = Validator(h.etag, h.lastModified, h.date);
    } else if (h.status == 206) {
        if (h.rangeTotal >= 0)
            t.total = h.rangeTotal;
        if (t.validator.empty())
            t.validator = Validator(h.etag, h.lastModified, h.date);
    } else if (h.status == 416 && h.rangeTotal >= 0) {
        t.total = h.rangeTotal;
    }
    return len;
}

size_t OnReadFile(char* p, size_t size, size_t n, void* arg)
{
    sTransfer& t = *static_cast<sTransfer*>(arg);
    for (;;) {
        ssize_t r = read(t.fd, p, size * n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return CURL_READFUNC_ABORT;
        t.sent += r;
        return static_cast<size_t>(r);
    }
}

int OnProgress(void* arg, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
               curl_off_t ulNow)
{
    sTransfer& t = *static_cast<sTransfer*>(arg);
    if (t.req.progressMs <= 0)
        return 0;
    long long now = GetMsecClock();
    if (now - t.lastProgressMs < t.req.progressMs)
        return 0;
    t.lastProgressMs = now;
    unsigned long long done, total;
    if (t.req.method == tWanRequest::GET) {
        done = static_cast<unsigned long long>(t.offset + dlNow);
        total = dlTotal > 0 ? static_cast<unsigned long long>(t.offset + dlTotal) : 0;
    } else {
        done = static_cast<unsigned long long>(ulNow);
        total = static_cast<unsigned long long>(ulTotal);
    }
    cMsg msg(MSG_WAN_PROGRESS);
    msg.SetTid(t.req.tag);
    msg.GetRecord().AppendUIntPar("id", t.id);
    msg.GetRecord().AppendUInt64Par("done", done);
    msg.GetRecord().AppendUInt64Par("total", total);
    t.owner->SendToParent(msg);
    return 0;
}

// The request headers of this attempt: a range request carries the
// validator of the file it continues in If-Range.
void SetHeaders(sTransfer& t)
{
    curl_slist* list = nullptr;
    if (!t.req.contentType.empty())
        list = curl_slist_append(list, ("Content-Type: " + t.req.contentType).c_str());
    list = curl_slist_append(list, "Expect:");
    if (t.req.method == tWanRequest::GET && t.offset > 0 && !t.validator.empty())
        list = curl_slist_append(list, ("If-Range: " + t.validator).c_str());
    curl_easy_setopt(t.easy, CURLOPT_HTTPHEADER, list);
    if (t.headers)
        curl_slist_free_all(t.headers);
    t.headers = list;
}

// Options common to every attempt; false with a reason when unusable.
bool SetOptions(sTransfer& t, std::string& why)
{
    const tWanRequest& r = t.req;
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.error);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &OnProgress);
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, r.connectTimeoutMs);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, r.totalTimeoutMs);
    if (r.maxBytesPerSecond > 0) {
        curl_easy_setopt(e, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(r.maxBytesPerSecond));
        curl_easy_setopt(e, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(r.maxBytesPerSecond));
    }
    if (r.lowSpeedSeconds > 0 && r.lowSpeedBytes > 0) {
        curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, r.lowSpeedBytes);
        curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, r.lowSpeedSeconds);
    }
    long tls = TlsFloor(r.tlsMin);
    if (tls < 0) {
        why = "unknown TLS version " + r.tlsMin;
        return false;
    }
    curl_easy_setopt(e, CURLOPT_SSLVERSION, tls);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, r.verifyPeer ? 1L : 0L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, r.verifyHost ? 2L : 0L);
    if (!r.caFile.empty())
        curl_easy_setopt(e, CURLOPT_CAINFO, r.caFile.c_str());
    if (!r.caDir.empty())
        curl_easy_setopt(e, CURLOPT_CAPATH, r.caDir.c_str());
    if (!r.certFile.empty())
        curl_easy_setopt(e, CURLOPT_SSLCERT, r.certFile.c_str());
    if (!r.keyFile.empty())
        curl_easy_setopt(e, CURLOPT_SSLKEY, r.keyFile.c_str());
    if (!r.keyPassword.empty())
        curl_easy_setopt(e, CURLOPT_KEYPASSWD, r.keyPassword.c_str());
    if (!r.proxy.empty()) {
        curl_easy_setopt(e, CURLOPT_PROXY, r.proxy.c_str());
        curl_easy_setopt(e, CURLOPT_PROXYTYPE, CURLPROXY_HTTP);
        if (!r.proxyUser.empty()) {
            curl_easy_setopt(e, CURLOPT_PROXYUSERNAME, r.proxyUser.c_str());
            curl_easy_setopt(e, CURLOPT_PROXYPASSWORD, r.proxyPassword.c_str());
        }
    } else {
        curl_easy_setopt(e, CURLOPT_PROXY, "");   // no proxy from the environment
    }
    if (r.auth != tWanRequest::AUTH_NONE) {
        long a = r.auth == tWanRequest::AUTH_BASIC    ? CURLAUTH_BASIC
                 : r.auth == tWanRequest::AUTH_DIGEST ? CURLAUTH_DIGEST
                                                      : CURLAUTH_ANY;
        curl_easy_setopt(e, CURLOPT_HTTPAUTH, a);
        curl_easy_setopt(e, CURLOPT_USERNAME, r.user.c_str());
        curl_easy_setopt(e, CURLOPT_PASSWORD, r.password.c_str());
    }
    SetHeaders(t);

    if (r.method == tWanRequest::GET) {
        // Fewer, larger writes into the file; 64 kB stays small on the device.
        curl_easy_setopt(e, CURLOPT_BUFFERSIZE, 64L * 1024);
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &OnBody);
        curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &OnHeader);
        curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
        // A proxy's answer to CONNECT is not a response about the file.
        curl_easy_setopt(e, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
        return true;
    }
    // Uploads: the answer's body is not kept.
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION,
                     +[](char*, size_t s, size_t n, void*) -> size_t { return s * n; });
    if (r.method == tWanRequest::POST && r.file.empty()) {
        curl_easy_setopt(e, CURLOPT_POST, 1L);
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, r.body.data());
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
        return true;
    }
    t.fd = open(r.file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (t.fd < 0 || fstat(t.fd, &st) != 0) {
        why = r.file + ": " + strerror(errno);
        return false;
    }
    curl_easy_setopt(e, CURLOPT_READFUNCTION, &OnReadFile);
    curl_easy_setopt(e, CURLOPT_READDATA, &t);
    if (r.method == tWanRequest::PUT) {
        curl_easy_setopt(e, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(e, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(st.st_size));
    } else {
        curl_easy_setopt(e, CURLOPT_POST, 1L);
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(st.st_size));
    }
    return true;
}

// GET: continue the ".part" file from its end.
bool OpenPart(sTransfer& t, std::string& why)
{
    if (t.fd < 0) {
        t.part = t.req.file + ".part";
        t.fd = open(t.part.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (t.fd < 0) {
            why = t.part + ": " + strerror(errno);
            return false;
        }
    }
    off_t end = lseek(t.fd, 0, SEEK_END);
    if (end < 0) {
        why = t.part + ": " + strerror(errno);
        return false;
    }
    t.offset = end;
    t.written = 0;
    t.statusChecked = false;
    t.discard = false;
    curl_easy_setopt(t.easy, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(end));
    SetHeaders(t);
    return true;
}

}  // namespace

void cCurlPerformThread::Begin(unsigned id, const tWanRequest& req)
{
    std::unique_ptr<sTransfer> t(new sTransfer);
    t->id = id;
    t->req = req;
    t->owner = this;
    t->startMs = GetMsecClock();
    t->easy = curl_easy_init();
    std::string why;
    bool ok = t->easy && SetOptions(*t, why) &&
              (req.method != tWanRequest::GET || OpenPart(*t, why));
    if (!ok) {
        ORVO_TRACE(UnitORVO, ERROR, FormatString("wan transfer %u: %s", id, why.c_str()));
        Finish(*t, WAN_ERR_FILE, 0, why);
        return;
    }
    curl_multi_add_handle(m_pMulti->multi, t->easy);
    m_pMulti->running[id] = std::move(t);
}

void cCurlPerformThread::PostDone(const sTransfer& t, int result, long status,
                                  const std::string& error)
{
    curl_off_t bytes = t.req.method == tWanRequest::GET ? t.offset + t.written : 0;
    if (t.req.method != tWanRequest::GET && t.easy) {
        curl_off_t up = 0;
        curl_easy_getinfo(t.easy, CURLINFO_SIZE_UPLOAD_T, &up);
        bytes = up;
    }
    cMsg msg(MSG_WAN_DONE);
    msg.SetTid(t.req.tag);
    cRecord& r = msg.GetRecord();
    r.AppendUIntPar("id", t.id);
    r.AppendSIntPar("result", result);
    r.AppendUIntPar("status", static_cast<unsigned>(status));
    r.AppendUInt64Par("bytes", static_cast<unsigned long long>(bytes));
    r.AppendUIntPar("duration", static_cast<unsigned>(GetMsecClock() - t.startMs));
    r.AppendTextPar("error", error);
    r.AppendTextPar("file", t.req.file);
    SendToParent(msg);
}

void cCurlPerformThread::Finish(sTransfer& t, int result, long status, const std::string& error)
{
    if (result != WAN_OK)
        ORVO_TRACE(UnitORVO, WARNING,
                   FormatString("wan transfer %u %s: result %d status %ld %s", t.id,
                                t.req.url.c_str(), result, status, error.c_str()));
    // A failed download that wrote nothing leaves no empty ".part" behind.
    struct stat st;
    if (result != WAN_OK && !t.part.empty() && t.fd >= 0 && fstat(t.fd, &st) == 0 &&
        st.st_size == 0)
        unlink(t.part.c_str());
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Live.erase(t.id);
    }
    PostDone(t, result, status, error);
}

size_t cCurlPerformThread::GetActiveCount() const
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return m_Live.size();
}

// GET: puts the attempt back into the multi handle to continue the ".part"
// file from its end (after a broken body) or, with fromZero, to download the
// file again from its first byte. False when the retries are used up or the
// file cannot be reused. Starting again from zero is free once per transfer
// (the old bytes are not this file's), further times it costs a retry.
bool cCurlPerformThread::Resume(sTransfer& t, bool fromZero, const std::string& why)
{
    if (m_Stop || cService::GetStopFlag())
        return false;
    const bool freeRestart = fromZero && !t.restarted;
    if (!freeRestart && t.attempts >= t.req.retries)
        return false;
    if (fromZero && ftruncate(t.fd, 0) != 0)
        return false;
    if (freeRestart)
        t.restarted = true;
    else
        ++t.attempts;
    curl_multi_remove_handle(m_pMulti->multi, t.easy);
    t.error[0] = 0;
    std::string openWhy;
    if (!OpenPart(t, openWhy))
        return false;
    ORVO_TRACE(UnitORVO, INFO,
               FormatString("wan transfer %u: %s, %s at %lld", t.id, why.c_str(),
                            fromZero ? "starting again" : "continuing", static_cast<long long>(t.offset)));
    curl_multi_add_handle(m_pMulti->multi, t.easy);
    return true;
}

bool cCurlPerformThread::Completed(sTransfer& t, CURLcode_t codeValue)
{
    CURLcode code = static_cast<CURLcode>(codeValue);
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    bool isGet = t.req.method == tWanRequest::GET;
    std::string error = t.error[0] ? t.error : (code != CURLE_OK ? curl_easy_strerror(code) : "");

    if (code != CURLE_OK) {
        if (isGet && t.writeFailed) {
            Finish(t, WAN_ERR_FILE, status, t.part + ": " + strerror(t.writeErrno));
            return false;
        }
        // A range request answered with the whole file: the server ignores
        // ranges, or the file changed and If-Range said so. The old bytes go.
        if (isGet && code == CURLE_RANGE_ERROR && t.offset > 0 &&
            Resume(t, true, "the server sent the whole file"))
            return true;
        // A body cut short: go on from the end of what arrived.
        if (isGet && !t.discard && t.written > 0 && code != CURLE_OPERATION_TIMEDOUT &&
            Resume(t, false, error))
            return true;
        Finish(t, WAN_ERR_TRANSFER, status, error);
        return false;
    }
    bool whole = false;   // GET: the ".part" file already held the whole file
    if (isGet && t.offset > 0 && status == 416) {
        // Nothing left to send from the part's end: the part is whole when
        // its size is the file's; otherwise (the file shrank, or its size
        // is unknown) the download starts again.
        if (t.total == t.offset)
            whole = true;
        else if (Resume(t, true, "range not satisfiable"))
            return true;
    } else if (isGet && t.offset > 0 && status >= 200 && status <= 299 && status != 206) {
        // libcurl ends a whole-file answer to a range request without a
        // body when its length equals the part's: not a continuation either.
        if (Resume(t, true, "the server sent the whole file"))
            return true;
        Finish(t, WAN_ERR_TRANSFER, status, "the server did not continue the download");
        return false;
    }
    if (!whole && (status < 200 || status > 299)) {
        Finish(t, WAN_ERR_HTTP, status, FormatString("HTTP status %ld", status));
        return false;
    }
    if (!isGet) {
        Finish(t, WAN_OK, status, "");
        return false;
    }
    if (fsync(t.fd) != 0) {
        Finish(t, WAN_ERR_FILE, status, t.part + ": " + strerror(errno));
        return false;
    }
    if (!t.req.sha256.empty()) {
        cSHA256Calculator sha;
        std::string hex;
        if (sha.Start() && sha.AddFile(t.part))
            hex = sha.FinishHex(true);
        std::string want = t.req.sha256;
        for (char& c : want)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        if (hex != want) {
            unlink(t.part.c_str());
            Finish(t, WAN_ERR_HASH, status, "SHA-256 " + hex + " differs from " + want);
            return false;
        }
    }
    if (rename(t.part.c_str(), t.req.file.c_str()) != 0) {
        Finish(t, WAN_ERR_FILE, status, t.req.file + ": " + strerror(errno));
        return false;
    }
    Finish(t, WAN_OK, status, "");
    return false;
}

void cCurlPerformThread::ThreadMain()
{
    // Transfers are background work: the scheduler favours the service loops
    // of the process (and of the device) over this thread when the CPU is busy.
    const int tid = static_cast<int>(syscall(SYS_gettid));
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    if (errno == 0)
        setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice + kWorkerNiceStep);
    CURLM* multi = m_pMulti->multi;
    auto& running = m_pMulti->running;
    while (!m_Stop && !cService::GetStopFlag()) {
        std::map<unsigned, tWanRequest> pending;
        std::set<unsigned> cancels;
        {
            std::lock_guard<std::mutex> guard(m_Lock);
            pending.swap(m_Pending);
            cancels.swap(m_Cancels);
        }
        for (auto& p : pending) {
            if (cancels.count(p.first)) {
                sTransfer t;
                t.id = p.first;
                t.req = p.second;
                t.startMs = GetMsecClock();
                Finish(t, WAN_ERR_CANCELLED, 0, "cancelled");
                cancels.erase(p.first);
                continue;
            }
            Begin(p.first, p.second);
        }
        for (unsigned c : cancels) {
            auto it = running.find(c);
            if (it == running.end())
                continue;
            curl_multi_remove_handle(multi, it->second->easy);
            Finish(*it->second, WAN_ERR_CANCELLED, 0, "cancelled");
            running.erase(it);
        }

        int still = 0;
        curl_multi_perform(multi, &still);
        int left = 0;
        while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
            if (m->msg != CURLMSG_DONE)
                continue;
            sTransfer* t = nullptr;
            curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&t));
            CURLcode code = m->data.result;
            auto it = running.find(t->id);
            std::unique_ptr<sTransfer> own(std::move(it->second));
            running.erase(it);
            if (Completed(*own, code))
                running[t->id] = std::move(own);
            else
                curl_multi_remove_handle(multi, own->easy);
        }
        curl_multi_poll(multi, nullptr, 0, 100, nullptr);
    }
    // Ending: unfinished transfers stop here and keep their ".part" files.
    // With the process-wide stop flag each running and queued transfer
    // reports WAN_ERR_CANCELLED (posting needs only the sockets, which live
    // as long as the services); a destroyed client reports nothing. Add
    // queues for a new worker from here on, so no transfer slips in
    // unreported.
    const bool report = !m_Stop;
    std::map<unsigned, tWanRequest> pending;
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Ending = true;
        pending.swap(m_Pending);
        m_Cancels.clear();
    }
    const std::string why = "cancelled: process stopping";
    for (auto& t : running) {
        curl_multi_remove_handle(multi, t.second->easy);
        if (report)
            Finish(*t.second, WAN_ERR_CANCELLED, 0, why);
    }
    running.clear();
    if (report) {
        for (auto& p : pending) {
            sTransfer t;
            t.id = p.first;
            t.req = p.second;
            t.startMs = GetMsecClock();
            Finish(t, WAN_ERR_CANCELLED, 0, why);
        }
    }
    std::lock_guard<std::mutex> guard(m_Lock);
    m_Live.clear();
}

// ---- the client -----------------------------------------------------------

cWanClient::cWanClient(cService* owner) : m_pOwner(owner) {}

cWanClient::~cWanClient()
{
    if (m_pThread)
        m_pThread->Stop();
}

unsigned cWanClient::Start(const tWanRequest& req)
{
    const char* why = nullptr;
    if (req.url.empty())
        why = "no url";
    else if (req.method != tWanRequest::POST && req.file.empty())
        why = "no file";
    else if (TlsFloor(req.tlsMin) < 0)
        why = "unknown TLS version";
    if (why) {
        ORVO_TRACE(UnitORVO, ERROR, FormatString("wan transfer refused: %s", why));
        return 0;
    }
    if (!m_pThread)
        m_pThread.reset(new cCurlPerformThread(m_pOwner));
    const unsigned id = m_pThread->Add(req);
    if (id == 0)
        ORVO_TRACE(UnitORVO, ERROR,
                   "wan transfer refused: no libcurl multi handle, or the worker did not start");
    return id;
}

bool cWanClient::Cancel(unsigned id)
{
    return m_pThread && m_pThread->Cancel(id);
}

size_t cWanClient::GetActiveCount() const
{
    return m_pThread ? m_pThread->GetActiveCount() : 0;
}

}  // namespace orvo
