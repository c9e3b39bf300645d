// soak_driver - the load of a long run against orvo-scm and the example
// services (scripts/soak.sh starts both). It registers with the SCM like any
// service and, until -seconds have passed:
//  - keeps request streams with sequence numbers on two long-lived links
//    found by technology ("meter": read requests whose "register" is the
//    sequence number; "first": notes its journal keeps) and checks that
//    every answer on a live link belongs to the oldest request in flight;
//  - opens several short-lived connections per second to the saps of the
//    services and of orvo-scm, asks one thing and leaves;
//  - rewrites orvo-scm's JSON file now and then (a configuration push) and
//    checks through first_service's service information that it arrived;
//  - kills the meter with SIGKILL every -kill-s seconds (orvo-scm restarts
//    it, the link finds it again through the SCM);
//  - holds a trace channel to the reader and a snoop client on first;
//  - samples VmRSS and the open descriptors of orvo-scm, the services and
//    itself.
// At the end it checks first_service's journal (read-only) and prints a
// summary; exit status 1 names every fault found.
//
//     soak_driver -write-config FILE -examples DIR -journal FILE
//     soak_driver -scm-sap 127.0.0.1:PORT -scm-pid PID -scm-config FILE
//                 -journal FILE -seconds 600
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <sstream>

#include <orvo.h>

#include "soak_checks.h"
#include "tool_args.h"

using namespace orvo;
using namespace orvo_soak;

namespace {

const unsigned long kMsgRead = 0x20001;        // meter_service
const unsigned long kMsgReadReply = 0x20002;
const unsigned long kMsgNote = 0x20101;        // first_service
const unsigned long kMsgNoteReply = 0x20102;
const unsigned long kTickSend = 0x20501;       // this program's timers
const unsigned long kTickChurn = 0x20502;
const unsigned long kTickSample = 0x20503;
const unsigned long kTickKill = 0x20504;
const unsigned long kTickPush = 0x20505;
const unsigned long kTickEnd = 0x20506;
const unsigned long kTickDrain = 0x20507;

tArg gArgs[] = {
    {nullptr, "#Soak driver", nullptr, nullptr},
    {"-scm-sap", "address of the SCM", "127.0.0.1:47000", OnArg_Text},
    {"-ip", "address of this program's sap", "127.0.0.1", OnArg_Text},
    {"-scm-pid", "process id of orvo-scm (sampled; the meter must be its child)", "0", OnArg_Int},
    {"-scm-config", "orvo-scm's JSON file, rewritten for configuration pushes", "soak_scm.json", OnArg_Text},
    {"-examples", "directory of meter_service, meter_reader and first_service", "examples", OnArg_Text},
    {"-journal", "first_service's journal", "soak_first.journal", OnArg_Text},
    {"-seconds", "length of the run", "600", OnArg_Int},
    {"-kill-s", "seconds between two kills of the meter", "30", OnArg_Int},
    {"-push-s", "seconds between two configuration pushes", "20", OnArg_Int},
    {"-samples", "CSV file of every sample (process, seconds, VmRSS kB, descriptors)", "", OnArg_Text},
    {"-write-config", "only write the first JSON file (-scm-config) and exit", nullptr, OnArg_Bool},
    {nullptr, nullptr, nullptr, nullptr}};

cUnit UnitSoak("soak", INFO, OUTPUT_STDOUT);

double Now()
{
    return static_cast<double>(GetMsecClock()) / 1000.0;
}

std::string Arg(const char* name)
{
    return GetConfig()->GetFirstPar(name).GetString();
}

int IntArg(const char* name)
{
    return GetConfig()->GetFirstPar(name).GetSInt();
}

// orvo-scm's file for round r: the meter's tick, the reader's period and
// first_service's "soak-round" change with every round.
std::string ConfigJson(const std::string& examples, const std::string& journal, unsigned r)
{
    std::ostringstream o;
    o << "{\"services\": {\n"
      << "  \"meter\": {\"start\": true, \"failure-action\": \"restart\",\n"
      << "    \"command\": \"" << examples << "/meter_service -scm-sap {scm-sap}\",\n"
      << "    \"config\": [{\"name\": \"tick-ms\", \"type\": \"uint\", \"value\": " << (r % 2 ? 300 : 200)
      << "}]},\n"
      << "  \"reader\": {\"start\": true, \"failure-action\": \"restart\",\n"
      << "    \"command\": \"" << examples << "/meter_reader -scm-sap {scm-sap}\",\n"
      << "    \"config\": [{\"name\": \"read-ms\", \"type\": \"uint\", \"value\": " << (r % 2 ? 700 : 500)
      << "}]},\n"
      << "  \"first\": {\"start\": true, \"failure-action\": \"restart\",\n"
      << "    \"command\": \"" << examples << "/first_service -scm-sap {scm-sap}\",\n"
      << "    \"config\": [{\"name\": \"journal\", \"type\": \"text\", \"value\": \"" << journal << "\"},\n"
      << "               {\"name\": \"soak-round\", \"type\": \"uint\", \"value\": " << r << "}]}\n"
      << "}}\n";
    return o.str();
}

// Written beside and renamed, so orvo-scm never reads half a file.
bool WriteConfig(const std::string& path, unsigned round)
{
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp);
        out << ConfigJson(Arg("examples"), Arg("journal"), round);
        if (!out)
            return false;
    }
    return rename(tmp.c_str(), path.c_str()) == 0;
}

long RssKb(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 6, "VmRSS:") == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

long OpenFds(pid_t pid)
{
    DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (d == nullptr)
        return -1;
    long n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.')
            ++n;
    closedir(d);
    return n - (pid == getpid() ? 1 : 0);   // our own look at the directory
}

pid_t ParentOf(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = all.rfind(')');   // the name may hold blanks
    if (close == std::string::npos)
        return -1;
    char state = 0;
    int ppid = -1;
    std::sscanf(all.c_str() + close + 1, " %c %d", &state, &ppid);
    return ppid;
}

// Faults found during the run; each kind is printed with its first texts.
struct sFaults {
    std::map<std::string, std::vector<std::string>> byKind;
    void Add(const std::string& kind, const std::string& text)
    {
        auto& v = byKind[kind];
        if (v.size() < 5)
            v.push_back(text);
        else if (v.size() == 5)
            v.push_back("...");
        ORVO_TRACE(&UnitSoak, ERROR, kind + ": " + text);
    }
};
sFaults gFaults;

// One process the run watches.
struct sProc {
    std::string name;
    pid_t pid = 0;
    bool longLived = true;    // judged for growth; a restart is a fault
    std::string sap;
    std::vector<sPoint> rss, fds;
    int restarts = 0;
    unsigned long answered = 0;    // requests answered (links and churn)
    unsigned long reconnects = 0;  // long-lived connections that came back
};

// A long-lived link to a technology carrying numbered requests, a few in
// flight at a time.
class cSeqLink : public cScmServiceIO {
public:
    cSeqLink(cScmService* owner, const std::string& tech, unsigned long req, unsigned long reply, sProc& proc)
        : cScmServiceIO(owner, tech), m_Req(req), m_Reply(reply), m_Proc(proc)
    {
    }

    void OnConnect() override
    {
        if (++m_Connects > 1)
            ++m_Proc.reconnects;
        m_LastCount = 0;
    }
    void OnClose() override { m_InFlightAtBreak += m_Track.Broken(); }

    int DispatchMessage(const cMsg& msg) override
    {
        if (msg != m_Reply || !IsMsgFromHere(msg))
            return 0;
        unsigned long long seq = 0;
        const std::string fault = m_Track.Answered(msg.GetTid(), &seq);
        if (!fault.empty())
            gFaults.Add("sequence on the " + GetTechnology() + " link", fault);
        if (fault.find("matches no") != std::string::npos)
            return 1;
        ++m_Answered;
        ++m_Proc.answered;
        const cRecord& r = msg.GetRecord();
        if (m_Req == kMsgRead && r.GetFirstPar("register").GetUInt() != static_cast<unsigned int>(seq))
            gFaults.Add("meter answers", FormatString("request %llu answered with register %u", seq,
                                                       r.GetFirstPar("register").GetUInt()));
        if (m_Req == kMsgNote) {
            // The journal counts every note; this link is its only writer.
            const unsigned long count = r.GetFirstPar("count").GetUInt();
            if (m_LastCount != 0 && count != m_LastCount + 1)
                gFaults.Add("journal count", FormatString("note %llu: count %lu after %lu", seq, count, m_LastCount));
            m_LastCount = count;
        }
        return 1;
    }

    // One more request when fewer than `window` are in flight.
    void SendNext(size_t window)
    {
        if (!IsConnected() || m_Track.Outstanding() >= window)
            return;
        cMsg req(m_Req);
        cUuid tid;
        tid.Create();
        req.SetTid(tid);
        const unsigned long long seq = ++m_Seq;
        if (m_Req == kMsgRead)
            req.GetRecord().AppendUIntPar("register", static_cast<unsigned int>(seq));
        else
            req.GetRecord().AppendTextPar("note", "soak " + std::to_string(seq));
        if (Send(req) > 0)
            m_Track.Sent(tid, seq);
    }

    size_t Outstanding() const { return m_Track.Outstanding(); }
    unsigned long Answered() const { return m_Answered; }
    unsigned long InFlightAtBreak() const { return m_InFlightAtBreak; }
    unsigned long Breaks() const { return m_Connects > 0 ? m_Connects - 1 : 0; }

private:
    unsigned long m_Req, m_Reply;
    sProc& m_Proc;
    cSeqTracker<cUuid> m_Track;
    unsigned long long m_Seq = 0;
    unsigned long m_Answered = 0;
    unsigned long m_InFlightAtBreak = 0;
    unsigned long m_Connects = 0;
    unsigned long m_LastCount = 0;
};

// A connection held the whole run to one service: a trace channel (0x7000,
// receives 0x7002) or a snoop client (0x7003, receives 0x7005). It comes
// back after a break at the service's current sap.
struct sAttached {
    sAttached(cService* s, sProc& p, unsigned long on, unsigned long in) : sock(s, nullptr), proc(p), onType(on), inType(in) {}
    cMsgTcpSocket sock;
    sProc& proc;
    unsigned long onType, inType;
    bool up = false, asked = false, connecting = false;
    unsigned long received = 0, connects = 0;

    void Connect()
    {
        if (up || connecting || proc.sap.empty())
            return;
        sock.Close();
        sock.Socket(AF_INET, SOCK_STREAM, 0);
        connecting = sock.Connect(cSocketAddr(proc.sap.c_str(), 0)) == 0;
    }
    // 1 when msg concerned this connection.
    int Take(const cMsg& msg)
    {
        if (msg.GetChannel() != &sock)
            return 0;
        if (msg == MSG_SOCKET_CONNECTED && !up) {   // a peer's identification is a 0x4002 too
            up = true;
            connecting = false;
            asked = false;
            if (++connects > 1)
                ++proc.reconnects;
            cMsg on(onType);
            if (onType == MSG_TRACE_ON) {
                cRecord unit, units;
                unit.AppendTextPar("name", proc.name);
                unit.AppendTextPar("level", "INFO");
                units.AppendRecordPar(proc.name.c_str(), unit);
                on.GetRecord().AppendRecordPar("units", units);
            }
            asked = sock.Send(on) > 0;
        } else if (msg == MSG_SOCKET_CLOSED || msg == MSG_SOCKET_CONNECT_FAILED) {
            up = connecting = false;
        } else if (msg == inType) {
            ++received;
        }
        return 1;
    }
};

// A short-lived connection: connect, one request, the answer, gone.
struct sChurn {
    std::unique_ptr<cMsgTcpSocket> sock;
    sProc* target = nullptr;
    double started = 0;
    bool sent = false;
    cUuid tid;
};

class cDriverService : public cScmService {
public:
    void ThreadMain() override {}
};

class cSoak {
public:
    explicit cSoak(cDriverService& s)
        : m_Service(s),
          m_Meter(&s, "meter", kMsgRead, kMsgReadReply, m_Procs[1]),
          m_First(&s, "first", kMsgNote, kMsgNoteReply, m_Procs[2]),
          m_Trace(&s, m_Procs[3], MSG_TRACE_ON, MSG_TRACE_OUTPUT),
          m_Snoop(&s, m_Procs[2], MSG_SNOOP_ON, MSG_SNOOP_REPORT),
          m_TickSend(&s, true, nullptr), m_TickChurn(&s, true, nullptr), m_TickSample(&s, true, nullptr),
          m_TickKill(&s, true, nullptr), m_TickPush(&s, true, nullptr), m_TickEnd(&s, false, nullptr),
          m_TickDrain(&s, true, nullptr)
    {
        m_Procs[0].name = "orvo-scm";
        m_Procs[0].pid = IntArg("scm-pid");
        m_Procs[0].sap = Arg("scm-sap");
        m_Procs[1].name = "meter";
        m_Procs[1].longLived = false;   // killed on purpose
        m_Procs[2].name = "first";
        m_Procs[3].name = "reader";
        m_Procs[4].name = "soak_driver";
        m_Procs[4].pid = getpid();
        m_Seconds = IntArg("seconds");
        m_BaseAt = std::min(60.0, m_Seconds / 3.0);
        m_SampleMs = static_cast<unsigned long>(std::max(1000.0, std::min(5000.0, m_Seconds * 1000.0 / 60)));
        m_Window = std::max(m_SampleMs / 1000.0 * 2.5, 5.0);
        // Sized once: a vector that doubles mid-run shows as growth of this
        // process's own memory.
        const size_t samples = static_cast<size_t>(m_Seconds * 1000.0 / m_SampleMs) + 16;
        for (sProc& p : m_Procs) {
            p.rss.reserve(samples);
            p.fds.reserve(samples);
        }
    }

    int Run()
    {
        m_Start = Now();
        cMsg msg;
        while (!m_Done && m_Service.GetMessage(msg))
            Handle(msg);
        return Finish();
    }

private:
    void Handle(const cMsg& msg)
    {
        switch (msg.GetType()) {
        case MSG_SCM_GETCONFIG_ACK:
            m_Service.SetReady();
            m_TickSend.Start(20, kTickSend);
            m_TickChurn.Start(150, kTickChurn);
            m_TickSample.Start(m_SampleMs, kTickSample);
            m_TickKill.StartSec(static_cast<unsigned long>(IntArg("kill-s")), kTickKill);
            m_TickPush.StartSec(static_cast<unsigned long>(IntArg("push-s")), kTickPush);
            m_TickEnd.StartSec(static_cast<unsigned long>(m_Seconds), kTickEnd);
            AskPids();
            Sample();
            break;
        case MSG_SCM_WDT:
            m_Service.SetWDT(const_cast<cMsg&>(msg));
            return;
        case kTickSend:
            m_Meter.SendNext(4);
            if (++m_SendTicks % 5 == 0)
                m_First.SendNext(2);   // 10 notes per second at most
            return;
        case kTickChurn:
            Churn();
            m_Trace.Connect();
            m_Snoop.Connect();
            return;
        case kTickSample:
            Sample();
            AskPids();
            return;
        case kTickKill:
            m_KillPending = true;
            m_Service.RequestServiceInfoByName("meter");
            return;
        case kTickPush:
            if (WriteConfig(Arg("scm-config"), ++m_Round))
                ++m_Pushes;
            else
                gFaults.Add("configuration push", "cannot write " + Arg("scm-config"));
            return;
        case kTickEnd:
            Stop();
            return;
        case kTickDrain:
            if (m_Meter.Outstanding() + m_First.Outstanding() == 0 || Now() - m_StopAt > 10)
                m_Done = true;
            return;
        case MSG_SCM_SERVICE_INFO:
            TakeInfo(cScmServiceInfo(msg.GetRecord()));
            break;   // the links look at it too
        default:
            break;
        }
        if (m_Trace.Take(msg) || m_Snoop.Take(msg) || TakeChurn(msg))
            return;
        m_Meter.ProcessMsg(msg);
        m_First.ProcessMsg(msg);
    }

    void AskPids()
    {
        for (int i = 1; i <= 3; ++i)
            m_Service.RequestServiceInfoByName(m_Procs[i].name);
    }

    void TakeInfo(const cScmServiceInfo& info)
    {
        if (!info.IsValid())
            return;
        for (sProc& p : m_Procs) {
            if (p.name != info.GetName() || &p == &m_Procs[0])
                continue;
            p.sap = info.GetSAP();
            if (p.pid != 0 && p.pid != info.GetPID()) {
                ++p.restarts;
                if (p.longLived)
                    gFaults.Add("restart", p.name + " was restarted (pid " + std::to_string(p.pid) + " -> " +
                                               std::to_string(info.GetPID()) + ")");
            }
            p.pid = info.GetPID();
        }
        if (info.GetName() == "meter" && m_KillPending && !m_Stopping) {
            m_KillPending = false;
            // Only ever a child of this run's orvo-scm.
            if (ParentOf(info.GetPID()) == m_Procs[0].pid && kill(info.GetPID(), SIGKILL) == 0)
                ++m_Kills;
            else
                gFaults.Add("meter kill", "pid " + std::to_string(info.GetPID()) + " is no child of orvo-scm");
        }
    }

    void Sample()
    {
        const double t = Now() - m_Start;
        if (t <= m_BaseAt + m_Window)
            m_NotesAtBase = m_First.Answered();
        for (sProc& p : m_Procs) {
            if (p.pid <= 0)
                continue;
            const long rss = RssKb(p.pid), fds = OpenFds(p.pid);
            if (rss > 0 && fds > 0) {
                p.rss.push_back({t, static_cast<double>(rss)});
                p.fds.push_back({t, static_cast<double>(fds)});
            }
        }
    }

    void Churn()
    {
        const double now = Now();
        for (auto it = m_Churn.begin(); it != m_Churn.end();) {
            if (now - it->started > 10) {
                ChurnFailed(*it, "no answer within 10 s");
                it = Drop(it);
            } else {
                ++it;
            }
        }
        if (m_Stopping || m_Churn.size() >= 16)
            return;
        sProc& target = m_Procs[m_NextChurn++ % 4];   // orvo-scm, meter, first, reader
        if (target.sap.empty())
            return;
        sChurn c;
        c.sock = std::make_unique<cMsgTcpSocket>(&m_Service, nullptr);
        c.target = &target;
        c.started = now;
        c.sock->Socket(AF_INET, SOCK_STREAM, 0);
        c.sock->Connect(cSocketAddr(target.sap.c_str(), 0));
        m_Churn.push_back(std::move(c));
        ++m_ChurnOpened;
    }

    int TakeChurn(const cMsg& msg)
    {
        auto it = std::find_if(m_Churn.begin(), m_Churn.end(),
                               [&](const sChurn& c) { return msg.GetChannel() == c.sock.get(); });
        if (it == m_Churn.end())
            return 0;
        sChurn& c = *it;
        const bool isMeter = c.target == &m_Procs[1];
        if (msg == MSG_SOCKET_CONNECTED && !c.sent) {
            cMsg req(isMeter ? kMsgRead : MSG_SERVICE_INFO_REQUEST);
            c.tid.Create();
            req.SetTid(c.tid);
            if (isMeter)
                req.GetRecord().AppendUIntPar("register", 180);
            c.sent = c.sock->Send(req) > 0;
        } else if ((msg == kMsgReadReply || msg == MSG_SERVICE_INFO) && msg.GetTid() == c.tid) {
            ++c.target->answered;
            ++m_ChurnAnswered;
            if (c.target == &m_Procs[2] && msg == MSG_SERVICE_INFO) {
                cRecord config;
                msg.GetRecord().GetFirstPar("config").GetRecord(config);
                m_RoundSeen = std::max(m_RoundSeen, config.GetFirstPar("soak-round").GetUInt());
            }
            Drop(it);
        } else if (msg == MSG_SOCKET_CLOSED || msg == MSG_SOCKET_CONNECT_FAILED) {
            ChurnFailed(c, msg == MSG_SOCKET_CLOSED ? "closed before the answer" : "connect failed");
            Drop(it);
        }
        return 1;
    }

    // The meter may be gone for a moment (killed on purpose); any other
    // service must answer every visitor.
    void ChurnFailed(const sChurn& c, const std::string& why)
    {
        ++m_ChurnFailed;
        if (c.target != &m_Procs[1])
            gFaults.Add("short-lived connection", c.target->name + ": " + why);
    }

    std::list<sChurn>::iterator Drop(std::list<sChurn>::iterator it)
    {
        m_Service.RemoveMsgsByObject(it->sock.get());
        it->sock->Close();
        return m_Churn.erase(it);
    }

    void Stop()
    {
        m_Stopping = true;
        m_StopAt = Now();
        Sample();
        m_TickSend.Stop();
        m_TickChurn.Stop();
        m_TickKill.Stop();
        m_TickPush.Stop();
        m_TickSample.Stop();
        while (!m_Churn.empty())
            Drop(m_Churn.begin());
        m_TickDrain.Start(200, kTickDrain);   // until the answers in flight are in
    }

    int Finish();
    void WriteSamples() const
    {
        if (Arg("samples").empty())
            return;
        std::ofstream csv(Arg("samples"));
        csv << "process,seconds,rss_kb,fds\n";
        for (const sProc& p : m_Procs)
            for (size_t i = 0; i < p.rss.size(); ++i)
                csv << p.name << ',' << p.rss[i].t << ',' << p.rss[i].v << ',' << p.fds[i].v << '\n';
    }
    void JournalCheck(std::ostream& out);

    cDriverService& m_Service;
    sProc m_Procs[5];
    cSeqLink m_Meter, m_First;
    sAttached m_Trace, m_Snoop;
    cTimer m_TickSend, m_TickChurn, m_TickSample, m_TickKill, m_TickPush, m_TickEnd, m_TickDrain;
    std::list<sChurn> m_Churn;
    double m_Start = 0, m_StopAt = 0, m_BaseAt = 60, m_Window = 12.5;
    unsigned long m_NotesAtBase = 0;
    int m_Seconds = 600;
    unsigned long m_SampleMs = 5000;
    bool m_Done = false, m_Stopping = false, m_KillPending = false;
    unsigned long m_SendTicks = 0, m_NextChurn = 0, m_ChurnOpened = 0, m_ChurnAnswered = 0, m_ChurnFailed = 0;
    unsigned int m_Round = 0, m_RoundSeen = 0;
    unsigned long m_Pushes = 0, m_Kills = 0;
};

// The journal as a reader finds it: every record intact, one per answered
// note (plus at most the notes in flight when the link broke).
void cSoak::JournalCheck(std::ostream& out)
{
    cRecordFile journal;
    const std::string name = Arg("journal");
    if (!journal.OpenReadOnly(name)) {
        gFaults.Add("journal", "cannot open " + name + " read-only");
        return;
    }
    if (!journal.GetDamage().empty())
        gFaults.Add("journal", journal.GetDamage());
    unsigned long bad = 0;
    for (unsigned long i = 0; i < journal.Count(); ++i) {
        cRecord rec;
        cTime created;
        unsigned long long stamp = 0;
        const int rc = journal.GetAt(i, rec, created, stamp);
        if (rc != BLOCKFILE_OK || rec.GetFirstPar("note").GetString().compare(0, 5, "soak ") != 0) {
            if (++bad <= 3)
                gFaults.Add("journal", FormatString("record %lu: result %d", i, rc));
        }
    }
    const unsigned long count = journal.Count(), answered = m_First.Answered();
    if (count < answered || count > answered + m_First.InFlightAtBreak())
        gFaults.Add("journal", FormatString("%lu records for %lu answered notes (%lu in flight at breaks)", count,
                                            answered, m_First.InFlightAtBreak()));
    out << FormatString("journal %s: %lu records, %lu unreadable, damage: %s\n", name.c_str(), count, bad,
                        journal.GetDamage().empty() ? "none" : journal.GetDamage().c_str());
}

int cSoak::Finish()
{
    std::ostringstream out;
    const double ran = (m_StopAt > 0 ? m_StopAt : Now()) - m_Start;
    const double window = m_Window;
    out << FormatString("\nsoak: %.0f s, samples every %.1f s; growth = median of the samples %.0f+-%.0f s "
                        "against the median of the last 5%s\n",
                        ran, m_SampleMs / 1000.0, m_BaseAt, window,
                        ran < 180 ? " (shown, not judged: under 3 min)" : "");
    out << FormatString("%-12s %9s %9s %8s %6s %6s %8s %9s %10s %8s\n", "process", "RSS@base", "RSS@end", "RSS%",
                        "fd@b", "fd@end", "fd%", "answered", "reconnect", "restarts");
    // Each journal record costs first_service one block entry in memory (the
    // file's chain is kept there by design); that growth is allowed for.
    const double perNoteKb = sizeof(cBlock) * 1.25 / 1024;
    for (sProc& p : m_Procs) {
        const sGrowth rss = Growth(p.rss, m_BaseAt, window, 5), fds = Growth(p.fds, m_BaseAt, window, 5);
        out << FormatString("%-12s %9.0f %9.0f %8.2f %6.0f %6.0f %8.2f %9lu %10lu %8d\n", p.name.c_str(), rss.base,
                            rss.end, rss.Percent(), fds.base, fds.end, fds.Percent(), p.answered, p.reconnects,
                            p.restarts);
        // A run shorter than three minutes compares warm-up with warm-up
        // (allocator arenas, first buffers): it is shown, not judged.
        if (!p.longLived || ran < 180)
            continue;
        if (!rss.known || !fds.known) {
            gFaults.Add("samples", p.name + ": too few samples to compare");
            continue;
        }
        double allowKb = rss.base * 0.01;
        if (&p == &m_Procs[2]) {
            allowKb += (m_First.Answered() - m_NotesAtBase) * perNoteKb;
            out << FormatString("  first may grow by %.0f kB: 1 %% and %lu journal records since the base at "
                                "%zu bytes each (+25 %%)\n",
                                allowKb, m_First.Answered() - m_NotesAtBase, sizeof(cBlock));
        }
        if (rss.end - rss.base > allowKb)
            gFaults.Add("memory growth", FormatString("%s: VmRSS %.0f kB -> %.0f kB (%.2f %%, allowed %.0f kB)",
                                                      p.name.c_str(), rss.base, rss.end, rss.Percent(), allowKb));
        if (fds.end - fds.base > fds.base * 0.01)
            gFaults.Add("descriptor growth", FormatString("%s: %.0f -> %.0f open descriptors", p.name.c_str(),
                                                          fds.base, fds.end));
    }
    out << FormatString("meter link: %lu answered, %lu breaks, %lu in flight at breaks; first link: %lu answered, "
                        "%lu breaks\n",
                        m_Meter.Answered(), m_Meter.Breaks(), m_Meter.InFlightAtBreak(), m_First.Answered(),
                        m_First.Breaks());
    out << FormatString("short-lived connections: %lu opened, %lu answered, %lu failed (meter down counts here)\n",
                        m_ChurnOpened, m_ChurnAnswered, m_ChurnFailed);
    out << FormatString("meter kills: %lu; configuration pushes: %lu written, newest seen applied by first: %u\n",
                        m_Kills, m_Pushes, m_RoundSeen);
    out << FormatString("trace lines from reader: %lu (%lu connects); snooped messages from first: %lu (%lu "
                        "connects)\n",
                        m_Trace.received, m_Trace.connects, m_Snoop.received, m_Snoop.connects);
    JournalCheck(out);
    WriteSamples();

    if (m_Seconds >= 50 && m_Kills == 0)
        gFaults.Add("meter kill", "the meter was never killed");
    if (m_Pushes >= 2 && m_RoundSeen + 1 < m_Pushes)
        gFaults.Add("configuration push", FormatString("round %lu written, first reports %u", m_Pushes, m_RoundSeen));
    if (m_Trace.received == 0 || m_Snoop.received == 0)
        gFaults.Add("trace/snoop", "no trace line or no snoop report arrived");
    if (m_Meter.Answered() == 0 || m_First.Answered() == 0)
        gFaults.Add("requests", "a long-lived link answered nothing");

    if (gFaults.byKind.empty()) {
        out << "soak: PASS\n";
    } else {
        out << "soak: FAIL\n";
        for (const auto& kind : gFaults.byKind)
            for (const std::string& text : kind.second)
                out << "  " << kind.first << ": " << text << "\n";
    }
    std::fputs(out.str().c_str(), stdout);
    std::fflush(stdout);
    return gFaults.byKind.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    // A mistyped option (-secnds) would otherwise run with the default.
    if (!orvo_tools::CheckOptions("soak_driver", gArgs, argc, argv))
        return 2;
    orvoInit(ERROR, OUTPUT_STDOUT, false);
    orvoParseArgs(gArgs, argc, argv);
    if (GetConfig()->GetFirstPar("write-config").GetBool())
        return WriteConfig(Arg("scm-config"), 0) ? 0 : 2;

    cDriverService service;
    if (!service.Init("soak", cSocketAddr(Arg("ip").c_str(), 0), "log"))
        return 2;
    int rc = 0;
    {
        cSoak soak(service);
        rc = soak.Run();
    }
    service.DeInit();
    orvoDeinit();
    return rc;
}
