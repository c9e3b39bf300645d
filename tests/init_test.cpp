// Start-up, command line and interface look-up: orvoParseArgs on the
// documented command lines, the help text of a child process, orvoInit's
// configuration, GetIfConfByName on the loopback interface and orvoInit in a
// private network namespace without any eth* interface.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "../source/orvo_hooks.h"
#include "orvo_init.h"
#include "orvo_record.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::RunInChild;

namespace {

tArg kTable[] = {
    {nullptr, "#Options", nullptr, nullptr},
    {"-port", "listening port", "4000", OnArg_Int},
    {"-v", "verbose", nullptr, OnArg_Bool},
    {"-w", "word", "abc", OnArg_Text},
    {"-b", "bool", "true", OnArg_Bool},
    {"-log-stdout", "traces on stdout", nullptr, OnArg_Bool},
    {nullptr, "#Limits", "7", nullptr},
    {nullptr, "indented", "9", nullptr},
    {nullptr, "plain line", nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr}};

void Parse(std::vector<const char*> words)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    GetConfig()->DeletePar("trace");
    orvoParseArgs(kTable, static_cast<int>(words.size()), const_cast<char**>(words.data()));
}

}  // namespace

const std::string gExeNameAtLoad = GetExeName();

TEST(Init, ProcessUtilities)
{
    EXPECT_EQ(gExeNameAtLoad, "unknown");
    EXPECT_STREQ(GetOrvoVersion(), "3.20");
    EXPECT_EQ(GetPid(), getpid());
    const char* names[][2] = {{"/usr/bin/my.service", "my"}, {"./_scm", "scm"}, {"a.b.c", "a"},
                              {"/x/.hidden", ""}, {"/", ""}, {"C:\\svc\\mgr.exe", "mgr"},
                              {"plain", "plain"}};
    for (const auto& n : names) {
        Parse({n[0]});
        EXPECT_EQ(GetExeName(), n[1]) << n[0];
    }
}

TEST(Init, CommandLines)
{
    // The indented form shows type, the flag 32 ("[marked]") and order.
    Parse({"svc", "-port", "5", "file1", "-v", "-w", "x", "file2"});
    EXPECT_EQ(GetConfig()->ToString2(),
              "b <bool> =  [marked]true\n"
              "port <sint> =  [marked]5 (0x5)\n"
              "arg_0 <text> =  [marked]file1\n"
              "v <bool> =  [marked]true\n"
              "w <text> =  [marked]x\n"
              "arg_1 <text> =  [marked]file2\n");
    // Defaults alone: an option without a default is absent. A value never
    // starts with "-"; unknown options eat their value; a bad bool keeps the
    // default; "-h" past the first word is just unknown.
    Parse({"svc", "-port", "-5", "-zz", "gone", "kept", "-b", "yes", "-w", "-h", "z", "-v", "0"});
    EXPECT_EQ(GetConfig()->ToString(), "{b=true, port=, arg_0=\"kept\", w=, v=false }");
    EXPECT_EQ(GetConfig()->GetFirstPar("port").GetType(RECORD_SEL_ALL), RECORD_FLAG_EMPTY | 32);

    cRecord r;
    OnArg_Bool(r, "f", "FALSE");
    OnArg_Bool(r, "n", nullptr);
    OnArg_Int(r, "i", "12abc");
    OnArg_Text(r, nullptr, "t");
    OnArg_Text(r, "e", "");
    OnArg_Int(r, "j", "x");
    EXPECT_EQ(r.ToString(), "{f=false, i=12, e=, j=0 }");
}

TEST(Init, LogStdoutSwitchesEveryUnit)
{
    cUnit unit("parsed", ERROR, OUTPUT_NONE);
    Parse({"svc", "-log-stdout"});
    for (const auto& entry : *mUnits)
        EXPECT_EQ(entry.second->GetOutput(), OUTPUT_STDOUT) << entry.first;
    for (const auto& entry : *mUnits)
        SetTraceOut(entry.second, OUTPUT_NONE);
    mUnits->erase("parsed");
}

TEST(Init, HelpPrintsTheTableAndExits)
{
    const std::string want =
        "Options\n"
        "  -port     \tlistening port (default=4000)\n"
        "  -v        \tverbose\n"
        "  -w        \tword (default=abc)\n"
        "  -b        \tbool (default=true)\n"
        "  -log-stdout\ttraces on stdout\n"
        "Limits (default=7)\n"
        "            \tindented (default=9)\n"
        "            \tplain line\n";
    for (const char* flag : {"-h", "-?"}) {
        std::string out;
        const int rc = RunInChild([flag] {
            const char* argv[] = {"svc", flag, "-port", "1"};
            orvoParseArgs(kTable, 4, const_cast<char**>(argv));
            return 3;   // not reached: help ends the process with 0
        }, &out);
        EXPECT_EQ(rc, 0) << flag;
        EXPECT_EQ(out, want) << flag;
    }
}

TEST(Init, InitBuildsConfiguration)
{
    GetConfig()->AppendTextPar("old", "x");
    static int calls = 0;
    hooks::ServiceInitGlobal = [] { ++calls; };
    orvoInit(WARNING, OUTPUT_SYSLOG, false);
    hooks::ServiceInitGlobal = nullptr;
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(GetConfig()->GetFirstPar("old").IsValid());
    EXPECT_TRUE(UnitORVO->GetObjName() == "orvo" && UnitDefault->GetObjName() == "default");
    EXPECT_EQ(UnitORVO->GetLevel(), WARNING);
    EXPECT_EQ(UnitORVO->GetOutput(), OUTPUT_SYSLOG);
    // One sub-record per unit, in the map's (name) order.
    EXPECT_EQ(GetConfig()->ToString2(),
              "trace <record> = \n"
              "   log-scm <bool> = true\n"
              "   default <record> = \n"
              "      trace-level <text> = ERROR\n"
              "   orvo <record> = \n"
              "      trace-level <text> = WARNING\n");
    SetTraceOut(UnitORVO, OUTPUT_NONE);
}

TEST(Init, InterfaceLookUp)
{
    tIfConf lo;
    lo.name = "lo";
    ASSERT_TRUE(GetIfConfByName(lo));
    EXPECT_EQ(lo.address.ToString(), "127.0.0.1:0");
    EXPECT_EQ(lo.netmask.GetIPString(), "255.0.0.0");

    // A failure reports through perror and leaves the look-up socket open.
    std::string err;
    const int rc = RunInChild([] {
        const int lowest = dup(0);   // the descriptor the look-up socket will get
        close(lowest);
        tIfConf none;
        none.name = "nosuchif0123456789";
        return !GetIfConfByName(none) && fcntl(lowest, F_GETFD) != -1 ? 0 : 1;
    }, &err, true);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(err, "ioctl(SIOCGIFADDR) : No such device\n");
}

TEST(Init, NoEthernetInterfaceIsTraced)
{
    std::string out;
    const int rc = RunInChild([] {
        if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            return 77;
        const char* argv[] = {"/bin/netless"};
        orvoParseArgs(nullptr, 1, const_cast<char**>(argv));
        orvoInit(ERROR, OUTPUT_STDOUT, true);
        return 0;
    }, &out, true);
    if (rc == 77)
        GTEST_SKIP() << "no private network namespace here (unshare refused)";
    ASSERT_EQ(rc, 0);
    EXPECT_NE(out.find("ioctl(SIOCGIFADDR) : No such device\n"), std::string::npos) << out;
    EXPECT_NE(out.find(") netless |orvo         [ERROR     ]: Can't resolved ifconfig from eth3\n"),
              std::string::npos) << out;
}

TEST(Init, DeinitTearsDown)
{
    orvoInit(ERROR, OUTPUT_NONE, false);
    const std::map<std::string, cUnit*> saved = *mUnits;
    EXPECT_TRUE(orvoDeinit());
    EXPECT_EQ(mUnits, nullptr);
    EXPECT_TRUE(GetConfig()->IsEmpty());
    cUnit restore("restore", NONE, OUTPUT_NONE);
    *mUnits = saved;
}
