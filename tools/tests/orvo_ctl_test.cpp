// orvo-ctl as a real process: journals written by the library (and damaged on
// purpose), their human and JSON output and the exit statuses.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include <orvo_blockfile.h>
#include <orvo_eeprom.h>
#include <orvo_record.h>
#include <orvo_time.h>

#include "../../tests/shm_isolation.h"
#include "../../tests/test_helpers.h"
#include "record_json.h"
#include "scm_process.h"

using namespace orvo;
using orvo_tools::tJson;

namespace {

struct tRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs orvo-ctl with args (shell words, already quoted where needed).
tRun Ctl(const std::string& args)
{
    const char* bin = std::getenv("ORVO_CTL_BIN");
    std::string errFile = "/tmp/orvo_ctl_test_err." + std::to_string(getpid());
    std::string cmd = std::string("timeout 60 '") + (bin ? bin : "orvo-ctl") + "' " + args + " 2>" + errFile;
    tRun r;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.err = Slurp(errFile);
    unlink(errFile.c_str());
    return r;
}

tJson Parsed(const std::string& text)
{
    tJson j;
    std::string error;
    EXPECT_TRUE(orvo_tools::ParseJson(text, j, error)) << error << "\n" << text;
    return j;
}

class OrvoCtlJournal : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/orvo_ctl_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_Dir = tmpl;
        m_File = m_Dir + "/journal.rec";
        cRecordFile file;
        ASSERT_TRUE(file.Open(m_File, true));
        for (int i = 0; i < 5; ++i) {
            cRecord r;
            r.AppendTextPar("meter", "m1");
            r.AppendUIntPar("value", 1000 + i);
            cTime t;
            t.FromSeconds(1700000000UL + 3600UL * i, true);
            ASSERT_EQ(file.Append(r, t, 100 + i), BLOCKFILE_OK);
            m_BlockSize = 26 + static_cast<long>(r.GetSize());
        }
        file.Close();
    }
    void TearDown() override { std::system(("rm -rf '" + m_Dir + "'").c_str()); }

    // Overwrites bytes of block index's header (offset 0..25) or payload (26..).
    void Damage(int index, long offset, const std::string& bytes)
    {
        FILE* f = std::fopen(m_File.c_str(), "r+b");
        ASSERT_NE(f, nullptr);
        std::fseek(f, 17 + index * m_BlockSize + offset, SEEK_SET);
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }

    std::string m_Dir, m_File;
    long m_BlockSize = 0;
};

TEST_F(OrvoCtlJournal, PrintsEveryBlockAsTextAndLosslessJson)
{
    tRun human = Ctl("journal " + m_File);
    EXPECT_EQ(human.status, 0) << human.err;
    EXPECT_NE(human.out.find("INDEX"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("value=1000"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("value=1004"), std::string::npos) << human.out;

    tJson j = Parsed(Ctl("journal " + m_File + " --json").out);
    ASSERT_EQ(j["blocks"].size(), 5u);
    EXPECT_EQ(j["blocks"][3]["bstime"], 103);
    EXPECT_EQ(j["blocks"][3]["ctime"], (1700000000LL + 3 * 3600) * 1000);
    cRecord back;
    std::string error;
    ASSERT_TRUE(orvo_tools::JsonToRecord(j["blocks"][3]["record"], back, error)) << error;
    EXPECT_EQ(std::string(back.GetFirstPar("value").GetText()), "1003");
}

TEST_F(OrvoCtlJournal, TailAndSinceSelectBlocks)
{
    struct { std::string args; std::vector<int> bstimes; } cases[] = {
        {"--tail 2", {103, 104}},
        {"--tail 0", {}},
        {"--tail 99", {100, 101, 102, 103, 104}},
        {"--since @" + std::to_string(1700000000 + 2 * 3600), {102, 103, 104}},
        {"--tail 1 --since @1700000000", {104}},
    };
    for (const auto& c : cases) {
        tRun r = Ctl("journal " + m_File + " --json " + c.args);
        ASSERT_EQ(r.status, 0) << c.args << r.err;
        tJson j = Parsed(r.out);
        std::vector<int> got;
        for (const auto& b : j["blocks"])
            got.push_back(b["bstime"].get<int>());
        EXPECT_EQ(got, c.bstimes) << c.args;
    }
}

TEST_F(OrvoCtlJournal, VerifyNamesTheDamagedBlockAndFails)
{
    tRun ok = Ctl("journal --verify " + m_File);
    EXPECT_EQ(ok.status, 0) << ok.out << ok.err;

    Damage(2, 26 + 3, "\xAA\x55");  // payload of block 2: its CRC no longer matches
    tRun bad = Ctl("journal --verify " + m_File);
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("block 2"), std::string::npos) << bad.out;
    EXPECT_EQ(bad.out.find("block 1:"), std::string::npos) << bad.out;

    tJson j = Parsed(Ctl("journal --verify --json " + m_File).out);
    EXPECT_EQ(j["ok"], false);
    ASSERT_EQ(j["damage"].size(), 1u);
    EXPECT_NE(j["damage"][0].get<std::string>().find("block 2"), std::string::npos);

    // Reading stays possible and flags the block; the file itself is unchanged.
    std::string before = Slurp(m_File);
    tRun read = Ctl("journal " + m_File);
    EXPECT_EQ(read.status, 1);
    EXPECT_NE(read.out.find("value=1004"), std::string::npos) << read.out;
    EXPECT_EQ(Slurp(m_File), before);
}

TEST_F(OrvoCtlJournal, VerifyReportsABrokenChain)
{
    Damage(3, 0, std::string(26, '\0'));  // a zeroed block header ends the chain
    tRun r = Ctl("journal --verify " + m_File);
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_NE(r.out.find("block 3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("3 readable blocks"), std::string::npos) << r.out;
}

// An EEPROM image written through the library, read back item by item; a
// damaged item is named and makes the command fail.
TEST(OrvoCtlEeprom, DecodesItemsAndFlagsBadCrc)
{
    std::string image = "/tmp/orvo_ctl_test_eeprom." + std::to_string(getpid());
    {
        std::ofstream out(image, std::ios::binary);
        out << std::string(512, '\xFF');
    }
    setenv("ORVO_EEPROM_DEVICE", image.c_str(), 1);
    {
        cEEPROM_Pattern pattern;
        ASSERT_TRUE(pattern.setVersion(3));
        ASSERT_TRUE(pattern.setBootCount(70000));
        ASSERT_TRUE(pattern.setSerialNumber("SN-0042"));
        ASSERT_TRUE(pattern.setMacEth0("00:1a:2B:3c:4D:5e"));
    }
    tRun human = Ctl("eeprom");  // the device named by ORVO_EEPROM_DEVICE
    EXPECT_NE(human.out.find("SN-0042"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("70000"), std::string::npos) << human.out;
    EXPECT_EQ(human.status, 1) << "never-written items carry no valid CRC";

    tJson j = Parsed(Ctl("eeprom --json " + image).out);
    std::map<std::string, tJson> items;
    for (const auto& it : j["items"])
        items[it["item"].get<std::string>()] = it;
    EXPECT_EQ(items["version"]["value"], 3);
    EXPECT_EQ(items["version"]["crc_ok"], true);
    EXPECT_EQ(items["bootcount"]["value"], 70000);
    EXPECT_EQ(items["mac-eth0"]["value"], "00:1a:2B:3c:4D:5e");
    EXPECT_EQ(items["serial-number"]["crc_ok"], true);
    EXPECT_EQ(items["oem"]["crc_ok"], false);

    {
        FILE* f = std::fopen(image.c_str(), "r+b");
        ASSERT_NE(f, nullptr);
        std::fseek(f, 31, SEEK_SET);  // first byte of the serial number
        std::fputc('X', f);
        std::fclose(f);
    }
    j = Parsed(Ctl("eeprom --json " + image).out);
    for (const auto& it : j["items"]) {
        if (it["item"] == "serial-number") {
            EXPECT_EQ(it["crc_ok"], false);
            EXPECT_EQ(it["value"], "XN-0042");
        }
    }
    EXPECT_EQ(Ctl("eeprom /nonexistent/eeprom").status, 1);
    unsetenv("ORVO_EEPROM_DEVICE");
    unlink(image.c_str());
}

// orvo-scm starting the example meter service: info by name through the SCM
// and by host:port, and the failures an operator meets.
TEST(OrvoCtlServices, ListAndInfoByNameAndAddress)
{
    const std::string examples = orvo_test::EnvOr("ORVO_EXAMPLES_DIR", "examples");
    orvo_test::cScmTestDir dir;
    orvo_test::cScmProcess scm;
    ASSERT_TRUE(dir.StartScm(scm, R"({"services": {"meter": {"start": true, "command": ")" + examples +
                                      R"(/meter_service -scm-sap {scm-sap}"}}})"));
    ASSERT_GT(orvo_test::RegisteredPid(scm, "meter", 0), 0);
    const std::string scmAddr = "127.0.0.1:" + std::to_string(scm.Port());

    tRun human = Ctl("info meter --scm " + scmAddr);
    ASSERT_EQ(human.status, 0) << human.err;
    EXPECT_NE(human.out.find("name:       meter"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("UnitORVO"), std::string::npos) << human.out;
    EXPECT_NE(human.out.find("scm-sap <text>"), std::string::npos) << human.out;

    tRun byAddr = Ctl("--json info " + scmAddr);  // orvo-scm answers for itself
    ASSERT_EQ(byAddr.status, 0) << byAddr.err;
    cRecord info;
    std::string error;
    ASSERT_TRUE(orvo_tools::JsonToRecord(Parsed(byAddr.out)["record"], info, error)) << error;
    EXPECT_EQ(std::string(info.GetFirstPar("name").GetText()), "orvo-scm");
    EXPECT_EQ(std::string(info.GetFirstPar("sap").GetText()), scmAddr);

    tRun list = Ctl("list --scm " + scmAddr);
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_NE(list.out.find("NAME"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("connected"), std::string::npos) << list.out;
    tJson listed = Parsed(Ctl("list --json --scm " + scmAddr).out);
    cRecord services;
    ASSERT_TRUE(orvo_tools::JsonToRecord(listed["record"], services, error)) << error;
    ASSERT_EQ(services.GetParCount("service"), 1) << listed.dump();
    cRecord meter;
    services.GetFirstPar("service").GetRecord(meter);
    EXPECT_EQ(meter.GetFirstPar("name").GetString(), "meter");
    EXPECT_EQ(meter.GetFirstPar("state").GetString(), "connected");
    EXPECT_EQ(meter.GetFirstPar("pid").GetString(), std::to_string(orvo_test::RegisteredPid(scm, "meter", 0)));
    EXPECT_NE(list.out.find(meter.GetFirstPar("sap").GetString()), std::string::npos) << list.out;

    tRun config = Ctl("config meter --scm " + scmAddr);
    ASSERT_EQ(config.status, 0) << config.err;
    EXPECT_NE(config.out.find("scm-sap <text>"), std::string::npos) << config.out;
    tJson wdt = Parsed(Ctl("config meter system.wdt --json --scm " + scmAddr).out);
    ASSERT_EQ(wdt.size(), 1u) << wdt.dump();
    EXPECT_EQ(wdt[0]["name"], "wdt");
    EXPECT_EQ(Ctl("config meter no.such.path --scm " + scmAddr).status, 1);

    // A request with a record, answered with the same tid.
    tRun sent = Ctl("send " + scmAddr + " 0x10018 --wait --json "
                    "'[{\"name\": \"service-name\", \"type\": \"text\", \"value\": \"meter\"}]'");
    ASSERT_EQ(sent.status, 0) << sent.err;
    tJson answer = Parsed(sent.out);
    EXPECT_EQ(answer["type"], "0x10019");
    cRecord found;
    ASSERT_TRUE(orvo_tools::JsonToRecord(answer["record"], found, error)) << error;
    EXPECT_EQ(found.GetFirstParByPath("service.name", ".").GetString(), "meter");
    tRun sentHuman = Ctl("send meter 0x7006 --wait --scm " + scmAddr);
    EXPECT_EQ(sentHuman.status, 0) << sentHuman.err;
    EXPECT_NE(sentHuman.out.find("answer 0x7007"), std::string::npos) << sentHuman.out;
    EXPECT_EQ(Ctl("send " + scmAddr + " 0x10018 '[{\"name\": '").status, 2);
    EXPECT_EQ(Ctl("send " + scmAddr + " 0x10018 '{\"a\": 1}'").status, 2);

    struct { std::string args; std::string message; } failures[] = {
        {"send nosuch 0x7006 --wait --scm " + scmAddr, "unknown service 'nosuch'"},
        {"config nosuch --scm " + scmAddr, "unknown service 'nosuch'"},
        {"list --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"info nosuch --scm " + scmAddr, "unknown service 'nosuch'"},
        // The SCM down: every command that names a service asks it first.
        {"info meter --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"config meter --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"config meter set tick-ms=1 --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"trace meter meter=INFO --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"snoop meter --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
        {"send meter 0x7006 --wait --scm 127.0.0.1:1", "SCM at 127.0.0.1:1 is not reachable"},
    };
    for (const auto& f : failures) {
        tRun r = Ctl(f.args);
        EXPECT_EQ(r.status, 1) << f.args;
        EXPECT_NE(r.err.find(f.message), std::string::npos) << f.args << ": " << r.err;
    }
    EXPECT_EQ(scm.Terminate(10000), 0);
}

// A peer that accepts connections and never answers: a clear time-out.
TEST(OrvoCtlServices, SilentPeerTimesOut)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(fd, 64), 0);   // never accepted: room for every attempt
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len), 0);
    const std::string addr = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    tRun service = Ctl("info " + addr + " --timeout 300");
    EXPECT_EQ(service.status, 1);
    EXPECT_NE(service.err.find("did not answer within 300 ms"), std::string::npos) << service.err;
    for (const char* command : {"trace ", "snoop "}) {
        tRun r = Ctl(command + addr + " --timeout 300");
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_NE(r.err.find("did not answer within 300 ms"), std::string::npos) << command << r.err;
    }
    tRun setting = Ctl("config meter set a=1 --timeout 300 --scm " + addr);
    EXPECT_EQ(setting.status, 1);
    EXPECT_NE(setting.err.find("SCM at " + addr + " did not answer"), std::string::npos) << setting.err;
    tRun listing = Ctl("list --timeout 300 --scm " + addr);
    EXPECT_EQ(listing.status, 1);
    EXPECT_NE(listing.err.find("did not answer within 300 ms"), std::string::npos) << listing.err;
    tRun viaScm = Ctl("info meter --timeout 300 --scm " + addr);
    EXPECT_EQ(viaScm.status, 1);
    EXPECT_NE(viaScm.err.find("SCM at " + addr + " did not answer"), std::string::npos) << viaScm.err;
    close(fd);
}

// orvo-ctl left running in the background (trace --follow, snoop).
bool StartCtl(orvo_test::cScmProcess& process, const std::vector<std::string>& args)
{
    std::vector<std::string> words = {orvo_test::EnvOr("ORVO_CTL_BIN", "orvo-ctl")};
    words.insert(words.end(), args.begin(), args.end());
    return process.Spawn(words);
}

// The JSON objects printed one per line (other lines skipped).
std::vector<tJson> JsonLines(const std::string& text)
{
    std::vector<tJson> lines;
    size_t from = 0;
    for (size_t nl; (nl = text.find('\n', from)) != std::string::npos; from = nl + 1) {
        tJson j;
        std::string error;
        if (text[from] == '{' && orvo_tools::ParseJson(text.substr(from, nl - from), j, error))
            lines.push_back(j);
    }
    return lines;
}

// --follow prints a block appended while it runs, then ends on Ctrl-C.
TEST_F(OrvoCtlJournal, FollowPrintsABlockAppendedWhileItRuns)
{
    orvo_test::cScmProcess follow;
    ASSERT_TRUE(StartCtl(follow, {"journal", m_File, "--follow"}));
    ASSERT_TRUE(follow.WaitFor("value=1004", 20000)) << follow.Output();
    {
        cRecordFile file;
        ASSERT_TRUE(file.Open(m_File, false));
        cRecord r;
        r.AppendTextPar("meter", "m1");
        r.AppendUIntPar("value", 2000);
        cTime t;
        t.FromSeconds(1700000000UL + 3600UL * 5, true);
        ASSERT_EQ(file.Append(r, t, 105), BLOCKFILE_OK);
        file.Close();
    }
    // Looked for every 300 ms.
    EXPECT_TRUE(follow.WaitFor("value=2000", 10000)) << follow.Output();
    EXPECT_EQ(follow.Interrupt(20000), 0) << follow.Output();
    const std::string out = follow.Output();
    EXPECT_EQ(out.find("value=2000"), out.rfind("value=2000")) << "printed once: " << out;
    EXPECT_LT(out.find("value=1004"), out.find("value=2000")) << out;
}

// orvo-ctl run for each of commands in a child with private IPC and mount
// namespaces and an empty /dev/shm (tests/shm_isolation.h, as
// tests/sharedmem_test.cpp does): the status word it reads and changes is
// the child's own, not the machine's one that other runs share, so no
// RESOURCE_LOCK with sharedmem_test is needed. False when the system
// refuses the namespaces.
bool CtlIsolated(const std::vector<std::string>& commands, std::vector<tRun>& runs)
{
    const std::string results = "/tmp/orvo_ctl_test_isolated." + std::to_string(getpid());
    const int rc = orvo_test::RunInChild(
        [&] {
            if (!orvo_test::IsolateSharedMemory())
                return 77;
            tJson all = tJson::array();
            for (const std::string& c : commands) {
                const tRun r = Ctl(c);
                all.push_back({{"status", r.status}, {"out", r.out}, {"err", r.err}});
            }
            std::ofstream(results) << all.dump();
            return 0;
        },
        nullptr, false, 120);
    if (rc != 0) {
        unlink(results.c_str());
        EXPECT_EQ(rc, 77) << "the isolated child failed";
        return false;
    }
    tJson all = Parsed(Slurp(results));
    unlink(results.c_str());
    for (const tJson& r : all)
        runs.push_back(tRun{r["status"].get<int>(), r["out"].get<std::string>(), r["err"].get<std::string>()});
    return true;
}

bool HasBit(const tJson& statusw, int bit)
{
    bool listed = false;
    for (const tJson& b : statusw["bits"])
        listed = listed || b.get<int>() == bit;
    EXPECT_EQ(listed, (statusw["statusw"].get<unsigned long long>() >> bit & 1) != 0) << statusw.dump();
    return listed;
}

// statusw get, set and clear, in human form and as JSON (parsed back).
TEST(OrvoCtl, StatuswGetSetClear)
{
    const std::vector<std::string> commands = {"statusw", "statusw set 42", "statusw get --json",
                                               "statusw clear 42 --json", "statusw get"};
    std::vector<tRun> runs;
    const bool isolated = CtlIsolated(commands, runs);
    if (!isolated) {
        // No namespaces here: the machine's status word, bit 42 put back as
        // it was afterwards.
        const tRun before = Ctl("statusw --json");
        ASSERT_EQ(before.status, 0) << before.err;
        const bool wasSet = HasBit(Parsed(before.out), 42);
        for (const std::string& c : commands)
            runs.push_back(Ctl(c));
        if (wasSet) {
            EXPECT_EQ(Ctl("statusw set 42").status, 0);
        }
    }
    ASSERT_EQ(runs.size(), commands.size());
    for (size_t i = 0; i < commands.size(); ++i)
        EXPECT_EQ(runs[i].status, 0) << commands[i] << ": " << runs[i].err;

    const tJson set = Parsed(runs[2].out);
    const tJson cleared = Parsed(runs[3].out);
    EXPECT_TRUE(HasBit(set, 42)) << runs[2].out;
    EXPECT_FALSE(HasBit(cleared, 42)) << runs[3].out;
    if (isolated) {
        // A fresh cell: nothing else set.
        EXPECT_EQ(runs[0].out, "statusw 0x0000000000000000\n");
        EXPECT_EQ(runs[1].out, "statusw 0x0000040000000000  bits: 42\n");
        EXPECT_EQ(set["statusw"].get<unsigned long long>(), 1ULL << 42);
        EXPECT_EQ(set["bits"], tJson::array({42}));
        EXPECT_EQ(cleared["statusw"].get<unsigned long long>(), 0u);
        EXPECT_TRUE(cleared["bits"].empty());
        EXPECT_EQ(runs[4].out, "statusw 0x0000000000000000\n");
    } else {
        EXPECT_NE(runs[1].out.find(" 42"), std::string::npos) << runs[1].out;
        EXPECT_EQ(runs[4].out.find(" 42"), std::string::npos) << runs[4].out;
    }
}

std::string ExamplesScmJson(const std::string& services)
{
    return R"({"services": {)" + services + "}}";
}

std::string MeterEntry()
{
    const std::string examples = orvo_test::EnvOr("ORVO_EXAMPLES_DIR", "examples");
    return R"("meter": {"start": true, "command": ")" + examples +
           R"(/meter_service -scm-sap {scm-sap}", "config": [{"name": "tick-ms", "type": "uint", "value": 200}]})";
}

// A trace unit switched on while the operator changes the configuration: the
// service's own trace line about the change arrives live, and Ctrl-C leaves
// every unit switched off.
TEST(OrvoCtlServices, TraceFollowsAConfigurationChange)
{
    orvo_test::cScmTestDir dir;
    orvo_test::cScmProcess scm;
    ASSERT_TRUE(dir.StartScm(scm, ExamplesScmJson(MeterEntry())));
    ASSERT_GT(orvo_test::RegisteredPid(scm, "meter", 0), 0);
    ASSERT_TRUE(scm.WaitFor("'meter' ready", 20000));
    const std::string scmAddr = "127.0.0.1:" + std::to_string(scm.Port());

    orvo_test::cScmProcess trace;
    ASSERT_TRUE(StartCtl(trace, {"trace", "meter", "meter=DEBUG", "--follow", "--json", "--scm", scmAddr}));
    ASSERT_TRUE(trace.WaitFor("\"units\"", 20000)) << trace.Output();
    tJson units = JsonLines(trace.Output()).at(0)["units"];
    EXPECT_EQ(units["meter"], "DEBUG") << units.dump();

    tRun set = Ctl("config meter set tick-ms=300 --json --scm " + scmAddr);
    ASSERT_EQ(set.status, 0) << set.err;
    tJson change = Parsed(set.out);
    EXPECT_EQ(change["path"], "tick-ms");
    EXPECT_EQ(change["old"]["value"], 200);
    EXPECT_EQ(change["new"]["value"], 300);
    EXPECT_EQ(change["new"]["type"], "uint");

    ASSERT_TRUE(trace.WaitFor("new configuration, tick 300 ms", 20000)) << trace.Output();
    EXPECT_EQ(trace.Interrupt(20000), 0) << trace.Output();
    bool seen = false;
    std::string serviceId;
    for (const tJson& line : JsonLines(trace.Output()))
        if (line.contains("txt") && line["txt"] == "new configuration, tick 300 ms") {
            seen = true;
            EXPECT_EQ(line["unit"], "meter");
            EXPECT_EQ(line["level"], "INFO");
            EXPECT_EQ(line["service"], "meter");
            serviceId = line["service-id"];
            EXPECT_GT(line["time"].get<long long>(), 1700000000000LL);
        }
    EXPECT_TRUE(seen) << trace.Output();

    // The same in human form: the unit table, then each trace line as local
    // time, unit, level and text; Ctrl-C says that the units are off again.
    orvo_test::cScmProcess human;
    ASSERT_TRUE(StartCtl(human, {"trace", "meter", "meter=INFO", "--follow", "--scm", scmAddr}));
    ASSERT_TRUE(human.WaitFor("\nmeter" + std::string(20, ' ') + "INFO\n", 20000)) << human.Output();
    EXPECT_EQ(human.Output().rfind("UNIT" + std::string(21, ' ') + "LEVEL\n", 0), 0u) << human.Output();
    ASSERT_EQ(Ctl("config meter set tick-ms=250 --scm " + scmAddr).status, 0);
    ASSERT_TRUE(human.WaitFor("new configuration, tick 250 ms\n", 20000)) << human.Output();
    EXPECT_EQ(human.Interrupt(20000), 0) << human.Output();
    const std::regex traceLine(
        "\n\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} meter {9}INFO {5}new configuration, tick 250 ms\n");
    EXPECT_TRUE(std::regex_search(human.Output(), traceLine)) << human.Output();
    EXPECT_NE(human.Output().find("orvo-ctl: trace units of "), std::string::npos) << human.Output();
    EXPECT_NE(human.Output().find(" switched off"), std::string::npos) << human.Output();

    tJson info = Parsed(Ctl("info meter --json --scm " + scmAddr).out);
    cRecord record, unitList;
    std::string error;
    ASSERT_TRUE(orvo_tools::JsonToRecord(info["record"], record, error)) << error;
    record.GetFirstPar("units", RECORD_RECORD, RECORD_SEL_TYPE).GetRecord(unitList);
    EXPECT_EQ(unitList.GetFirstParByPath("meter.level", ".").GetString(), "NONE") << unitList.ToString();
    EXPECT_EQ(record.GetFirstPar("service-id").GetString(), serviceId);
    EXPECT_EQ(record.GetFirstPar("config").IsValid(), true);
    EXPECT_EQ(Parsed(Ctl("config meter tick-ms --json --scm " + scmAddr).out)[0]["value"], 250);

    tRun nested = Ctl("config meter set system.wdt-failures=5 --scm " + scmAddr);
    EXPECT_EQ(nested.status, 0) << nested.err;
    EXPECT_EQ(nested.out, "system.wdt-failures: 3 -> 5\n");

    struct { std::string args; int status; std::string message; } failures[] = {
        {"config meter set no.such=1", 1, "no configuration element 'no.such'"},
        {"config meter set tick-ms=fast", 2, "wants an unsigned number"},
        {"config meter set tick-ms=-1", 2, "wants an unsigned number"},
        {"config meter set system=1", 2, "cannot be set"},
        {"config meter set =1", 2, "PATH=VALUE"},
        {"config nosuch set tick-ms=1", 1, "nosuch"},
        {"trace meter meter=LOUD", 2, "not UNIT=LEVEL"},
        {"trace nosuch meter=INFO", 1, "unknown service 'nosuch'"},
    };
    for (const auto& f : failures) {
        tRun r = Ctl(f.args + " --scm " + scmAddr);
        EXPECT_EQ(r.status, f.status) << f.args << ": " << r.err;
        EXPECT_NE(r.err.find(f.message), std::string::npos) << f.args << ": " << r.err;
    }
    EXPECT_EQ(scm.Terminate(10000), 0);
}

// The meter reader's requests and the meter's readings, seen from the
// meter: both directions, with the tid that pairs them, filtered by type.
TEST(OrvoCtlServices, SnoopShowsBothDirectionsFilteredByType)
{
    const std::string examples = orvo_test::EnvOr("ORVO_EXAMPLES_DIR", "examples");
    orvo_test::cScmTestDir dir;
    orvo_test::cScmProcess scm;
    ASSERT_TRUE(dir.StartScm(scm, ExamplesScmJson(MeterEntry() + R"(, "reader": {"start": true, "command": ")" +
                                                   examples + R"(/meter_reader -scm-sap {scm-sap}",
                                                   "config": [{"name": "read-ms", "type": "uint", "value": 200}]})")));
    ASSERT_GT(orvo_test::RegisteredPid(scm, "meter", 0), 0);
    const std::string scmAddr = "127.0.0.1:" + std::to_string(scm.Port());
    const std::string pcap = "/tmp/orvo_ctl_test_snoop." + std::to_string(getpid()) + ".pcap";

    orvo_test::cScmProcess snoop;
    ASSERT_TRUE(StartCtl(snoop, {"snoop", "meter", "--type", "0x20002", "--type", "131073", "--json", "--pcap",
                                 pcap, "--scm", scmAddr}));
    size_t at = 0;
    ASSERT_TRUE(snoop.WaitFor("\"0x20002\"", 20000)) << snoop.Output();
    ASSERT_TRUE(snoop.WaitFor("\"0x20002\"", 20000, snoop.Output().find("\"0x20002\"") + 1, &at))
        << snoop.Output();
    EXPECT_EQ(snoop.Interrupt(20000), 0) << snoop.Output();

    std::map<std::string, std::string> requests;   // tid -> direction of the 0x20001
    int readings = 0;
    for (const tJson& line : JsonLines(snoop.Output())) {
        const std::string type = line["type"];
        ASSERT_TRUE(type == "0x20001" || type == "0x20002") << line.dump();
        EXPECT_EQ(line["peer"], "reader") << line.dump();
        EXPECT_EQ(line["type_name"], type == "0x20001" ? "0x020001" : "0x020002");   // not in the catalogue
        if (type == "0x20001") {
            requests[line["tid"]] = line["dir"];
            continue;
        }
        EXPECT_EQ(line["dir"], "sent") << line.dump();
        cRecord r;
        std::string error;
        ASSERT_TRUE(orvo_tools::JsonToRecord(line["record"], r, error)) << error;
        EXPECT_EQ(r.GetFirstPar("register").GetUInt(), 180u);
        if (requests.count(line["tid"]) != 0) {
            EXPECT_EQ(requests[line["tid"]], "received");
            ++readings;
        }
    }
    EXPECT_GE(readings, 1) << snoop.Output();

    const std::string capture = Slurp(pcap);
    ASSERT_GT(capture.size(), 24u);
    EXPECT_EQ(capture.substr(0, 4), std::string("\xD4\xC3\xB2\xA1", 4));
    EXPECT_EQ(capture[20], 101);   // LINKTYPE_RAW
    unlink(pcap.c_str());

    tRun gone = Ctl("snoop 127.0.0.1:1");
    EXPECT_EQ(gone.status, 1);
    EXPECT_NE(gone.err.find("cannot connect to 127.0.0.1:1"), std::string::npos) << gone.err;
    EXPECT_EQ(scm.Terminate(10000), 0);
}

// The completion script offers the commands and each command's words.
TEST(OrvoCtl, BashCompletion)
{
    const char* script = std::getenv("ORVO_CTL_COMPLETION");
    ASSERT_NE(script, nullptr);
    if (access("/usr/share/bash-completion/bash_completion", R_OK) != 0)
        GTEST_SKIP() << "bash-completion not installed";
    struct { std::string line; std::string want; } cases[] = {
        {"orvo-ctl jo", "journal"},
        {"orvo-ctl statusw ", "get set clear --json --help"},
        {"orvo-ctl journal f --v", "--verify"},
        {"orvo-ctl send x 1 --w", "--wait"},
        {"orvo-ctl sn", "snoop"},
        {"orvo-ctl snoop x --p", "--pcap"},
        {"orvo-ctl trace x --f", "--follow"},
    };
    for (const auto& c : cases) {
        std::string cmd = "bash -c 'source /usr/share/bash-completion/bash_completion; source " +
                          std::string(script) + "; COMP_LINE=\"" + c.line +
                          "\"; read -ra COMP_WORDS <<< \"$COMP_LINE\"; "
                          "[[ $COMP_LINE == *\" \" ]] && COMP_WORDS+=(\"\"); "
                          "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMP_POINT=${#COMP_LINE}; "
                          "_orvo_ctl; echo \"${COMPREPLY[*]}\"'";
        FILE* p = popen(cmd.c_str(), "r");
        ASSERT_NE(p, nullptr);
        char buf[512] = {0};
        size_t n = fread(buf, 1, sizeof buf - 1, p);
        pclose(p);
        EXPECT_EQ(std::string(buf, n), c.want + "\n") << c.line;
    }
}

struct tStatusCase {
    std::string args;
    int status;
};

// Exit statuses; a usage error (2) names the command on standard error.
void ExpectStatuses(const std::vector<tStatusCase>& cases)
{
    for (const auto& c : cases) {
        tRun r = Ctl(c.args);
        EXPECT_EQ(r.status, c.status) << "orvo-ctl " << c.args << "\n" << r.err;
        if (c.status == 2) {
            EXPECT_NE(r.err.find("orvo-ctl"), std::string::npos) << c.args;
        }
    }
}

TEST(OrvoCtl, UsageErrorsAndMissingFiles)
{
    ExpectStatuses({
        {"", 2},
        {"nosuchcommand", 2},
        {"journal", 2},
        {"journal /tmp/x --tail", 2},
        {"journal /tmp/x --tail abc", 2},
        {"journal /tmp/x --since yesterday", 2},
        {"journal /tmp/x --bogus", 2},
        {"journal /nonexistent/orvo_ctl_test.rec", 1},
        {"--help", 0},
        {"journal --help", 0},
        {"--version", 0},
        {"eeprom a b", 2},
        {"eeprom --bogus", 2},
        {"statusw set", 2},
        {"statusw set 64", 2},
        {"statusw flip 1", 2},
        {"statusw --help", 0},
    });
}

// Caught before any connection is made.
TEST(OrvoCtl, UsageErrorsOfServiceCommands)
{
    ExpectStatuses({
        {"info", 2},
        {"list extra", 2},
        {"send", 2},
        {"config", 2},
        {"config a b c", 2},
        {"config --help", 0},
        {"send x", 2},
        {"send x y", 2},
        {"send x 1 --bogus", 2},
        {"send --help", 0},
        {"list --help", 0},
        {"info a b", 2},
        {"info x --timeout", 2},
        {"info x --timeout 0", 2},
        {"info x --bogus", 2},
        {"info --help", 0},
        {"trace", 2},
        {"trace x --bogus", 2},
        {"trace x NOEQUALS", 2},
        {"trace --help", 0},
        {"snoop", 2},
        {"snoop a b", 2},
        {"snoop x --type", 2},
        {"snoop x --type abc", 2},
        {"snoop x --pcap", 2},
        {"snoop --help", 0},
        {"config x set", 2},
        {"config x set a=1 b=2", 2},
    });
}

}  // namespace
