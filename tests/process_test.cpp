// cProcess: command-line splitting, start/failure/end reports, Kill and
// Signal, many children ending at once, descriptors kept from the child.
// The children are the system's own /bin/sh, sleep and ls.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <map>
#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_process.h"
#include "orvo_service.h"
#include "orvo_statem.h"
#include "orvo_time.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

using tWords = std::vector<std::string>;

struct cRecorder : cStateMachine {
    explicit cRecorder(cService* s) : cStateMachine(s, "recorder") {}
    int state_init(cMsg& msg) override { return got.push_back(msg), 0; }
    std::vector<cMsg> got;
};

unsigned UInt(const cMsg& m, const char* name) { return m.GetRecord().GetFirstPar(name).GetUInt(); }
std::string Text(const cMsg& m, const char* name) { return m.GetRecord().GetFirstPar(name).GetString(); }
std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

tWords Split(const char* args)
{
    std::vector<char> buf(cProcess::kCmdLineSize, '\0');
    std::string(args).copy(buf.data(), buf.size() - 1);
    std::vector<char*> argv(cProcess::kMaxArgs, nullptr);
    const int n = cProcess::SplitArgs(buf.data(), argv.data(), 0, cProcess::kMaxArgs);
    EXPECT_EQ(argv[n], nullptr);
    return tWords(argv.begin(), argv.begin() + n);
}

class Process : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        orvoInit(ERROR, OUTPUT_NONE, false);
        std::signal(SIGALRM, SIG_DFL);  // alarm() bounds every test
    }
    void SetUp() override
    {
        alarm(120);
        svc.Init("procsvc", cSocketAddr("127.0.0.1", 0));
        char tmpl[] = "/tmp/orvo_process_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override
    {
        svc.DeInit();
        std::system(("rm -rf " + dir).c_str());
        alarm(0);
    }
    // Runs the loop until pred holds or ms have passed.
    void Pump(const std::function<bool()>& pred, long long ms = 20000)
    {
        const long long end = GetMsecClock() + ms;
        while (!pred() && GetMsecClock() < end)
            svc.ScheduleSelect();
    }
    // Reports naming pid, in arrival order.
    std::vector<cMsg> For(int pid) const
    {
        std::vector<cMsg> out;
        for (const cMsg& m : sm.got)
            if (UInt(m, "pid") == static_cast<unsigned>(pid))
                out.push_back(m);
        return out;
    }
    // Runs file args to its end report; returns the reports of its pid.
    std::vector<cMsg> RunToEnd(cProcess& p, const char* file, const std::string& args)
    {
        const int pid = p.Exec(file, args.c_str());
        EXPECT_GT(pid, 0);
        Pump([&] { return For(pid).size() >= 2; });
        return For(pid);
    }

    cTestService svc;
    cRecorder sm{&svc};
    std::string dir;
};

}  // namespace

TEST(ProcessArgs, SplitsOnBlanksAndQuotesWithoutEscapes)
{
    EXPECT_EQ(Split("a 'b c' \"d e\" f"), (tWords{"a", "b c", "d e", "f"}));
    EXPECT_EQ(Split("it's \"it's\" 'say \"hi\"'"), (tWords{"it's", "it's", "say \"hi\""}));
    EXPECT_EQ(Split("   x  a\tb\\ '' 'open quote"), (tWords{"x", "a\tb\\", "", "open quote"}));
    EXPECT_EQ(Split(""), tWords{});
    // The most words 4095 characters hold fit the vector.
    std::string many = "a";
    while (many.size() < 4095)
        many += " a";
    EXPECT_EQ(Split(many.c_str()).size(), 2048u);
}

TEST_F(Process, ChildGetsTheSplitWordsAndReportsItsEnd)
{
    cProcess p(&svc, &sm);
    // The shell is the oracle of the argv the child really received.
    const std::string out = dir + "/words";
    const int pid = p.Exec("/bin/sh",
                           ("-c 'printf \"[%s]\" \"$@\" > " + out + "; exit 7' sh a 'b c' it's").c_str());
    ASSERT_GT(pid, 0);
    EXPECT_EQ(p.ToString(), "{ name=/bin/sh, pid=" + std::to_string(pid) + " }");
    // 0x8001 arrives inside Exec; a start while running is refused.
    ASSERT_EQ(sm.got.size(), 1u);
    EXPECT_EQ(sm.got[0].GetType(), 0x8001u);
    EXPECT_EQ(Text(sm.got[0], "file"), "/bin/sh");
    EXPECT_EQ(UInt(sm.got[0], "pid"), static_cast<unsigned>(pid));
    EXPECT_EQ(p.Exec("/bin/true", ""), -1);
    Pump([&] { return sm.got.size() >= 2; });
    ASSERT_EQ(sm.got.size(), 2u);
    tWords names;
    const cRecord& rec = sm.got[1].GetRecord();
    for (cRecordPar par = rec.GetFirstPar(); par.IsValid(); rec.SeekNextPar(par))
        names.push_back(par.GetName());
    EXPECT_EQ(sm.got[1].GetType(), 0x8002u);
    EXPECT_EQ(names, (tWords{"file", "pid", "code"}));
    EXPECT_EQ(UInt(sm.got[1], "pid"), static_cast<unsigned>(pid));
    EXPECT_EQ(UInt(sm.got[1], "code"), 7u);
    EXPECT_EQ(ReadFile(out), "[a][b c][it's]");
    EXPECT_EQ(p.GetPid(), 0);

    // 213 reads as a failed start; a child ended by a signal gives code 0.
    std::vector<cMsg> r = RunToEnd(p, "/bin/sh", "-c 'exit 213'");
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1].GetType(), 0x8000u);
    const int pid3 = p.Exec("sleep", "30");
    p.Signal(SIGTERM);  // at once: must not be lost before the exec
    Pump([&] { return For(pid3).size() >= 2; });
    ASSERT_EQ(For(pid3).size(), 2u);
    EXPECT_EQ(For(pid3)[1].GetType(), 0x8002u);
    EXPECT_EQ(UInt(For(pid3)[1], "code"), 0u);
}

TEST_F(Process, MissingProgramReportsStartedThenStartFailed)
{
    cProcess p(&svc, &sm);
    std::vector<cMsg> r = RunToEnd(p, "orvo-no-such-program", "x y");
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].GetType(), 0x8001u);
    EXPECT_EQ(r[1].GetType(), 0x8000u);
    EXPECT_EQ(Text(r[1], "file"), "orvo-no-such-program");
    EXPECT_FALSE(r[1].GetRecord().GetFirstPar("reason").IsValid());
    EXPECT_FALSE(p.IsRunning());

    // Refused outright, without a report.
    EXPECT_EQ(p.Exec("/bin/true", std::string(cProcess::kCmdLineSize, 'a').c_str()), -1);
    EXPECT_EQ(p.Exec("", ""), -1);
    EXPECT_EQ(sm.got.size(), 2u);
    EXPECT_EQ(cProcess::System(nullptr), -1);
    EXPECT_EQ(cProcess::System(""), -1);
    EXPECT_EQ(WEXITSTATUS(cProcess::System("exit 3")), 3);
}

TEST_F(Process, KillGivesNoReport)
{
    cProcess killed(&svc, &sm), marker(&svc, &sm);
    const int pid = killed.Exec("sleep", "30");
    killed.Kill();
    EXPECT_EQ(killed.GetPid(), 0);
    // By the time a later child's end is in, the killed one has been reaped.
    EXPECT_EQ(RunToEnd(marker, "/bin/sh", "-c 'sleep 0.3'").size(), 2u);
    EXPECT_EQ(For(pid).size(), 1u);  // only its 0x8001
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1) << "killed child left as a zombie";
}

TEST_F(Process, TwentyChildrenEndingTogetherAreAllReaped)
{
    std::vector<std::unique_ptr<cProcess>> procs;
    std::map<unsigned, unsigned> expected, ended;  // pid -> exit code
    for (unsigned i = 1; i <= 20; ++i) {
        procs.emplace_back(new cProcess(&svc, &sm));
        const int pid = procs.back()->Exec("/bin/sh", ("-c 'sleep 0.5; exit " + std::to_string(i) + "'").c_str());
        expected[static_cast<unsigned>(pid)] = i;
    }
    Pump([&] { return sm.got.size() >= 40; }, 60000);
    for (const cMsg& m : sm.got)
        if (m == 0x8002)
            ended[UInt(m, "pid")] = UInt(m, "code");
    EXPECT_EQ(ended, expected);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left unreaped";
}

TEST_F(Process, ParentDescriptorsDoNotLeakIntoTheChild)
{
    const int fd = ::open((dir + "/marker-file").c_str(), O_CREAT | O_RDWR, 0600);  // no O_CLOEXEC
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    cProcess p(&svc, &sm);
    const std::string out = dir + "/fds";
    // ls lists its own descriptor table with the targets.
    std::vector<cMsg> r = RunToEnd(p, "/bin/sh", "-c 'exec ls -l /proc/self/fd/ > " + out + "'");
    ASSERT_EQ(r.size(), 2u);
    const std::string listing = ReadFile(out);
    EXPECT_NE(listing.find(out), std::string::npos) << listing;
    EXPECT_EQ(listing.find("marker-file"), std::string::npos) << listing;
    EXPECT_EQ(listing.find("socket:"), std::string::npos) << listing;
    ::close(fd), ::close(pair[0]), ::close(pair[1]);
}
