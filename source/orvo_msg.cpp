#define ORVO_SOURCE "orvo_msg"
#include "orvo_msg.h"

#include <cstring>

#include "orvo_channel.h"
#include "orvo_handle.h"
#include "orvo_timer.h"
#include "orvo_trace.h"
#include "tesk.h"

namespace orvo {

namespace {

constexpr int kHeaderSize = 4;
constexpr int kTidSize = 16;
constexpr int kTokenSize = 4;

bool KindHasTid(unsigned char kind) { return kind == 1 || kind == 3; }
bool KindHasToken(unsigned char kind) { return kind == 2 || kind == 3; }

int FixedSize(unsigned char kind)
{
    return kHeaderSize + (KindHasTid(kind) ? kTidSize : 0) + (KindHasToken(kind) ? kTokenSize : 0);
}

// The handle of a referenced object for the payload or the record form; 0
// for none. Objects named in messages register themselves when they are
// made, so a set pointer without a handle is a caller's mistake: it is
// treated as not set rather than leaking a pointer value.
uint32_t HandleOfRef(const void* object, const char* what)
{
    if (object == nullptr)
        return 0;
    uint32_t handle = HandleOf(object);
    if (handle == 0)
        ORVO_TRACE(UnitORVO, WARNING,
                   FormatString("cMsg: %s reference has no handle, left out", what));
    return handle;
}

// Resolves a handle taken from a payload or a record. Unknown handles are
// normal after the object went away (a late reply), so they only warn.
void* ResolveRef(uint32_t handle, eHandleKind kind, const char* what)
{
    if (handle == 0)
        return nullptr;
    void* object = HandleResolve(handle, kind);
    if (object == nullptr)
        ORVO_TRACE(UnitORVO, WARNING,
                   FormatString("cMsg: unknown %s handle 0x%08X, reference dropped", what,
                                static_cast<unsigned>(handle)));
    return object;
}

}  // namespace

ORVO_HOT bool cMsg::Create()
{
    std::memset(m_Header, 0, sizeof m_Header);
    m_pChannel = nullptr;
    m_pStatem = nullptr;
    m_pTimer = nullptr;
    m_Record.Create();
    m_Tid.Clear();
    return true;
}

ORVO_HOT int cMsg::Create(unsigned char kind, const void* data, int size, cChannel* channel,
                 cStateMachine* statem)
{
    if (kind > 3)
        return -1;
    m_pChannel = channel;
    m_pStatem = statem;
    m_pTimer = nullptr;
    if (data == nullptr || size < kHeaderSize)
        return -2;

    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::memcpy(m_Header, p, kHeaderSize);
    int offset = kHeaderSize;

    if (KindHasTid(kind)) {
        // A payload cut inside the tid still yields a valid tid, as a sender
        // that announced one meant it to be there; the bytes that did not
        // arrive read as 0 instead of whatever follows the buffer.
        const int avail = size - offset;
        if (avail >= kTidSize) {
            m_Tid.Create(p + offset, kTidSize);
        } else {
            unsigned char tid[kTidSize] = {0};
            std::memcpy(tid, p + offset, static_cast<size_t>(avail));
            m_Tid.Create(tid, kTidSize);
        }
        offset += kTidSize;
    }

    if (KindHasToken(kind)) {
        if (size - offset >= kTokenSize) {
            const unsigned char* t = p + offset;
            uint32_t token = static_cast<uint32_t>(t[0]) | (static_cast<uint32_t>(t[1]) << 8) |
                             (static_cast<uint32_t>(t[2]) << 16) |
                             (static_cast<uint32_t>(t[3]) << 24);
            m_pStatem = static_cast<cStateMachine*>(ResolveRef(token, HANDLE_STATEM, "state machine"));
        } else {
            // A partial token might match some other live handle once padded,
            // so a cut token addresses nobody.
            m_pStatem = nullptr;
            ORVO_TRACE(UnitORVO, WARNING,
                       FormatString("cMsg: payload of %i bytes ends inside the state machine token",
                                    size));
        }
        offset += kTokenSize;
    }

    if (size > offset)
        m_Record.Create(p + offset, size - offset);
    return 1;
}

unsigned char cMsg::GetKind() const
{
    return static_cast<unsigned char>((m_Tid.IsValid() ? 1 : 0) + (m_pStatem != nullptr ? 2 : 0));
}

ORVO_HOT int cMsg::GetPayloadSize(unsigned char kind) const
{
    if (kind > 3)
        return -1;
    return FixedSize(kind) + m_Record.GetSize();
}

ORVO_HOT int cMsg::Serialize(unsigned char kind, void* buffer, int capacity) const
{
    int size = GetPayloadSize(kind);
    if (size < 0)
        return -1;
    if (buffer == nullptr || capacity < size)
        return -2;

    unsigned char* p = static_cast<unsigned char*>(buffer);
    std::memcpy(p, m_Header, kHeaderSize);
    p += kHeaderSize;
    if (KindHasTid(kind)) {
        std::memcpy(p, m_Tid.GetBuffer(), kTidSize);
        p += kTidSize;
    }
    if (KindHasToken(kind)) {
        uint32_t token = HandleOfRef(m_pStatem, "state machine");
        for (int i = 0; i < kTokenSize; ++i)
            p[i] = static_cast<unsigned char>(token >> (8 * i));
        p += kTokenSize;
    }
    if (!m_Record.IsEmpty())
        std::memcpy(p, m_Record.GetBuffer(), static_cast<size_t>(m_Record.GetSize()));
    return size;
}

int cMsg::Serialize(unsigned char kind, std::string& out) const
{
    int size = GetPayloadSize(kind);
    if (size < 0)
        return -1;
    out.assign(static_cast<size_t>(size), '\0');
    Serialize(kind, &out[0], size);
    return 1;
}

void cMsg::SetType(unsigned long type)
{
    m_Header[0] = static_cast<unsigned char>(type & 0xFF);
    m_Header[1] = static_cast<unsigned char>((type >> 8) & 0xFF);
    m_Header[2] = static_cast<unsigned char>((type >> 16) & 0xFF);
}

int cMsg::GetSize() const
{
    return kHeaderSize + (m_Tid.IsValid() ? m_Tid.GetSize() : 0) + m_Record.GetSize();
}

void cMsg::ToRecord(cRecord& r) const
{
    r.Create();
    r.AppendDataPar("header", m_Header, kHeaderSize, 0);
    if (uint32_t h = HandleOfRef(m_pChannel, "channel"))
        r.AppendUIntPar("channel", h, 0);
    if (uint32_t h = HandleOfRef(m_pTimer, "timer"))
        r.AppendUIntPar("timer", h, 0);
    if (uint32_t h = HandleOfRef(m_pStatem, "state machine"))
        r.AppendUIntPar("statem", h, 0);
    if (m_Tid.IsValid())
        r.AppendUuidPar("tid", m_Tid, 0);
    if (!m_Record.IsEmpty())
        r.AppendRecordPar("record", m_Record, 0);
}

bool cMsg::FromRecord(const cRecord& r)
{
    Create();
    bool ok = true;

    cRecordPar par = r.GetFirstPar("header");
    if (par.IsValid()) {
        if (par.GetType() == RECORD_DATA && par.GetSize() == kHeaderSize)
            std::memcpy(m_Header, par.GetData(), kHeaderSize);
        else
            ok = false;
    }
    par = r.GetFirstPar("channel");
    if (par.IsValid())
        m_pChannel = static_cast<cChannel*>(ResolveRef(par.GetUInt(), HANDLE_CHANNEL, "channel"));
    par = r.GetFirstPar("statem");
    if (par.IsValid())
        m_pStatem = static_cast<cStateMachine*>(ResolveRef(par.GetUInt(), HANDLE_STATEM, "state machine"));
    par = r.GetFirstPar("timer");
    if (par.IsValid())
        m_pTimer = static_cast<cTimer*>(ResolveRef(par.GetUInt(), HANDLE_TIMER, "timer"));
    par = r.GetFirstPar("tid");
    if (par.IsValid())
        par.GetUuid(m_Tid);
    par = r.GetFirstPar("record");
    if (par.IsValid())
        par.GetRecord(m_Record);
    return ok;
}

std::string cMsg::ToString() const
{
    std::string s = "{";
    s += FormatString("type=%s (0x%06lX)", GetMsgTypeTxt(GetType()), GetType());
    if (m_Tid.IsValid()) {
        s += ", tid=";
        s += m_Tid.ToString();
    }
    if (m_Record.GetSize() > 0) {
        s += ", record=";
        s += m_Record.ToString();
    }
    // A message may outlive its channel or timer (a copy kept after the
    // object was deleted): only objects still in the handle table are printed.
    if (HandleAlive(m_pChannel, HANDLE_CHANNEL)) {
        s += ", channel={";
        s += m_pChannel->ToString();
        s += "}";
    }
    if (HandleAlive(m_pTimer, HANDLE_TIMER)) {
        s += ", timer=";
        s += m_pTimer->ToString();
    }
    s += "}";
    return s;
}

}  // namespace orvo
